#pragma once

#include <QWidget>
#include <functional>
#include <string>

#include "ZulAgent/windows/AgentWindowTexts.h"

class QCheckBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QProgressBar;

namespace zul {

// The window the user meets when the agent starts with windows: whether the
// agent may read the screen and inject input, the rendezvous server's HTTPS
// address, and the connection status the agent reports. GUI thread only.
class AgentSetupWindowController : public QWidget {
 public:
  struct Permissions {
    std::function<bool()> screenReadable;
    std::function<bool()> inputInjectable;
  };

  explicit AgentSetupWindowController(Permissions permissions);

  // How the window first appears: in front, or, at login, as if its start
  // button were pressed with the server last used, the window then hidden
  // (another indicator shows the agent) or minimized; when there is no such
  // server or the start stops at a missing permission, it comes in front.
  enum class Opening { inFront, hiddenIfStarted, minimizedIfStarted };

  // `onStop` cancels a connection in progress or disconnects; the window
  // is idle again at once (the agent winds down on its own).
  void show(std::function<void(const std::string& url)> onStart, std::function<void()> onStop = {},
            Opening opening = Opening::inFront);
  void updateTransportStatus(const std::string& status);
  void showFailure(const std::string& message);
  // A line under the status for what the agent wants known (for example
  // that a phone controls a Wayland session); empty hides it.
  void showNote(const std::string& text);
  // While the agent is online, a button opens the pairing window again with
  // a fresh link (after the person closed it).
  std::function<void()> onPairPhone;
  // «Спрашивать перед подключением» turned on or off (remembered in the
  // settings; off until turned on).
  std::function<void(bool ask)> onAskBeforeConnecting;
  static bool asksBeforeConnecting();

  // For tests.
  QLineEdit* serverField() const { return serverField_; }
  QPushButton* startButton() const { return startButton_; }
  QPushButton* pairButton() const { return pairButton_; }
  QCheckBox* autostartBox() const { return autostart_; }

  // Starting at login: a copy of the installed autostart entry in the
  // user's autostart folder ($XDG_CONFIG_HOME/autostart), or none.
  static std::string autostartPath();
  static bool startsAtLogin();
  // False when the entry could not be written or removed.
  static bool setStartsAtLogin(bool on);
  QString pillText() const;
  QString errorText() const;
  bool errorVisible() const;
  void refreshPermissions();

 protected:
  void changeEvent(QEvent* event) override;

 private:
  void buttonPressed();
  void start();
  void setPhase(windows::AgentPhase phase);
  void setPill(const QString& text, const char* colour);
  void showError(const QString& text);
  void hideError();

  Permissions permissions_;
  std::function<void(const std::string&)> onStart_;
  std::function<void()> onStop_;
  windows::AgentPhase phase_ = windows::AgentPhase::unchanged;  // unchanged: never started
  QLineEdit* serverField_;
  QLabel* pill_;
  QLabel* note_;
  QLabel* screenStatus_;
  QLabel* inputStatus_;
  QPushButton* screenSettings_;
  QPushButton* inputSettings_;
  QPushButton* startButton_;
  QPushButton* pairButton_;
  QCheckBox* autostart_;
  QCheckBox* askFirst_;
  QProgressBar* progress_;
  QLabel* errorCallout_;
};

}  // namespace zul
