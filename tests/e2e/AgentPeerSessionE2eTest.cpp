// The agent's peer session against a real browser that answers its offer
// directly (the test carries the SDP): five channels both ways, and the
// sending gate in front of them.

#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "HeadlessChromium.h"
#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulTransport/AgentPeerSession.h"
#include "ZulTransport/DataChannelCatalog.h"
#include "ZulTransport/PersistedDtlsCertificate.h"

namespace zul::test {
namespace {

using namespace std::chrono_literals;

// What the session reported, for the test thread to wait on.
struct Received {
  std::mutex mutex;
  std::condition_variable changed;
  std::set<std::string> open;
  std::map<std::string, std::vector<std::pair<Bytes, bool>>> messages;

  template <typename Predicate>
  bool waitUntil(Predicate predicate) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 60s, [&] { return predicate(); });
  }
};

// The browser side: answers the offer, echoes every message back on its
// channel, and keeps what it got.
constexpr const char* answerOffer = R"js((async (offer) => {
  window.pc = new RTCPeerConnection({ iceServers: [] });
  window.got = {};
  window.channels = {};
  window.tracks = [];
  pc.ontrack = (e) => tracks.push({ kind: e.track.kind, stream: e.streams[0] ? e.streams[0].id : "" });
  pc.ondatachannel = (e) => {
    const ch = e.channel;
    ch.binaryType = "arraybuffer";
    channels[ch.label] = { ordered: ch.ordered, maxRetransmits: ch.maxRetransmits, protocol: ch.protocol };
    ch.onmessage = (m) => {
      const binary = typeof m.data !== "string";
      (got[ch.label] = got[ch.label] || []).push(binary ? m.data.byteLength : m.data);
      ch.send(m.data);
    };
  };
  await pc.setRemoteDescription({ type: "offer", sdp: offer });
  await pc.setLocalDescription(await pc.createAnswer());
  if (pc.iceGatheringState !== "complete") {
    await new Promise((r) => pc.addEventListener("icegatheringstatechange",
      () => pc.iceGatheringState === "complete" && r()));
  }
  return pc.localDescription.sdp;
}))js";

TEST(E2eAgentPeerSession, BrowserAnswersAndEveryChannelCarriesMessages) {
  if (!HeadlessChromium::available()) GTEST_SKIP() << "no " << HeadlessChromium::program;

  SecretStore store(PersistedDtlsCertificate::account, std::make_shared<MemorySecretBackend>());
  Received received;  // outlives the session, whose callbacks fill it
  AgentPeerSession session(store);
  session.setOnDataChannelOpen([&](const std::string& label) {
    std::lock_guard lock(received.mutex);
    received.open.insert(label);
    received.changed.notify_all();
  });
  session.setOnMessage([&](const std::string& label, const Bytes& data, bool binary) {
    std::lock_guard lock(received.mutex);
    received.messages[label].emplace_back(data, binary);
    received.changed.notify_all();
  });
  session.configureIceServers({}, "", "");
  session.createDataChannels();
  const std::string offer = session.createOfferWithGatheredCandidates();

  HeadlessChromium browser;
  const std::string page = browser.openPage("about:blank");
  const auto answer =
      browser.evaluate(page, std::string(answerOffer) + "(" + nlohmann::json(offer).dump() + ")");
  ASSERT_TRUE(answer.is_string());
  session.acceptAnswer(answer.get<std::string>());

  ASSERT_TRUE(received.waitUntil([&] { return received.open.size() == 5; }))
      << "open: " << testing::PrintToString(received.open);

  // The browser sees the channels as the catalogue made them, and the video.
  EXPECT_TRUE(browser.waitFor(page, "Object.keys(channels).length === 5"));
  const auto channels = browser.evaluate(page, "channels");
  ASSERT_TRUE(channels.is_object()) << channels.dump();
  for (const auto& spec : DataChannelCatalog::all) {
    ASSERT_TRUE(channels.contains(std::string(spec.label))) << channels.dump();
    const auto& seen = channels.at(std::string(spec.label));
    EXPECT_EQ(seen["ordered"], spec.ordered) << spec.label;
    EXPECT_EQ(seen["protocol"], "zul/1") << spec.label;
    if (spec.maxRetransmits)
      EXPECT_EQ(seen["maxRetransmits"], *spec.maxRetransmits);
    else
      EXPECT_TRUE(seen["maxRetransmits"].is_null()) << spec.label;
  }
  EXPECT_EQ(browser.evaluate(page, "JSON.stringify(tracks)"),
            R"([{"kind":"video","stream":"zul-stream0"}])");

  // Text on the four text channels, binary on "files" (one exactly at its
  // limit); the browser echoes each.
  std::map<std::string, Bytes> sent;
  for (const auto& spec : DataChannelCatalog::all) {
    const std::string label(spec.label);
    if (spec.binary) {
      Bytes payload(static_cast<std::size_t>(spec.maxMessageBytes));
      for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<std::uint8_t>(i);
      session.sendBinary(label, payload);
      sent[label] = payload;
    } else {
      const std::string text =
          R"({"type":"probe","protoVersion":"1.0","sessionId":"s","channel":")" + label + "\"}";
      session.sendText(label, text);
      sent[label] = toBytes(text);
    }
  }
  ASSERT_TRUE(received.waitUntil([&] {
    for (const auto& spec : DataChannelCatalog::all) {
      if (received.messages[std::string(spec.label)].empty()) return false;
    }
    return true;
  }));
  {
    std::lock_guard lock(received.mutex);
    for (const auto& spec : DataChannelCatalog::all) {
      const std::string label(spec.label);
      const auto& [data, binary] = received.messages[label].front();
      EXPECT_EQ(data, sent[label]) << label;
      EXPECT_EQ(binary, spec.binary) << label;
    }
  }

  // Over a channel's limit, or of the wrong kind: refused before the wire.
  const std::string tooBig(65537, 'x');
  EXPECT_THROW(session.sendText("input-fast", tooBig), AgentPeerSessionError);
  EXPECT_THROW(session.sendBinary("files", Bytes(65537)), AgentPeerSessionError);
  EXPECT_THROW(session.sendText("files", "{}"), AgentPeerSessionError);
  // Nothing refused reached the browser: one message per channel, no more.
  const auto counts = browser.evaluate(
      page, "Object.fromEntries(Object.entries(got).map(([k, v]) => [k, v.length]))");
  for (const auto& spec : DataChannelCatalog::all) {
    EXPECT_EQ(counts[std::string(spec.label)], 1) << spec.label;
  }
  EXPECT_EQ(browser.evaluate(page, "got['files'][0]"), 65536);
}

}  // namespace
}  // namespace zul::test
