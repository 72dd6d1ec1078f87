#include "ZulAgent/orchestration/RealAgent.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>
#include <utility>

#include "ZulAgent/orchestration/AccessibilityScenePublisher.h"
#include "ZulAgent/orchestration/AgentIndicator.h"
#include "ZulAgent/orchestration/CaptureGeometry.h"
#include "ZulAgent/orchestration/ClipboardSharing.h"
#include "ZulAgent/orchestration/ConnectionQuestions.h"
#include "ZulAgent/orchestration/DisplaySwitcher.h"
#include "ZulAgent/orchestration/FileTransfers.h"
#include "ZulAgent/orchestration/PairingLinks.h"
#include "ZulAgent/orchestration/PhoneRequestDispatcher.h"
#include "ZulAgent/orchestration/ServerConnection.h"
#include "ZulAgent/orchestration/ShellSessions.h"
#include "ZulAgent/orchestration/StopSignals.h"
#include "ZulAgent/orchestration/TrustWatch.h"
#include "ZulAgent/orchestration/WatchedCapture.h"
#include "ZulAgent/windows/AgentWindowTexts.h"
#include "ZulCore/Support/Console.h"
#include "ZulCore/Support/Guarded.h"
#include "ZulPlatform/linux/DesktopBackend.h"
#include "ZulPlatform/linux/accessibility/AtspiAccessibilityBackend.h"
#include "ZulPlatform/linux/audit/AuditLog.h"
#include "ZulPlatform/linux/secrets/SecretBackendSelection.h"
#include "ZulTransport/AgentSignalingClient.h"
#include "ZulTransport/LocalOfferSession.h"
#include "ZulTransport/PhoneConnections.h"

namespace zul {

RealAgentSettings RealAgentSettings::fromEnvironment() {
  RealAgentSettings settings;
  if (const char* url = std::getenv("ZUL_SIGNALING_URL"); url && *url) {
    settings.signalingBaseURL = url;
  }
  if (const char* text = std::getenv("ZUL_DEMO_SECONDS"); text && *text) {
    char* end = nullptr;
    const double seconds = std::strtod(text, &end);
    // Capped so that the deadline's nanoseconds fit the clock (about 31 years).
    constexpr double maxSeconds = 1e9;
    if (end && *end == '\0' && std::isfinite(seconds) && seconds >= 0) {
      settings.seconds = std::min(seconds, maxSeconds);
    }
  }
  settings.framesPerSecond = framesPerSecondFrom(std::getenv("ZUL_MAX_FPS"));
  if (const char* pin = std::getenv("ZUL_SERVER_CERT_SHA256"); pin && *pin) {
    settings.trustedServerCertificate = pin;
  }
  if (const char* ask = std::getenv("ZUL_ASK_BEFORE_CONNECTING"); ask && std::string(ask) == "1") {
    settings.askBeforeConnecting = true;
  }
  return settings;
}

namespace {

using SteadyClock = std::chrono::steady_clock;

std::int64_t monotonicNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now().time_since_epoch())
      .count();
}

std::int64_t unixMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string hostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0 || !name[0]) return "computer";
  return name;
}

// The accessibility scene source, made on first use and shared: the agent
// runs without an accessibility bus until a scene or element is asked for.
class LazySceneSource {
 public:
  std::shared_ptr<AccessibilitySceneSource> get() {
    std::lock_guard lock(mutex_);
    if (!source_) {
      source_ =
          std::make_shared<AccessibilitySceneSource>(std::make_shared<AtspiAccessibilityBackend>());
    }
    return source_;
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<AccessibilitySceneSource> source_;
};

// The real agent: what it owns, made and wired in order, then ticked twice a
// second until it is asked to stop, then taken down in reverse.
class RealAgent {
 public:
  RealAgent(const RealAgentSettings& settings,
            const std::function<void(const std::string&)>& onStatusChanged, const PrintLine& print,
            const RealAgentUi& ui, StopSignals* stopSignals)
      : settings_(settings),
        onStatusChanged_(onStatusChanged),
        event_(print),
        print_(verboseOutput() ? print : PrintLine([](std::string_view) {})),
        ui_(ui),
        // Alone, the agent's own: its notification's buttons reach it there,
        // and a pause outlasts a restart.
        control_(ui.control ? ui.control : RealAgentControl::rememberingPause(print)),
        stopSignals_(stopSignals) {
    if (settings.askBeforeConnecting) control_->setAskBeforeConnecting(true);
  }

