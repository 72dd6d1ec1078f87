#include "ZulTransport/AgentPeerSession.h"

#include <map>
#include <mutex>

#include "ZulTransport/DataChannelCatalog.h"
#include "ZulTransport/PersistedDtlsCertificate.h"
#include "ZulTransport/WebRtcError.h"
#include "ZulTransport/WebRtcSupport.h"
#include "api/data_channel_interface.h"
#include "api/jsep.h"
#include "rtc_base/rtc_certificate.h"

namespace zul {

class AgentPeerSession::Impl : public std::enable_shared_from_this<Impl> {
 public:
  // The connection's delegate. Lives as long as the session; its gathering
  // latch opens once per gathering (the first offer, then each ICE restart).
  class ConnectionObserver : public webrtc::PeerConnectionObserver {
   public:
    void setOwner(std::weak_ptr<Impl> owner) {
      std::lock_guard lock(mutex_);
      owner_ = std::move(owner);
    }
    webrtc_support::GatheringLatch& latch() { return latch_; }

    void OnSignalingChange(webrtc::PeerConnectionInterface::SignalingState state) override {
      if (auto owner = lockOwner()) owner->diagnostic("signaling:" + std::to_string(state));
    }
    void OnIceGatheringChange(webrtc::PeerConnectionInterface::IceGatheringState state) override {
      if (auto owner = lockOwner()) owner->diagnostic("ice-gathering:" + std::to_string(state));
      if (state == webrtc::PeerConnectionInterface::kIceGatheringComplete) latch_.complete();
    }
    void OnIceConnectionChange(webrtc::PeerConnectionInterface::IceConnectionState state) override {
      if (auto owner = lockOwner()) owner->iceConnectionStateChanged(static_cast<int>(state));
    }
    void OnDataChannel(rtc::scoped_refptr<webrtc::DataChannelInterface> channel) override {
      if (auto owner = lockOwner()) owner->registerChannel(channel);
    }
    void OnIceCandidate(const webrtc::IceCandidateInterface*) override {}
    void OnRenegotiationNeeded() override {}

   private:
    std::shared_ptr<Impl> lockOwner() {
      std::lock_guard lock(mutex_);
      return owner_.lock();
    }

    std::mutex mutex_;
    std::weak_ptr<Impl> owner_;
    webrtc_support::GatheringLatch latch_;
  };

  class ChannelObserver : public webrtc::DataChannelObserver {
   public:
    ChannelObserver(std::weak_ptr<Impl> owner,
                    rtc::scoped_refptr<webrtc::DataChannelInterface> channel)
        : owner_(std::move(owner)), channel_(std::move(channel)), label_(channel_->label()) {}

    void OnStateChange() override {
      auto owner = owner_.lock();
      if (!owner) return;
      const auto state = channel_->state();
      owner->diagnostic("channel:" + label_ + ":" + std::to_string(state));
      if (state == webrtc::DataChannelInterface::kOpen) owner->channelOpened(label_);
    }
    void OnMessage(const webrtc::DataBuffer& buffer) override {
      auto owner = owner_.lock();
      if (!owner) return;
      Bytes data(buffer.data.cdata(), buffer.data.cdata() + buffer.data.size());
      owner->messageReceived(label_, data, buffer.binary);
    }
    const rtc::scoped_refptr<webrtc::DataChannelInterface>& channel() const { return channel_; }

   private:
    std::weak_ptr<Impl> owner_;
    rtc::scoped_refptr<webrtc::DataChannelInterface> channel_;
    std::string label_;
  };

  Impl(const DtlsCertificate& certificate, std::shared_ptr<Events> events,
       const PeerVideoEncoding& encoding)
      : events_(std::move(events)), certificate_(certificate) {
    webrtc_support::initialize();
    webrtcCertificate_ = rtc::RTCCertificate::FromPEM(
        rtc::RTCCertificatePEM(certificate_.privateKeyPem, certificate_.certificatePem));
    if (!webrtcCertificate_) throw DtlsCertificateError::malformedPem();
    runtime_ = std::make_unique<webrtc_support::Runtime>(encoding);
    source_ = rtc::make_ref_counted<webrtc_support::PushedVideoSource>();
    observer_ = std::make_unique<ConnectionObserver>();
  }

  // Second step of construction, once a shared owner exists.
  void start() {
    connection_ = makeConnection({});
    observer_->setOwner(weak_from_this());
    addTrack(*connection_);
  }

