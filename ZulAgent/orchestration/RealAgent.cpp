#include "ZulAgent/orchestration/RealAgent.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <set>
#include <thread>
#include <utility>

#include "ZulAgent/orchestration/AccessibilityScenePublisher.h"
#include "ZulAgent/orchestration/CaptureGeometry.h"
#include "ZulAgent/orchestration/DisplaySwitcher.h"
#include "ZulAgent/orchestration/PhoneConnections.h"
#include "ZulAgent/orchestration/WatchedCapture.h"
#include "ZulCore/Support/Console.h"
#include "ZulPlatform/linux/DesktopBackend.h"
#include "ZulPlatform/linux/accessibility/AtspiAccessibilityBackend.h"
#include "ZulPlatform/linux/secrets/SecretBackendSelection.h"
#include "ZulTransport/AgentSignalingClient.h"
#include "ZulTransport/ControlSessionDispatcher.h"
#include "ZulTransport/LocalOfferSession.h"
#include "ZulTransport/SignalingUrl.h"

namespace zul {

RealAgentError RealAgentError::invalidSemanticInvocation() {
  return {Case::invalidSemanticInvocation, formatErrorCase("invalidSemanticInvocation", {})};
}

RealAgentError RealAgentError::couldNotEncodePairingLink() {
  return {Case::couldNotEncodePairingLink, formatErrorCase("couldNotEncodePairingLink", {})};
}

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
  return settings;
}

// ---------------------------------------------------------------------------
// Message actions

namespace {

std::string shown(const nlohmann::json& payload, const char* key) {
  auto it = payload.find(key);
  if (it == payload.end()) return "missing";
  if (it->is_number_float()) {
    // Video pixels: two decimals say enough.
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", it->get<double>());
    std::string out = text;
    while (out.back() == '0') out.pop_back();
    if (out.back() == '.') out.pop_back();
    return out;
  }
  return it->is_string() ? it->get<std::string>() : it->dump();
}

const std::string* stringAt(const nlohmann::json& json, const char* key) {
  auto it = json.find(key);
  return it != json.end() && it->is_string() ? it->get_ptr<const std::string*>() : nullptr;
}

}  // namespace

AgentMessageActions::AgentMessageActions(std::shared_ptr<InputInjector> injector,
                                         SceneSourceProvider sceneSource, PrintLine print,
                                         Refuse refuse)
    : keyboard_(std::move(injector)),
      sceneSource_(std::move(sceneSource)),
      print_(std::move(print)),
      refuse_(std::move(refuse)) {}

AgentMessageActions::~AgentMessageActions() { shutdown(); }

void AgentMessageActions::addHandler(std::string type, Handler handler, bool needsControl) {
  handlers_[std::move(type)] = {std::move(handler), needsControl};
}

void AgentMessageActions::setPointerExecutor(std::shared_ptr<PointerInputExecutor> executor) {
  std::shared_ptr<PointerInputExecutor> previous;
  {
    std::lock_guard lock(pointerMutex_);
    previous = std::exchange(pointer_, std::move(executor));
  }
  // A display switch leaves no button pressed on the display left behind.
  if (previous) previous->releaseHeldButton();
}

std::shared_ptr<PointerInputExecutor> AgentMessageActions::pointer() const {
  std::lock_guard lock(pointerMutex_);
  return pointer_;
}

void AgentMessageActions::releaseHeldButton() {
  if (auto executor = pointer()) executor->releaseHeldButton();
}

void AgentMessageActions::releaseAll() {
  releaseHeldButton();
  // Keys and buttons still down through the injector the executors share.
  keyboard_.releaseAll();
}

void AgentMessageActions::refuse(const RoutedMessage& message, const std::exception& error) const {
  if (refuse_) refuse_(message, error);
}

void AgentMessageActions::queue(TaskQueue& queue, const RoutedMessage& message,
                                std::function<void()> task) {
  if (!queue.post(std::move(task))) {
    print_("[input] dropped " + message.type + ": too many requests waiting");
  }
}