  void run() {
    loadTrust();
    makePhones();
    makeRequests();
    startCapture();
    connectToServer();
    try {
      tickUntilStopped();
    } catch (const std::exception& error) {
      print_(std::string("real agent: ") + error.what());
    }
    tearDown();
  }

 private:
  void status(const std::string& text) const {
    if (onStatusChanged_) onStatusChanged_(text);
  }

  void loadTrust() {
    secrets_ = makeSecretBackend();
    print_(describeSecretBackendChoice(*secrets_));
    identity_ = std::make_shared<const IdentityKeyStore>(SecretStore("identity", secrets_));
    print_("agent id: " + identity_->agentId());
    // The name the windows and the phone app show this computer under.
    event_("this computer: " + hostName() + " (" + windows::deviceCode(identity_->agentId()) + ")");
    trustedDevices_.emplace(SecretStore("trusted-devices", secrets_));
    trust_.emplace(*trustedDevices_, event_,
                   [this](const std::string& event, nlohmann::json fields) {
                     audit_.record(event, std::move(fields));
                   });
    pairing_ = std::make_shared<const PairingService>(identity_);
  }

  // One WebRTC connection per phone, all on the agent's certificate.
  void makePhones() {
    // Read once for the run; every phone's session presents the same certificate.
    DtlsCertificate certificate;
    try {
      certificate =
          PersistedDtlsCertificate::loadOrCreate(SecretStore("dtls-certificate", secrets_));
    } catch (const std::exception& error) {
      print_(std::string("could not load or create the agent's DTLS certificate: ") + error.what());
      throw;
    }
    phones_ = PhoneConnections::make(
        [certificate, encoding = settings_.videoEncoding] {
          return std::make_unique<AgentPeerSession>(certificate, encoding);
        },
        *trustedDevices_, {});
    phones_->onDiagnostic = print_;
    phones_->onSessionEstablished = [this](const std::string& sessionId,
                                           const std::string& deviceId) {
      sessionEstablished(sessionId, deviceId);
    };
    phones_->onSessionEnded = [this] { sessionEnded(); };
  }

  void sessionEstablished(const std::string& sessionId, const std::string& deviceId) {
    print_("control session established: " + sessionId + " (" + deviceId + ")");
    const std::string name = trust_->deviceName(deviceId);
    recordSessionEnd("replaced");  // the phone before, if any
    {
      nlohmann::json permissions = nlohmann::json::array();
      for (auto p : trust_->permissionsOf(deviceId).value_or(std::set<DevicePermission>{})) {
        permissions.push_back(rawValue(p));
      }
      audit_.record("session.started",
                    {{"device", deviceId}, {"name", name}, {"permissions", permissions}});
      *session_.lock() = Session{deviceId, name, SteadyClock::now(), 0};
    }
    const auto previous = std::exchange(*sessionDevice_.lock(), name);
    event_("phone connected: " + name +
           (previous.empty() || previous == name ? "" : " (instead of " + previous + ")"));
    status("peer-ready: " + name);
    // Where the desktop shows no prompt of its own (Wayland), the user
    // learns of the phone from us.
    if (!desktop_->announceRemoteControl(name)) {
      print_("desktop notification failed: no notification service on the session bus");
    }
    // A new session never inherits a button or key the previous phone held.
    requests_->releaseAll();
    clipboard_->sessionStarted(holds(deviceId, DevicePermission::clipboard));
    const auto permissions = trust_->permissionsOf(deviceId).value_or(std::set<DevicePermission>{});
    if (permissions.count(DevicePermission::shell)) {
      shells_->sessionStarted(deviceId);
    } else {
      shells_->endAll();
    }
    if (files_) files_->sessionStarted(name);
    capture_->setWatched(true);
    switcher_->sendMonitorList();
  }

