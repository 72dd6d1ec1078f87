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

#include "ZulTransport/PeerVideoEncoding.h"

namespace zul {

struct RealAgentSettings {
  static constexpr const char* defaultSignalingURL = "http://127.0.0.1:8443";

  std::string signalingBaseURL = defaultSignalingURL;
  // Run this long, then tear down; nothing: until SIGINT or SIGTERM.
  std::optional<double> seconds;
  // The video's frame rate while the screen changes (ZUL_MAX_FPS).
  std::int64_t framesPerSecond = 60;
  // The encoder of the phones' video; the library's own when unset.
  PeerVideoEncoding videoEncoding;
  // One server certificate trusted by its SHA-256 fingerprint
  // (ZUL_SERVER_CERT_SHA256): a development server's own.
  std::string trustedServerCertificate;
  // Ask before each connection of a phone without `unattended`
  // (ZUL_ASK_BEFORE_CONNECTING=1; the setup window has its own switch).
  bool askBeforeConnecting = false;

  // ZUL_SIGNALING_URL (the rendezvous server's address), ZUL_DEMO_SECONDS
  // (an unparsable or negative value counts as absent), ZUL_MAX_FPS and
  // ZUL_SERVER_CERT_SHA256, ZUL_ASK_BEFORE_CONNECTING.
  static RealAgentSettings fromEnvironment();
};

using PrintLine = std::function<void(std::string_view)>;

// Requests from a user interface to a running real agent; any thread.
class RealAgentControl {
 public:
  RealAgentControl() = default;
  // One whose pause outlasts the agent (a restart, a crash, the next login):
  // paused while $XDG_CONFIG_HOME/zul-agent/paused (~/.config when unset)
  // exists; `print` hears when that file cannot be changed.
  static std::shared_ptr<RealAgentControl> rememberingPause(PrintLine print);

  void requestStop() { stop_ = true; }
  void requestPairingRefresh() { refresh_ = true; }
  // Ends the session of the phone in session, if any.
  void requestSessionEnd() { endSession_ = true; }
  // Paused, the agent refuses every phone and sends the one in session
  // away, until resumed.
  void setPaused(bool paused);
  bool paused() const { return paused_; }
  // A phone without `unattended` waits for the person at the computer to
  // let it in.
  void setAskBeforeConnecting(bool ask) { ask_ = ask; }
  bool askBeforeConnecting() const { return ask_; }
  bool stopRequested() const { return stop_; }
  bool takePairingRefresh() { return refresh_.exchange(false); }
  bool takeSessionEnd() { return endSession_.exchange(false); }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<bool> refresh_{false};
  std::atomic<bool> endSession_{false};
  std::atomic<bool> paused_{false};
  std::atomic<bool> ask_{false};
  std::string pauseFile_;  // empty: the pause is not kept
  PrintLine print_;
};

// What a user interface adds to the real agent. Callbacks run on the agent's
// threads. With a control, the interface handles SIGINT and SIGTERM.
struct RealAgentUi {
  std::function<void(const std::string& link, const std::string& agentId,
                     std::int64_t expiresInSeconds)>
      onPairingLink;
  std::shared_ptr<RealAgentControl> control;
  // The interface shows the agent's state and its disconnect and pause
  // buttons itself (a tray icon); otherwise the agent keeps a desktop
  // notification with them while it runs, where the session has one.
  bool showsIndicator = false;
  // Asks the person at the computer whether the named phone may connect;
  // false after 30 s without an answer. Unset: a desktop notification asks.
  std::function<bool(const std::string& phoneName)> askToConnect;
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

}  // namespace zul
