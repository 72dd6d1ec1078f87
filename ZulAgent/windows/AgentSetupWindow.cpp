#include "ZulAgent/windows/AgentSetupWindow.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QDir>
#include <QEvent>
#include <QFile>
#include <QFileInfo>
#include <QFrame>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSettings>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include "ZulAgent/windows/AgentWindowTexts.h"
#include "ZulPlatform/linux/UserFolders.h"

namespace zul {
namespace {

// No public rendezvous server exists yet: the field starts empty.
constexpr const char* defaultServerURL = "";
constexpr const char* settingsKey = "ZulSignalingURL";
constexpr const char* askSettingsKey = "AskBeforeConnecting";
constexpr const char* accent = "#2f6fed";
constexpr const char* green = "#1f9d55";
constexpr const char* neutral = "#8a8f98";

QLabel* label(const QString& text, const char* style = nullptr) {
  auto* l = new QLabel(text);
  l->setWordWrap(true);
  // Server reasons and phone names are text, never markup.
  l->setTextFormat(Qt::PlainText);
  if (style) l->setStyleSheet(style);
  return l;
}

}  // namespace

AgentSetupWindowController::AgentSetupWindowController(Permissions permissions)
    : permissions_(std::move(permissions)) {
  setWindowTitle("Velto");
  setMinimumWidth(520);
  auto* layout = new QVBoxLayout(this);
  // Never smaller than its content: a longer error or status grows the window.
  layout->setSizeConstraint(QLayout::SetMinimumSize);
  layout->addWidget(label("ДОСТУП НА ЭТОМ КОМПЬЮТЕРЕ", "color: #8a8f98; font-size: 11px;"));
  layout->addWidget(
      label("Ваш компьютер — на расстоянии одного касания", "font-size: 20px; font-weight: 600;"));

  serverField_ = new QLineEdit;
  serverField_->setPlaceholderText("https://rendezvous.example.com");
  layout->addWidget(serverField_);
  pill_ = label("");
  layout->addWidget(pill_);
  note_ = label("", "color: #8a8f98;");
  note_->hide();
  layout->addWidget(note_);

  auto* permissionsCard = new QFrame;
  permissionsCard->setFrameShape(QFrame::StyledPanel);
  auto* grid = new QGridLayout(permissionsCard);
  grid->setColumnStretch(0, 1);
  // On X11 the X server of the session grants both; there is no settings
  // page, so the button explains what is missing.
  auto addRow = [this, grid](int row, const QString& title, const QString& detail,
                             const QString& hint, QPushButton** settings) {
    grid->addWidget(label(title, "font-weight: 600;"), row * 2, 0);
    grid->addWidget(label(detail, "color: #8a8f98;"), row * 2 + 1, 0);
    auto* status = label("");
    grid->addWidget(status, row * 2, 1);
    *settings = new QPushButton("Открыть настройки");
    // Its whole text, with room to spare, even when disabled; the texts at
    // the left wrap instead.
    (*settings)->setMinimumWidth((*settings)->sizeHint().width() + 24);
    connect(*settings, &QPushButton::clicked, this, [this, hint] { showError(hint); });
    grid->addWidget(*settings, row * 2, 2);
    return status;
  };
  screenStatus_ =
      addRow(0, "Запись экрана", "Показывает экран компьютера на телефоне",
             "Запустите агент в графическом сеансе X11: экран читается через его X-сервер.",
             &screenSettings_);
  inputStatus_ =
      addRow(1, "Универсальный доступ", "Разрешает управление указателем и вводом",
             "X-сервер этого сеанса должен поддерживать расширение XTEST.", &inputSettings_);
  layout->addWidget(permissionsCard);

  errorCallout_ = label("", "background: #fdecea; color: #b3261e; padding: 8px;");
  errorCallout_->hide();
  layout->addWidget(errorCallout_);

  startButton_ = new QPushButton("Включить Velto");
  layout->addWidget(startButton_);
  autostart_ = new QCheckBox("Запускать при входе");
  autostart_->setChecked(startsAtLogin());
  connect(autostart_, &QCheckBox::toggled, this, [this](bool on) {
    if (!setStartsAtLogin(on)) {
      showError("Не удалось изменить автозапуск: " + QString::fromStdString(autostartPath()));
      const QSignalBlocker keep(autostart_);
      autostart_->setChecked(startsAtLogin());
    }
  });
  layout->addWidget(autostart_);
  askFirst_ = new QCheckBox("Спрашивать перед каждым подключением");
  askFirst_->setToolTip(
      "Телефон без доступа «Без присмотра» подключится, только когда вы разрешите это здесь");
  askFirst_->setChecked(asksBeforeConnecting());
  connect(askFirst_, &QCheckBox::toggled, this, [this](bool on) {
    QSettings().setValue(askSettingsKey, on);
    if (onAskBeforeConnecting) onAskBeforeConnecting(on);
  });
  layout->addWidget(askFirst_);
  pairButton_ = new QPushButton("Добавить телефон");
  pairButton_->hide();
  layout->addWidget(pairButton_);
  connect(pairButton_, &QPushButton::clicked, this, [this] {
    if (onPairPhone) onPairPhone();
  });
  progress_ = new QProgressBar;
  progress_->setRange(0, 0);
  progress_->hide();
  layout->addWidget(progress_);
  layout->addWidget(label("Прямое зашифрованное соединение • данные экрана не хранятся в облаке",
                          "color: #8a8f98; font-size: 11px;"));
  connect(startButton_, &QPushButton::clicked, this, [this] { buttonPressed(); });
}

bool AgentSetupWindowController::asksBeforeConnecting() {
  return QSettings().value(askSettingsKey, false).toBool();
}

std::string AgentSetupWindowController::autostartPath() {
  return (userFolder("XDG_CONFIG_HOME", ".config").value_or("/.config") / "autostart" /
          "zul-agent.desktop")
      .string();
}

bool AgentSetupWindowController::startsAtLogin() {
  return QFile::exists(QString::fromStdString(autostartPath()));
}

bool AgentSetupWindowController::setStartsAtLogin(bool on) {
  const QString path = QString::fromStdString(autostartPath());
  if (!on) return !QFile::exists(path) || QFile::remove(path);
  QDir().mkpath(QFileInfo(path).absolutePath());
  // The installed entry when there is one; else one that starts this program.
  const QString installed = "/usr/share/zul-agent/autostart/zul-agent.desktop";
  if (QFile::exists(installed)) return QFile::exists(path) || QFile::copy(installed, path);
  QFile entry(path);
  if (!entry.open(QIODevice::WriteOnly | QIODevice::Truncate)) return false;
  entry.write(("[Desktop Entry]\nType=Application\nName=Velto\nExec=" +
               QCoreApplication::applicationFilePath() +
               " --real-agent --at-login\nTerminal=false\n")
                  .toUtf8());
  return true;
}

void AgentSetupWindowController::show(std::function<void(const std::string&)> onStart,
                                      std::function<void()> onStop, Opening opening) {
  onStart_ = std::move(onStart);
  onStop_ = std::move(onStop);
  const QSettings settings;
  serverField_->setText(settings.value(settingsKey, defaultServerURL).toString());
  refreshPermissions();
  setPill("Не в сети", neutral);
  if (opening != Opening::inFront && settings.contains(settingsKey)) {
    start();
    if (phase_ == windows::AgentPhase::connecting) {
      if (opening == Opening::minimizedIfStarted) showMinimized();
      return;
    }
  }
  QWidget::show();
  raise();
  activateWindow();
}

void AgentSetupWindowController::refreshPermissions() {
  auto shown = [](QLabel* status, QPushButton* settings, const std::function<bool()>& granted) {
    const bool ok = granted && granted();
    status->setText(ok ? "Предоставлено" : "Требуется");
    status->setStyleSheet(ok ? "color: #1f9d55;" : "color: #b3261e;");
    settings->setEnabled(!ok);
  };
  shown(screenStatus_, screenSettings_, permissions_.screenReadable);
  shown(inputStatus_, inputSettings_, permissions_.inputInjectable);
}

// Back from the settings or another window: the permissions may have changed.
void AgentSetupWindowController::changeEvent(QEvent* event) {
  QWidget::changeEvent(event);
  if (event->type() == QEvent::ActivationChange && isActiveWindow()) refreshPermissions();
}

void AgentSetupWindowController::buttonPressed() {
  if (phase_ != windows::AgentPhase::connecting && phase_ != windows::AgentPhase::online) {
    start();
    return;
  }
  setPhase(windows::AgentPhase::stopped);
  setPill("Не в сети", neutral);
  hideError();  // nothing is retried any more
  if (onStop_) onStop_();
}

void AgentSetupWindowController::start() {
  refreshPermissions();
  if (screenStatus_->text() != "Предоставлено" || inputStatus_->text() != "Предоставлено") {
    showError("Сначала предоставьте оба разрешения в настройках системы.");
    return;
  }
  const auto url = windows::acceptedServerURL(serverField_->text().toStdString());
  if (!url) {
    showError("Введите корректный HTTPS-адрес сервера подключения.");
    return;
  }
  QSettings settings;
  settings.setValue(settingsKey, QString::fromStdString(*url));
  hideError();
  setPhase(windows::AgentPhase::connecting);
  setPill("Подключение", accent);
  if (onStart_) onStart_(*url);
}

// The button and the field say what a press does now; the progress bar runs
// only while a connection is being made.
void AgentSetupWindowController::setPhase(windows::AgentPhase phase) {
  using windows::AgentPhase;
  phase_ = phase;
  const bool running = phase == AgentPhase::connecting || phase == AgentPhase::online;
  serverField_->setEnabled(!running);
  startButton_->setEnabled(true);
  startButton_->setText(phase == AgentPhase::connecting ? "Отменить"
                        : phase == AgentPhase::online   ? "Отключить"
                                                        : "Повторить");
  progress_->setVisible(phase == AgentPhase::connecting);
  pairButton_->setVisible(phase == AgentPhase::online);
}

void AgentSetupWindowController::updateTransportStatus(const std::string& status) {
  // A stopped agent's last words do not reopen what the user closed.
  if (phase_ != windows::AgentPhase::connecting && phase_ != windows::AgentPhase::online) return;
  const auto view = windows::statusView(status);
  if (view.showFailure) {
    showFailure(status);
    return;
  }
  if (view.phase != windows::AgentPhase::unchanged) setPhase(view.phase);
  if (view.problem) {
    view.problem->empty() ? hideError() : showError(QString::fromStdString(*view.problem));
  }
  if (view.pillText) {
    const char* colour = view.colour == windows::PillColour::green    ? green
                         : view.colour == windows::PillColour::accent ? accent
                                                                      : neutral;
    setPill(QString::fromStdString(*view.pillText), colour);
  }
}

void AgentSetupWindowController::showFailure(const std::string& message) {
  setPhase(windows::AgentPhase::stopped);
  showError(QString::fromStdString(windows::friendlyFailure(message)));
}

void AgentSetupWindowController::showNote(const std::string& text) {
  note_->setText(QString::fromStdString(text));
  note_->setVisible(!text.empty());
  adjustSize();
}

void AgentSetupWindowController::setPill(const QString& text, const char* colour) {
  pill_->setText(QString("● ") + text);
  pill_->setStyleSheet(QString("color: %1; font-weight: 600;").arg(colour));
}

void AgentSetupWindowController::showError(const QString& text) {
  errorCallout_->setText(QString("⚠ ") + text);
  errorCallout_->show();
  adjustSize();
}

void AgentSetupWindowController::hideError() {
  errorCallout_->hide();
  adjustSize();
}

QString AgentSetupWindowController::pillText() const { return pill_->text().mid(2); }
QString AgentSetupWindowController::errorText() const { return errorCallout_->text().mid(2); }
bool AgentSetupWindowController::errorVisible() const { return !errorCallout_->isHidden(); }

}  // namespace zul
