#include "ZulTransport/PhoneConnections.h"

#include <algorithm>
#include <utility>

#include "ZulTransport/AgentPeerSessionError.h"
#include "ZulTransport/LocalOfferSession.h"

namespace zul {

namespace {

// The library's ICE connection states after which a connection is over:
// failed, disconnected. "Closed" comes only from closing it here, or from the
// session replacing its first connection when it learns the ICE servers.
bool endsConnection(int state) { return state == 4 || state == 5; }

std::string shortId(const std::string& deviceId) {
  return deviceId.empty() ? std::string("an unnamed phone") : deviceId;
}

}  // namespace

// The control channel of one connection, as its dispatcher sees it. The
// session is made on the worker after the dispatcher exists.
class PhoneConnections::ConnectionChannel final : public ControlChannel {
 public:
  explicit ConnectionChannel(std::string fingerprint) : fingerprint_(std::move(fingerprint)) {}

  std::string dtlsFingerprint() const override { return fingerprint_; }
  void sendControlText(const std::string& text) override { sendText("control", text); }

  void sendText(std::string_view channel, std::string_view payload) {
    auto current = session();
    if (!current) throw AgentPeerSessionError::channelNotOpen(std::string(channel));
    current->sendText(channel, payload);
  }
  void setSession(std::shared_ptr<AgentPeerSession> session) {
    std::lock_guard lock(mutex_);
    session_ = std::move(session);
  }
  std::shared_ptr<AgentPeerSession> session() const {
    std::lock_guard lock(mutex_);
    return session_;
  }

