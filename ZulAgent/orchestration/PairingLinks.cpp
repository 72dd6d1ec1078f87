#include "ZulAgent/orchestration/PairingLinks.h"

#include <algorithm>
#include <utility>

#include "ZulTransport/SignalingUrl.h"

namespace zul {

RealAgentError RealAgentError::couldNotEncodePairingLink() {
  return {Case::couldNotEncodePairingLink, formatErrorCase("couldNotEncodePairingLink", {})};
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

PairingLinks::PairingLinks(Hooks hooks) : hooks_(std::move(hooks)) {}

PairingLinks::~PairingLinks() { stop(); }

void PairingLinks::request() {
  try {
    const PairingQrPayload payload = hooks_.createPairing();
    const std::string link = pairingDeepLink(payload);
    if (link.empty()) throw RealAgentError::couldNotEncodePairingLink();
    const std::int64_t seconds = std::max<std::int64_t>(
        0, payload.expiresAt - unixSeconds(std::chrono::system_clock::now()));
    for (const auto& line : pairingBanner(link, seconds, hooks_.signalingBaseURL)) {
      hooks_.event(line);
    }
    if (hooks_.onPairingLink) hooks_.onPairingLink(link, hooks_.agentId, seconds);
    {
      std::lock_guard lock(mutex_);
      validUntil_ = SteadyClock::now() + std::chrono::seconds(seconds);
    }
    hooks_.status("waiting");
    lastFailure_.lock()->clear();
  } catch (const std::exception& error) {
    hooks_.print(std::string("refresh pairing failed: ") + error.what());
    // Retried every few seconds: said once per reason.
    if (!hooks_.serverReachable()) {
      hooks_.serverTrouble(error.what());
    } else if (std::exchange(*lastFailure_.lock(), error.what()) != error.what()) {
      hooks_.event(std::string("no pairing link: ") + error.what());
    }
    std::lock_guard lock(mutex_);
    validUntil_.reset();
    nextAttempt_ = SteadyClock::now() + std::chrono::seconds(5);
  }
}

void PairingLinks::refresh() {
  if (busy_.exchange(true)) return;
  if (thread_.joinable()) thread_.join();
  thread_ = std::thread([this] {
    request();
    busy_ = false;
  });
}

bool PairingLinks::due(SteadyClock::time_point now) {
  std::lock_guard lock(mutex_);
  // A window shows an expired link as such and asks for the next one.
  const bool expired = validUntil_ && now >= *validUntil_ && !hooks_.onPairingLink;
  return (!validUntil_ || expired || spent_.exchange(false)) && now >= nextAttempt_;
}

void PairingLinks::tick() {
  if (due(SteadyClock::now())) refresh();
}

void PairingLinks::stop() {
  if (thread_.joinable()) thread_.join();
}

}  // namespace zul
