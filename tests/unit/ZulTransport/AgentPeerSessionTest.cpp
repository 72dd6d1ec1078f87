#include <gtest/gtest.h>

#include <regex>

#include "ZulCore/Media/FakeCaptureSource.h"
#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulTransport/AgentPeerSession.h"
#include "ZulTransport/LocalOfferSession.h"
#include "ZulTransport/PersistedDtlsCertificate.h"

namespace zul {
namespace {

SecretStore certificateStore() {
  return SecretStore(PersistedDtlsCertificate::account, std::make_shared<MemorySecretBackend>());
}

// The payload types of the first "m=video" line, in order.
std::vector<std::string> videoPayloadOrder(const std::string& sdp) {
  std::smatch m;
  if (!std::regex_search(sdp, m, std::regex("m=video \\d+ [A-Z/]+ ([0-9 ]+)"))) return {};
  std::vector<std::string> out;
  std::istringstream in(m[1].str());
  for (std::string pt; in >> pt;) out.push_back(pt);
  return out;
}

std::string codecOf(const std::string& sdp, const std::string& payloadType) {
  std::smatch m;
  if (!std::regex_search(sdp, m, std::regex("a=rtpmap:" + payloadType + " ([A-Za-z0-9-]+)/")))
    return {};
  return m[1].str();
}

TEST(AgentPeerSession, StartsWithOneVideoTrackAndCreatesTheCatalogueChannels) {
  AgentPeerSession session(certificateStore());
  const auto tracks = session.videoTracks();
  ASSERT_EQ(tracks.size(), 1u);
  EXPECT_TRUE(tracks[0].detailedContent);
  EXPECT_TRUE(tracks[0].keepsResolution);
  session.createDataChannels();
  auto channels = session.channels();
  ASSERT_EQ(channels.size(), 5u);
  std::map<std::string, AgentPeerSession::ChannelInfo> byLabel;
  for (auto& c : channels) byLabel[c.label] = c;
  for (const auto& spec : DataChannelCatalog::all) {
    const auto& c = byLabel.at(std::string(spec.label));
    EXPECT_EQ(c.ordered, spec.ordered) << spec.label;
    EXPECT_EQ(c.maxRetransmits, spec.maxRetransmits.value_or(-1)) << spec.label;
    EXPECT_EQ(c.protocol, "zul/1");
    EXPECT_FALSE(c.negotiated);
  }
  // New ICE servers mean a new connection without channels until they are made again.
  session.configureIceServers(
      {"turn:127.0.0.1:3478?transport=udp", "turn:127.0.0.1:3478?transport=tcp"}, "user", "secret");
  EXPECT_TRUE(session.channels().empty());
  ASSERT_EQ(session.iceServers().size(), 1u);
  EXPECT_EQ(session.iceServers()[0].credential, "secret");
  ASSERT_EQ(session.videoTracks().size(), 1u);
}

TEST(AgentPeerSession, SendingGate) {
  AgentPeerSession session(certificateStore());
  using E = AgentPeerSessionError;
  struct Case {
    std::string label;
    bool binary;
    std::size_t size;
    E expected;
  };
  const Case cases[] = {
      // The gate's own cases are in the router's table; here: the session asks it.
      {"control", true, 2, E::wrongChannelPayloadKind("control")},
      {"input-fast", false, 65537, E::messageTooLarge("input-fast")},
      {"files", true, 10, E::channelNotOpen("files")},
  };
  for (const auto& c : cases) {
    try {
      if (c.binary)
        session.sendBinary(c.label, Bytes(c.size));
      else
        session.sendText(c.label, std::string(c.size, 'x'));
      ADD_FAILURE() << "sent on " << c.label;
    } catch (const AgentPeerSessionError& error) {
      EXPECT_EQ(error, c.expected) << error.text();
    }
  }
}

TEST(AgentPeerSession, OfferCarriesFingerprintCandidatesChannelsAndH264First) {
  std::vector<std::string> diagnostics;
  std::mutex mutex;
  AgentPeerSession session(certificateStore());
  session.setOnDiagnostic([&](const std::string& line) {
    std::lock_guard lock(mutex);
    diagnostics.push_back(line);
  });
  session.createDataChannels();
  const std::string offer = session.createOfferWithGatheredCandidates();
  const std::string fingerprint = session.dtlsFingerprint().substr(8);
  EXPECT_NE(offer.find("a=fingerprint:sha-256 " + fingerprint), std::string::npos);
  EXPECT_NE(offer.find("a=candidate:"), std::string::npos);
  EXPECT_NE(offer.find("a=sendonly"), std::string::npos);
  EXPECT_NE(offer.find("a=group:BUNDLE 0 1"), std::string::npos);
  const auto order = videoPayloadOrder(offer);
  ASSERT_FALSE(order.empty());
  EXPECT_EQ(codecOf(offer, order.front()), "H264");
  // The latch is one-shot: a second offer comes back without a new gathering.
  EXPECT_FALSE(session.createOfferWithGatheredCandidates().empty());

  // Answers that are not SDP are the library's errors.
  EXPECT_ANY_THROW(session.acceptAnswer("not sdp"));
  // Candidates that do not parse only produce a diagnostic.
  session.addRemoteIceCandidate("garbage", std::string("0"), 0);
  std::lock_guard lock(mutex);
  EXPECT_TRUE(std::any_of(diagnostics.begin(), diagnostics.end(), [](const std::string& l) {
    return l.rfind("addIceCandidate failed: ", 0) == 0;
  }));
}

TEST(AgentPeerSession, TakesPushedFramesAndClosesTwice) {
  AgentPeerSession session(certificateStore());
  const auto frame = FakeCaptureSource::makeFrame(1, 64, 48, 0);
  session.push(frame, 1'000'000);
  CapturedFrame empty;
  session.push(empty, 2'000'000);  // no pixels: dropped with a diagnostic, no crash
  session.restartIce();
  session.close();
  session.close();
}

TEST(AgentPeerSession, DamagedCertificateIsAnErrorNotAnAbort) {
  auto backend = std::make_shared<MemorySecretBackend>();
  backend->save(SecretStore::service, "dtls-certificate", toBytes("{broken"));
  EXPECT_THROW(AgentPeerSession(SecretStore(PersistedDtlsCertificate::account, backend)),
               DtlsCertificateError);
}

TEST(AgentPeerSession, BadIceServersAreSkippedWithALineAndTheGoodOnesKept) {
  const std::vector<std::string> good = {"stun:127.0.0.1:3478", "turn:[::1]:3478?transport=tcp",
                                         "turns:turn.example.com"};
  const std::vector<std::string> bad = {
      "",
      "stun:127.0.0.1:99999",
      "http://127.0.0.1:3478",
      "turn:127.0.0.1:3478?transport=sctp",
      std::string("stun:127.0.0.1\0:3478", 20),
      "stun:127.0.0.1\n:3478",
      "stun:" + std::string(600, 'a'),
      "turn:user:s3cret-credential@127.0.0.1",
  };
  struct Case {
    const char* name;
    std::string username;
    std::string credential;
    std::size_t kept;  // of `good`: TURN needs a usable user name and credential
  };
  const Case cases[] = {
      {"credentials", "user", "s3cret-credential", 3},
      {"NUL in the user name", std::string("us\0er", 5), "s3cret-credential", 1},
      {"very long credential", "user", std::string(4096, 's'), 1},
  };
  AgentPeerSession session(PersistedDtlsCertificate::loadOrCreate(certificateStore()));
  std::vector<std::string> lines;
  session.setOnDiagnostic([&](const std::string& line) {
    if (line.starts_with("ICE server")) lines.push_back(line);
  });
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    lines.clear();
    std::vector<std::string> urls = bad;
    urls.insert(urls.begin() + 2, good.begin(), good.end());
    session.configureIceServers(urls, c.username, c.credential);
    const auto servers = session.iceServers();
    ASSERT_EQ(servers.size(), 1u);
    EXPECT_EQ(servers[0].urls, std::vector<std::string>(good.begin(), good.begin() + c.kept));
    EXPECT_EQ(lines.size(), bad.size() + good.size() - c.kept);
    for (const auto& line : lines) {
      EXPECT_EQ(line.find("s3cret"), std::string::npos) << line;
      EXPECT_EQ(line.find_first_of(std::string("\n\0", 2)), std::string::npos) << line;
    }
  }
  // A flood of entries is cut, with one line for the rest.
  lines.clear();
  std::vector<std::string> flood(10000, "stun:127.0.0.1:3478");
  session.configureIceServers(flood, "", "");
  EXPECT_EQ(session.iceServers().at(0).urls.size(), 32u);
  EXPECT_EQ(lines, std::vector<std::string>{"ICE servers skipped: 9968 beyond the first 32"});
}

TEST(LocalOfferSession, OffersOneSendOnlyVideoSectionWithHostCandidates) {
  LocalOfferSession session({});
  const std::string offer = session.createOfferWithGatheredCandidates();
  EXPECT_NE(offer.find("m=video"), std::string::npos);
  EXPECT_EQ(offer.find("m=application"), std::string::npos);
  EXPECT_NE(offer.find("a=candidate:"), std::string::npos);
  EXPECT_NE(offer.find("a=msid:zul-stream0 zul-video0"), std::string::npos);
  const auto order = videoPayloadOrder(offer);
  ASSERT_FALSE(order.empty());
  EXPECT_EQ(codecOf(offer, order.front()), "H264");
  EXPECT_FALSE(session.createOfferWithGatheredCandidates().empty());
  EXPECT_TRUE(session.push(FakeCaptureSource::makeFrame(1, 32, 32, 0), 5));
  EXPECT_FALSE(session.push(CapturedFrame{}, 6));
}

}  // namespace
}  // namespace zul
