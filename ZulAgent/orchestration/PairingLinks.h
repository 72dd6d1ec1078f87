#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "ZulCore/Support/Error.h"
#include "ZulCore/Support/Guarded.h"
#include "ZulCore/Trust/PairingService.h"

namespace zul {

class RealAgentError : public Error {
 public:
  enum class Case { couldNotEncodePairingLink };
  static RealAgentError couldNotEncodePairingLink();
  Case kind() const { return kind_; }

 private:
  RealAgentError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// The lines that announce a pairing link.
std::vector<std::string> pairingBanner(const std::string& link, std::int64_t expiresInSeconds,
                                       const std::string& signalingBaseURL);

// The agent's pairing links: each registered with the server, announced in
// a banner and handed to a window. A link lives two minutes and pairs one
// phone; without a window to ask for the next one, a fresh link follows when
// the last one expired or was spent, and a failed request is tried again a
// few seconds later. Requests run on a thread of their own, so that a server
// that does not answer holds back neither a stop nor the agent's checks.
class PairingLinks {
 public:
  using PrintLine = std::function<void(std::string_view)>;
  struct Hooks {
    // Registers an offer with the server; blocks; throws.
    std::function<PairingQrPayload()> createPairing;
    std::string agentId;
    std::string signalingBaseURL;
    // A window that shows each link (and asks for the next one itself).
    std::function<void(const std::string& link, const std::string& agentId,
                       std::int64_t expiresInSeconds)>
        onPairingLink;
    std::function<void(const std::string&)> status;
    // Whether the server answered its last connection; when it did not, the
    // reason a request failed is the server's trouble, not the link's.
    std::function<bool()> serverReachable;
    std::function<void(const std::string&)> serverTrouble;
    PrintLine event;
    PrintLine print;
  };

  explicit PairingLinks(Hooks hooks);
  // stop()
  ~PairingLinks();

  // Asks for a fresh link now, unless one is being asked for.
  void refresh();
  // The link was used, or the server may have forgotten it: a fresh one at
  // the next tick.
  void spent() { spent_ = true; }
  // A fresh link when one is due.
  void tick();
  // Waits for the request in progress (the client's close() ends it).
  void stop();

 private:
  using SteadyClock = std::chrono::steady_clock;
  void request();
  bool due(SteadyClock::time_point now);

  const Hooks hooks_;
  std::mutex mutex_;  // guards the two times below
  std::optional<SteadyClock::time_point> validUntil_;
  SteadyClock::time_point nextAttempt_ = SteadyClock::now();
  std::atomic<bool> spent_{false};
  std::atomic<bool> busy_{false};
  Guarded<std::string> lastFailure_;  // the last reason told
  std::thread thread_;
};

}  // namespace zul