void AgentMessageActions::dispatch(const RoutedMessage& message,
                                   const PermissionGate& permissions) {
  const nlohmann::json& payload = message.json;
  const std::string& type = message.type;
  const bool input = type == "input.cursor" || type == "input.scroll" || type == "input.text" ||
                     type == "input.key";
  try {
    if (input) {
      // Refused at once, in order, rather than after the queue.
      permissions.demand(DevicePermission::control);
      if (type == "input.text") {
        const std::string* value = stringAt(payload, "value");
        if (!value) return;
        queue(keyboardQueue_, message,
              [this, message, permissions, text = *value] { typeText(text, permissions); });
      } else if (type == "input.key") {
        const std::string* combo = stringAt(payload, "combo");
        if (!combo) return;
        queue(keyboardQueue_, message, [this, message, permissions, combo = *combo] {
          try {
            keyboard_.sendHotkey(combo, permissions);
            print_("[input.key] ok: " + combo);
          } catch (const std::exception& error) {
            print_(std::string("[input] ") + error.what());
            refuse(message, error);
          }
        });
      } else {
        queue(pointerQueue_, message,
              [this, message, permissions] { pointerRequest(message, permissions); });
      }
    } else if (type == "input.invoke") {
      queue(invokeQueue_, message, [this, message, permissions] { invoke(message, permissions); });
    } else if (auto entry = handlers_.find(type); entry != handlers_.end()) {
      if (entry->second.needsControl) permissions.demand(DevicePermission::control);
      entry->second.handler(message, permissions);
    } else {
      print_("[" + message.channel + "] " + type + " (not handled yet)");
    }
  } catch (const std::exception& error) {
    const std::string prefix = input                              ? "[input] "
                               : type == "control.monitor.select" ? "monitor switch rejected: "
                                                                  : "[" + type + "] ";
    print_(prefix + error.what());
    refuse(message, error);
  }
}

void AgentMessageActions::pointerRequest(const RoutedMessage& message,
                                         const PermissionGate& permissions) {
  const nlohmann::json& payload = message.json;
  auto executor = pointer();
  if (!executor) {
    print_("[input] dropped: capture hasn't resolved a display yet");
    return;
  }
  try {
    if (message.type == "input.cursor") {
      executor->handle(payload, permissions);
      print_("[input.cursor] ok: " + shown(payload, "phase") + " x=" + shown(payload, "x") +
             " y=" + shown(payload, "y"));
    } else {
      executor->scroll(payload, permissions);
      print_("[input.scroll] ok: dx=" + shown(payload, "dx") + " dy=" + shown(payload, "dy"));
    }
  } catch (const std::exception& error) {
    print_(std::string("[input] ") + error.what());
    refuse(message, error);
  }
}

// Typed in pieces, so that pointer requests get the desktop in between.
void AgentMessageActions::typeText(const std::string& text, const PermissionGate& permissions) {
  constexpr std::size_t piece = 256;
  try {
    std::size_t from = 0;
    while (from < text.size()) {
      std::size_t to = std::min(text.size(), from + piece);
      // Not inside a UTF-8 sequence.
      while (to < text.size() && (static_cast<unsigned char>(text[to]) & 0xC0) == 0x80) ++to;
      keyboard_.sendText(std::string_view(text).substr(from, to - from), permissions);
      from = to;
    }
    print_("[input.text] ok");
  } catch (const std::exception& error) {
    print_(std::string("[input] ") + error.what());
  }
}

void AgentMessageActions::invoke(const RoutedMessage& message, const PermissionGate& permissions) {
  try {
    permissions.demand(DevicePermission::control);
    const std::string* elementId = stringAt(message.json, "elementId");
    auto sequence = message.json.find("sceneSeq");
    if (!elementId || sequence == message.json.end() || !sequence->is_number()) {
      throw RealAgentError::invalidSemanticInvocation();
    }
    auto source = sceneSource_ ? sceneSource_() : nullptr;
    if (!source) throw AccessibilitySceneError::permissionRequired();
    source->invoke(*elementId, sequence->get<std::int64_t>());
    print_("[input.invoke] ok: " + *elementId);
  } catch (const std::exception& error) {
    print_(std::string("[input.invoke] ") + error.what());
    refuse(message, error);
  }
}

void AgentMessageActions::waitUntilIdle() {
  pointerQueue_.waitUntilIdle();
  keyboardQueue_.waitUntilIdle();
  invokeQueue_.waitUntilIdle();
}

void AgentMessageActions::shutdown() {
  pointerQueue_.shutdown();
  keyboardQueue_.shutdown();
  invokeQueue_.shutdown();
}