 private:
  const std::string fingerprint_;
  mutable std::mutex mutex_;
  std::shared_ptr<AgentPeerSession> session_;
};

struct PhoneConnections::Connection {
  std::uint64_t id = 0;
  std::string deviceId;
  std::chrono::steady_clock::time_point announcedAt;
  std::shared_ptr<ConnectionChannel> channel;
  std::shared_ptr<ControlSessionDispatcher> dispatcher;
};

std::shared_ptr<PhoneConnections> PhoneConnections::make(MakeSession makeSession,
                                                         TrustedDeviceStore trustedDevices,
                                                         Limits limits) {
  return std::shared_ptr<PhoneConnections>(
      new PhoneConnections(std::move(makeSession), std::move(trustedDevices), limits));
}

PhoneConnections::PhoneConnections(MakeSession makeSession, TrustedDeviceStore trustedDevices,
                                   Limits limits)
    : makeSession_(std::move(makeSession)),
      trustedDevices_(std::move(trustedDevices)),
      limits_(limits) {
  spare_ = makeSession_();
  fingerprint_ = spare_->dtlsFingerprint();
}

PhoneConnections::~PhoneConnections() { shutdown(); }

void PhoneConnections::print(const std::string& line) const { onDiagnostic(line); }

std::string PhoneConnections::dtlsFingerprint() const { return fingerprint_; }

std::shared_ptr<PhoneConnections::Connection> PhoneConnections::newConnection(
    const std::string& deviceId) {
  auto connection = std::make_shared<Connection>();
  connection->deviceId = deviceId;
  connection->announcedAt = std::chrono::steady_clock::now();
  connection->channel = std::make_shared<ConnectionChannel>(fingerprint_);
  auto dispatcher =
      std::make_shared<ControlSessionDispatcher>(connection->channel, trustedDevices_, shared_);
  std::weak_ptr<PhoneConnections> weak = weak_from_this();
  dispatcher->onDiagnostic = [weak](const std::string& line) {
    if (auto self = weak.lock()) self->print("[control] " + line);
  };
  dispatcher->onAuthenticatedMessage = [weak](const RoutedMessage& message,
                                              const PermissionGate& permissions) {
    if (auto self = weak.lock()) self->onAuthenticatedMessage(message, permissions);
  };
  dispatcher->setExpectedPeerDeviceId(deviceId);
  connection->dispatcher = std::move(dispatcher);
  return connection;
}

void PhoneConnections::offerTo(const std::string& peerId, OfferSink sendOffer) {
  std::shared_ptr<Connection> existing = latestOf(peerId);
  if (existing && existing->channel->session()) {
    // The same phone again (a new network, a reloaded page): its connection
    // and session stay, only ICE starts over.
    if (!worker_.post([this, existing, sendOffer] { restart(existing, sendOffer); })) {
      print("ICE restart for " + shortId(peerId) + " dropped: too much work queued");
    }
    return;
  }
  if (existing) {
    print("phone " + shortId(peerId) + " is already being offered a connection");
    return;
  }

  auto connection = newConnection(peerId);
  std::shared_ptr<Connection> evicted;
  {
    std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<Connection>> waiting;
    for (const auto& [id, c] : connections_) {
      if (sessionConnection_ != id) waiting.push_back(c);
    }
    if (waiting.size() >= limits_.negotiating) {
      auto oldest = std::min_element(waiting.begin(), waiting.end(), [](auto& a, auto& b) {
        return a->announcedAt < b->announcedAt;
      });
      if (oldest == waiting.end() ||
          std::chrono::steady_clock::now() - (*oldest)->announcedAt < limits_.helloWait) {
        connection.reset();
      } else {
        evicted = *oldest;
      }
    }
    if (connection) {
      connection->id = nextId_++;
      connections_[connection->id] = connection;
    }
  }
  if (!connection) {
    print("phone " + shortId(peerId) + " ignored: " + std::to_string(limits_.negotiating) +
          " phones are already connecting");
    return;
  }
  std::weak_ptr<PhoneConnections> weak = weak_from_this();
  const std::uint64_t id = connection->id;
  connection->dispatcher->onSessionEstablished = [weak, id](const std::string& sessionId,
                                                            const std::string& deviceId) {
    if (auto self = weak.lock()) self->established(id, sessionId, deviceId);
  };
  connection->dispatcher->onSessionReleased = [weak, id] {
    if (auto self = weak.lock()) self->released(id);
  };
  if (evicted) drop(evicted->id, "it never sent its hello");
  print("offering a connection to " + shortId(peerId));
  if (!worker_.post([this, connection, sendOffer] { build(connection, sendOffer); })) {
    drop(connection->id, "too much work queued");
  }
}

void PhoneConnections::build(const std::shared_ptr<Connection>& connection,
                             const OfferSink& sendOffer) {
  std::shared_ptr<AgentPeerSession> session;
  AgentPeerSession::IceServerInfo servers;
  {
    std::lock_guard lock(mutex_);
    if (!connections_.count(connection->id)) return;  // dropped before it was made
    session = spare_ ? std::shared_ptr<AgentPeerSession>(std::move(spare_)) : nullptr;
    servers = iceServers_;
  }
  try {
    if (!session) session = makeSession_();
    const std::uint64_t id = connection->id;
    std::weak_ptr<PhoneConnections> weak = weak_from_this();
    std::weak_ptr<ControlSessionDispatcher> dispatcher = connection->dispatcher;
    session->onMessage = [weak, dispatcher, this](const std::string& label, const Bytes& data,
                                                  bool isBinary) {
      auto self = weak.lock();
      auto target = dispatcher.lock();
      if (!self || !target) return;
      if (isBinary) {
        if (auto permissions = target->activePermissions()) {
          self->onBinaryMessage(label, data, *permissions);
        } else {
          print("[" + label + "] binary message outside a session dropped");
        }
        return;
      }
      target->handle(label,
                     std::string_view(reinterpret_cast<const char*>(data.data()), data.size()));
    };
    session->onIceConnectionStateChange = [weak, id, this](int state) {
      auto self = weak.lock();
      if (!self) return;
      print("ice connection state: " + iceConnectionStateName(state));
      if (endsConnection(state)) {
        // Not on the library's thread: closing waits for it.
        worker_.post([weak, id, state, this] {
          if (auto alive = weak.lock()) drop(id, "ICE " + iceConnectionStateName(state));
        });
      }
    };
    session->onDataChannelOpen = [weak, this](const std::string& label) {
      if (weak.lock()) print("data channel open: " + label);
    };
    session->onDiagnostic = [weak, this](const std::string& line) {
      if (weak.lock()) print("[peer] " + line);
    };
    session->configureIceServers(servers.urls, servers.username, servers.credential);
    session->createDataChannels();
    connection->channel->setSession(session);
    if (!isLive(*connection)) {
      session->close();
      return;
    }
    deliverOffer(connection, sendOffer,
                 session->createOfferWithGatheredCandidates(limits_.gathering));
  } catch (const std::exception& error) {
    print("offer for " + shortId(connection->deviceId) + " failed: " + error.what());
    drop(connection->id, "no offer");
  }
}

void PhoneConnections::restart(const std::shared_ptr<Connection>& connection,
                               const OfferSink& sendOffer) {
  auto session = connection->channel->session();
  if (!session || !isLive(*connection)) return;
  try {
    print("ICE restart for " + shortId(connection->deviceId));
    session->restartIce();
    deliverOffer(connection, sendOffer,
                 session->createOfferWithGatheredCandidates(limits_.gathering));
  } catch (const std::exception& error) {
    print("ICE restart offer for " + shortId(connection->deviceId) + " failed: " + error.what());
  }
}

void PhoneConnections::deliverOffer(const std::shared_ptr<Connection>& connection,
                                    const OfferSink& sendOffer, const std::string& sdp) {
  if (!isLive(*connection)) {
    print("offer for " + shortId(connection->deviceId) + " dropped: its connection is gone");
    return;
  }
  try {
    sendOffer(sdp);
  } catch (const std::exception& error) {
    print("offer for " + shortId(connection->deviceId) + " dropped: " + error.what());
    drop(connection->id, "its offer could not be sent");
  }
}

bool PhoneConnections::isLive(const Connection& connection) const {
  std::lock_guard lock(mutex_);
  return connections_.count(connection.id) != 0;
}

std::shared_ptr<PhoneConnections::Connection> PhoneConnections::latestOf(
    const std::string& deviceId) const {
  std::lock_guard lock(mutex_);
  for (auto it = connections_.rbegin(); it != connections_.rend(); ++it) {
    if (it->second->deviceId == deviceId) return it->second;
  }
  return nullptr;
}

void PhoneConnections::setRemoteAnswer(const std::string& peerId, const std::string& sdp) {
  auto connection = latestOf(peerId);
  if (!connection) {
    print("answer from " + shortId(peerId) + " ignored: no connection was offered to it");
    return;
  }
  // On the worker, after the offer that it answers.
  worker_.post([this, connection, sdp] {
    auto session = connection->channel->session();
    if (!session || !isLive(*connection)) return;
    try {
      session->acceptAnswer(sdp);
    } catch (const std::exception& error) {
      print("answer from " + shortId(connection->deviceId) + " refused: " + error.what());
    }
  });
}

void PhoneConnections::addRemoteCandidate(const std::string& peerId, const std::string& candidate,
                                          const std::string& sdpMid, int sdpMLineIndex) {
  auto connection = latestOf(peerId);
  if (!connection) return;
  worker_.post([this, connection, candidate, sdpMid, sdpMLineIndex] {
    if (auto session = connection->channel->session()) {
      session->addRemoteIceCandidate(
          candidate, sdpMid.empty() ? std::nullopt : std::optional<std::string>(sdpMid),
          sdpMLineIndex);
    }
  });
}

void PhoneConnections::setIceServers(const std::vector<std::string>& urls,
                                     const std::string& username, const std::string& credential) {
  std::lock_guard lock(mutex_);
  iceServers_ = {urls, username, credential};
}

void PhoneConnections::established(std::uint64_t id, const std::string& sessionId,
                                   const std::string& deviceId) {
  std::shared_ptr<Connection> previous;
  {
    std::lock_guard lock(mutex_);
    if (sessionConnection_ && *sessionConnection_ != id) {
      auto it = connections_.find(*sessionConnection_);
      if (it != connections_.end()) {
        previous = it->second;
        connections_.erase(it);
      }
    }
    sessionConnection_ = id;
  }
  if (previous) {
    print("phone " + shortId(previous->deviceId) + " replaced by " + shortId(deviceId) +
          ": closing its connection");
    previous->dispatcher->releaseActiveSession();
    // This runs on the library's signalling thread, which a session's
    // tear-down waits for: the replaced one is closed and let go on the
    // worker, never here.
    {
      std::lock_guard lock(mutex_);
      retired_.push_back(std::move(previous));
    }
    worker_.post([this] { closeRetired(); });
  }
  onSessionEstablished(sessionId, deviceId);
}

void PhoneConnections::closeRetired() {
  std::vector<std::shared_ptr<Connection>> retired;
  {
    std::lock_guard lock(mutex_);
    retired.swap(retired_);
  }
  for (const auto& connection : retired) close(connection);
}

void PhoneConnections::released(std::uint64_t id) {
  bool ended = false;
  {
    std::lock_guard lock(mutex_);
    if (sessionConnection_ == id) {
      sessionConnection_.reset();
      ended = true;
    }
  }
  if (ended) onSessionEnded();
}

void PhoneConnections::drop(std::uint64_t id, const std::string& why) {
  std::shared_ptr<Connection> connection;
  {
    std::lock_guard lock(mutex_);
    auto it = connections_.find(id);
    if (it == connections_.end()) return;
    connection = it->second;
    connections_.erase(it);
  }
  print("connection to " + shortId(connection->deviceId) + " dropped: " + why);
  connection->dispatcher->releaseActiveSession();
  // Closed and let go on the worker: this may be the library's signalling
  // thread (a request of the phone's own ends its session), whose own
  // tear-down would wait for itself.
  {
    std::lock_guard lock(mutex_);
    retired_.push_back(std::move(connection));
  }
  worker_.post([this] { closeRetired(); });
}

void PhoneConnections::close(const std::shared_ptr<Connection>& connection) {
  if (auto session = connection->channel->session()) session->close();
}

std::shared_ptr<PhoneConnections::Connection> PhoneConnections::sessionConnection() const {
  std::lock_guard lock(mutex_);
  if (!sessionConnection_) return nullptr;
  auto it = connections_.find(*sessionConnection_);
  return it == connections_.end() ? nullptr : it->second;
}

std::optional<std::string> PhoneConnections::activeSessionId() const {
  auto connection = sessionConnection();
  return connection ? connection->dispatcher->activeSessionId() : std::nullopt;
}

std::optional<std::string> PhoneConnections::activeDeviceId() const {
  auto connection = sessionConnection();
  return connection ? std::optional(connection->deviceId) : std::nullopt;
}

std::optional<PermissionGate> PhoneConnections::activePermissions() const {
  auto connection = sessionConnection();
  return connection ? connection->dispatcher->activePermissions() : std::nullopt;
}

void PhoneConnections::sendToSession(std::string_view channel, std::string_view payload) {
  auto connection = sessionConnection();
  if (!connection) throw AgentPeerSessionError::channelNotOpen(std::string(channel));
  connection->channel->sendText(channel, payload);
}

void PhoneConnections::sendBinaryToSession(std::string_view channel, const Bytes& payload) {
  auto connection = sessionConnection();
  auto session = connection ? connection->channel->session() : nullptr;
  if (!session) throw AgentPeerSessionError::channelNotOpen(std::string(channel));
  session->sendBinary(channel, payload);
}

void PhoneConnections::refuse(const std::string& sessionId, const std::exception& error) {
  auto connection = sessionConnection();
  if (connection && connection->dispatcher->activeSessionId() == sessionId) {
    connection->dispatcher->refuse(sessionId, error);
  }
}

void PhoneConnections::push(const CapturedFrame& frame, std::int64_t timestampNs) {
  auto connection = sessionConnection();
  auto session = connection ? connection->channel->session() : nullptr;
  if (session) session->push(frame, timestampNs);
}

std::uint64_t PhoneConnections::bufferedAmount(std::string_view channel) const {
  auto connection = sessionConnection();
  auto session = connection ? connection->channel->session() : nullptr;
  return session ? session->bufferedAmount(channel) : 0;
}

void PhoneConnections::updateSessionPermissions(const PermissionGate& permissions) {
  if (auto connection = sessionConnection()) connection->dispatcher->updatePermissions(permissions);
}

void PhoneConnections::endSession() {
  std::optional<std::uint64_t> id;
  {
    std::lock_guard lock(mutex_);
    id = sessionConnection_;
  }
  if (id) drop(*id, "its session ended");
}

void PhoneConnections::peerLeft(const std::string& deviceId) {
  std::vector<std::uint64_t> waiting;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [id, connection] : connections_) {
      if (connection->deviceId == deviceId && sessionConnection_ != id) waiting.push_back(id);
    }
  }
  for (auto id : waiting) drop(id, "it left");
}

void PhoneConnections::closeAll() {
  std::vector<std::uint64_t> ids;
  {
    std::lock_guard lock(mutex_);
    for (const auto& entry : connections_) ids.push_back(entry.first);
  }
  for (auto id : ids) drop(id, "closing");
}

void PhoneConnections::shutdown() {
  worker_.shutdown();
  closeAll();
  closeRetired();
}

}  // namespace zul
