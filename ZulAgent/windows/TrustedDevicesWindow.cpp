#include "ZulAgent/windows/TrustedDevicesWindow.h"

#include <QCheckBox>
#include <QDateTime>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>
#include <map>

#include "ZulAgent/windows/AgentWindowTexts.h"
#include "ZulCore/Trust/Iso8601.h"

namespace zul {
namespace {

QString localTimeText(UtcSeconds time) {
  const QDateTime local = QDateTime::fromSecsSinceEpoch(time.time_since_epoch().count());
  // The window speaks Russian, whatever the system's locale.
  static const QLocale locale(QLocale::Russian, QLocale::Russia);
  return locale.toString(local.date(), "d MMMM yyyy") + " " +
         locale.toString(local.time(), "HH:mm");
}

// When each phone was last in session, from the log's session records.
std::map<std::string, UtcSeconds> lastSessions(const AuditLog& log) {
  std::map<std::string, UtcSeconds> last;
  for (const auto& record : log.read(std::nullopt, std::nullopt, "session.")) {
    const std::string event = record.value("event", "");
    if (event != "session.started" && event != "session.ended") continue;
    const auto time = parseIso8601(record.value("time", ""));
    const std::string device = record.value("device", "");
    if (time && !device.empty()) last[device] = std::max(last[device], *time);
  }
  return last;
}

// A question whose default answer, on Enter or Escape, is «Отмена»; `text`
// names a phone, whose name the phone chose, so it is shown as plain text.
bool askWithCancelAsDefault(QWidget* parent, const std::string& text, const char* detail,
                            const char* action, QMessageBox::ButtonRole role) {
  QMessageBox box(parent);
  box.setWindowTitle("Velto");
  box.setTextFormat(Qt::PlainText);
  box.setText(QString::fromStdString(text));
  box.setInformativeText(detail);
  auto* chosen = box.addButton(action, role);
  auto* cancel = box.addButton("Отмена", QMessageBox::RejectRole);
  box.setDefaultButton(cancel);
  box.setEscapeButton(cancel);
  box.exec();
  return box.clickedButton() == chosen;
}

}  // namespace

TrustedDevicesWindowController::TrustedDevicesWindowController(TrustedDeviceStore store,
                                                               Confirm confirm,
                                                               ConfirmGrant confirmGrant)
    : store_(std::move(store)),
      confirm_(std::move(confirm)),
      confirmGrant_(std::move(confirmGrant)) {
  setWindowTitle("Velto — сопряжённые телефоны");
  setMinimumWidth(480);
  auto* layout = new QVBoxLayout(this);
  layout->setSizeConstraint(QLayout::SetMinimumSize);
  auto* heading = new QLabel("Сопряжённые телефоны");
  heading->setStyleSheet("font-size: 18px; font-weight: 600;");
  layout->addWidget(heading);
  auto* subtitle = new QLabel("Телефоны, которым разрешено подключаться к этому компьютеру");
  subtitle->setStyleSheet("color: #8a8f98;");
  layout->addWidget(subtitle);
  list_ = new QVBoxLayout;
  layout->addLayout(list_);
  layout->addStretch();
  auto* logButton = new QPushButton("Журнал");
  connect(logButton, &QPushButton::clicked, this, [this] { showLog(); });
  layout->addWidget(logButton);
  if (!confirmGrant_) {
    confirmGrant_ = [this](const std::string& phoneName, DevicePermission permission) {
      const bool shell = permission == DevicePermission::shell;
      return askWithCancelAsDefault(
          this,
          "Разрешить телефону «" + phoneName +
              (shell ? "» открывать терминал?" : "» подключаться без присмотра?"),
          shell ? "Телефон сможет выполнять на этом компьютере любые команды от вашего имени."
                : "Телефон сможет подключаться, когда за компьютером никого нет.",
          "Разрешить", QMessageBox::AcceptRole);
    };
  }
  if (!confirm_) {
    confirm_ = [this](const std::string& phoneName) {
      return askWithCancelAsDefault(
          this, "Отозвать доступ телефона «" + phoneName + "»?",
          "Этот телефон больше не сможет открыть новые сессии с компьютером.", "Отозвать",
          QMessageBox::DestructiveRole);
    };
  }
}

void TrustedDevicesWindowController::show() {
  refresh();
  QWidget::show();
  raise();
  activateWindow();
}

void TrustedDevicesWindowController::refresh() {
  while (QLayoutItem* item = list_->takeAt(0)) {
    if (QWidget* widget = item->widget()) {
      widget->hide();
      widget->deleteLater();
    }
    delete item;
  }
  std::vector<TrustedDevice> devices;
  try {
    devices = store_.load();
  } catch (const SecretStoreError& error) {
    // Still being looked for, or not answering: asked again shortly, never
    // waited for here. Unreadable counts as empty.
    if (error.kind() == SecretStoreError::Case::unavailable) {
      list_->addWidget(
          new QLabel("Список телефонов пока недоступен: хранилище ключей не отвечает"));
      QTimer::singleShot(2000, this, [this] {
        if (isVisible()) refresh();
      });
      return;
    }
  } catch (const std::exception&) {
  }
  if (devices.empty()) {
    list_->addWidget(new QLabel("Пока нет сопряжённых телефонов"));
    return;
  }
  // The log is read again only when it has grown or rotated since.
  std::error_code noLog;
  const auto logSize = std::filesystem::file_size(log_.path(), noLog);
  const auto logTime = std::filesystem::last_write_time(log_.path(), noLog);
  if (!lastSeenRead_ || lastSeenRead_->first != logSize || lastSeenRead_->second != logTime) {
    lastSeen_ = lastSessions(log_);
    lastSeenRead_.emplace(logSize, logTime);
  }
  const auto& lastSeen = lastSeen_;
  for (const auto& device : windows::devicesNewestFirst(devices)) {
    auto* row = new QWidget;
    row->setObjectName(QString::fromStdString(device.deviceId));
    auto* layout = new QHBoxLayout(row);
    auto* texts = new QVBoxLayout;
    auto* name = new QLabel(QString::fromStdString(windows::deviceName(device)));
    name->setTextFormat(Qt::PlainText);  // the phone chose it: text, never markup
    name->setObjectName("name");
    const bool connected =
        !device.revoked && !connectedPhone_.empty() && device.name == connectedPhone_;
    QString detailText = QString::fromStdString(
        windows::deviceDetail(device, localTimeText(device.pairedAt).toStdString()));
    if (connected) {
      detailText += " · подключён сейчас";
    } else if (auto seen = lastSeen.find(device.deviceId); seen != lastSeen.end()) {
      detailText += " · был на связи " + localTimeText(seen->second);
    }
    auto* detail = new QLabel(detailText);
    detail->setObjectName("detail");
    texts->addWidget(name);
    texts->addWidget(detail);
    layout->addLayout(texts, 1);
    // What pairing never gives, given here: each with its confirmation.
    for (auto [permission, text] : {std::pair{DevicePermission::shell, "Терминал"},
                                    std::pair{DevicePermission::unattended, "Без присмотра"}}) {
      auto* check = new QCheckBox(text);
      check->setObjectName(QString::fromStdString(std::string(rawValue(permission))));
      check->setChecked(device.permissions.count(permission) > 0);
      check->setEnabled(!device.revoked);
      const std::string id = device.deviceId;
      connect(check, &QCheckBox::clicked, this,
              [this, id, permission = permission](bool on) { setPermission(id, permission, on); });
      layout->addWidget(check);
    }
    auto* button = new QPushButton(device.revoked ? "Отозвано" : "Отозвать");
    button->setEnabled(!device.revoked);
    const std::string id = device.deviceId;
    connect(button, &QPushButton::clicked, this, [this, id] { revoke(id); });
    layout->addWidget(button);
    list_->addWidget(row);
  }
}

void TrustedDevicesWindowController::setConnectedPhone(const std::string& name) {
  if (name == connectedPhone_) return;
  connectedPhone_ = name;
  if (isVisible()) refresh();
}

void TrustedDevicesWindowController::setPermission(const std::string& deviceId,
                                                   DevicePermission permission, bool granted) {
  std::string name = deviceId;
  try {
    for (const auto& device : store_.load()) {
      if (device.deviceId == deviceId) name = windows::deviceName(device);
    }
    if (!granted || confirmGrant_(name, permission)) {
      store_.setPermission(deviceId, permission, granted);
      log_.record(granted ? "granted" : "withdrawn",
                  {{"device", deviceId}, {"permission", rawValue(permission)}, {"by", "window"}});
    }
  } catch (const std::exception&) {
    // The list shows what the store holds.
  }
  refresh();
}

std::string TrustedDevicesWindowController::logText() const {
  std::string text;
  for (const auto& record : log_.read()) {
    std::string line = record.value("time", "") + "  " + record.value("event", "");
    for (const auto& [key, value] : record.items()) {
      if (key == "time" || key == "event") continue;
      line += "  " + (value.is_string() ? value.get<std::string>() : value.dump());
    }
    text += line + "\n";
  }
  return text.empty() ? "Пока ничего не записано\n" : text;
}

void TrustedDevicesWindowController::showLog() {
  auto* view = new QPlainTextEdit;
  view->setAttribute(Qt::WA_DeleteOnClose);
  view->setWindowTitle("Velto — журнал");
  view->setReadOnly(true);
  view->setPlainText(QString::fromStdString(logText()));
  view->resize(720, 420);
  view->show();
}

void TrustedDevicesWindowController::revoke(const std::string& deviceId) {
  std::string name = deviceId;
  try {
    for (const auto& device : store_.load()) {
      if (device.deviceId == deviceId) name = windows::deviceName(device);
    }
  } catch (const std::exception&) {
  }
  if (!confirm_(name)) return;
  try {
    store_.revoke(deviceId);
    if (onRevoked) {
      for (const auto& device : store_.load()) {
        if (device.deviceId == deviceId) onRevoked(device);
      }
    }
  } catch (const std::exception&) {
    // The list shows what the store holds.
  }
  refresh();
}

std::vector<std::string> TrustedDevicesWindowController::rows() const {
  std::vector<std::string> out;
  for (int i = 0; i < list_->count(); ++i) {
    QWidget* row = list_->itemAt(i)->widget();
    if (auto* empty = qobject_cast<QLabel*>(row)) {
      out.push_back(empty->text().toStdString());
      continue;
    }
    auto* button = row->findChild<QPushButton*>();
    out.push_back(row->findChild<QLabel*>("name")->text().toStdString() + " | " +
                  row->findChild<QLabel*>("detail")->text().toStdString() + " | " +
                  button->text().toStdString() + (button->isEnabled() ? "" : " (disabled)"));
  }
  return out;
}

}  // namespace zul
