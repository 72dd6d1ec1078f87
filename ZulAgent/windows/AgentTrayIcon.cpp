#include "ZulAgent/windows/AgentTrayIcon.h"

#include <QAction>
#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>

#include "ZulAgent/windows/AgentWindowTexts.h"

namespace zul {

bool AgentTrayIcon::available() { return QSystemTrayIcon::isSystemTrayAvailable(); }

AgentTrayIcon::AgentTrayIcon(bool paused, Actions actions)
    : actions_(std::move(actions)),
      icon_(new QSystemTrayIcon(this)),
      menu_(new QMenu()),
      state_(menu_->addAction(QString())),
      disconnect_(menu_->addAction(QString::fromUtf8(windows::disconnectLabel))),
      pause_(menu_->addAction(QString())),
      paused_(paused) {
  state_->setEnabled(false);
  menu_->addSeparator();
  QObject::connect(menu_->addAction(QString::fromUtf8("Открыть Velto")), &QAction::triggered, this,
                   [this] {
                     if (actions_.openWindow) actions_.openWindow();
                   });
  QObject::connect(menu_->addAction(QString::fromUtf8("Завершить Velto")), &QAction::triggered,
                   this, [this] {
                     if (actions_.quit) actions_.quit();
                   });
  QObject::connect(disconnect_, &QAction::triggered, this, [this] {
    if (actions_.disconnect) actions_.disconnect();
  });
  QObject::connect(pause_, &QAction::triggered, this, [this] {
    paused_ = !paused_;
    if (actions_.pause) actions_.pause(paused_);
    refresh();
  });
  QObject::connect(icon_, &QSystemTrayIcon::activated, this,
                   [this](QSystemTrayIcon::ActivationReason reason) {
                     if (reason == QSystemTrayIcon::Trigger && actions_.openWindow) {
                       actions_.openWindow();
                     }
                   });
  icon_->setIcon(QIcon::fromTheme("zul-agent", QIcon::fromTheme("network-wireless")));
  icon_->setContextMenu(menu_);
  refresh();
  icon_->show();
}

AgentTrayIcon::~AgentTrayIcon() {
  icon_->hide();
  delete menu_;
}

void AgentTrayIcon::updateStatus(const std::string& status) {
  const auto colon = status.find(": ");
  const std::string name = colon == std::string::npos ? "" : status.substr(colon + 2);
  if (status.rfind("peer-ready", 0) == 0) {
    phone_ = name.empty() ? "телефон" : name;
  } else if (status.rfind("phone-left", 0) == 0) {
    phone_.clear();
  } else {
    return;
  }
  refresh();
}

void AgentTrayIcon::refresh() {
  const auto view = windows::indicatorView(paused_, phone_);
  state_->setText(QString::fromStdString(view.detail));
  disconnect_->setEnabled(view.canDisconnect);
  pause_->setText(QString::fromStdString(view.pauseLabel));
  icon_->setToolTip(QString::fromStdString(view.title + "\n" + view.detail));
}

}  // namespace zul