  // The record of the session that ended, and how (unless the path that
  // ended it already said).
  void recordSessionEnd(const std::string& how) {
    std::optional<Session> ended = std::exchange(*session_.lock(), std::nullopt);
    if (!ended) return;
    const std::string reason = std::exchange(*endReason_.lock(), {});
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(SteadyClock::now() - ended->started);
    audit_.record("session.ended", {{"device", ended->deviceId},
                                    {"name", ended->name},
                                    {"seconds", seconds.count()},
                                    {"how", reason.empty() ? how : reason},
                                    {"refusals", ended->refusals}});
  }
  // What the session's device did, for the log.
  void recordForSession(const std::string& event, nlohmann::json fields) {
    if (auto current = *session_.lock()) fields["device"] = current->deviceId;
    audit_.record(event, std::move(fields));
  }

  void sessionEnded() {
    recordSessionEnd("connection lost");
    if (auto name = std::exchange(*sessionDevice_.lock(), {}); !name.empty()) {
      event_("phone disconnected: " + name);
      status("phone-left: " + name);
    }
    requests_->releaseAll();
    clipboard_->sessionEnded();
    if (files_) files_->sessionEnded();
    shells_->sessionEnded();
    capture_->setWatched(false);
  }

  // Whether the trusted device holds a permission now.
  bool holds(const std::string& deviceId, DevicePermission permission) const {
    for (const auto& device : trust_->list()) {
      if (device.deviceId == deviceId && !device.revoked) {
        return device.permissions.count(permission) > 0;
      }
    }
    return false;
  }

  void makeRequests() {
    // X11 or GNOME Wayland, chosen once for the run.
    desktop_ = desktopBackend(print_);
    injector_ = desktop_->makeInputInjector();
    auto sceneSource = [slot = std::make_shared<LazySceneSource>()] { return slot->get(); };
    std::weak_ptr<PhoneSessions> phones = phones_;
    publisher_ = std::make_shared<AccessibilityScenePublisher>(AccessibilityScenePublisher::Hooks{
        .source = sceneSource,
        .activeSessionId = [phones] { return activeSessionOf(phones); },
        .sendScene =
            [phones](const std::string& text) {
              if (auto p = phones.lock()) p->sendToSession("scene", text);
            },
        .print = print_,
        .nowMilliseconds = unixMilliseconds,
        .hostName = hostName(),
    });
    // What the clipboard and the shells send the phone in session, and how
    // much of it still waits on the control channel.
    const auto sendControl = [phones](const std::string& text) {
      if (auto p = phones.lock()) p->sendToSession("control", text);
    };
    const auto bufferedOn = [phones](const char* channel) {
      return [phones, channel] {
        auto p = phones.lock();
        return p ? p->bufferedAmount(channel) : std::uint64_t(0);
      };
    };
    clipboard_ = std::make_shared<ClipboardSharing>(ClipboardSharing::Hooks{
        .clipboard = desktop_->makeClipboard(),
        .sendControl = sendControl,
        .activeSessionId = [phones] { return activeSessionOf(phones); },
        .bufferedControlBytes = bufferedOn("control"),
        .print = print_,
        .crossed =
            [this](const std::string& direction, const std::string& type, std::size_t size) {
              recordForSession("clipboard",
                               {{"direction", direction}, {"type", type}, {"size", size}});
            },
    });
    try {
      files_ = std::make_shared<FileTransfers>(FileTransfers::Hooks{
          .home = std::make_shared<HomeFolder>(HomeFolder::userHome()),
          .send =
              [phones](const Bytes& message) {
                if (auto p = phones.lock()) p->sendBinaryToSession("files", message);
              },
          .bufferedBytes = bufferedOn("files"),
          .print = print_,
          .event = event_,
          .finished =
              [this](const std::string& direction, const std::string& path, std::int64_t size) {
                recordForSession("file",
                                 {{"direction", direction}, {"path", path}, {"size", size}});
              },
      });
    } catch (const std::exception& error) {
      event_(std::string("files cannot be shared: ") + error.what());
    }
    shells_ = std::make_shared<ShellSessions>(ShellSessions::Hooks{
        .sendControl = sendControl,
        .activeSessionId = [phones] { return activeSessionOf(phones); },
        .bufferedControlBytes = bufferedOn("control"),
        .print = print_,
        .recorded =
            [this](const std::string& event, const std::string& shell, int status) {
              nlohmann::json fields = {{"shell", shell}};
              if (event == "closed") fields["status"] = status;
              recordForSession("shell." + event, std::move(fields));
            },
    });
    phones_->setHostShells(ShellProcess::availableShells());
    phones_->setScreenLocked([this] { return screenLocked_.load(); });
    phones_->setPaused([control = control_] { return control->paused(); });
    phones_->setAdmission([this](const std::string& deviceId) { return admit(deviceId); });
    phones_->onBinaryMessage = [files = std::weak_ptr(files_)](const std::string& channel,
                                                               const Bytes& data,
                                                               const PermissionGate& permissions) {
      auto f = files.lock();
      if (f && channel == "files" && permissions.allows(DevicePermission::files)) f->received(data);
    };
    requests_ = std::make_shared<PhoneRequestDispatcher>(PhoneRequestDispatcher::Targets{
        .injector = injector_,
        .sceneSource = sceneSource,
        .publishScene = [publisher = publisher_] { publisher->publish(); },
        // The switcher exists before any phone can ask.
        .sendMonitorList = [this] { switcher_->sendMonitorList(); },
        .selectMonitor = [this](std::int64_t index) { switcher_->select(index); },
        .forgetDevice = [this] { forgetPhoneInSession(); },
        .clipboardGet = [clipboard = clipboard_](
                            const ClipboardGetRequest& request) { clipboard->get(request); },
        .clipboardSet = [clipboard = clipboard_](
                            const ClipboardSetRequest& request) { clipboard->set(request); },
        .shells = [shells = shells_](const PhoneRequest& request) { shells->handle(request); },
        .files =
            files_ ? std::function<void(const PhoneRequest&)>(
                         [files = files_](const PhoneRequest& request) { files->handle(request); })
                   : nullptr,
        .print = print_,
        .refuse =
            [this, phones](const RoutedMessage& message, const std::exception& error) {
              if (dynamic_cast<const PermissionGateError*>(&error)) {
                if (auto session = session_.lock(); *session) ++(*session)->refusals;
              }
              if (auto p = phones.lock()) p->refuse(message.sessionId, error);
            },
    });
    phones_->onAuthenticatedMessage = [requests = std::weak_ptr(requests_)](
                                          const RoutedMessage& message,
                                          const PermissionGate& permissions) {
      if (auto r = requests.lock()) r->dispatch(message, permissions);
    };
    print_(std::string("input: ") +
           (desktop_->name() == "x11" ? "XTest" : "mutter remote desktop") +
           "; element actions: AT-SPI (reached on first use)");
  }

