#include <gtest/gtest.h>

#include <sstream>

#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/ControlSessionLease.h"
#include "ZulCore/Trust/IdentityKeyStore.h"
#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulTransport/AgentPeerSessionError.h"
#include "ZulTransport/ControlSessionDispatcher.h"
#include "ZulTransport/MessageRouter.h"
#include "ZulTransport/PhoneRequests.h"
#include "support/Outcome.h"

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

// Every request type, and each leniency rule, as the agent acts on it.
TEST(PhoneRequests, DecodesEachTypeOnceWithItsLeniency) {
  using enum PointerPhase;
  const auto left = PointerButton::left, right = PointerButton::right;
  struct Case {
    const char* message;
    std::optional<PhoneRequest> expected;  // nothing: ignored
    std::string error = "";
  };
  const Case cases[] = {
      {R"({"type":"input.cursor","phase":"down","x":10.5,"y":2,"button":"right"})",
       PointerRequest{{down, 10.5, 2, right}}},
      {R"({"type":"input.cursor","phase":"up","button":"middle"})",
       PointerRequest{{up, 0, 0, PointerButton::middle}}},
      // Missing or mistyped numbers are 0; unknown button names (matched
      // case-sensitively) are the left button.
      {R"({"type":"input.cursor","phase":"move","x":"12","y":null,"button":"Right"})",
       PointerRequest{{move, 0, 0, left}}},
      // Without a phase it knows there is nothing to do.
      {R"({"type":"input.cursor","x":1})", std::nullopt},
      {R"({"type":"input.cursor","phase":"scroll"})", std::nullopt},
      {R"({"type":"input.cursor","phase":3})", std::nullopt},
      {R"({"type":"input.scroll","dy":2,"x":100,"y":50})",
       ScrollRequest{{0, 2, std::pair(100.0, 50.0)}}},
      {R"({"type":"input.scroll","dx":-1,"dy":"lots"})", ScrollRequest{{-1, 0, std::nullopt}}},
      {R"({"type":"input.scroll","y":"top"})", ScrollRequest{{0, 0, std::pair(0.0, 0.0)}}},
      {R"({"type":"input.text","value":"Привет"})", TextRequest{"Привет"}},
      {R"({"type":"input.text","value":7})", std::nullopt},
      {R"({"type":"input.key","combo":"Ctrl+K"})", KeyRequest{"Ctrl+K"}},
      {R"({"type":"input.key"})", std::nullopt},
      {R"({"type":"input.invoke","elementId":"e1","sceneSeq":4})", InvokeRequest{"e1", 4}},
      {R"({"type":"input.invoke","elementId":"e1","sceneSeq":4.9})", InvokeRequest{"e1", 4}},
      {R"({"type":"input.invoke","elementId":"e1"})", std::nullopt, "invalidSemanticInvocation"},
      {R"({"type":"input.invoke","elementId":5,"sceneSeq":1})", std::nullopt,
       "invalidSemanticInvocation"},
      {R"({"type":"scene.request_snapshot"})", SceneSnapshotRequest{}},
      {R"({"type":"control.monitor.list"})", MonitorListRequest{}},
      {R"({"type":"control.monitor.select","index":1})", MonitorSelectRequest{1}},
      // A fraction counts by its whole part; an absurd number names no display.
      {R"({"type":"control.monitor.select","index":1.7})", MonitorSelectRequest{1}},
      {R"({"type":"control.monitor.select","index":1e300})", MonitorSelectRequest{-1}},
      {R"({"type":"control.monitor.select","index":18446744073709551615})",
       MonitorSelectRequest{-1}},
      {R"({"type":"control.monitor.select","index":"1"})", std::nullopt},
      {R"({"type":"control.device.forget"})", ForgetDeviceRequest{}},
      {R"({"type":"control.clipboard.set","mimeType":"image/png","offset":2,"total":4,"data":"AAE"})",
       ClipboardSetRequest{"image/png", 2, 4, {0, 1}}},
      // A piece that does not fit its content, or is not base64url.
      {R"({"type":"control.clipboard.set","mimeType":"image/png","offset":3,"total":4,"data":"AAE"})",
       std::nullopt, "invalidClipboardPiece"},
      {R"({"type":"control.clipboard.set","mimeType":"image/png","total":4,"data":"A"})",
       std::nullopt, "invalidClipboardPiece"},
      {R"({"type":"files.list","path":"Docs","hidden":true,"limit":5000})",
       FilesListRequest{"Docs", true, 0, 1000}},
      {R"({"type":"files.upload","transfer":7,"name":"a.txt","size":3})",
       FilesUploadRequest{7, "", "a.txt", 3}},
      {R"({"type":"files.upload","transfer":7,"name":"a.txt","size":-1})", std::nullopt,
       "invalidFilesRequest"},
      {R"({"type":"files.download","transfer":4294967296,"path":"a"})", std::nullopt,
       "invalidFilesRequest"},
      {R"({"type":"files.download","transfer":4,"path":"a","confirm":true})",
       FilesDownloadRequest{4, "a", 0, true}},
      {R"({"type":"files.received","transfer":4,"offset":9})", FilesReceivedRequest{4, 9}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    const auto json = nlohmann::json::parse(c.message);
    const RoutedMessage message{"input", json["type"], "1.0", "s1", json};
    ASSERT_TRUE(PhoneRequests::ruleFor(message.type));
    std::optional<PhoneRequest> decoded;
    EXPECT_EQ(test::outcome<PhoneRequestError>([&] { decoded = PhoneRequests::decode(message); }),
              c.error.empty() ? "ok" : c.error);
    EXPECT_TRUE(decoded == c.expected);
  }
  // The table never allows a type on a channel the router refuses it on, and
  // every request that acts on the computer needs control.
  for (const auto& rule : PhoneRequests::rules()) {
    for (auto channel : rule.channels) {
      if (!channel.empty()) {
        EXPECT_TRUE(MessageRouter::typeBelongsToChannel(channel, rule.type));
      }
    }
    const std::string type(rule.type);
    const auto needed = type.starts_with("files.")               ? DevicePermission::files
                        : type.starts_with("control.clipboard.") ? DevicePermission::clipboard
                        : type.starts_with("shell.")             ? DevicePermission::shell
                                                                 : DevicePermission::control;
    // A shell also needs control.
    EXPECT_EQ(rule.alsoNeeds,
              type.starts_with("shell.") ? std::optional(DevicePermission::control) : std::nullopt)
        << rule.type;
    const bool asks = type == "scene.request_snapshot" || type == "control.monitor.list" ||
                      type == "control.device.forget";
    EXPECT_EQ(rule.permission, asks ? std::nullopt : std::optional(needed)) << rule.type;
  }
  EXPECT_FALSE(PhoneRequests::ruleFor("input.pinch"));
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

const std::string agentFingerprint = "sha-256 " + std::string(95, 'A');

class RecordingChannel : public ControlChannel {
 public:
  std::string dtlsFingerprint() const override { return agentFingerprint; }
  void sendControlText(const std::string& text) override {
    sent.push_back(nlohmann::json::parse(text));
  }
  std::vector<nlohmann::json> sent;
};

// A phone with its own Ed25519 key.
struct Phone {
  IdentityKeyStore key{SecretStore("phone", std::make_shared<MemorySecretBackend>())};
  std::string deviceId = IdentityKeyStore::deriveId("device_", key.publicKey());

  TrustedDevice record(bool revoked = false,
                       std::set<DevicePermission> permissions = {DevicePermission::view,
                                                                 DevicePermission::control}) const {
    return {deviceId,    "phone",      Base64Url::encode(key.publicKey()),
            permissions, UtcSeconds{}, revoked};
  }

  nlohmann::json hello(const std::string& sessionId, const std::string& nonce = "n-1") const {
    auto signature =
        key.sign(toBytes(ControlSessionDispatcher::helloTranscript(sessionId, deviceId, nonce)));
    return {{"type", "control.hello"},
            {"protoVersion", "1.0"},
            {"sessionId", sessionId},
            {"deviceId", deviceId},
            {"nonce", nonce},
            {"signature", Base64Url::encode(signature)},
            {"dtlsFingerprint", agentFingerprint}};
  }
};

struct Harness {
  std::shared_ptr<MemorySecretBackend> secrets = std::make_shared<MemorySecretBackend>();
  TrustedDeviceStore store{SecretStore(TrustedDeviceStore::account, secrets)};
  std::shared_ptr<RecordingChannel> channel = std::make_shared<RecordingChannel>();
  ControlSessionDispatcher dispatcher{channel, store};
  Phone phone;
  std::vector<std::string> events;

  void setUp() {
    store.save({phone.record()});
    dispatcher.setExpectedPeerDeviceId(phone.deviceId);
    dispatcher.onSessionEstablished = [this](const std::string& s, const std::string&) {
      events.push_back("established " + s);
    };
    dispatcher.onSessionReleased = [this] { events.push_back("released"); };
    dispatcher.onAuthenticatedMessage = [this](const RoutedMessage& m, const PermissionGate& g) {
      events.push_back("message " + m.type +
                       (g.allows(DevicePermission::control) ? " control" : ""));
    };
    dispatcher.onDiagnostic = [this](const std::string& line) { events.push_back("diag " + line); };
  }

  void send(const nlohmann::json& message, const std::string& label = "control") {
    dispatcher.handle(label, message.dump());
  }
  const nlohmann::json& lastReply() { return channel->sent.back(); }
};

struct DispatcherFixture : ::testing::Test, Harness {
  void SetUp() override { setUp(); }
};

TEST_F(DispatcherFixture, ValidHelloEstablishesTheSessionOnceAndRepliesOk) {
  send(phone.hello("s1"));
  send(phone.hello("s1", "n-2"));  // repeated on the same session: not a second one
  ASSERT_EQ(channel->sent.size(), 2u);
  const auto& ok = lastReply();
  EXPECT_EQ(ok["type"], "control.hello.ok");
  EXPECT_EQ(ok["sessionId"], "s1");
  EXPECT_EQ(ok["controlLease"], "granted");
  EXPECT_EQ(ok["permissions"], nlohmann::json::array({"view", "control"}));
  EXPECT_EQ(ok["host"]["platform"], "linux");
  EXPECT_EQ(dispatcher.activeSessionId(), "s1");

  send({{"type", "input.key"}, {"protoVersion", "1.0"}, {"sessionId", "s1"}}, "input");
  EXPECT_EQ(events, (std::vector<std::string>{"established s1", "message input.key control"}));
}

// The phone app signs this exact text: a changed byte refuses every phone.
TEST(ControlSessionDispatcher, HelloTranscriptIsExact) {
  EXPECT_EQ(ControlSessionDispatcher::helloTranscript("s1", "device_D", "n-1"),
            "ZUL-CONTROL-HELLO-1\ns1\ndevice_D\nn-1");
}

TEST_F(DispatcherFixture, HelloRefusals) {
  struct Case {
    const char* name;
    std::function<void(nlohmann::json&, Harness&)> change;
    std::string code;
    std::string message;
  };
  const auto resign = [](nlohmann::json& hello, const Phone& phone, const std::string& transcript) {
    hello["signature"] = Base64Url::encode(phone.key.sign(toBytes(transcript)));
  };
  const Case cases[] = {
      {"no device id", [](auto& h, auto&) { h.erase("deviceId"); }, "INVALID_MESSAGE",
       R"(missingField("deviceId"))"},
      {"another device than announced",
       [](auto&, auto& f) { f.dispatcher.setExpectedPeerDeviceId("device_other"); },
       "PERMISSION_DENIED", "identityMismatch"},
      {"unpaired key", [](auto&, auto& f) { f.store.save({}); }, "PERMISSION_DENIED",
       "deviceNotTrusted"},
      {"revoked", [](auto&, auto& f) { f.store.revoke(f.phone.deviceId); }, "PERMISSION_DENIED",
       "deviceNotTrusted"},
      {"wrong fingerprint", [](auto& h, auto&) { h["dtlsFingerprint"] = "sha-256 00"; },
       "PERMISSION_DENIED", "fingerprintMismatch"},
      {"signature not base64url", [](auto& h, auto&) { h["signature"] = "not base64!"; },
       "INVALID_MESSAGE", R"(missingField("nonce/signature"))"},
      {"damaged stored key",
       [](auto&, auto& f) {
         auto record = f.phone.record();
         record.ed25519PublicKey = "*";
         f.store.save({record});
       },
       "INVALID_MESSAGE", R"(missingField("nonce/signature"))"},
      {"transcript with trailing line feed",
       [&](auto& h, auto& f) {
         resign(h, f.phone,
                ControlSessionDispatcher::helloTranscript("s1", f.phone.deviceId, "n-1") + "\n");
       },
       "PERMISSION_DENIED", "invalidSignature"},
      {"fields in another order",
       [&](auto& h, auto& f) {
         resign(h, f.phone,
                ControlSessionDispatcher::helloTranscript(f.phone.deviceId, "s1", "n-1"));
       },
       "PERMISSION_DENIED", "invalidSignature"},
      {"signed for another session",
       [&](auto& h, auto& f) {
         resign(h, f.phone,
                ControlSessionDispatcher::helloTranscript("s2", f.phone.deviceId, "n-1"));
       },
       "PERMISSION_DENIED", "invalidSignature"},
      {"corrupt trusted store",
       [](auto&, auto& f) {
         f.secrets->save(SecretStore::service, TrustedDeviceStore::account, toBytes("[{"));
       },
       "INVALID_MESSAGE", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness f;
    f.setUp();
    auto hello = f.phone.hello("s1");
    c.change(hello, f);
    f.send(hello);
    ASSERT_EQ(f.channel->sent.size(), 1u);
    const auto& reply = f.lastReply();
    EXPECT_EQ(reply["type"], "control.error");
    EXPECT_EQ(reply["code"], c.code);
    if (!c.message.empty()) {
      EXPECT_EQ(reply["message"], c.message);
    }
    // The case alone, for the app to act on.
    const std::string message = reply["message"];
    EXPECT_EQ(reply["reason"], message.substr(0, message.find('(')));
    EXPECT_FALSE(f.dispatcher.activeSessionId());
    ASSERT_EQ(f.events.size(), 1u);  // a diagnostic line, no session
  }
}

// Without a fingerprint the hello is still bound by the transcript; a revoked
// record is skipped for a later valid one.
TEST_F(DispatcherFixture, HelloAcceptedWithoutFingerprintAndPastARevokedRecord) {
  auto hello = phone.hello("s1");
  hello.erase("dtlsFingerprint");
  store.save({phone.record(true, {DevicePermission::view}), phone.record(false)});
  send(hello);
  EXPECT_EQ(lastReply()["type"], "control.hello.ok");
}

TEST_F(DispatcherFixture, MessagesOutsideTheSessionAreRefusedOrDropped) {
  send({{"type", "input.key"}, {"protoVersion", "1.0"}, {"sessionId", "s1"}}, "input");
  EXPECT_EQ(lastReply()["code"], "PERMISSION_DENIED");
  EXPECT_EQ(lastReply()["message"], "noActiveSession");
  EXPECT_EQ(lastReply()["reason"], "noActiveSession");

  // A request refused after it was passed on names the permission it lacked.
  dispatcher.refuse("s1", PermissionGateError::denied(DevicePermission::control));
  nlohmann::json refusal = lastReply();
  refusal.erase("ts");
  EXPECT_EQ(refusal, (nlohmann::json{{"type", "control.error"},
                                     {"protoVersion", "1.0"},
                                     {"sessionId", "s1"},
                                     {"code", "PERMISSION_DENIED"},
                                     {"message", "denied(control)"},
                                     {"reason", "denied"},
                                     {"permission", "control"}}));

  send(phone.hello("s1"));
  send({{"type", "input.key"}, {"protoVersion", "1.0"}, {"sessionId", "s2"}}, "input");
  EXPECT_EQ(lastReply()["message"], "noActiveSession");

  // Malformed messages are dropped with a line, never passed on.
  const auto repliesBefore = channel->sent.size();
  dispatcher.handle("control", "{not json");
  send({{"type", "input.key"}, {"protoVersion", "1.0"}, {"sessionId", "s1"}}, "input-fast");
  EXPECT_EQ(channel->sent.size(), repliesBefore);
  for (const auto& e : events) EXPECT_EQ(e.find("message "), std::string::npos) << e;
}

TEST_F(DispatcherFixture, ReplacingASessionReleasesItFirstAndReleaseEndsItOnce) {
  send(phone.hello("s1"));
  send(phone.hello("s2", "n-2"));
  EXPECT_EQ(lastReply()["message"], "anotherSessionActive");
  auto replacing = phone.hello("s2", "n-3");
  replacing["replaceSession"] = true;
  send(replacing);
  EXPECT_EQ(lastReply()["controlLease"], "replaced");
  dispatcher.releaseActiveSession();
  dispatcher.releaseActiveSession();
  EXPECT_EQ(events, (std::vector<std::string>{"established s1",
                                              "diag rejecting control.hello: "
                                              "anotherSessionActive",
                                              "released", "established s2", "released",
                                              "diag released control session s2"}));
  EXPECT_FALSE(dispatcher.activeSessionId());
  send(phone.hello("s3", "n-4"));  // the lease is free again
  EXPECT_EQ(lastReply()["controlLease"], "granted");
}

// Each phone connection has its own dispatcher; they share the lease and the
// nonces already used.
TEST(ControlSessionDispatchers, ShareTheLeaseAndRefuseReplayedHellos) {
  auto shared = std::make_shared<ControlSessionShared>();
  Harness a, b;  // b lends only its channel
  ControlSessionDispatcher first(a.channel, a.store, shared);
  ControlSessionDispatcher second(b.channel, a.store, shared);
  a.store.save({a.phone.record()});
  first.setExpectedPeerDeviceId(a.phone.deviceId);
  second.setExpectedPeerDeviceId(a.phone.deviceId);
  auto withReplace = [](nlohmann::json hello, bool replace = true) {
    hello["replaceSession"] = replace;
    return hello;
  };
  struct Step {
    ControlSessionDispatcher& dispatcher;
    RecordingChannel& channel;
    nlohmann::json hello;
    std::string reply;  // "controlLease" or the error message
  };
  const Step steps[] = {
      {first, *a.channel, a.phone.hello("s1", "n-1"), "granted"},
      {first, *a.channel, a.phone.hello("s1", "n-1"), "invalidSignature"},  // replayed
      {second, *b.channel, withReplace(a.phone.hello("s1", "n-1")), "invalidSignature"},
      {second, *b.channel, withReplace(a.phone.hello("s2", "n-2"), false), "anotherSessionActive"},
      {second, *b.channel, withReplace(a.phone.hello("s2", "n-3")), "replaced"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.hello.dump());
    step.dispatcher.handle("control", step.hello.dump());
    const auto& reply = step.channel.sent.back();
    EXPECT_EQ(reply.value("controlLease", reply.value("message", "")), step.reply);
  }
  EXPECT_EQ(second.activeSessionId(), "s2");

  // Refusals of requests passed on: a missing permission is denied, anything
  // else is an invalid message.
  second.refuse("s2", PermissionGateError::denied(DevicePermission::control));
  EXPECT_EQ(b.channel->sent.back()["code"], "PERMISSION_DENIED");
  EXPECT_EQ(b.channel->sent.back()["message"], "denied(control)");
  second.refuse("s2", std::runtime_error("staleElement"));
  EXPECT_EQ(b.channel->sent.back()["code"], "INVALID_MESSAGE");
}

// The lease on its own. Steps: "s1 d1" acquires for session s1 of device d1,
// "s1 d1 replace" displaces the holder, "release s1"; an acquire answers
// "granted" or "refused", the session it displaced and the holder after it.
TEST(ControlSessionLease, Scenarios) {
  const std::pair<std::vector<std::string>, std::vector<std::string>> scenarios[] = {
      {{"s1 d1", "s1 d1"}, {"granted s1", "granted s1"}},  // the same again: no change
      {{"s1 d1", "s2 d2"}, {"granted s1", "refused s1"}},
      {{"s1 d1", "s2 d2 replace"}, {"granted s1", "granted replacing s1: s2"}},
      // The same session from another device names itself replaced.
      {{"s1 d1", "s1 d2 replace"}, {"granted s1", "granted replacing s1: s1"}},
      {{"s1 d1", "s1 d2"}, {"granted s1", "refused s1"}},
      // A displaced session releasing late keeps its successor.
      {{"s1 d1", "s2 d1 replace", "release s1"}, {"granted s1", "granted replacing s1: s2", "s2"}},
      {{"s1 d1", "release s1", "s2 d2"}, {"granted s1", "-", "granted s2"}},
      {{"release s1"}, {"-"}},
  };
  for (const auto& [steps, expected] : scenarios) {
    ControlSessionLease lease;
    std::vector<std::string> seen;
    for (const auto& step : steps) {
      std::istringstream words(step);
      std::string session, device, replace;
      words >> session >> device >> replace;
      if (session == "release") {
        lease.release(device);
        seen.push_back(lease.activeSessionId().value_or("-"));
        continue;
      }
      const auto result = lease.acquire(session, device, replace == "replace");
      EXPECT_EQ(result.activeSessionId, lease.activeSessionId());
      seen.push_back(
          std::string(result.granted ? "granted " : "refused ") +
          (result.replacedSessionId ? "replacing " + *result.replacedSessionId + ": " : "") +
          result.activeSessionId.value_or("-"));
    }
    EXPECT_EQ(seen, expected) << steps.back();
  }
}

}  // namespace
}  // namespace zul