std::vector<std::string> pairingBanner(const std::string& link, std::int64_t expiresInSeconds,
                                       const std::string& signalingBaseURL) {
  const std::string rule(58, '=');
  return {"",
          rule,
          "Open zul-mobile -> \"Pair computer\" -> scan the QR window, or",
          "paste this into the pairing-link field:",
          "",
          link,
          "",
          "Expires in " + std::to_string(expiresInSeconds) +
              "s. Signaling: " + redactedUrl(signalingBaseURL),
          rule,
          ""};
}

// ---------------------------------------------------------------------------
// The orchestrator

namespace {

using SteadyClock = std::chrono::steady_clock;

std::int64_t monotonicNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now().time_since_epoch())
      .count();
}

// SIGINT and SIGTERM are taken by the waiting thread (blocked in all others).
class StopSignals {
 public:
  StopSignals() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGINT);
    sigaddset(&set_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set_, &previous_);
  }
  ~StopSignals() {
    // A signal that arrived during tear-down is consumed rather than left
    // pending to kill the process once unblocked.
    timespec none{};
    while (sigtimedwait(&set_, nullptr, &none) > 0) {
    }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
  // The signal that arrived within `timeout`, or 0.
  int wait(std::chrono::milliseconds timeout) {
    timespec ts{static_cast<time_t>(timeout.count() / 1000),
                static_cast<long>((timeout.count() % 1000) * 1'000'000)};
    const int signal = sigtimedwait(&set_, nullptr, &ts);
    return signal > 0 ? signal : 0;
  }

 private:
  sigset_t set_;
  sigset_t previous_;
};

// The accessibility scene source, made on first use and shared.
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

// A value with a lock of its own, held for one statement or scope.
template <typename T>
class Guarded {
 public:
  class Access {
   public:
    Access(std::mutex& mutex, T& value) : lock_(mutex), value_(value) {}
    T& operator*() { return value_; }
    T* operator->() { return &value_; }

   private:
    std::unique_lock<std::mutex> lock_;
    T& value_;
  };
  Access lock() { return {mutex_, value_}; }

 private:
  std::mutex mutex_;
  T value_{};
};

std::string hostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0 || !name[0]) return "computer";
  return name;
}

std::int64_t unixMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

namespace {
WindowedRealAgent& windowedSlot() {
  static WindowedRealAgent run;
  return run;
}
}  // namespace

void setWindowedRealAgent(WindowedRealAgent run) { windowedSlot() = std::move(run); }
const WindowedRealAgent& windowedRealAgent() { return windowedSlot(); }

namespace {

// The real agent's run, step by step: trust, connections, dispatch, capture,
// then the pairing and signalling loops until it is asked to stop.
class RealAgent {
 public:
  RealAgent(const RealAgentSettings& settings,
            const std::function<void(const std::string&)>& onStatusChanged, const PrintLine& print,
            const RealAgentUi& ui)
      : settings_(settings),
        onStatusChanged_(onStatusChanged),
        event_(print),
        print_(verboseOutput() ? print : PrintLine([](std::string_view) {})),
        ui_(ui) {}