  static std::optional<std::string> activeSessionOf(const std::weak_ptr<PhoneSessions>& phones) {
    auto p = phones.lock();
    return p ? p->activeSessionId() : std::nullopt;
  }

  // Starts capture once, to resolve the display the pointer targets (a
  // failure stops the agent), then leaves it idle until a phone watches.
  void startCapture() {
    screen_ = desktop_->makeCaptureSource();
    std::weak_ptr<PhoneSessions> phones = phones_;
    // While files move, the picture gives way to them: ten frames a second
    // keep it live at a fraction of the encoding and sending.
    screen_->setFrameReady(
        [phones, files = std::weak_ptr(files_),
         lastPushed = std::make_shared<std::atomic<std::int64_t>>(0)](const CapturedFrame& frame) {
          const std::int64_t now = monotonicNanoseconds();
          auto f = files.lock();
          if (f && f->moving() && now - *lastPushed < 100000000) return;
          *lastPushed = now;
          if (auto p = phones.lock()) p->push(frame, now);
        });
    screen_->setCaptureFailed([this](const CaptureError& error) { desktopLost(error.what()); });
    capture_ = std::make_shared<WatchedCapture>(WatchedCapture::Hooks{
        .start =
            [desktop = desktop_, screen = screen_, fps = settings_.framesPerSecond,
             rate = settings_.videoEncoding.frameRate](std::int64_t index) {
              return startScreenCapture(*desktop, *screen, index, fps, rate);
            },
        .stop = [screen = screen_] { screen->stop(); },
        .print = print_,
        .indexOf = [desktop = desktop_](std::uint32_t displayID) -> std::optional<std::int64_t> {
          for (const auto& d : desktop->availableDisplays()) {
            if (d.displayID == displayID) return d.index;
          }
          return std::nullopt;
        },
        .resumedElsewhere =
            [this](const DisplayDescriptor& display) {
              targetPointer(display);
              if (switcher_) switcher_->displaysChanged();  // the phone hears the new list
            },
    });

    print_("starting capture\u2026");
    targetPointer(capture_->startOn(0));

    switcher_ = std::make_shared<DisplaySwitcher>(DisplaySwitcher::Hooks{
        .availableDisplays = [desktop = desktop_] { return desktop->availableDisplays(); },
        .primaryDisplayID = [desktop = desktop_] { return desktop->primaryDisplayID(); },
        .activeSessionId = [phones] { return activeSessionOf(phones); },
        .sendControl =
            [phones](const std::string& text) {
              if (auto p = phones.lock()) p->sendToSession("control", text);
            },
        .restartCapture = [capture =
                               capture_](std::int64_t index) { return capture->startOn(index); },
        .onSwitched =
            [this](const DisplayDescriptor& display) {
              targetPointer(display);
              publisher_->publish();
            },
        .print = print_,
        .nowMilliseconds = unixMilliseconds,
        .capturedDisplayID = [screen = screen_] { return screen->resolvedDisplayID(); },
    });
    // Monitors that come and go: capture follows the one it watched, else
    // the first, and the phone hears the new list.
    screen_->setDisplaysChanged([switcher = std::weak_ptr<DisplaySwitcher>(switcher_)](
                                    const std::vector<DisplayDescriptor>&) {
      if (auto s = switcher.lock()) s->displaysChanged();
    });
  }

