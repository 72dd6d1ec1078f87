#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "ZulCore/Support/Callback.h"
#include "ZulCore/Support/Guarded.h"
#include "ZulTransport/AgentSignalingClient.h"

namespace zul {

// Keeps the agent connected to its rendezvous server: runs the signalling
// client, reconnecting 2 s after each failure, and tells a person what they
// need to know of it (the first connection, an outage when it begins, the
// server back) while the detailed lines go to `print`.
class ServerConnection {
 public:
  using PrintLine = std::function<void(std::string_view)>;
  struct Output {
    PrintLine event;  // always shown
    PrintLine print;  // the detailed diagnostics
    // The client's statuses, and "reconnecting: " with the reason.
    std::function<void(const std::string&)> status;
  };

  ServerConnection(AgentSignalingClient& client, std::string serverUrl, Output output);
  // stop()
  ~ServerConnection();

  // The server answered again after an outage: what it knew (the pairing
  // link's offer) may be gone.
  Callback<> onServerBack;

  void start();
  // Closes the client and joins the loop.
  void stop();

  // Connected now, or never tried yet.
  bool reachable() const { return serverSeen_ && !serverLost_; }
  // The server could not be reached by another request (a pairing link): a
  // line once per reason before the first connection.
  void trouble(const std::string& reason) { report(reason, false); }

 private:
  void statusChanged(const std::string& text);
  void report(const std::string& reason, bool outageBegins);
  void loop();

  AgentSignalingClient& client_;
  const std::string serverUrl_;
  const Output output_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> serverSeen_{false};
  std::atomic<bool> serverLost_{false};
  Guarded<std::string> troubleReason_;  // the last reason the server was out of reach
  std::mutex mutex_;
  std::condition_variable wake_;
  std::thread thread_;
};

}  // namespace zul
