#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZulCore/Support/TaskQueue.h"
#include "ZulTransport/AgentPeerSession.h"
#include "ZulTransport/ControlSessionDispatcher.h"
#include "ZulTransport/PhoneSessions.h"

namespace zul {

// The agent's WebRTC connections to phones: one per announced device, each
// with its own control dispatcher (checking hellos against that device) and
// all sharing the process's one control lease. A phone that arrives is given
// a connection beside the live one; the live session ends only when the
// newcomer's verified hello takes the lease over. A device that announces
// itself again while its connection exists gets an ICE restart on it.
//
// Sessions are made, offered and answered on one worker thread, never on the
// signalling read loop or the library's threads. At most `negotiating`
// connections wait for their hello at a time; a connection that waited
// longer than `helloWait` yields its place to a newcomer.
class PhoneConnections final : public PhoneSessions,
                               public std::enable_shared_from_this<PhoneConnections> {
 public:
  // A session on the agent's certificate; called once at construction (for
  // the fingerprint; that session serves the first phone) and once for every
  // later connection.
  using MakeSession = std::function<std::unique_ptr<AgentPeerSession>()>;

  struct Limits {
    std::size_t negotiating = 2;
    std::chrono::milliseconds gathering = std::chrono::seconds(10);
    std::chrono::milliseconds helloWait = std::chrono::seconds(30);
  };

  static std::shared_ptr<PhoneConnections> make(MakeSession makeSession,
                                                TrustedDeviceStore trustedDevices, Limits limits);
  ~PhoneConnections() override;

  // SignalingPeer
  std::string dtlsFingerprint() const override;
  void offerTo(const std::string& peerId, OfferSink sendOffer) override;
  void setRemoteAnswer(const std::string& peerId, const std::string& sdp) override;
  void addRemoteCandidate(const std::string& peerId, const std::string& candidate,
                          const std::string& sdpMid, int sdpMLineIndex) override;
  void setIceServers(const std::vector<std::string>& urls, const std::string& username,
                     const std::string& credential) override;

  // PhoneSessions
  std::optional<std::string> activeSessionId() const override;
  std::optional<std::string> activeDeviceId() const override;
  std::optional<PermissionGate> activePermissions() const override;
  void sendToSession(std::string_view channel, std::string_view payload) override;
  void sendBinaryToSession(std::string_view channel, const Bytes& payload) override;
  void refuse(const std::string& sessionId, const std::exception& error) override;
  void push(const CapturedFrame& frame, std::int64_t timestampNs) override;
  std::uint64_t bufferedAmount(std::string_view channel) const override;
  void endSession() override;
  void updateSessionPermissions(const PermissionGate& permissions) override;
  // The shells a phone allowed `shell` is told of in its hello's answer.
  void setHostShells(std::vector<std::string> shells) { shared_->shells = std::move(shells); }
  // Whether the screen is locked now (hellos of devices without `unattended`
  // are refused then).
  void setScreenLocked(std::function<bool()> locked) { shared_->screenLocked = std::move(locked); }
  // Whether the agent is paused now (every hello is refused then).
  void setPaused(std::function<bool()> paused) { shared_->paused = std::move(paused); }
  // Whether a device without `unattended` may connect now; called on that
  // phone's connection, which waits for the answer.
  void setAdmission(std::function<bool(const std::string& deviceId)> admit) {
    shared_->admit = std::move(admit);
  }
  void peerLeft(const std::string& deviceId) override;
  void closeAll() override;

  // closeAll(), then the worker is stopped and joined.
  void shutdown();

 private:
  struct Connection;
  class ConnectionChannel;

  PhoneConnections(MakeSession makeSession, TrustedDeviceStore trustedDevices, Limits limits);

  std::shared_ptr<Connection> newConnection(const std::string& deviceId);
  void build(const std::shared_ptr<Connection>& connection, const OfferSink& sendOffer);
  void restart(const std::shared_ptr<Connection>& connection, const OfferSink& sendOffer);
  void deliverOffer(const std::shared_ptr<Connection>& connection, const OfferSink& sendOffer,
                    const std::string& sdp);
  std::shared_ptr<Connection> latestOf(const std::string& deviceId) const;
  bool isLive(const Connection& connection) const;
  void established(std::uint64_t id, const std::string& sessionId, const std::string& deviceId);
  void released(std::uint64_t id);
  // Removes the connection, ends its session if it has one, and closes it.
  void drop(std::uint64_t id, const std::string& why);
  void close(const std::shared_ptr<Connection>& connection);
  // Closes the connections dropped or replaced (on the worker).
  void closeRetired();
  std::shared_ptr<Connection> sessionConnection() const;
  void print(const std::string& line) const;

  MakeSession makeSession_;
  TrustedDeviceStore trustedDevices_;
  Limits limits_;
  std::shared_ptr<ControlSessionShared> shared_ = std::make_shared<ControlSessionShared>();
  std::string fingerprint_;

  mutable std::mutex mutex_;
  std::unique_ptr<AgentPeerSession> spare_;
  std::map<std::uint64_t, std::shared_ptr<Connection>> connections_;
  std::vector<std::shared_ptr<Connection>> retired_;  // replaced, waiting for the worker
  std::optional<std::uint64_t> sessionConnection_;
  std::uint64_t nextId_ = 1;
  AgentPeerSession::IceServerInfo iceServers_;

  // Last: stopped first, while everything it uses still exists.
  TaskQueue worker_{256};
};

}  // namespace zul