  // Capture of one display at the agent's options; returns the display that
  // capture resolved. The pointer then targets it at the same reference size.
  static DisplayDescriptor startScreenCapture(DesktopBackend& desktop,
                                              DesktopCaptureSource& capture, std::int64_t index,
                                              std::int64_t framesPerSecond,
                                              std::shared_ptr<const FrameRateChoice> rate) {
    const std::vector<DisplayDescriptor> displays = desktop.availableDisplays();
    if (index < 0 || index >= std::int64_t(displays.size())) {
      throw CaptureError::displayUnavailable(index);
    }
    const CaptureSize size = captureSizeFor(displays[std::size_t(index)]);
    CaptureOptions options;
    options.displayIndex = index;
    options.width = size.width;
    options.height = size.height;
    options.framesPerSecond = framesPerSecond;
    options.idleFramesPerSecond = zul::idleFramesPerSecond;
    options.adaptiveRate = std::move(rate);
    capture.stop();
    capture.start(options);
    const auto resolved = capture.resolvedDisplayID();
    for (const auto& display : displays) {
      if (resolved && display.displayID == *resolved) return display;
    }
    return displays[std::size_t(index)];
  }

  // Taps and scene rectangles are in the video's pixels, on every display.
  void targetPointer(const DisplayDescriptor& display) {
    publisher_->setDisplay(sceneMappingFor(display), display.index);
    requests_->setPointerExecutor(
        std::make_shared<PointerInputExecutor>(videoMappingFor(display), injector_));
    const CaptureSize size = captureSizeFor(display);
    print_("input executor targets display " + std::to_string(display.displayID) + " (" +
           std::to_string(display.width) + "x" + std::to_string(display.height) + ", captured at " +
           std::to_string(size.width) + "x" + std::to_string(size.height) + ")");
  }

