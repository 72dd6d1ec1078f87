#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "ZulCore/Media/FakeCaptureSource.h"
#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulTransport/AgentPeerSession.h"
#include "ZulTransport/LocalOfferSession.h"
#include "ZulTransport/PersistedDtlsCertificate.h"
#include "support/Outcome.h"

namespace zul {
namespace {

SecretStore makeStore(std::shared_ptr<MemorySecretBackend> backend) {
  return SecretStore(PersistedDtlsCertificate::account, std::move(backend));
}

TEST(PersistedDtlsCertificate, CreatesOnceThenReadsTheSameCertificate) {
  auto backend = std::make_shared<MemorySecretBackend>();
  const auto first = PersistedDtlsCertificate::loadOrCreate(makeStore(backend));
  const auto stored = backend->load(SecretStore::service, "dtls-certificate");
  ASSERT_TRUE(stored);

  const auto second = PersistedDtlsCertificate::loadOrCreate(makeStore(backend));
  EXPECT_EQ(second.fingerprint, first.fingerprint);
  EXPECT_TRUE(
      std::regex_match(first.fingerprint, std::regex("sha-256 ([0-9A-F]{2}:){31}[0-9A-F]{2}")));
  EXPECT_EQ(PersistedDtlsCertificate::fingerprint(first.certificatePem), first.fingerprint);
  EXPECT_EQ(backend->load(SecretStore::service, "dtls-certificate"), stored);  // not rewritten

  // Another store gets another certificate.
  const auto other =
      PersistedDtlsCertificate::loadOrCreate(makeStore(std::make_shared<MemorySecretBackend>()));
  EXPECT_NE(other.fingerprint, first.fingerprint);
}

TEST(PersistedDtlsCertificate, DamagedRecordFailsClearlyWithoutTheKeyAndIsLeftAsItIs) {
  using Case = DtlsCertificateError::Case;
  const auto mine =
      PersistedDtlsCertificate::loadOrCreate(makeStore(std::make_shared<MemorySecretBackend>()));
  const auto other =
      PersistedDtlsCertificate::loadOrCreate(makeStore(std::make_shared<MemorySecretBackend>()));
  auto record = [](const std::string& key, const std::string& certificate) {
    return nlohmann::json{{"privateKey", key}, {"certificate", certificate}}.dump();
  };
  const std::string valid = record(mine.privateKeyPem, mine.certificatePem);
  std::string brokenCertificate = mine.certificatePem;
  brokenCertificate[40] = '*';
  const struct {
    const char* name;
    std::string stored;
    Case expected;
  } cases[] = {
      {"truncated", valid.substr(0, valid.size() / 2), Case::malformedRecord},
      {"not JSON", "not json " + mine.privateKeyPem, Case::malformedRecord},
      {"certificate not a string",
       nlohmann::json{{"privateKey", mine.privateKeyPem}, {"certificate", 7}}.dump(),
       Case::malformedRecord},
      {"key and a broken certificate", record(mine.privateKeyPem, brokenCertificate),
       Case::malformedPem},
      {"broken key", record(mine.privateKeyPem.substr(0, 60), mine.certificatePem),
       Case::malformedPrivateKey},
      {"another certificate's key", record(other.privateKeyPem, mine.certificatePem),
       Case::keyMismatch},
  };
  // A line of the key's base64 body: no error may show any of it.
  const std::string keyLine = mine.privateKeyPem.substr(mine.privateKeyPem.find('\n') + 1, 24);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto backend = std::make_shared<MemorySecretBackend>();
    backend->save(SecretStore::service, "dtls-certificate", toBytes(c.stored));
    try {
      PersistedDtlsCertificate::loadOrCreate(makeStore(backend));
      ADD_FAILURE() << "loaded";
    } catch (const DtlsCertificateError& error) {
      EXPECT_EQ(error.kind(), c.expected) << error.text();
      EXPECT_EQ(error.text().find(keyLine.substr(0, 8)), std::string::npos) << error.text();
      EXPECT_EQ(error.text().find("PRIVATE"), std::string::npos) << error.text();
    }
    EXPECT_THROW(AgentPeerSession{makeStore(backend)}, DtlsCertificateError);  // not an abort
    EXPECT_EQ(backend->load(SecretStore::service, "dtls-certificate"), toBytes(c.stored));
  }
}

TEST(PersistedDtlsCertificate, PemToDer) {
  struct Case {
    std::string pem;
    std::optional<Bytes> der;  // nothing: malformedPem
  };
  const Case cases[] = {
      {"-----BEGIN CERTIFICATE-----\r\nAQID\r\nBA==\r\n-----END CERTIFICATE-----\r\n",
       Bytes{1, 2, 3, 4}},
      {"-----BEGIN A-----\rAQID\u2028BA==\u2029-----END A-----", Bytes{1, 2, 3, 4}},
      {"\n\nAQIDBA==\n\n", Bytes{1, 2, 3, 4}},
      {"-----BEGIN A-----\nAQI=\n-----END A-----\n-----BEGIN B-----\nAw==\n-----END B-----",
       std::nullopt},  // two padded bodies run together do not decode
      {"-----BEGIN A-----\nAQ-D\n-----END A-----", std::nullopt},
      {"-----BEGIN A-----\nAQI\n-----END A-----", std::nullopt},
      {"-----BEGIN A-----\n-----END A-----", std::nullopt},
  };
  for (const auto& c : cases) {
    if (c.der) {
      EXPECT_EQ(PersistedDtlsCertificate::derBytes(c.pem), *c.der) << c.pem;
    } else {
      EXPECT_THROW(PersistedDtlsCertificate::derBytes(c.pem), DtlsCertificateError) << c.pem;
    }
  }
}

SecretStore certificateStore() {
  return SecretStore(PersistedDtlsCertificate::account, std::make_shared<MemorySecretBackend>());
}

// Whether the first "m=video" line lists H.264 first.
bool h264First(const std::string& sdp) {
  std::smatch m;
  return std::regex_search(sdp, m, std::regex("m=video \\d+ [A-Z/]+ ([0-9]+)")) &&
         sdp.find("a=rtpmap:" + m[1].str() + " H264/") != std::string::npos;
}

TEST(AgentPeerSession, OneVideoTrackCatalogueChannelsAndTheSendingGate) {
  AgentPeerSession session(certificateStore());
  const auto tracks = session.videoTracks();
  ASSERT_EQ(tracks.size(), 1u);
  EXPECT_TRUE(tracks[0].detailedContent);
  EXPECT_TRUE(tracks[0].keepsResolution);
  // The gate's own cases are in the router's table; here: the session asks it,
  // before any channel is made.
  using E = AgentPeerSessionError;
  EXPECT_EQ(test::outcome<E>([&] { session.sendBinary("control", Bytes(2)); }),
            E::wrongChannelPayloadKind("control").text());
  EXPECT_EQ(test::outcome<E>([&] { session.sendText("input-fast", std::string(65537, 'x')); }),
            E::messageTooLarge("input-fast").text());
  EXPECT_EQ(test::outcome<E>([&] { session.sendBinary("files", Bytes(10)); }),
            E::channelNotOpen("files").text());

  session.createDataChannels();
  auto channels = session.channels();
  ASSERT_EQ(channels.size(), 5u);
  std::map<std::string, AgentPeerSession::ChannelInfo> byLabel;
  for (auto& c : channels) byLabel[c.label] = c;
  for (const auto& wanted : DataChannelCatalog::all) {
    const auto& c = byLabel.at(std::string(wanted.label));
    EXPECT_EQ(c.ordered, wanted.ordered) << wanted.label;
    EXPECT_EQ(c.maxRetransmits, wanted.maxRetransmits.value_or(-1)) << wanted.label;
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
  session.push(FakeCaptureSource::makeFrame(1, 64, 48, 0), 1'000'000);
  session.push(CapturedFrame{}, 2'000'000);  // no pixels: dropped with a diagnostic, no crash
  session.restartIce();
  session.close();
  session.close();
}

TEST(AgentPeerSession, OfferCarriesFingerprintCandidatesChannelsAndH264First) {
  std::vector<std::string> diagnostics;
  std::mutex mutex;
  AgentPeerSession session(certificateStore());
  session.onDiagnostic = [&](const std::string& line) {
    std::lock_guard lock(mutex);
    diagnostics.push_back(line);
  };
  session.createDataChannels();
  const std::string offer = session.createOfferWithGatheredCandidates();
  const std::string fingerprint = session.dtlsFingerprint().substr(8);
  for (const auto& line : {"a=fingerprint:sha-256 " + fingerprint, std::string("a=candidate:"),
                           std::string("a=sendonly"), std::string("a=group:BUNDLE 0 1")})
    EXPECT_NE(offer.find(line), std::string::npos) << line;
  EXPECT_TRUE(h264First(offer));
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
  session.onDiagnostic = [&](const std::string& line) {
    if (line.starts_with("ICE server")) lines.push_back(line);
  };
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
  EXPECT_EQ(offer.find("m=application"), std::string::npos);
  EXPECT_NE(offer.find("a=candidate:"), std::string::npos);
  EXPECT_NE(offer.find("a=msid:zul-stream0 zul-video0"), std::string::npos);
  EXPECT_TRUE(h264First(offer));
  EXPECT_FALSE(session.createOfferWithGatheredCandidates().empty());
  EXPECT_TRUE(session.push(FakeCaptureSource::makeFrame(1, 32, 32, 0), 5));
  EXPECT_FALSE(session.push(CapturedFrame{}, 6));
}

}  // namespace
}  // namespace zul