  ~Impl() { shutdown(); }

  void shutdown() {
    rtc::scoped_refptr<webrtc::PeerConnectionInterface> connection;
    std::vector<std::unique_ptr<ChannelObserver>> observers;
    {
      // The owner is going away: nothing of it is called during tear-down.
      events_->onMessage = nullptr;
      events_->onIceConnectionStateChange = nullptr;
      events_->onDataChannelOpen = nullptr;
      events_->onDiagnostic = nullptr;
      std::lock_guard lock(mutex_);
      connection = std::move(connection_);
      observers = std::move(channelObservers_);
      channels_.clear();
    }
    if (connection) connection->Close();
    for (auto& observer : observers) observer->channel()->UnregisterObserver();
    // Let whatever the signalling thread still runs for us finish first.
    if (runtime_) runtime_->signalingThread().BlockingCall([] {});
  }

  rtc::scoped_refptr<webrtc::PeerConnectionInterface> makeConnection(
      const std::vector<webrtc::PeerConnectionInterface::IceServer>& servers) {
    webrtc::PeerConnectionInterface::RTCConfiguration config;
    config.sdp_semantics = webrtc::SdpSemantics::kUnifiedPlan;
    config.certificates = {webrtcCertificate_};
    config.bundle_policy = webrtc::PeerConnectionInterface::kBundlePolicyMaxBundle;
    config.rtcp_mux_policy = webrtc::PeerConnectionInterface::kRtcpMuxPolicyRequire;
    config.servers = servers;
    auto result = runtime_->factory().CreatePeerConnectionOrError(
        config, webrtc::PeerConnectionDependencies(observer_.get()));
    if (result.ok()) return result.MoveValue();
    if (!servers.empty()) {
      // The servers passed our checks but not the library's: go on without.
      diagnostic("ICE servers refused (" + std::string(result.error().message()) +
                 "); connecting without them");
      return makeConnection({});
    }
    throw WebRtcError(webrtc::ToString(result.error().type()), result.error().message());
  }

  void addTrack(webrtc::PeerConnectionInterface& connection) {
    if (auto problem = webrtc_support::addVideoTrack(runtime_->factory(), connection, source_)) {
      diagnostic(*problem);
    }
  }

  rtc::scoped_refptr<webrtc::PeerConnectionInterface> connection() {
    std::lock_guard lock(mutex_);
    return connection_;
  }

  void configureIceServers(const std::vector<std::string>& urls, const std::string& username,
                           const std::string& credential) {
    auto usable = webrtc_support::usableIceServers(urls, username, credential);
    for (const auto& problem : usable.skipped) diagnostic(problem);
    std::vector<webrtc::PeerConnectionInterface::IceServer> servers;
    if (!usable.urls.empty()) {
      webrtc::PeerConnectionInterface::IceServer server;
      server.urls = std::move(usable.urls);
      server.username = username;
      server.password = credential;
      servers.push_back(std::move(server));
    }
    rtc::scoped_refptr<webrtc::PeerConnectionInterface> old;
    {
      std::lock_guard lock(mutex_);
      channels_.clear();
      old = connection_;
    }
    if (old) old->Close();
    auto fresh = makeConnection(servers);
    addTrack(*fresh);
    std::lock_guard lock(mutex_);
    connection_ = std::move(fresh);
  }

  void createDataChannels() {
    auto connection = this->connection();
    if (!connection) return;
    for (const DataChannelSpec& spec : DataChannelCatalog::all) {
      webrtc::DataChannelInit init;
      init.ordered = spec.ordered;
      if (spec.maxRetransmits) init.maxRetransmits = static_cast<int>(*spec.maxRetransmits);
      init.protocol = "zul/1";
      init.negotiated = false;
      auto created = connection->CreateDataChannelOrError(std::string(spec.label), &init);
      if (!created.ok()) {
        diagnostic("failed to create data channel " + std::string(spec.label));
        continue;
      }
      registerChannel(created.MoveValue());
    }
  }

  void registerChannel(rtc::scoped_refptr<webrtc::DataChannelInterface> channel) {
    auto observer = std::make_unique<ChannelObserver>(weak_from_this(), channel);
    channel->RegisterObserver(observer.get());
    std::lock_guard lock(mutex_);
    channels_[channel->label()] = channel;
    channelObservers_.push_back(std::move(observer));
  }

  void restartGathering() { observer_->latch().reset(); }