  void connectToServer() {
    AgentSignalingClient::Options options;
    options.trustedCertificateSha256 = settings_.trustedServerCertificate;
    signaling_ = std::make_unique<AgentSignalingClient>(
        settings_.signalingBaseURL, identity_, pairing_, phones_, *trustedDevices_, options);
    server_.emplace(*signaling_, settings_.signalingBaseURL,
                    ServerConnection::Output{
                        .event = event_,
                        .print = print_,
                        .status = [this](const std::string& text) { status(text); },
                    });
    links_.emplace(PairingLinks::Hooks{
        .createPairing = [this] { return signaling_->createPairing(); },
        .agentId = identity_->agentId(),
        .signalingBaseURL = settings_.signalingBaseURL,
        .onPairingLink = ui_.onPairingLink,
        .status = [this](const std::string& text) { status(text); },
        .serverReachable = [this] { return server_->reachable(); },
        .serverTrouble = [this](const std::string& reason) { server_->trouble(reason); },
        .event = event_,
        .print = print_,
    });
    // The server may have forgotten the last link's offer.
    server_->onServerBack = [this] { links_->spent(); };
    signaling_->onDiagnostic = [this](const std::string& line) { print_("[signaling] " + line); };
    signaling_->onPeerReady = [this](const std::string& deviceId) {
      print_("peer ready: " + deviceId);
    };
    // A pairing spends the link's one-time secret: the next tick makes a new one.
    signaling_->onTrustedDevicesChanged = [this](const std::vector<TrustedDevice>& devices) {
      trust_->noteChanges(devices);
      links_->spent();
    };
    signaling_->onPeerLeft = [this](const std::string& deviceId) {
      print_("peer left: " + deviceId);
      phones_->peerLeft(deviceId);
    };
    signaling_->onSessionLimitReached = [this](const std::optional<std::string>& peerId) {
      print_("session limit reached: " + peerId.value_or("unknown"));
      *endReason_.lock() = "session limit";
      phones_->closeAll();
    };
    links_->refresh();
    server_->start();
    if (!ui_.showsIndicator) indicator_.emplace(control_, print_);
  }

  // Capture ended by itself: the X server or the compositor went away. On
  // the capture's thread; the tick decides what follows.
  void desktopLost(const std::string& reason) {
    print_("capture failed: " + reason);
    event_("desktop lost: " + reason);
    capture_->lost();
    tellPhone("desktopLost", reason);
    *desktopLostAt_.lock() = SteadyClock::now();
  }

  // A notice for the phone in session, which the app shows in words.
  void tellPhone(const std::string& reason, const std::string& text) {
    const auto sessionId = phones_->activeSessionId();
    if (!sessionId) return;
    nlohmann::json notice = MessageRouter::makeEnvelope("control.notice", *sessionId);
    notice["reason"] = reason;
    notice["message"] = text;
    try {
      phones_->sendToSession("control",
                             notice.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    } catch (const std::exception& error) {
      print_(std::string("notice not sent: ") + error.what());
    }
  }

  // After the desktop was lost: the agent stops when it is gone for good (an
  // X server); capture starts again on a compositor that comes back, and the
  // phone's session ends when it does not within 30 s, so that the phone
  // can connect again later. True: stop.
  bool followLostDesktop() {
    const auto lostAt = *desktopLostAt_.lock();
    if (!lostAt) return false;
    if (desktop_->desktopGone()) {
      event_("stopping: the desktop is gone");
      return true;
    }
    const bool watched = phones_->activeDeviceId().has_value();
    if (capture_->running() || !watched) {
      desktopLostAt_.lock()->reset();
      if (watched) {
        event_("desktop back: capture resumed");
        tellPhone("desktopBack", "capture resumed");
      }
      return false;
    }
    if (SteadyClock::now() - *lostAt > std::chrono::seconds(30)) {
      desktopLostAt_.lock()->reset();
      event_("the desktop did not come back: ending the phone's session");
      phones_->endSession();
      return false;
    }
    capture_->resume();
    return false;
  }

  // Until the deadline, a signal or the interface's stop: new pairing links
  // when due, and an immediate end for a session whose device was revoked.
  void tickUntilStopped() {
    const std::optional<SteadyClock::time_point> deadline =
        settings_.seconds ? std::optional(SteadyClock::now() +
                                          std::chrono::duration_cast<SteadyClock::duration>(
                                              std::chrono::duration<double>(*settings_.seconds)))
                          : std::nullopt;
    unsigned idleTicks = 0;
    while (true) {
      if (!stopSignals_) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
      } else if (const int signal = stopSignals_->wait(std::chrono::milliseconds(500))) {
        event_(std::string("stopping (") + (signal == SIGINT ? "SIGINT" : "SIGTERM") + ")");
        return;
      }
      stopIfOutputClosed();
      if (deadline && SteadyClock::now() >= *deadline) return;
      if (control_->stopRequested()) return;
      if (control_->takeSessionEnd()) {
        // The app stays away until its user connects again, and says why.
        tellPhone("sessionEnded", "the session was ended at the computer");
        *endReason_.lock() = "ended at the computer";
        phones_->endSession();
      }
      followPause();
      if (indicator_) indicator_->show(control_->paused(), *sessionDevice_.lock());
      if (control_->takePairingRefresh()) {
        links_->refresh();
        continue;
      }
      if (followLostDesktop()) return;
      followScreenLock();
      if (const auto activeDevice = phones_->activeDeviceId()) {
        endSessionIfRevoked(*activeDevice);
        continue;
      }
      // A phone revoked by the trusted-devices tool or window while none is
      // in session is told of here, every few seconds; so is an X server
      // that went away while nothing was captured.
      if (++idleTicks % 4 == 0 && desktop_->desktopGone()) {
        event_("stopping: the desktop is gone");
        return;
      }
      trust_->idleTick();
      links_->tick();
    }
  }

