#include "ZulAgent/RealAgent.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "ZulAgent/AccessibilityScenePublisher.h"
#include "ZulAgent/DisplaySwitcher.h"
#include "ZulAgent/PeerSessionLink.h"
#include "ZulPlatform/linux/AtspiAccessibilityBackend.h"
#include "ZulPlatform/linux/ScreenCaptureSource.h"
#include "ZulPlatform/linux/SecretBackendSelection.h"
#include "ZulPlatform/linux/XTestInputInjector.h"
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
  return settings;
}

// ---------------------------------------------------------------------------
// Message actions

namespace {

std::string shown(const nlohmann::json& payload, const char* key) {
  auto it = payload.find(key);
  if (it == payload.end()) return "missing";
  return it->is_string() ? it->get<std::string>() : it->dump();
}

const std::string* stringAt(const nlohmann::json& json, const char* key) {
  auto it = json.find(key);
  return it != json.end() && it->is_string() ? it->get_ptr<const std::string*>() : nullptr;
}

}  // namespace

AgentMessageActions::AgentMessageActions(std::shared_ptr<InputInjector> injector,
                                         SceneSourceProvider sceneSource, PrintLine print)
    : keyboard_(std::move(injector)),
      sceneSource_(std::move(sceneSource)),
      print_(std::move(print)) {}

void AgentMessageActions::addHandler(std::string type, Handler handler) {
  handlers_[std::move(type)] = std::move(handler);
}

void AgentMessageActions::setPointerExecutor(std::shared_ptr<PointerInputExecutor> executor) {
  std::lock_guard lock(pointerMutex_);
  pointer_ = std::move(executor);
}

std::shared_ptr<PointerInputExecutor> AgentMessageActions::pointer() const {
  std::lock_guard lock(pointerMutex_);
  return pointer_;
}

void AgentMessageActions::releaseHeldButton() {
  if (auto executor = pointer()) executor->releaseHeldButton();
}

void AgentMessageActions::dispatch(const RoutedMessage& message,
                                   const PermissionGate& permissions) {
  const nlohmann::json& payload = message.json;
  const std::string& type = message.type;
  try {
    if (type == "input.cursor" || type == "input.scroll") {
      auto executor = pointer();
      if (!executor) {
        print_("[input] dropped: capture hasn't resolved a display yet");
        return;
      }
      if (type == "input.cursor") {
        executor->handle(payload, permissions);
        print_("[input.cursor] ok: " + shown(payload, "phase") + " x=" + shown(payload, "x") +
               " y=" + shown(payload, "y"));
      } else {
        executor->scroll(payload, permissions);
        print_("[input.scroll] ok: dx=" + shown(payload, "dx") + " dy=" + shown(payload, "dy"));
      }
    } else if (type == "input.text") {
      const std::string* value = stringAt(payload, "value");
      if (!value) return;
      keyboard_.sendText(*value, permissions);
      print_("[input.text] ok");
    } else if (type == "input.key") {
      const std::string* combo = stringAt(payload, "combo");
      if (!combo) return;
      keyboard_.sendHotkey(*combo, permissions);
      print_("[input.key] ok: " + *combo);
    } else if (type == "input.invoke") {
      invoke(message, permissions);
    } else if (auto handler = handlers_.find(type); handler != handlers_.end()) {
      handler->second(message, permissions);
    } else {
      print_("[" + message.channel + "] " + type + " (not handled yet)");
    }
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
  }
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

bool iceStateEndsSession(int state) { return state == 4 || state == 5 || state == 6; }

// ---------------------------------------------------------------------------
// The orchestrator

namespace {

using SteadyClock = std::chrono::steady_clock;

std::int64_t monotonicNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now().time_since_epoch())
      .count();
}

// The agent's capture size: the display's shape inside 1280×720, even sides.
std::pair<std::int64_t, std::int64_t> captureSize(const DisplayDescriptor& display) {
  constexpr double maxWidth = 1280, maxHeight = 720;
  if (display.width <= 0 || display.height <= 0) return {1280, 720};
  const double scale =
      std::min({maxWidth / double(display.width), maxHeight / double(display.height), 1.0});
  auto even = [](double side) { return std::max<std::int64_t>(2, std::int64_t(side) & ~1LL); };
  return {even(display.width * scale), even(display.height * scale)};
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

// The control session in progress, as the orchestrator tracks it.
struct ActiveSession {
  std::mutex mutex;
  std::optional<std::string> deviceId;
};

}  // namespace

