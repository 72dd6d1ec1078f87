#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
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

 private:
  template <class F>
  void change(F&& f) {
    {
      std::lock_guard lock(mutex_);
      f();
    }
    changed_.notify_all();
  }
  template <class F>
  auto read(F&& f) const -> decltype(f()) {
    std::lock_guard lock(mutex_);
    return f();
  }

 public:
  std::string dtlsFingerprint() const override {
    return "sha-256 " + std::string(
                            "AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:"
                            "AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89");
  }
  // The first phone gets data channels, later ones an ICE restart; the
  // offer goes out at once.
  void offerTo(const std::string&, OfferSink sendOffer) override {
    std::string sdp;
    change([&] {
      if (dataChannels_) {
        ++iceRestarts_;
      } else {
        dataChannels_ = true;
        ++createDataChannelsCalls_;
      }
      sdp = "v=0 fake-offer " + std::to_string(++offers_);
    });
    sendOffer(sdp);
  }
  void setRemoteAnswer(const std::string& peerId, const std::string& sdp) override {
    change([&] {
      answers_.push_back(sdp);
      answerPeers_.push_back(peerId);
    });
  }
  void addRemoteCandidate(const std::string&, const std::string& candidate,
                          const std::string& sdpMid, int sdpMLineIndex) override {
    change([&] { candidates_.push_back({candidate, sdpMid, sdpMLineIndex}); });
  }
  void setIceServers(const std::vector<std::string>& urls, const std::string& username,
                     const std::string& credential) override {
    change([&] { iceServers_.push_back({urls, username, credential}); });
  }

  int createDataChannelsCalls() const {
    return read([&] { return createDataChannelsCalls_; });
  }
  int iceRestarts() const {
    return read([&] { return iceRestarts_; });
  }
  int offers() const {
    return read([&] { return offers_; });
  }
  // The phone each answer was routed to.
  std::vector<std::string> answerPeers() const {
    return read([&] { return answerPeers_; });
  }
  std::vector<std::string> answers() const {
    return read([&] { return answers_; });
  }
  std::vector<Candidate> candidates() const {
    return read([&] { return candidates_; });
  }
  std::vector<IceServers> iceServers() const {
    return read([&] { return iceServers_; });
  }

  // Waits until `ready` (which may use the accessors above) holds, or the time-out.
  bool waitUntil(const std::function<bool()>& ready,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    // `ready` takes the lock itself, and may watch state changed elsewhere: poll.
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!ready()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, std::chrono::milliseconds(50));
    }
    return true;
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool dataChannels_ = false;
  int createDataChannelsCalls_ = 0;
  int iceRestarts_ = 0;
  int offers_ = 0;
  std::vector<std::string> answers_;
  std::vector<std::string> answerPeers_;
  std::vector<Candidate> candidates_;
  std::vector<IceServers> iceServers_;
};

}  // namespace zul::test