  // The phone forgot this computer: it is revoked here too, and its session
  // ends (the revoke check would end it at the next tick; it ends now).
  void forgetPhoneInSession() {
    const auto deviceId = phones_->activeDeviceId();
    if (!deviceId) return;
    trustedDevices_->revoke(*deviceId);
    *endReason_.lock() = "forgotten by the phone";
    if (files_) files_->forgetUploads();
    shells_->endAll();
    const std::string name = std::exchange(*sessionDevice_.lock(), {});
    event_("phone forgot this computer: " + (name.empty() ? *deviceId : name) +
           " (revoked here too)");
    trust_->noteChanges(trust_->list(), /*sayRevoked=*/false);
    phones_->endSession();
  }

  // Asked before each connection: the person at the computer lets the phone
  // in, or not. On that phone's connection, which waits.
  bool admit(const std::string& deviceId) {
    if (!control_->askBeforeConnecting()) return true;
    const std::string name = trust_->deviceName(deviceId);
    event_("asking at the computer whether " + name + " may connect");
    const bool yes = ui_.askToConnect ? ui_.askToConnect(name) : questions_.ask(name);
    event_(name + (yes ? " was let in at the computer" : " was not let in at the computer"));
    return yes;
  }

  // Paused at the computer: every phone is kept out, and the one in session
  // leaves, told why.
  void followPause() {
    const bool paused = control_->paused();
    if (paused_ != paused) {
      paused_ = paused;
      event_(paused ? "paused at the computer: every phone is refused until resumed"
                    : "resumed: phones connect again");
      status(paused ? "paused" : "resumed");
    }
    if (!paused || !phones_->activeDeviceId()) return;
    tellPhone("agentPaused", "Velto приостановлен на компьютере");
    *endReason_.lock() = "paused at the computer";
    phones_->endSession();
  }

  // A locked screen: phones without `unattended` are kept out, and the one in
  // session leaves, told why.
  void followScreenLock() {
    const bool locked = desktop_->screenLocked().value_or(false);
    if (screenLocked_.exchange(locked) != locked) {
      event_(locked ? "the screen is locked: only phones allowed unattended access connect"
                    : "the screen is unlocked");
    }
    if (!locked) return;
    // The session's own permissions, set with it when its hello was
    // accepted: the tick may run before this agent has heard of the session.
    const auto permissions = phones_->activePermissions();
    if (!permissions || permissions->allows(DevicePermission::unattended)) return;
    tellPhone("computerLocked", "компьютер заблокирован");
    *endReason_.lock() = "screen locked";
    phones_->endSession();
  }

  // A device revoked while in session loses it at once; one whose
  // permissions changed at the computer has its session follow them.
  void endSessionIfRevoked(const std::string& deviceId) {
    if (!trust_->revoked(deviceId)) {
      const auto now = trust_->permissionsOf(deviceId);
      if (!now) return;
      const auto gate = phones_->activePermissions();
      if (!gate || *now == gate->permissions) return;
      const auto& before = gate->permissions;
      const bool shellWithdrawn =
          before.count(DevicePermission::shell) && !now->count(DevicePermission::shell);
      phones_->updateSessionPermissions(PermissionGate{*now});
      print_("the permissions of " + deviceId + " changed at the computer");
      if (shellWithdrawn) shells_->endAll();
      if (now->count(DevicePermission::shell)) shells_->sessionStarted(deviceId);
      return;
    }
    print_("device " + deviceId + " is no longer trusted: ending its session");
    *endReason_.lock() = "revoked";
    tellPhone("revoked", "this phone was removed from the computer's trusted phones");
    if (files_) files_->forgetUploads();
    shells_->endAll();
    const std::string name = std::exchange(*sessionDevice_.lock(), {});
    event_("phone revoked: " + (name.empty() ? trust_->deviceName(deviceId) : name) +
           " (its session ended)");
    phones_->endSession();
  }