  std::string createOffer(std::optional<std::chrono::milliseconds> gatheringLimit) {
    auto connection = this->connection();
    if (!connection) throw AgentPeerSessionError::missingLocalDescription();
    auto offer = webrtc_support::createOffer(*connection, webrtc_support::sendOnlyOfferOptions());
    if (!offer) throw AgentPeerSessionError::offerCreationFailed();
    webrtc_support::setLocalDescription(*connection, std::move(offer));
    if (!gatheringLimit) {
      observer_->latch().wait();
    } else if (!observer_->latch().waitFor(*gatheringLimit)) {
      throw AgentPeerSessionError::gatheringTimedOut();
    }
    auto sdp = webrtc_support::localDescriptionSdp(runtime_->signalingThread(), *connection);
    if (!sdp) throw AgentPeerSessionError::missingLocalDescription();
    return *sdp;
  }

  void addRemoteIceCandidate(const std::string& candidate, const std::optional<std::string>& sdpMid,
                             std::int32_t sdpMLineIndex) {
    webrtc::SdpParseError parseError;
    std::unique_ptr<webrtc::IceCandidateInterface> ice(
        webrtc::CreateIceCandidate(sdpMid.value_or(""), sdpMLineIndex, candidate, &parseError));
    if (!ice) {
      diagnostic("addIceCandidate failed: " + parseError.description);
      return;
    }
    auto connection = this->connection();
    if (!connection) return;
    std::weak_ptr<Impl> weak = weak_from_this();
    connection->AddIceCandidate(std::move(ice), [weak](webrtc::RTCError error) {
      if (error.ok()) return;
      if (auto owner = weak.lock()) {
        owner->diagnostic(std::string("addIceCandidate failed: ") + webrtc::ToString(error.type()) +
                          ": " + error.message());
      }
    });
  }

  void send(std::string_view label, const std::uint8_t* data, std::size_t size, bool binary) {
    requireSendable(label, binary, size);
    rtc::scoped_refptr<webrtc::DataChannelInterface> channel;
    {
      std::lock_guard lock(mutex_);
      auto it = channels_.find(std::string(label));
      if (it == channels_.end()) throw AgentPeerSessionError::channelNotOpen(label);
      channel = it->second;
    }
    if (!channel->Send(webrtc::DataBuffer(rtc::CopyOnWriteBuffer(data, size), binary))) {
      throw AgentPeerSessionError::sendFailed(label);
    }
  }

  void push(const CapturedFrame& frame, std::int64_t timestampNs) {
    if (source_->push(frame, timestampNs)) return;
    bool first = false;
    {
      std::lock_guard lock(mutex_);
      first = !reportedUnreadableFrame_;
      reportedUnreadableFrame_ = true;
    }
    if (first)
      diagnostic("push: a frame has no pixels the video source can read; such frames are dropped");
  }

  void diagnostic(const std::string& line) { events_->onDiagnostic(line); }
  void iceConnectionStateChanged(int state) { events_->onIceConnectionStateChange(state); }
  void channelOpened(const std::string& label) { events_->onDataChannelOpen(label); }
  void messageReceived(const std::string& label, const Bytes& data, bool binary) {
    events_->onMessage(label, data, binary);
  }

  std::vector<ChannelInfo> channelInfos() {
    std::vector<rtc::scoped_refptr<webrtc::DataChannelInterface>> held;
    {
      std::lock_guard lock(mutex_);
      for (const auto& [label, channel] : channels_) held.push_back(channel);
    }
    std::vector<ChannelInfo> out;
    for (const auto& channel : held) {
      ChannelInfo info;
      info.label = channel->label();
      info.ordered = channel->ordered();
      info.maxRetransmits = channel->maxRetransmitsOpt().value_or(-1);
      info.protocol = channel->protocol();
      info.negotiated = channel->negotiated();
      info.state = channel->state();
      out.push_back(std::move(info));
    }
    return out;
  }

