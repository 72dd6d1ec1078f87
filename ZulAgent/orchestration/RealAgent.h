#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZulAgent/orchestration/TaskQueue.h"
#include "ZulCore/Input/InputInjector.h"
#include "ZulCore/Input/KeyboardExecutor.h"
#include "ZulCore/Input/PointerInputExecutor.h"
#include "ZulCore/Scene/AccessibilitySceneSource.h"
#include "ZulCore/Support/Error.h"
#include "ZulCore/Trust/PairingService.h"
#include "ZulTransport/MessageRouter.h"

namespace zul {

class RealAgentError : public Error {
 public:
  enum class Case { invalidSemanticInvocation, couldNotEncodePairingLink };
  static RealAgentError invalidSemanticInvocation();
  static RealAgentError couldNotEncodePairingLink();
  Case kind() const { return kind_; }

 private:
  RealAgentError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

struct RealAgentSettings {
  static constexpr const char* defaultSignalingURL = "http://127.0.0.1:8443";

  std::string signalingBaseURL = defaultSignalingURL;
  // Run this long, then tear down; nothing: until SIGINT or SIGTERM.
  std::optional<double> seconds;
  // The video's frame rate while the screen changes (ZUL_MAX_FPS).
  std::int64_t framesPerSecond = 30;

  // ZUL_SIGNALING_URL (the rendezvous server's address), ZUL_DEMO_SECONDS
  // (an unparsable or negative value counts as absent) and ZUL_MAX_FPS.
  static RealAgentSettings fromEnvironment();
};

using PrintLine = std::function<void(std::string_view)>;

// What the agent does with each message of an authenticated control session.
// Slow work runs on bounded queues of its own, never on the data channel's
// thread: pointer requests on one, typing and keys on another, element
// actions on a third, so that a long text does not hold up pointer moves.
// The pointer executor exists once capture has resolved its display; before
// that pointer requests are dropped.
class AgentMessageActions {
 public:
  using SceneSourceProvider = std::function<std::shared_ptr<AccessibilitySceneSource>()>;
  // Tells the phone that its request failed (a missing permission, an
  // element action that could not be done).
  using Refuse = std::function<void(const RoutedMessage&, const std::exception&)>;

  AgentMessageActions(std::shared_ptr<InputInjector> injector, SceneSourceProvider sceneSource,
                      PrintLine print, Refuse refuse = {});
  // shutdown()
  ~AgentMessageActions();

  using Handler = std::function<void(const RoutedMessage&, const PermissionGate&)>;
  // Another message type this agent handles (display switching, scenes). The
  // handler runs on the caller's thread and queues its own slow work; with
  // `needsControl` a phone without `control` is refused first. A handler
  // that throws is refused.
  void addHandler(std::string type, Handler handler, bool needsControl = false);

  void setPointerExecutor(std::shared_ptr<PointerInputExecutor> executor);
  // No button stays pressed after a session ends.
  void releaseHeldButton();
  // Nothing the agent pressed stays down: every session end and the agent's
  // stop call it.
  void releaseAll();

  // Never throws: failures are printed, refused and the message dropped.
  void dispatch(const RoutedMessage& message, const PermissionGate& permissions);

  // Waits until every request queued so far has been carried out.
  void waitUntilIdle();
  // Finishes the requests in progress and drops the others.
  void shutdown();

 private:
  std::shared_ptr<PointerInputExecutor> pointer() const;
  void pointerRequest(const RoutedMessage& message, const PermissionGate& permissions);
  void typeText(const std::string& text, const PermissionGate& permissions);
  void invoke(const RoutedMessage& message, const PermissionGate& permissions);
  void refuse(const RoutedMessage& message, const std::exception& error) const;
  void queue(TaskQueue& queue, const RoutedMessage& message, std::function<void()> task);

  struct HandlerEntry {
    Handler handler;
    bool needsControl = false;
  };

  KeyboardExecutor keyboard_;
  std::map<std::string, HandlerEntry> handlers_;
  SceneSourceProvider sceneSource_;
  PrintLine print_;
  Refuse refuse_;
  mutable std::mutex pointerMutex_;
  std::shared_ptr<PointerInputExecutor> pointer_;
  // Last: their threads end before the fields above go.
  TaskQueue pointerQueue_{512};
  TaskQueue keyboardQueue_{64};
  TaskQueue invokeQueue_{16};
};

// The lines that announce a pairing link.
std::vector<std::string> pairingBanner(const std::string& link, std::int64_t expiresInSeconds,
                                       const std::string& signalingBaseURL);

// Requests from a user interface to a running real agent; any thread.
class RealAgentControl {
 public:
  void requestStop() { stop_ = true; }
  void requestPairingRefresh() { refresh_ = true; }
  // Ends the session of the phone in session, if any.
  void requestSessionEnd() { endSession_ = true; }
  bool stopRequested() const { return stop_; }
  bool takePairingRefresh() { return refresh_.exchange(false); }
  bool takeSessionEnd() { return endSession_.exchange(false); }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<bool> refresh_{false};
  std::atomic<bool> endSession_{false};
};

// What a user interface adds to the real agent. Callbacks run on the agent's
// threads. With a control, the interface handles SIGINT and SIGTERM.
struct RealAgentUi {
  std::function<void(const std::string& link, const std::string& agentId,
                     std::int64_t expiresInSeconds)>
      onPairingLink;
  std::shared_ptr<RealAgentControl> control;
};

// The real agent: identity, pairing, the peer session, screen capture, the
// signalling client with reconnects, the control dispatcher and the desktop
// actions, wired together. Returns after tear-down (the settings' duration,
// SIGINT or SIGTERM); throws when start-up fails. `onStatusChanged` hears the
// signalling statuses, "waiting" after each pairing link, "reconnecting: "
// and the reason while the server is out of reach, and "peer-ready: " or
// "phone-left: " and the phone's name as its session begins and ends. With
// a pairing-link callback, an expired link is not replaced until asked for.
void runRealAgent(const RealAgentSettings& settings,
                  const std::function<void(const std::string&)>& onStatusChanged,
                  const PrintLine& print, const RealAgentUi& ui = {});

// The real agent behind its windows (setup, pairing QR, trusted devices),
// when the build has them; set by the executable's `main`.
using WindowedRealAgent = std::function<void(const PrintLine& print)>;
void setWindowedRealAgent(WindowedRealAgent run);
const WindowedRealAgent& windowedRealAgent();

}  // namespace zul
