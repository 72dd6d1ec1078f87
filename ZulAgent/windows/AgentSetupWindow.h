#pragma once

#include <QWidget>
#include <functional>
#include <string>

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

  void show(std::function<void(const std::string& url)> onStart);
  void updateTransportStatus(const std::string& status);
  void showFailure(const std::string& message);

  // For tests.
  QLineEdit* serverField() const { return serverField_; }
  QPushButton* startButton() const { return startButton_; }
  QString pillText() const;
  QString errorText() const;
  bool errorVisible() const;
  void refreshPermissions();

 private:
  void start();
  void setPill(const QString& text, const char* colour);
  void showError(const QString& text);
  void enableRetry();

  Permissions permissions_;
  std::function<void(const std::string&)> onStart_;
  QLineEdit* serverField_;
  QLabel* pill_;
  QLabel* screenStatus_;
  QLabel* inputStatus_;
  QPushButton* screenSettings_;
  QPushButton* inputSettings_;
  QPushButton* startButton_;
  QProgressBar* progress_;
  QLabel* errorCallout_;
};

}  // namespace zul