  void tearDown() {
    print_("stopping\u2026");
    indicator_.reset();
    questions_.cancelAll();
    *endReason_.lock() = "agent stopped";
    server_->stop();
    links_->stop();
    // Offers are made on the connections' worker and sent through the
    // client: the worker ends before the client goes.
    phones_->shutdown();
    switcher_->shutdown();
    publisher_->shutdown();
    requests_->shutdown();
    if (files_) files_->shutdown();
    shells_->shutdown();
    clipboard_->shutdown();
    screen_->setDisplaysChanged(nullptr);
    capture_->shutdown();
    // Nothing the agent pressed stays down after it stops.
    requests_->releaseAll();
    recordSessionEnd("agent stopped");
    event_("stopped");
  }

  const RealAgentSettings& settings_;
  const std::function<void(const std::string&)>& onStatusChanged_;
  // Lines a person reads, one per event; `print_` carries the detailed
  // diagnostics, printed only when asked for (ZUL_VERBOSE).
  const PrintLine& event_;
  const PrintLine print_;
  const RealAgentUi& ui_;
  const std::shared_ptr<RealAgentControl> control_;
  bool paused_ = false;             // as the tick last saw it
  StopSignals* const stopSignals_;  // none under a user interface
  std::optional<AgentIndicator> indicator_;
  ConnectionQuestions questions_;

  std::shared_ptr<SecretBackend> secrets_;
  std::shared_ptr<const IdentityKeyStore> identity_;
  std::optional<TrustedDeviceStore> trustedDevices_;
  std::optional<TrustWatch> trust_;
  std::shared_ptr<const PairingService> pairing_;
  std::shared_ptr<PhoneConnections> phones_;
  std::shared_ptr<DesktopBackend> desktop_;
  std::shared_ptr<InputInjector> injector_;
  std::shared_ptr<AccessibilityScenePublisher> publisher_;
  std::shared_ptr<ClipboardSharing> clipboard_;
  std::shared_ptr<FileTransfers> files_;
  std::shared_ptr<ShellSessions> shells_;
  const AuditLog audit_{AuditLog::defaultPath()};
  struct Session {
    std::string deviceId, name;
    SteadyClock::time_point started;
    int refusals = 0;
  };
  Guarded<std::optional<Session>> session_;  // the session in progress, for the log
  Guarded<std::string> endReason_;           // how the session in progress is being ended
  std::atomic<bool> screenLocked_{false};
  std::shared_ptr<PhoneRequestDispatcher> requests_;
  std::shared_ptr<DesktopCaptureSource> screen_;
  std::shared_ptr<WatchedCapture> capture_;
  std::shared_ptr<DisplaySwitcher> switcher_;
  std::unique_ptr<AgentSignalingClient> signaling_;
  std::optional<ServerConnection> server_;
  std::optional<PairingLinks> links_;
  Guarded<std::string> sessionDevice_;  // the name of the phone in session
  Guarded<std::optional<SteadyClock::time_point>> desktopLostAt_;
};

}  // namespace

void runRealAgent(const RealAgentSettings& settings,
                  const std::function<void(const std::string&)>& onStatusChanged,
                  const PrintLine& print, const RealAgentUi& ui) {
  // Alone, the agent takes SIGINT and SIGTERM itself: blocked before its
  // first thread starts (a thread that let one in would die of it, with
  // nothing released) until the last has ended. Under a user interface, the
  // interface takes them and stops the agent through its control.
  std::optional<StopSignals> stopSignals;
  if (!ui.control) stopSignals.emplace();
  RealAgent(settings, onStatusChanged, print, ui, stopSignals ? &*stopSignals : nullptr).run();
}

}  // namespace zul