  std::shared_ptr<Events> events_;
  std::mutex mutex_;  // guards the connection and the channels
  DtlsCertificate certificate_;
  rtc::scoped_refptr<rtc::RTCCertificate> webrtcCertificate_;
  std::unique_ptr<webrtc_support::Runtime> runtime_;
  rtc::scoped_refptr<webrtc_support::PushedVideoSource> source_;
  std::unique_ptr<ConnectionObserver> observer_;
  rtc::scoped_refptr<webrtc::PeerConnectionInterface> connection_;
  std::map<std::string, rtc::scoped_refptr<webrtc::DataChannelInterface>> channels_;
  std::vector<std::unique_ptr<ChannelObserver>> channelObservers_;
  bool reportedUnreadableFrame_ = false;
};

AgentPeerSession::AgentPeerSession(const DtlsCertificate& certificate,
                                   const PeerVideoEncoding& encoding)
    : impl_(std::make_shared<Impl>(certificate, events_, encoding)) {
  impl_->start();
}

AgentPeerSession::AgentPeerSession(const SecretStore& certificateStore)
    : AgentPeerSession(PersistedDtlsCertificate::loadOrCreate(certificateStore)) {}

AgentPeerSession::~AgentPeerSession() { impl_->shutdown(); }

const std::string& AgentPeerSession::dtlsFingerprint() const {
  return impl_->certificate_.fingerprint;
}

void AgentPeerSession::configureIceServers(const std::vector<std::string>& urls,
                                           const std::string& username,
                                           const std::string& credential) {
  impl_->configureIceServers(urls, username, credential);
}

void AgentPeerSession::createDataChannels() { impl_->createDataChannels(); }

std::string AgentPeerSession::createOfferWithGatheredCandidates(
    std::optional<std::chrono::milliseconds> gatheringLimit) {
  return impl_->createOffer(gatheringLimit);
}

void AgentPeerSession::acceptAnswer(const std::string& sdp) {
  auto connection = impl_->connection();
  if (!connection) throw AgentPeerSessionError::missingLocalDescription();
  webrtc_support::setRemoteAnswer(*connection, sdp);
}

void AgentPeerSession::addRemoteIceCandidate(const std::string& candidate,
                                             const std::optional<std::string>& sdpMid,
                                             std::int32_t sdpMLineIndex) {
  impl_->addRemoteIceCandidate(candidate, sdpMid, sdpMLineIndex);
}

void AgentPeerSession::sendText(std::string_view channel, std::string_view payload) {
  impl_->send(channel, reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size(),
              false);
}

void AgentPeerSession::sendBinary(std::string_view channel, const Bytes& payload) {
  impl_->send(channel, payload.data(), payload.size(), true);
}

void AgentPeerSession::push(const CapturedFrame& frame, std::int64_t timestampNs) {
  impl_->push(frame, timestampNs);
}

std::uint64_t AgentPeerSession::bufferedAmount(std::string_view label) const {
  rtc::scoped_refptr<webrtc::DataChannelInterface> channel;
  {
    std::lock_guard lock(impl_->mutex_);
    auto it = impl_->channels_.find(std::string(label));
    if (it == impl_->channels_.end()) return 0;
    channel = it->second;
  }
  return channel->buffered_amount();
}

void AgentPeerSession::restartIce() {
  auto connection = impl_->connection();
  if (!connection) return;
  // The restart's offer carries the fresh candidates, as the first one did.
  impl_->restartGathering();
  connection->RestartIce();
}

void AgentPeerSession::close() {
  if (auto connection = impl_->connection()) connection->Close();
}

std::vector<AgentPeerSession::ChannelInfo> AgentPeerSession::channels() const {
  return impl_->channelInfos();
}

std::vector<AgentPeerSession::TrackInfo> AgentPeerSession::videoTracks() const {
  std::vector<TrackInfo> out;
  auto connection = impl_->connection();
  if (!connection) return out;
  for (const auto& sender : connection->GetSenders()) {
    auto track = sender->track();
    if (!track || track->kind() != webrtc::MediaStreamTrackInterface::kVideoKind) continue;
    auto* video = static_cast<webrtc::VideoTrackInterface*>(track.get());
    out.push_back({track->id(), sender->stream_ids(),
                   video->content_hint() == webrtc::VideoTrackInterface::ContentHint::kDetailed,
                   sender->GetParameters().degradation_preference ==
                       webrtc::DegradationPreference::MAINTAIN_RESOLUTION});
  }
  return out;
}

std::vector<AgentPeerSession::IceServerInfo> AgentPeerSession::iceServers() const {
  std::vector<IceServerInfo> out;
  auto connection = impl_->connection();
  if (!connection) return out;
  for (const auto& server : connection->GetConfiguration().servers) {
    out.push_back({server.urls, server.username, server.password});
  }
  return out;
}

}  // namespace zul