  void run() {
    loadTrust();
    makeConnections();
    wireDispatch();
    startCapture();
    wireSignaling();
    startPairingRefresh();
    startSignalingLoop();
    try {
      pairingLoop();
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
    trustedDevices_.emplace(SecretStore("trusted-devices", secrets_));
    noteTrustChanges(trustedList());
    pairing_ = std::make_shared<const PairingService>(identity_);
  }

  // One WebRTC connection per phone, all on the agent's certificate.
  void makeConnections() {
    // Read once for the run; every phone's session presents the same certificate.
    DtlsCertificate certificate;
    try {
      certificate =
          PersistedDtlsCertificate::loadOrCreate(SecretStore("dtls-certificate", secrets_));
    } catch (const std::exception& error) {
      print_(std::string("could not load or create the agent's DTLS certificate: ") + error.what());
      throw;
    }
    PhoneConnections::Hooks hooks;
    hooks.makeSession = [certificate] { return std::make_unique<AgentPeerSession>(certificate); };
    hooks.wireDispatcher = [this](ControlSessionDispatcher& dispatcher) {
      dispatcher.onDiagnostic = [print = print_](const std::string& line) {
        print("[control] " + line);
      };
      dispatcher.onAuthenticatedMessage = [this](const RoutedMessage& message,
                                                 const PermissionGate& permissions) {
        actions_->dispatch(message, permissions);
      };
    };
    hooks.onSessionEstablished = [this](const std::string& sessionId, const std::string& deviceId) {
      print_("control session established: " + sessionId + " (" + deviceId + ")");
      const std::string name = deviceName(deviceId);
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
      actions_->releaseAll();
      capture_->setWatched(true);
      switcher_->sendMonitorList();
    };
    hooks.onSessionEnded = [this] {
      if (auto name = std::exchange(*sessionDevice_.lock(), {}); !name.empty()) {
        event_("phone disconnected: " + name);
        status("phone-left: " + name);
      }
      actions_->releaseAll();
      capture_->setWatched(false);
    };
    hooks.print = print_;
    connections_ = PhoneConnections::make(std::move(hooks), *trustedDevices_, {});
  }

  void wireDispatch() {
    // X11 or GNOME Wayland, chosen once for the run.
    desktop_ = desktopBackend(print_);
    injector_ = desktop_->makeInputInjector();
    // AT-SPI is reached on the first scene or element action, not at start:
    // the agent runs without an accessibility bus.
    auto sceneSource = [slot = std::make_shared<LazySceneSource>()] { return slot->get(); };
    std::weak_ptr<PhoneConnections> connections = connections_;
    actions_ = std::make_shared<AgentMessageActions>(
        injector_, sceneSource, print_,
        [connections](const RoutedMessage& message, const std::exception& error) {
          if (auto c = connections.lock()) c->refuse(message.sessionId, error);
        });
    print_(std::string("input: ") +
           (desktop_->name() == "x11" ? "XTest" : "mutter remote desktop") +
           "; element actions: AT-SPI (reached on first use)");

    publisher_ = std::make_shared<AccessibilityScenePublisher>(AccessibilityScenePublisher::Hooks{
        .source = sceneSource,
        .activeSessionId = [connections] { return activeSessionOf(connections); },
        .sendScene =
            [connections](const std::string& text) {
              if (auto c = connections.lock()) c->sendToSession("scene", text);
            },
        .print = print_,
        .nowMilliseconds = unixMilliseconds,
        .hostName = hostName(),
    });
    // A scan reads the whole focused window: requests that pile up during
    // one are answered by a single fresh scan.
    actions_->addHandler("scene.request_snapshot",
                         [this](const RoutedMessage&, const PermissionGate&) {
                           sceneQueue_.post([publisher = publisher_] { publisher->publish(); });
                         });
  }

  static std::optional<std::string> activeSessionOf(
      const std::weak_ptr<PhoneConnections>& connections) {
    auto c = connections.lock();
    return c ? c->activeSessionId() : std::nullopt;
  }

  // Starts capture once, to resolve the display the pointer targets (a
  // failure stops the agent), then leaves it idle until a phone watches.
  void startCapture() {
    screen_ = desktop_->makeCaptureSource();
    std::weak_ptr<PhoneConnections> connections = connections_;
    screen_->setFrameReady([connections](const CapturedFrame& frame) {
      if (auto c = connections.lock()) c->push(frame, monotonicNanoseconds());
    });
    screen_->setCaptureFailed([print = print_](const CaptureError& error) {
      print(std::string("capture failed: ") + error.what());
    });
    capture_ = std::make_shared<WatchedCapture>(WatchedCapture::Hooks{
        .start =
            [desktop = desktop_, screen = screen_, fps = settings_.framesPerSecond](
                std::int64_t index) { return startScreenCapture(*desktop, *screen, index, fps); },
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
        .activeSessionId = [connections] { return activeSessionOf(connections); },
        .sendControl =
            [connections](const std::string& text) {
              if (auto c = connections.lock()) c->sendToSession("control", text);
            },
        .restartCapture = [capture =
                               capture_](std::int64_t index) { return capture->startOn(index); },
        .onSwitched =
            [this](const DisplayDescriptor& display) {
              targetPointer(display);
              sceneQueue_.post([publisher = publisher_] { publisher->publish(); });
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
    actions_->addHandler(
        "control.monitor.select",
        [switcher = switcher_](const RoutedMessage& message, const PermissionGate& permissions) {
          switcher->select(message.json, permissions);
        },
        /*needsControl=*/true);
    actions_->addHandler("control.monitor.list",
                         [switcher = switcher_](const RoutedMessage&, const PermissionGate&) {
                           switcher->sendMonitorList();
                         });
  }

  // Capture of one display at the agent's options; returns the display that
  // capture resolved. The pointer then targets it at the same reference size.
  static DisplayDescriptor startScreenCapture(DesktopBackend& desktop,
                                              DesktopCaptureSource& capture, std::int64_t index,
                                              std::int64_t framesPerSecond) {
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
    options.convertHdrToSdr = true;
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
    const VideoMapping video = videoMappingFor(display);
    publisher_->setDisplay(video, display.index);
    actions_->setPointerExecutor(std::make_shared<PointerInputExecutor>(video, injector_));
    const CaptureSize size = captureSizeFor(display);
    print_("input executor targets display " + std::to_string(display.displayID) + " (" +
           std::to_string(display.width) + "x" + std::to_string(display.height) + ", captured at " +
           std::to_string(size.width) + "x" + std::to_string(size.height) + ")");
  }

  void wireSignaling() {
    signaling_ = std::make_unique<AgentSignalingClient>(settings_.signalingBaseURL, identity_,
                                                        pairing_, connections_, *trustedDevices_);
    signaling_->onStatusChanged = [this](const std::string& text) {
      print_("signaling: " + text);
      if (text == "connected") {
        // The server may have forgotten the last link's pairing: a fresh one.
        troubleReason_.lock()->clear();
        if (serverLost_.exchange(false)) {
          event_("server back: " + redactedUrl(settings_.signalingBaseURL));
          linkSpent_ = true;
        } else if (!serverSeen_.exchange(true)) {
          event_("connected to the server " + redactedUrl(settings_.signalingBaseURL));
        }
      }
      status(text);
    };
    signaling_->onDiagnostic = [this](const std::string& line) { print_("[signaling] " + line); };
    signaling_->onPeerReady = [this](const std::string& deviceId) {
      print_("peer ready: " + deviceId);
    };
    // A pairing spends the link's one-time secret: the next idle tick prints a new one.
    signaling_->onTrustedDevicesChanged = [this](const std::vector<TrustedDevice>& devices) {
      noteTrustChanges(devices);
      linkSpent_ = true;
    };
    signaling_->onPeerLeft = [this](const std::string& deviceId) {
      print_("peer left: " + deviceId);
      connections_->peerLeft(deviceId);
    };
    signaling_->onSessionLimitReached = [this](const std::optional<std::string>& peerId) {
      print_("session limit reached: " + peerId.value_or("unknown"));
      connections_->closeAll();
    };
  }

  // Pairing links live two minutes; without a window to ask for a new one,
  // a fresh link is published when the last one expired and no phone is in
  // session, and retried a few seconds after a failure.
  void refreshPairing() {
    try {
      const PairingQrPayload payload = signaling_->createPairing();
      const std::string link = pairingDeepLink(payload);
      if (link.empty()) throw RealAgentError::couldNotEncodePairingLink();
      const std::int64_t seconds = std::max<std::int64_t>(
          0, payload.expiresAt - unixSeconds(std::chrono::system_clock::now()));
      for (const auto& line : pairingBanner(link, seconds, settings_.signalingBaseURL)) {
        event_(line);
      }
      if (ui_.onPairingLink) ui_.onPairingLink(link, identity_->agentId(), seconds);
      {
        std::lock_guard lock(pairingMutex_);
        linkValidUntil_ = SteadyClock::now() + std::chrono::seconds(seconds);
      }
      status("waiting");
      pairingFailure_.lock()->clear();
    } catch (const std::exception& error) {
      print_(std::string("refresh pairing failed: ") + error.what());
      // Retried every few seconds: said once per reason.
      if (!serverSeen_ || serverLost_) {
        serverTrouble(error.what(), false);
      } else if (std::exchange(*pairingFailure_.lock(), error.what()) != error.what()) {
        event_(std::string("no pairing link: ") + error.what());
      }
      std::lock_guard lock(pairingMutex_);
      linkValidUntil_.reset();
      nextPairingAttempt_ = SteadyClock::now() + std::chrono::seconds(5);
    }
  }

  // The request runs beside the main loop, so that a server that does not
  // answer holds back neither a stop nor the trusted-list checks; closing
  // the signalling client ends it.
  void startPairingRefresh() {
    if (pairingBusy_.exchange(true)) return;
    if (pairingThread_.joinable()) pairingThread_.join();
    pairingThread_ = std::thread([this] {
      refreshPairing();
      pairingBusy_ = false;
    });
  }

  // A server that cannot be reached, as the signalling loop or the pairing
  // request finds it: a line when an outage begins (before the first
  // connection, one per reason), and the reason for a window.
  void serverTrouble(const std::string& reason, bool outageBegins) {
    status("reconnecting: " + reason);
    const bool newReason = std::exchange(*troubleReason_.lock(), reason) != reason;
    if (serverSeen_ ? outageBegins : newReason) {
      event_((serverSeen_ ? "server lost: " : "cannot reach the server: ") + reason +
             "; retrying every 2 s");
    }
  }

  void startSignalingLoop() {
    signalingThread_ = std::thread([this] {
      while (!stopping_) {
        std::string reason = "the server closed the connection";
        try {
          signaling_->run();
        } catch (const std::exception& error) {
          reason = error.what();
        }
        if (stopping_) break;
        print_("signaling disconnected: " + reason + "; retrying");
        serverTrouble(reason, serverSeen_ && !serverLost_.exchange(true));
        std::unique_lock lock(loopMutex_);
        loopWake_.wait_for(lock, std::chrono::seconds(2), [&] { return stopping_.load(); });
      }
    });
  }

  // Until the deadline, a signal or the interface's stop: new pairing links
  // when due, and an immediate end for a session whose device was revoked.
  void pairingLoop() {
    // Alone, the agent takes SIGINT and SIGTERM itself; under a user
    // interface, the interface does and stops the agent through its control.
    std::optional<StopSignals> stopSignals;
    if (!ui_.control) stopSignals.emplace();
    const std::optional<SteadyClock::time_point> deadline =
        settings_.seconds ? std::optional(SteadyClock::now() +
                                          std::chrono::duration_cast<SteadyClock::duration>(
                                              std::chrono::duration<double>(*settings_.seconds)))
                          : std::nullopt;
    unsigned idleTicks = 0;
    while (true) {
      if (!stopSignals) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
      } else if (const int signal = stopSignals->wait(std::chrono::milliseconds(500))) {
        event_(std::string("stopping (") + (signal == SIGINT ? "SIGINT" : "SIGTERM") + ")");
        return;
      }
      stopIfOutputClosed();
      const auto now = SteadyClock::now();
      if (deadline && now >= *deadline) return;
      if (ui_.control && ui_.control->stopRequested()) return;
      if (ui_.control && ui_.control->takeSessionEnd()) connections_->endSession();
      if (ui_.control && ui_.control->takePairingRefresh()) {
        startPairingRefresh();
        continue;
      }
      if (const auto activeDevice = connections_->activeDeviceId()) {
        endSessionIfRevoked(*activeDevice);
        continue;
      }
      // A phone revoked by the trusted-devices tool or window while none is
      // in session is told of here, every few seconds.
      if (++idleTicks % 4 == 0) noteTrustChanges(trustedList());
      if (pairingDue(now)) startPairingRefresh();
    }
  }

  bool pairingDue(SteadyClock::time_point now) {
    std::lock_guard lock(pairingMutex_);
    // A window shows an expired link as such and asks for the next one.
    const bool expired = linkValidUntil_ && now >= *linkValidUntil_ && !ui_.onPairingLink;
    return (!linkValidUntil_ || expired || linkSpent_.exchange(false)) &&
           now >= nextPairingAttempt_;
  }

  // A device revoked while in session loses it at once.
  void endSessionIfRevoked(const std::string& deviceId) {
    std::vector<TrustedDevice> devices;
    try {
      devices = trustedDevices_->load();
    } catch (const std::exception&) {
      return;  // a store that cannot be read is not a revoke
    }
    const bool trusted = std::any_of(devices.begin(), devices.end(), [&](const auto& d) {
      return d.deviceId == deviceId && !d.revoked;
    });
    noteTrustChanges(devices, /*sayRevoked=*/false);
    if (!trusted) {
      print_("device " + deviceId + " is no longer trusted: ending its session");
      const std::string name = std::exchange(*sessionDevice_.lock(), {});
      event_("phone revoked: " + (name.empty() ? deviceName(deviceId) : name) +
             " (its session ended)");
      connections_->endSession();
    }
  }

  std::vector<TrustedDevice> trustedList() const {
    try {
      return trustedDevices_->load();
    } catch (const std::exception&) {
      return {};
    }
  }

  // How a person knows a phone: the name it paired with.
  std::string deviceName(const std::string& deviceId) const {
    for (const auto& device : trustedList()) {
      if (device.deviceId == deviceId && !device.name.empty()) return device.name;
    }
    return deviceId;
  }

  // A line for each device paired or revoked since the last look (the first
  // call only learns the list). `sayRevoked` false: the caller tells of it.
  void noteTrustChanges(const std::vector<TrustedDevice>& devices, bool sayRevoked = true) {
    std::vector<std::string> lines;
    {
      auto known = knownDevices_.lock();
      const bool first = !known->has_value();
      if (first) known->emplace();
      for (const auto& device : devices) {
        const std::string key =
            device.deviceId + "@" + std::to_string(device.pairedAt.time_since_epoch().count());
        if ((*known)->insert(key).second && !first && !device.revoked) {
          lines.push_back("paired: " + device.name);
        }
        if (device.revoked && (*known)->insert(key + "/revoked").second && !first && sayRevoked) {
          lines.push_back("revoked: " + device.name);
        }
      }
    }
    for (const auto& line : lines) event_(line);
  }

  void tearDown() {
    print_("stopping\u2026");
    stopping_ = true;
    loopWake_.notify_all();
    signaling_->close();
    if (signalingThread_.joinable()) signalingThread_.join();
    if (pairingThread_.joinable()) pairingThread_.join();
    // Offers are made on the connections' worker and sent through the
    // client: the worker ends before the client goes.
    connections_->shutdown();
    switcher_->shutdown();
    sceneQueue_.shutdown();
    publisher_->shutdown();
    actions_->shutdown();
    screen_->setDisplaysChanged(nullptr);
    capture_->shutdown();
    // Nothing the agent pressed stays down after it stops.
    actions_->releaseAll();
    event_("stopped");
  }

  const RealAgentSettings& settings_;
  const std::function<void(const std::string&)>& onStatusChanged_;
  // Lines a person reads, one per event; `print_` carries the detailed
  // diagnostics, printed only when asked for (ZUL_VERBOSE).
  const PrintLine& event_;
  const PrintLine print_;
  const RealAgentUi& ui_;

  std::shared_ptr<SecretBackend> secrets_;
  std::shared_ptr<const IdentityKeyStore> identity_;
  std::optional<TrustedDeviceStore> trustedDevices_;
  std::shared_ptr<const PairingService> pairing_;
  std::shared_ptr<PhoneConnections> connections_;
  std::shared_ptr<DesktopBackend> desktop_;
  std::shared_ptr<InputInjector> injector_;
  std::shared_ptr<AgentMessageActions> actions_;
  std::shared_ptr<AccessibilityScenePublisher> publisher_;
  std::shared_ptr<DesktopCaptureSource> screen_;
  std::shared_ptr<WatchedCapture> capture_;
  std::shared_ptr<DisplaySwitcher> switcher_;
  std::unique_ptr<AgentSignalingClient> signaling_;
  TaskQueue sceneQueue_{1, TaskQueue::Overflow::latestWins};

  std::mutex pairingMutex_;  // guards the two times below
  std::optional<SteadyClock::time_point> linkValidUntil_;
  SteadyClock::time_point nextPairingAttempt_ = SteadyClock::now();
  std::atomic<bool> linkSpent_{false};
  std::atomic<bool> pairingBusy_{false};
  std::thread pairingThread_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> serverSeen_{false};
  std::atomic<bool> serverLost_{false};
  Guarded<std::string> sessionDevice_;   // the name of the phone in session
  Guarded<std::string> pairingFailure_;  // the last reason told
  Guarded<std::string> troubleReason_;   // the last reason the server was out of reach
  Guarded<std::optional<std::set<std::string>>> knownDevices_;
  std::mutex loopMutex_;
  std::condition_variable loopWake_;
  std::thread signalingThread_;
};

}  // namespace

void runRealAgent(const RealAgentSettings& settings,
                  const std::function<void(const std::string&)>& onStatusChanged,
                  const PrintLine& print, const RealAgentUi& ui) {
  RealAgent(settings, onStatusChanged, print, ui).run();
}

}  // namespace zul
