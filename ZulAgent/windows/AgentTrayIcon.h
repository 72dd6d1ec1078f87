#pragma once

#include <QObject>
#include <functional>
#include <string>

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace zul {

// The agent in the desktop's status area, where it offers one: the icon,
// whether Velto runs or is paused and which phone is connected, and a menu to
// disconnect that phone, pause or resume, open the setup window and quit. GUI
// thread only.
class AgentTrayIcon : public QObject {
 public:
  struct Actions {
    std::function<void()> disconnect;
    std::function<void(bool paused)> pause;
    std::function<void()> openWindow;
    std::function<void()> quit;  // the agent stops and its windows close
  };

  // Whether the desktop has a status area for it.
  static bool available();

  // Starts paused or not, as the agent does.
  AgentTrayIcon(bool paused, Actions actions);
  ~AgentTrayIcon() override;

  // A status the agent reports ("peer-ready: NAME", "phone-left: NAME", …).
  void updateStatus(const std::string& status);

 private:
  void refresh();

  Actions actions_;
  QSystemTrayIcon* icon_;
  QMenu* menu_;
  QAction* state_;
  QAction* disconnect_;
  QAction* pause_;
  bool paused_;
  std::string phone_;  // the phone in session, as the agent names it
};

}  // namespace zul
