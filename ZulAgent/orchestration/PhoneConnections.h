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

#include "ZulAgent/orchestration/TaskQueue.h"
#include "ZulCore/Media/CapturedFrame.h"
#include "ZulTransport/AgentPeerSession.h"
#include "ZulTransport/ControlSessionDispatcher.h"
#include "ZulTransport/SignalingPeer.h"

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
class PhoneConnections final : public SignalingPeer,
                               public std::enable_shared_from_this<PhoneConnections> {
 public:
  using MakeSession = std::function<std::unique_ptr<AgentPeerSession>()>;

  struct Hooks {
    // A session on the agent's certificate; called once at construction
    // (for the fingerprint; that session serves the first phone) and once for
    // every later connection.
    MakeSession makeSession;
    // Sets a new connection's dispatcher callbacks for its messages and
    // diagnostics (onAuthenticatedMessage, onDiagnostic).
    std::function<void(ControlSessionDispatcher&)> wireDispatcher;
    std::function<void(const std::string& sessionId, const std::string& deviceId)>
        onSessionEstablished;
    // The session ended and no phone holds one now.
    std::function<void()> onSessionEnded;
    std::function<void(const std::string& line)> print;
  };
  struct Limits {
    std::size_t negotiating = 2;
    std::chrono::milliseconds gathering = std::chrono::seconds(10);
    std::chrono::milliseconds helloWait = std::chrono::seconds(30);
  };

  static std::shared_ptr<PhoneConnections> make(Hooks hooks, TrustedDeviceStore trustedDevices,
                                                Limits limits);
  ~PhoneConnections() override;

  // SignalingPeer
  std::string dtlsFingerprint() const override;
  void offerTo(const std::string& peerId, OfferSink sendOffer) override;
  void setRemoteAnswer(const std::string& peerId, const std::string& sdp) override;
  void addRemoteCandidate(const std::string& peerId, const std::string& candidate,
                          const std::string& sdpMid, int sdpMLineIndex) override;
  void setIceServers(const std::vector<std::string>& urls, const std::string& username,
                     const std::string& credential) override;

  // The phone in session.
  std::optional<std::string> activeSessionId() const;
  std::optional<std::string> activeDeviceId() const;
  // Sends to the phone in session; throws AgentPeerSessionError.
  void sendToSession(std::string_view channel, std::string_view payload);
  // Answers a failed request of the session `sessionId`, if it is still live.
  void refuse(const std::string& sessionId, const std::exception& error);
  // Hands a captured frame to the phone in session only.
  void push(const CapturedFrame& frame, std::int64_t timestampNs);

  // Ends the session and closes its connection (a revoked device).
  void endSession();
  // The device left signalling: a connection still waiting for its hello
  // is dropped; one in session lives on while its connection lasts.
  void peerLeft(const std::string& deviceId);
  // Ends everything (a session limit, the agent stopping).
  void closeAll();
  // closeAll(), then the worker is stopped and joined.
  void shutdown();

  std::size_t connectionCount() const;

 private:
  struct Connection;
  class ConnectionChannel;

  PhoneConnections(Hooks hooks, TrustedDeviceStore trustedDevices, Limits limits);

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
  std::shared_ptr<Connection> sessionConnection() const;
  void print(const std::string& line) const;

  Hooks hooks_;
  TrustedDeviceStore trustedDevices_;
  Limits limits_;
  std::shared_ptr<ControlSessionShared> shared_ = std::make_shared<ControlSessionShared>();
  std::string fingerprint_;

  mutable std::mutex mutex_;
  std::unique_ptr<AgentPeerSession> spare_;
  std::map<std::uint64_t, std::shared_ptr<Connection>> connections_;
  std::optional<std::uint64_t> sessionConnection_;
  std::uint64_t nextId_ = 1;
  AgentPeerSession::IceServerInfo iceServers_;

  // Last: stopped first, while everything it uses still exists.
  TaskQueue worker_{256};
};

}  // namespace zul