namespace {
WindowedRealAgent& windowedSlot() {
  static WindowedRealAgent run;
  return run;
}
}  // namespace

void setWindowedRealAgent(WindowedRealAgent run) { windowedSlot() = std::move(run); }
const WindowedRealAgent& windowedRealAgent() { return windowedSlot(); }

void runRealAgent(const RealAgentSettings& settings,
                  const std::function<void(const std::string&)>& onStatusChanged,
                  const PrintLine& print, const RealAgentUi& ui) {
  // Alone, the agent takes SIGINT and SIGTERM itself; under a user interface,
  // the interface does and stops the agent through its control.
  std::optional<StopSignals> stopSignals;
  if (!ui.control) stopSignals.emplace();
  auto status = [&](const std::string& text) {
    if (onStatusChanged) onStatusChanged(text);
  };

  std::shared_ptr<SecretBackend> secrets = makeSecretBackend();
  print(describeSecretBackendChoice(*secrets));
  auto identity = std::make_shared<const IdentityKeyStore>(SecretStore("identity", secrets));
  print("agent id: " + identity->agentId());
  const TrustedDeviceStore trustedDevices(SecretStore("trusted-devices", secrets));
  const SecretStore certificateStore("dtls-certificate", secrets);

  auto pairing = std::make_shared<const PairingService>(identity);
  auto injector = std::make_shared<XTestInputInjector>();
  // AT-SPI is reached on the first scene or element action, not at start:
  // the agent runs without an accessibility bus.
  auto sceneSource = [slot = std::make_shared<LazySceneSource>()] { return slot->get(); };
  auto actions = std::make_shared<AgentMessageActions>(injector, sceneSource, print);
  auto active = std::make_shared<ActiveSession>();

  // The dispatcher and the peer link refer to each other; the link's
  // callbacks hold the dispatcher weakly.
  auto dispatcherSlot = std::make_shared<std::weak_ptr<ControlSessionDispatcher>>();
  auto withDispatcher = [dispatcherSlot](auto&& action) {
    if (auto dispatcher = dispatcherSlot->lock()) action(*dispatcher);
  };
  PeerSessionLink::Callbacks peerCallbacks;
  peerCallbacks.onIceConnectionStateChange = [print, withDispatcher](int state) {
    print("ice connection state: " + iceConnectionStateName(state));
    if (iceStateEndsSession(state)) {
      withDispatcher([](ControlSessionDispatcher& d) { d.releaseActiveSession(); });
    }
  };
  peerCallbacks.onDataChannelOpen = [print](const std::string& label) {
    print("data channel open: " + label);
  };
  peerCallbacks.onDiagnostic = [print](const std::string& line) { print("[peer] " + line); };
  peerCallbacks.onMessage = [print, withDispatcher](const std::string& label, const Bytes& data,
                                                    bool isBinary) {
    if (isBinary) {
      print("[" + label + "] binary message, " + std::to_string(data.size()) + " bytes");
      return;
    }
    const std::string text(data.begin(), data.end());
    withDispatcher([&](ControlSessionDispatcher& d) { d.handle(label, text); });
  };
  peerCallbacks.onSessionReplaced = [withDispatcher] {
    withDispatcher([](ControlSessionDispatcher& d) { d.releaseActiveSession(); });
  };
  auto link = std::make_shared<PeerSessionLink>(
      // The certificate is read once for the run; every phone's session shares it.
      [certificate =
           [&] {
             try {
               return PersistedDtlsCertificate::loadOrCreate(certificateStore);
             } catch (const std::exception& error) {
               print(std::string("could not load or create the agent's DTLS certificate: ") +
                     error.what());
               throw;
             }
           }()] { return std::make_unique<AgentPeerSession>(certificate); },
      std::move(peerCallbacks));

  auto capture = std::make_shared<ScreenCaptureSource>();
  AgentSignalingClient signaling(settings.signalingBaseURL, identity, pairing, link,
                                 trustedDevices);
  auto dispatcher = std::make_shared<ControlSessionDispatcher>(link, trustedDevices);
  *dispatcherSlot = dispatcher;

  print("input: XTest; element actions: AT-SPI (reached on first use)");

  dispatcher->onSessionReleased = [actions, active] {
    actions->releaseHeldButton();
    std::lock_guard lock(active->mutex);
    active->deviceId.reset();
  };
  dispatcher->onDiagnostic = [print](const std::string& line) { print("[control] " + line); };
  dispatcher->onAuthenticatedMessage = [actions](const RoutedMessage& message,
                                                 const PermissionGate& permissions) {
    actions->dispatch(message, permissions);
  };
  signaling.onStatusChanged = [print, status](const std::string& text) {
    print("signaling: " + text);
    status(text);
  };
  signaling.onPeerReady = [print, dispatcher](const std::string& deviceId) {
    print("peer ready: " + deviceId);
    dispatcher->setExpectedPeerDeviceId(deviceId);
  };
  // A pairing spends the link's one-time secret: the next idle tick prints a new one.
  auto linkSpent = std::make_shared<std::atomic<bool>>(false);
  signaling.onTrustedDevicesChanged = [linkSpent](const std::vector<TrustedDevice>&) {
    *linkSpent = true;
  };
  signaling.onPeerLeft = [print](const std::string& deviceId) { print("peer left: " + deviceId); };
  signaling.onSessionLimitReached = [print, dispatcher,
                                     link](const std::optional<std::string>& peerId) {
    print("session limit reached: " + peerId.value_or("unknown"));
    dispatcher->releaseActiveSession();
    link->close();
  };

  capture->setFrameReady(
      [link](const CapturedFrame& frame) { link->push(frame, monotonicNanoseconds()); });
  capture->setCaptureFailed([print](const CaptureError& error) {
    print(std::string("capture failed: ") + error.what());
  });

  // Capture of one display at the agent's options; returns the display that
  // capture resolved. The pointer then targets it at the same reference size.
  auto startCapture = [capture](std::int64_t index) {
    const std::vector<DisplayDescriptor> displays = ScreenCaptureSource::availableDisplays();
    if (index < 0 || index >= std::int64_t(displays.size())) {
      throw CaptureError::displayUnavailable(index);
    }
    const auto [width, height] = captureSize(displays[std::size_t(index)]);
    CaptureOptions options;
    options.displayIndex = index;
    options.width = width;
    options.height = height;
    options.framesPerSecond = 15;
    options.idleFramesPerSecond = 2;
    options.convertHdrToSdr = true;
    capture->stop();
    capture->start(options);
    const auto resolved = capture->resolvedDisplayID();
    for (const auto& display : displays) {
      if (resolved && display.displayID == *resolved) return display;
    }
    return displays[std::size_t(index)];
  };
  auto publisher = std::make_shared<AccessibilityScenePublisher>(AccessibilityScenePublisher::Hooks{
      .source = sceneSource,
      .activeSessionId = [dispatcher] { return dispatcher->activeSessionId(); },
      .sendScene = [link](const std::string& text) { link->sendText("scene", text); },
      .print = print,
      .nowMilliseconds = unixMilliseconds,
      .hostName = hostName(),
  });
  actions->addHandler(
      "scene.request_snapshot",
      [publisher](const RoutedMessage&, const PermissionGate&) { publisher->publish(); });
  auto targetPointer = [actions, injector, print, publisher](const DisplayDescriptor& display) {
    publisher->setDisplay(DesktopRect::of(display), display.index);
    const auto [width, height] = captureSize(display);
    actions->setPointerExecutor(std::make_shared<PointerInputExecutor>(
        double(width), double(height), DesktopRect::of(display), injector));
    print("input executor targets display " + std::to_string(display.displayID) + " (" +
          std::to_string(display.width) + "x" + std::to_string(display.height) + ", captured at " +
          std::to_string(width) + "x" + std::to_string(height) + ")");
  };

  print("starting capture\u2026");
  targetPointer(startCapture(0));

  auto switcher = std::make_shared<DisplaySwitcher>(DisplaySwitcher::Hooks{
      .availableDisplays = [] { return ScreenCaptureSource::availableDisplays(); },
      .primaryDisplayID = [] { return ScreenCaptureSource::primaryDisplayID(); },
      .activeSessionId = [dispatcher] { return dispatcher->activeSessionId(); },
      .sendControl = [link](const std::string& text) { link->sendControlText(text); },
      .restartCapture = startCapture,
      .onSwitched =
          [targetPointer, publisher](const DisplayDescriptor& display) {
            targetPointer(display);
            publisher->publish();
          },
      .print = print,
      .nowMilliseconds = unixMilliseconds,
  });
  actions->addHandler("control.monitor.select",
                      [switcher](const RoutedMessage& message, const PermissionGate& permissions) {
                        switcher->select(message.json, permissions);
                      });
  dispatcher->onSessionEstablished = [print, active, switcher](const std::string& sessionId,
                                                               const std::string& deviceId) {
    print("control session established: " + sessionId + " (" + deviceId + ")");
    {
      std::lock_guard lock(active->mutex);
      active->deviceId = deviceId;
    }
    switcher->sendMonitorList();
  };

  // Pairing links live two minutes; without a window to ask for a new one,
  // a fresh link is published when the last one expired and no phone is in
  // session, and retried a few seconds after a failure.
  std::optional<SteadyClock::time_point> linkValidUntil;
  SteadyClock::time_point nextPairingAttempt = SteadyClock::now();
  auto refreshPairing = [&] {
    try {
      const PairingQrPayload payload = signaling.createPairing();
      const std::string link = pairingDeepLink(payload);
      if (link.empty()) throw RealAgentError::couldNotEncodePairingLink();
      const std::int64_t seconds = std::max<std::int64_t>(
          0, payload.expiresAt - unixSeconds(std::chrono::system_clock::now()));
      for (const auto& line : pairingBanner(link, seconds, settings.signalingBaseURL)) print(line);
      if (ui.onPairingLink) ui.onPairingLink(link, identity->agentId(), seconds);
      linkValidUntil = SteadyClock::now() + std::chrono::seconds(seconds);
      status("waiting");
    } catch (const std::exception& error) {
      print(std::string("refresh pairing failed: ") + error.what());
      linkValidUntil.reset();
      nextPairingAttempt = SteadyClock::now() + std::chrono::seconds(5);
    }
  };
  refreshPairing();

  std::atomic<bool> stopping{false};
  std::mutex loopMutex;
  std::condition_variable loopWake;
  std::thread signalingLoop([&] {
    while (!stopping) {
      std::string reason = "the server closed the connection";
      try {
        signaling.run();
      } catch (const std::exception& error) {
        reason = error.what();
      }
      if (stopping) break;
      print("signaling disconnected: " + reason + "; retrying");
      status("reconnecting");
      std::unique_lock lock(loopMutex);
      loopWake.wait_for(lock, std::chrono::seconds(2), [&] { return stopping.load(); });
    }
  });

  const std::optional<SteadyClock::time_point> deadline =
      settings.seconds ? std::optional(SteadyClock::now() +
                                       std::chrono::duration_cast<SteadyClock::duration>(
                                           std::chrono::duration<double>(*settings.seconds)))
                       : std::nullopt;
  try {
    while (true) {
      if (!stopSignals) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
      } else if (const int signal = stopSignals->wait(std::chrono::milliseconds(500))) {
        print(std::string("stopping (") + (signal == SIGINT ? "SIGINT" : "SIGTERM") + ")");
        break;
      }
      const auto now = SteadyClock::now();
      if (deadline && now >= *deadline) break;
      if (ui.control && ui.control->stopRequested()) break;
      if (ui.control && ui.control->takePairingRefresh()) {
        refreshPairing();
        continue;
      }

      std::optional<std::string> activeDevice;
      {
        std::lock_guard lock(active->mutex);
        activeDevice = active->deviceId;
      }
      // A device revoked while in session loses it at once.
      if (activeDevice) {
        std::vector<TrustedDevice> devices;
        try {
          devices = trustedDevices.load();
        } catch (const std::exception&) {
          // A store that cannot be read is not a revoke.
          continue;
        }
        const bool trusted = std::any_of(devices.begin(), devices.end(), [&](const auto& d) {
          return d.deviceId == *activeDevice && !d.revoked;
        });
        if (!trusted) {
          print("device " + *activeDevice + " is no longer trusted: ending its session");
          dispatcher->releaseActiveSession();
          link->close();
        }
      } else if ((!linkValidUntil || now >= *linkValidUntil || linkSpent->exchange(false)) &&
                 now >= nextPairingAttempt) {
        refreshPairing();
      }
    }
  } catch (const std::exception& error) {
    print(std::string("real agent: ") + error.what());
  }

  print("stopping\u2026");
  stopping = true;
  loopWake.notify_all();
  signaling.close();
  signalingLoop.join();
  switcher->shutdown();
  publisher->shutdown();
  capture->stop();
  dispatcher->releaseActiveSession();
  link->close();
  print("stopped");
}

}  // namespace zul
