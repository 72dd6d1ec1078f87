#include "ZulAgent/windows/RealAgentWindows.h"

#include <signal.h>

#include <QApplication>
#include <QMessageBox>
#include <QMetaObject>
#include <QPointer>
#include <QPushButton>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "ZulAgent/windows/AgentSetupWindow.h"
#include "ZulAgent/windows/AgentTrayIcon.h"
#include "ZulAgent/windows/AgentWindowTexts.h"
#include "ZulAgent/windows/PairingQRWindow.h"
#include "ZulCore/Support/Console.h"
#include "ZulPlatform/linux/DesktopBackend.h"
#include "ZulPlatform/linux/secrets/SecretBackendSelection.h"
#include "ZulPlatform/linux/x11/X11CaptureConnection.h"
#include "ZulPlatform/linux/x11/XTestInputInjector.h"

namespace zul {
namespace {

// What the chosen desktop backend can do. On X11 a pixel is read and an XTest
// connection opened; GNOME's remote desktop is usable once its service lists
// the monitors (a trial session would show the user a sharing indicator).
bool screenReadable() {
  try {
    const auto desktop = desktopBackend();
    if (desktop->name() != "x11") return !desktop->availableDisplays().empty();
  } catch (const std::exception&) {
    return false;
  }
  auto connection = X11CaptureConnection::open({});
  return connection && connection->canReadScreen();
}

bool inputInjectable() {
  try {
    const auto desktop = desktopBackend();
    if (desktop->name() != "x11") return !desktop->availableDisplays().empty();
    XTestInputInjector probe;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// Qt's own warnings (platform plugin, paths) only with the detailed diagnostics.
void quietQtMessages(QtMsgType type, const QMessageLogContext& context, const QString& message) {
  if (type == QtDebugMsg || type == QtInfoMsg || type == QtWarningMsg) return;
  std::fprintf(
      stderr, "%s\n",
      escapeControlCharacters(qFormatLogMessage(type, context, message).toStdString()).c_str());
}

// Runs `action` on the GUI thread.
template <typename Action>
void onGui(QObject* context, Action action) {
  QMetaObject::invokeMethod(context, std::move(action), Qt::QueuedConnection);
}

// Asks on the GUI thread whether the phone may connect: «Разрешить» or
// «Отклонить» (the default), no after 30 s. Waits on the caller's thread,
// and gives up when the agent is asked to stop, closing the question.
bool askToConnect(QObject* context, const RealAgentControl& control, const std::string& name) {
  struct Question {
    std::promise<bool> answer;
    QPointer<QMessageBox> box;  // touched on the GUI thread only
  };
  auto question = std::make_shared<Question>();
  auto future = question->answer.get_future();
  onGui(context, [question, name] {
    auto* box = new QMessageBox(QMessageBox::Question, "Velto — подключение телефона",
                                QString::fromStdString(windows::connectQuestion(name)));
    auto* allow = box->addButton("Разрешить", QMessageBox::AcceptRole);
    box->setDefaultButton(box->addButton("Отклонить", QMessageBox::RejectRole));
    box->setAttribute(Qt::WA_DeleteOnClose);
    QObject::connect(box, &QMessageBox::finished, box, [question, box, allow] {
      question->answer.set_value(box->clickedButton() == allow);
    });
    QTimer::singleShot(std::chrono::seconds(30), box, [box] { box->reject(); });
    question->box = box;
    box->show();
    box->raise();
    box->activateWindow();
  });
  while (future.wait_for(std::chrono::milliseconds(250)) != std::future_status::ready) {
    if (control.stopRequested()) {
      onGui(context, [question] {
        if (question->box) question->box->reject();
      });
      return false;
    }
  }
  return future.get();
}

}  // namespace

void runRealAgentWithWindows(const PeerVideoEncoding& videoEncoding, const PrintLine& print,
                             bool atLogin) {
  const char* display = std::getenv("DISPLAY");
  if (!display || !*display) {
    print(
        "real-agent failed: no X display for the setup window "
        "(set ZUL_SIGNALING_URL to run without windows)");
    return;
  }
  // SIGINT and SIGTERM close the windows (and so stop the agent) through the
  // event loop: blocked in every thread, taken by one that waits for them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  sigset_t previousMask;
  pthread_sigmask(SIG_BLOCK, &stopSignals, &previousMask);
  std::atomic<bool> finished{false};

  if (!verboseOutput()) qInstallMessageHandler(quietQtMessages);
  int argc = 1;
  char name[] = "zul-agent";
  char* argv[] = {name, nullptr};
  QApplication app(argc, argv);
  QApplication::setOrganizationName("zul");
  QApplication::setApplicationName("zul-agent");

  AgentSetupWindowController setup({screenReadable, inputInjectable});
  // The agent's own store, looked for on a thread of its own (a Secret
  // Service that does not answer takes seconds): the windows never wait for
  // it, and a store that cannot be had fails the agent's start with its
  // reason, not the windows.
  std::thread findStore([] {
    try {
      makeSecretBackend();
    } catch (const std::exception&) {
      // The agent's start says why.
    }
  });
  PairingQRWindowController pairing(TrustedDeviceStore(
      SecretStore(TrustedDeviceStore::account, deferredSecretBackend(/*waitForChoice=*/false))));
  auto control = RealAgentControl::rememberingPause(print);
  // The latest agent; each one first waits for the one it replaced to wind
  // down, so the window never waits for an agent that is stopping.
  std::thread agent;

  pairing.onEndSession = [&control] { control->requestSessionEnd(); };
  setup.onAskBeforeConnecting = [&control](bool ask) { control->setAskBeforeConnecting(ask); };
  // The status area, where the desktop has one: the agent then goes on with
  // its windows closed, until quit there. Elsewhere the agent keeps a
  // desktop notification with the same buttons.
  std::unique_ptr<AgentTrayIcon> tray;
  if (AgentTrayIcon::available()) {
    tray = std::make_unique<AgentTrayIcon>(
        control->paused(), AgentTrayIcon::Actions{
                               .disconnect = [&control] { control->requestSessionEnd(); },
                               .pause = [&control](bool paused) { control->setPaused(paused); },
                               .openWindow =
                                   [&setup] {
                                     QWidget& window = setup;
                                     window.show();
                                     window.raise();
                                     window.activateWindow();
                                   },
                               .quit = [] { QCoreApplication::quit(); },
                           });
    QApplication::setQuitOnLastWindowClosed(false);
  }
  setup.onPairPhone = [&control, &pairing] {
    pairing.showWithNextLink();
    control->requestPairingRefresh();
  };
  // The agent tells of the revoke ("revoked: NAME", or "phone revoked: …" for
  // the phone in session) when it next reads the list.
  auto cancelAgent = [&] {
    control->requestStop();
    pairing.reset();
  };
  // Started at login, the first start is the window's own: no pairing window
  // comes up by itself (the phones are paired; «Добавить телефон» opens it).
  bool startingAtLogin = atLogin;
  setup.show(
      [&](const std::string& url) {
        cancelAgent();  // a retry replaces the agent that is still trying
        if (std::exchange(startingAtLogin, false)) pairing.stayClosedUntilAsked();
        // The server the agent uses serves the phone app too; a development
        // server may serve it at another address and keep a short one.
        const char* appUrl = std::getenv("ZUL_PHONE_APP_URL");
        const char* shortUrl = std::getenv("ZUL_PAIRING_SHORT_URL");
        pairing.setPhoneAppAddress(appUrl && *appUrl ? appUrl : url, shortUrl ? shortUrl : "");
        // Paused or not as last chosen, in the tray too.
        control = RealAgentControl::rememberingPause(print);
        control->setAskBeforeConnecting(AgentSetupWindowController::asksBeforeConnecting());
        if (tray) tray->updateStatus("phone-left: ");
        agent = std::thread([&setup, &pairing, print, url, control, videoEncoding,
                             trayShown = tray.get(), previous = std::move(agent)]() mutable {
          if (previous.joinable()) previous.join();
          if (control->stopRequested()) return;
          RealAgentSettings settings = RealAgentSettings::fromEnvironment();
          settings.signalingBaseURL = url;
          settings.videoEncoding = videoEncoding;
          RealAgentUi ui;
          ui.control = control;
          ui.showsIndicator = trayShown != nullptr;
          ui.askToConnect = [&setup, control](const std::string& name) {
            return askToConnect(&setup, *control, name);
          };
          ui.onPairingLink = [&pairing, control](const std::string& link,
                                                 const std::string& agentId, std::int64_t seconds) {
            onGui(&pairing, [&pairing, control, link, agentId, seconds] {
              if (control->stopRequested()) return;
              pairing.show(link, agentId, seconds, [control] { control->requestPairingRefresh(); });
            });
          };
          try {
            runRealAgent(
                settings,
                [&setup, &pairing, control, trayShown](const std::string& status) {
                  onGui(&setup, [&setup, &pairing, control, trayShown, status] {
                    // A stopped agent's last statuses are not news.
                    if (control->stopRequested()) return;
                    if (status.rfind("note: ", 0) == 0) {
                      setup.showNote(status.substr(6));
                      return;
                    }
                    setup.updateTransportStatus(status);
                    pairing.updateStatus(status);
                    if (trayShown) trayShown->updateStatus(status);
                  });
                },
                print, ui);
          } catch (const std::exception& error) {
            print(std::string("real-agent failed: ") + error.what());
            const std::string message = error.what();
            onGui(&setup, [&setup, control, message] {
              if (!control->stopRequested()) setup.showFailure(message);
            });
          }
        });
      },
      cancelAgent,
      atLogin ? (tray ? AgentSetupWindowController::Opening::hiddenIfStarted
                      : AgentSetupWindowController::Opening::minimizedIfStarted)
              : AgentSetupWindowController::Opening::inFront);
  std::thread signalWaiter([&] {
    const timespec tick{0, 250'000'000};
    while (!finished) {
      if (sigtimedwait(&stopSignals, nullptr, &tick) > 0) {
        print("stopping (signal)");
        QMetaObject::invokeMethod(&app, &QCoreApplication::quit, Qt::QueuedConnection);
      }
    }
  });
  app.exec();
  control->requestStop();
  if (agent.joinable()) agent.join();
  finished = true;
  signalWaiter.join();
  findStore.join();
  pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
}

}  // namespace zul
