#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ZulTransport/SignalingPeer.h"

namespace zul::test {

// Records what the signalling client asks of the peer session. Thread-safe:
// integration tests wait on it from another thread.
class FakeSignalingPeer : public SignalingPeer {
 public:
  struct IceServers {
    std::vector<std::string> urls;
    std::string username;
    std::string credential;
  };
  struct Candidate {
    std::string candidate;
    std::string sdpMid;
    int sdpMLineIndex = -1;
  };
  struct State {
    bool dataChannels = false;
    int createDataChannelsCalls = 0;
    int iceRestarts = 0;
    int offers = 0;
    std::vector<std::string> answers;
    std::vector<std::string> answerPeers;  // the phone each answer was routed to
    std::vector<Candidate> candidates;
    std::vector<IceServers> iceServers;
  };

  std::string dtlsFingerprint() const override {
    return "sha-256 " + std::string(
                            "AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:"
                            "AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89");
  }
  // The first phone gets data channels, later ones an ICE restart; the
  // offer goes out at once.
  void offerTo(const std::string&, OfferSink sendOffer) override {
    std::string sdp;
    {
      std::lock_guard lock(mutex_);
      if (state_.dataChannels) {
        ++state_.iceRestarts;
      } else {
        state_.dataChannels = true;
        ++state_.createDataChannelsCalls;
      }
      sdp = "v=0 fake-offer " + std::to_string(++state_.offers);
    }
    sendOffer(sdp);
  }
  void setRemoteAnswer(const std::string& peerId, const std::string& sdp) override {
    std::lock_guard lock(mutex_);
    state_.answers.push_back(sdp);
    state_.answerPeers.push_back(peerId);
  }
  void addRemoteCandidate(const std::string&, const std::string& candidate,
                          const std::string& sdpMid, int sdpMLineIndex) override {
    std::lock_guard lock(mutex_);
    state_.candidates.push_back({candidate, sdpMid, sdpMLineIndex});
  }
  void setIceServers(const std::vector<std::string>& urls, const std::string& username,
                     const std::string& credential) override {
    std::lock_guard lock(mutex_);
    state_.iceServers.push_back({urls, username, credential});
  }

  State state() const {
    std::lock_guard lock(mutex_);
    return state_;
  }
  // Polls until `ready` (which may look at state()) holds, or the time-out.
  bool waitUntil(const std::function<bool()>& ready,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!ready()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

 private:
  mutable std::mutex mutex_;
  State state_;
};

}  // namespace zul::test
