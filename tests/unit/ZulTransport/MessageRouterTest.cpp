#include <gtest/gtest.h>

#include "ZulTransport/AgentPeerSessionError.h"
#include "ZulTransport/MessageRouter.h"
#include "unit/ZulCore/Outcome.h"

namespace zul {
namespace {

std::string envelope(const std::string& type, const std::string& extra = "") {
  return R"({"type":")" + type + R"(","protoVersion":"1.0","sessionId":"s1")" + extra + "}";
}

// "ok", the router's error text, or "notJson" for the decoder's own error.
std::string parsed(const std::string& channel, const std::string& data) {
  try {
    auto message = MessageRouter::parse(channel, data);
    EXPECT_EQ(message.json["type"], message.type);
    return "ok";
  } catch (const MessageRouterError& error) {
    return error.text();
  } catch (const nlohmann::json::parse_error&) {
    return "notJson";
  }
}

TEST(MessageRouter, ParseOrderAndErrors) {
  using E = MessageRouterError;
  struct Case {
    const char* name;
    std::string channel;
    std::string data;
    std::string outcome;
  };
  const std::string bigGarbage(65537, 'x');
  std::string exactlyMax = envelope("input.cursor", R"(,"pad":")");
  exactlyMax += std::string(65536 - exactlyMax.size() - 2, 'p') + "\"}";
  const Case cases[] = {
      {"unknown label before size", "nope", bigGarbage, E::unknownChannel("nope").text()},
      {"one byte over is refused before decoding", "input-fast", bigGarbage,
       E::messageTooLarge("input-fast").text()},
      {"exactly the limit passes", "input-fast", exactlyMax, "ok"},
      {"not JSON", "control", "{nope", "notJson"},
      {"bare string is not a document", "control", R"("control.hello")", "notJson"},
      {"array body", "control", "[1,2]", E::missingField("<body>").text()},
      {"missing type", "control", R"({"protoVersion":"1.0","sessionId":"s"})",
       E::missingField("type").text()},
      {"empty session", "control", R"({"type":"control.x","protoVersion":"1.0","sessionId":""})",
       E::missingField("sessionId").text()},
      {"fields read before the version check", "control",
       R"({"type":"control.x","protoVersion":"2.0"})", E::missingField("sessionId").text()},
      {"major 2", "control", R"({"type":"control.x","protoVersion":"2.0","sessionId":"s"})",
       E::unsupportedProtocolMajor("2.0").text()},
      {"major 10", "control", R"({"type":"control.x","protoVersion":"10.0","sessionId":"s"})",
       E::unsupportedProtocolMajor("10.0").text()},
      {"minor not parsed", "control",
       R"({"type":"control.x","protoVersion":"1.25","sessionId":"s"})", "ok"},
      {"version before type check", "input-fast",
       R"({"type":"input.key","protoVersion":"3.0","sessionId":"s"})",
       E::unsupportedProtocolMajor("3.0").text()},
      {"key on fast channel", "input-fast", envelope("input.key"),
       E::typeNotAllowedOnChannel("input.key", "input-fast").text()},
      {"one level deeper than the limit is a decode error", "control",
       envelope("control.x", R"(,"a":)" + std::string(64, '[') + std::string(64, ']')), "notJson"},
      {"brackets inside strings do not count", "control",
       envelope("control.x", R"(,"a":")" + std::string(1000, '[') + "\""), "ok"},
      {"nesting at the limit is fine", "control",
       envelope("control.x", R"(,"a":)" + std::string(63, '[') + std::string(63, ']')), "ok"},
  };
  for (const auto& c : cases) EXPECT_EQ(parsed(c.channel, c.data), c.outcome) << c.name;
}

TEST(MessageRouter, TypesPerChannel) {
  struct Case {
    const char* channel;
    const char* type;
    bool allowed;
  };
  const Case cases[] = {
      {"input-fast", "input.pinch", true},
      {"input-fast", "input.key", false},
      {"input-fast", "input.cursorx", false},
      {"input", "input.cursor", true},
      {"input", "input", false},
      {"scene", "input.x", false},
      {"control", "profile.bundle", true},
      {"control", "profile.other", false},
      {"control", "shell.exec", true},
      {"control", "Control.hello", false},
      {"files", "files.chunk", true},
      {"files", "control.hello", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(MessageRouter::typeBelongsToChannel(c.channel, c.type), c.allowed)
        << c.channel << " " << c.type;
  }
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
    EXPECT_EQ(test::outcome<E>([&] { requireSendable(c.label, c.binary, c.bytes); }),
              c.error ? c.error->text() : "ok")
        << c.label;
  }
}

TEST(Envelope, AgentMessagesCarryVersionSessionAndTime) {
  auto before = MessageRouter::currentTimestampMillis();
  auto json = MessageRouter::makeEnvelope("control.hello.ok", "s9");
  EXPECT_EQ(MessageRouter::parse("control", json.dump()).sessionId, "s9");
  EXPECT_GE(json["ts"].get<std::int64_t>(), before);
}

}  // namespace
}  // namespace zul
