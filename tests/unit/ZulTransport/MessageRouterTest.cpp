#include <gtest/gtest.h>

#include "ZulTransport/AgentPeerSessionError.h"
#include "ZulTransport/DataChannelCatalog.h"
#include "ZulTransport/MessageRouter.h"

namespace zul {
namespace {

std::string envelope(const std::string& type, const std::string& extra = "") {
  return R"({"type":")" + type + R"(","protoVersion":"1.0","sessionId":"s1")" + extra + "}";
}

// An outcome: accepted, a router error, or the decoder's own error.
struct Outcome {
  std::optional<MessageRouterError> error;
  bool decodeError = false;
};
Outcome accepted() { return {}; }
Outcome fails(MessageRouterError e) { return {std::move(e), false}; }
Outcome notJson() { return {std::nullopt, true}; }

TEST(MessageRouter, ParseOrderAndErrors) {
  using E = MessageRouterError;
  struct Case {
    const char* name;
    std::string channel;
    std::string data;
    Outcome outcome;
  };
  const std::string bigGarbage(65537, 'x');
  std::string exactlyMax = envelope("input.cursor", R"(,"pad":")");
  exactlyMax += std::string(65536 - exactlyMax.size() - 2, 'p') + "\"}";
  const Case cases[] = {
      {"unknown label before size", "nope", bigGarbage, fails(E::unknownChannel("nope"))},
      {"labels are case-sensitive", "Control", envelope("control.hello"),
       fails(E::unknownChannel("Control"))},
      {"one byte over is refused before decoding", "input-fast", bigGarbage,
       fails(E::messageTooLarge("input-fast"))},
      {"exactly the limit passes", "input-fast", exactlyMax, accepted()},
      {"not JSON", "control", "{nope", notJson()},
      {"empty body", "control", "", notJson()},
      {"bare string is not a document", "control", R"("control.hello")", notJson()},
      {"array body", "control", "[1,2]", fails(E::missingField("<body>"))},
      {"missing type", "control", R"({"protoVersion":"1.0","sessionId":"s"})",
       fails(E::missingField("type"))},
      {"numeric type", "control", R"({"type":5,"protoVersion":"1.0","sessionId":"s"})",
       fails(E::missingField("type"))},
      {"empty session", "control", R"({"type":"control.x","protoVersion":"1.0","sessionId":""})",
       fails(E::missingField("sessionId"))},
      {"numeric session", "control", R"({"type":"control.x","protoVersion":"1.0","sessionId":1})",
       fails(E::missingField("sessionId"))},
      {"fields read before the version check", "control",
       R"({"type":"control.x","protoVersion":"2.0"})", fails(E::missingField("sessionId"))},
      {"major 2", "control", R"({"type":"control.x","protoVersion":"2.0","sessionId":"s"})",
       fails(E::unsupportedProtocolMajor("2.0"))},
      {"bare 1", "control", R"({"type":"control.x","protoVersion":"1","sessionId":"s"})",
       fails(E::unsupportedProtocolMajor("1"))},
      {"major 10", "control", R"({"type":"control.x","protoVersion":"10.0","sessionId":"s"})",
       fails(E::unsupportedProtocolMajor("10.0"))},
      {"1. alone", "control", R"({"type":"control.x","protoVersion":"1.","sessionId":"s"})",
       accepted()},
      {"minor not parsed", "control",
       R"({"type":"control.x","protoVersion":"1.25","sessionId":"s"})", accepted()},
      {"version before type check", "input-fast",
       R"({"type":"input.key","protoVersion":"3.0","sessionId":"s"})",
       fails(E::unsupportedProtocolMajor("3.0"))},
      {"key on fast channel", "input-fast", envelope("input.key"),
       fails(E::typeNotAllowedOnChannel("input.key", "input-fast"))},
      {"cursor on input", "input", envelope("input.cursor"), accepted()},
      {"deep nesting is a decode error", "control",
       envelope("control.x", R"(,"a":)" + std::string(100, '[') + std::string(100, ']')),
       notJson()},
      {"brackets inside strings do not count", "control",
       envelope("control.x", R"(,"a":")" + std::string(1000, '[') + "\""), accepted()},
      {"nesting at the limit is fine", "control",
       envelope("control.x", R"(,"a":)" + std::string(63, '[') + std::string(63, ']')), accepted()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    try {
      auto message = MessageRouter::parse(c.channel, c.data);
      EXPECT_FALSE(c.outcome.error) << "expected " << c.outcome.error->text();
      EXPECT_FALSE(c.outcome.decodeError) << "expected a decode error";
      EXPECT_EQ(message.channel, c.channel);
    } catch (const MessageRouterError& error) {
      ASSERT_TRUE(c.outcome.error) << "unexpected " << error.text();
      EXPECT_EQ(error, *c.outcome.error) << error.text();
    } catch (const nlohmann::json::parse_error&) {
      EXPECT_TRUE(c.outcome.decodeError) << "unexpected decode error";
    }
  }
}

TEST(MessageRouter, KeepsTheWholeObject) {
  auto message = MessageRouter::parse(
      "input",
      R"({"type":"input.cursor","protoVersion":"1.3","sessionId":"abc","x":0.5,"p":{"q":[1]}})");
  EXPECT_EQ(message.type, "input.cursor");
  EXPECT_EQ(message.protoVersion, "1.3");
  EXPECT_EQ(message.sessionId, "abc");
  EXPECT_EQ(message.json["x"], 0.5);
  EXPECT_EQ(message.json["p"]["q"][0], 1);
  EXPECT_EQ(message.json["type"], "input.cursor");
}

TEST(MessageRouter, TypesPerChannel) {
  struct Case {
    const char* channel;
    const char* type;
    bool allowed;
  };
  const Case cases[] = {
      {"input-fast", "input.cursor", true},
      {"input-fast", "input.drag", true},
      {"input-fast", "input.scroll", true},
      {"input-fast", "input.pinch", true},
      {"input-fast", "input.key", false},
      {"input-fast", "input.cursorx", false},
      {"input", "input.key", true},
      {"input", "input.cursor", true},
      {"input", "input", false},
      {"input", "scene.x", false},
      {"scene", "scene.request_snapshot", true},
      {"scene", "input.x", false},
      {"control", "control.hello", true},
      {"control", "profile.bundle", true},
      {"control", "profile.other", false},
      {"control", "shell.exec", true},
      {"control", "Control.hello", false},
      {"files", "files.chunk", true},
      {"files", "control.hello", false},
      {"other", "control.hello", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(MessageRouter::typeBelongsToChannel(c.channel, c.type), c.allowed)
        << c.channel << " " << c.type;
  }
}

TEST(DataChannelCatalog, FiveChannelsInCreationOrder) {
  ASSERT_EQ(DataChannelCatalog::all.size(), 5u);
  const char* labels[] = {"input-fast", "input", "scene", "control", "files"};
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(DataChannelCatalog::all[i].label, labels[i]);
    EXPECT_EQ(DataChannelCatalog::spec(labels[i]), &DataChannelCatalog::all[i]);
  }
  EXPECT_FALSE(DataChannelCatalog::inputFast.ordered);
  EXPECT_EQ(DataChannelCatalog::inputFast.maxRetransmits, 0);
  EXPECT_EQ(DataChannelCatalog::spec("INPUT"), nullptr);
}

TEST(SendingGate, ChecksLabelKindAndSizeInOrder) {
  using E = AgentPeerSessionError;
  struct Case {
    std::string label;
    bool binary;
    std::size_t bytes;
    std::optional<E> error;
  };
  const Case cases[] = {
      {"nope", true, 1u << 30, E::unknownChannel("nope")},
      {"files", false, 1u << 30, E::wrongChannelPayloadKind("files")},
      {"control", true, 1, E::wrongChannelPayloadKind("control")},
      {"input-fast", false, 65537, E::messageTooLarge("input-fast")},
      {"input-fast", false, 65536, std::nullopt},
      {"files", true, 65536, std::nullopt},
      {"scene", false, 2 * 1024 * 1024 + 1, E::messageTooLarge("scene")},
  };
  for (const auto& c : cases) {
    try {
      EXPECT_EQ(requireSendable(c.label, c.binary, c.bytes).label, c.label);
      EXPECT_FALSE(c.error) << c.label;
    } catch (const E& error) {
      ASSERT_TRUE(c.error) << error.text();
      EXPECT_EQ(error, *c.error) << error.text();
    }
  }
}

TEST(Envelope, AgentMessagesCarryVersionSessionAndTime) {
  auto before = MessageRouter::currentTimestampMillis();
  auto json = MessageRouter::makeEnvelope("control.hello.ok", "s9");
  auto parsed = MessageRouter::parse("control", json.dump());
  EXPECT_EQ(parsed.protoVersion, "1.0");
  EXPECT_EQ(parsed.sessionId, "s9");
  EXPECT_GE(json["ts"].get<std::int64_t>(), before);
}

}  // namespace
}  // namespace zul
