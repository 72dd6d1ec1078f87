// `zul-agent --real-agent` as a phone meets it, with the development server,
// coturn and the development phone page in headless Chromium.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "HeadlessChromium.h"
#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/TrustedDevice.h"
#include "ZulPlatform/linux/secrets/FileSecretBackend.h"
#include "ZulTransport/DataChannelCatalog.h"
#include "support/ChildProcess.h"
#include "support/GnomeSession.h"
#include "support/ScreenPainter.h"
#include "support/XvfbServer.h"

namespace zul::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// coturn with the REST-API shared secret, on loopback only.
class TurnServer {
 public:
  static constexpr const char* secret = "zul-e2e-turn-secret";

  // A port of its own per test process, in a range nothing else here uses.
  TurnServer() : port_(40000 + ::getpid() % 9000) {
    process_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        "turnserver", "-n", "--listening-ip=127.0.0.1", "--relay-ip=127.0.0.1",
        "--listening-port=" + std::to_string(port_), "--use-auth-secret",
        std::string("--static-auth-secret=") + secret, "--realm=zul.test", "--no-tls", "--no-dtls",
        "--no-cli", "--allow-loopback-peers", "--min-port=49200", "--max-port=49400",
        "--no-stdout-log", "--log-file=/dev/null",
        "--pidfile=/tmp/zul-e2e-turn-" + std::to_string(port_) + ".pid"});
  }
  std::string url() const { return "turn:127.0.0.1:" + std::to_string(port_) + "?transport=udp"; }

 private:
  int port_;
  std::unique_ptr<ChildProcess> process_;
};

// The phone page's API, called through the DevTools protocol.
class Phone {
 public:
  // Loopback hosts make the page a secure context, which WebCrypto needs;
  // pages of two hosts keep two devices apart (each origin its own storage).
  Phone(HeadlessChromium& browser, int serverPort, const std::string& host = "localhost")
      : browser_(browser) {
    page_ = browser_.openPage("http://" + host + ":" + std::to_string(serverPort) + "/phone/");
    EXPECT_TRUE(waitFor("document.body?.dataset.ready === '1'"));
  }

  nlohmann::json eval(const std::string& expression, std::chrono::seconds limit = 60s) {
    return browser_.evaluate(page_, expression, limit);
  }
  bool waitFor(const std::string& expression, std::chrono::seconds limit = 60s) {
    return browser_.waitFor(page_, expression, limit);
  }
  nlohmann::json pair(const std::string& link,
                      const nlohmann::json& permissions = {"view", "control"}) {
    return eval("zulPhone.pair(" + nlohmann::json(link).dump() + ", " + permissions.dump() + ")");
  }
  // The control messages of a type received so far.
  nlohmann::json received(const std::string& type) {
    return eval("zulPhone.controlMessages().filter(m => m.type === '" + type + "')");
  }
  bool receivedAtLeast(const std::string& type, std::size_t count) {
    return waitFor("zulPhone.controlMessages().filter(m => m.type === '" + type +
                   "').length >= " + std::to_string(count));
  }
  // The session id once the control channel is open.
  std::string connect(const std::string& options = "{}") {
    return eval("zulPhone.connect(" + options + ")").get<std::string>();
  }
  // The agent's answers on the control channel so far (hello replies and
  // refusals; display lists left out).
  static constexpr const char* replies =
      "zulPhone.controlMessages().filter(m => m.type !== 'control.monitor.list')";
  // Waits for the n-th answer (1-based) and returns it.
  nlohmann::json waitForControl(std::size_t n) {
    if (waitFor(std::string(replies) + ".length >= " + std::to_string(n), 30s)) {
      return eval(replies)[n - 1];
    }
    ADD_FAILURE() << "no answer " << n << "; the phone's log:\n" << log();
    return {};
  }
  std::string log() { return eval("document.getElementById('log').textContent"); }
  nlohmann::json stats() { return eval("zulPhone.videoStats()"); }
  bool framesDecodedAbove(int count) {
    return waitFor("zulPhone.videoStats().then(s => s.framesDecoded > " + std::to_string(count) +
                   ")");
  }
  // A message of `type` on its channel (the type's first word, "control" for
  // a shell), with `fields`.
  void send(const std::string& type, const std::string& sessionId,
            nlohmann::json fields = nlohmann::json::object()) {
    // Shells travel on "control".
    const std::string channel =
        type.starts_with("shell.") ? "control" : type.substr(0, type.find('.'));
    EXPECT_TRUE(
        waitFor("zulPhone.state.session.channels['" + channel + "']?.readyState === 'open'"));
    fields.update({{"type", type}, {"protoVersion", "1.0"}, {"sessionId", sessionId}});
    eval("zulPhone.send('" + channel + "', " + fields.dump() + ")");
  }
  void sendCursor(const std::string& sessionId, int x, int y) {
    send("input.cursor", sessionId, {{"phase", "move"}, {"x", x}, {"y", y}});
  }

 private:
  HeadlessChromium& browser_;
  std::string page_;
};

// One string of a pairing link's percent-encoded JSON payload.
std::string linkField(const std::string& link, const std::string& name) {
  const std::string key = "%22" + name + "%22:%22";
  const auto start = link.find(key);
  if (start == std::string::npos) return {};
  const auto from = start + key.size();
  return link.substr(from, link.find("%22", from) - from);
}

class RealAgentE2eTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!HeadlessChromium::available()) GTEST_SKIP() << "no " << HeadlessChromium::program;
    for (const char* program : {"Xvfb", "node"}) {
      if (!haveProgram(program)) GTEST_SKIP() << "no " << program;
    }
    dataHome_ =
        fs::temp_directory_path() / ("zul-e2e-" + std::to_string(::getpid()) + "-" +
                                     testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dataHome_);
    fs::create_directories(dataHome_ / "home");
    // A 1920x1080 monitor and, to its right, a 1280x1024 one 56 pixels down.
    xvfb_ = std::make_unique<XvfbServer>(3200, 1080);
    painter_ = std::make_unique<ScreenPainter>(xvfb_->display());
    ASSERT_EQ(xvfb_->run("xrandr --setmonitor zul-main 1920/508x1080/286+0+0 screen >/dev/null"),
              0);
    ASSERT_EQ(xvfb_->run("xrandr --setmonitor zul-side 1280/338x1024/270+1920+56 none >/dev/null"),
              0);
  }
  void TearDown() override {
    phone_.reset();
    browser_.reset();
    agent_.reset();
    server_.reset();
    if (!dataHome_.empty()) fs::remove_all(dataHome_);
  }

  void startServer(std::vector<std::string> extra = {}, int port = 0) {
    std::vector<std::string> argv = {"node", ZUL_RENDEZVOUS_SERVER, "--dev", "--port",
                                     std::to_string(port)};
    argv.insert(argv.end(), extra.begin(), extra.end());
    server_ = std::make_unique<ChildProcess>(argv, ChildProcess::Options{.captureStdout = true});
    auto line = server_->waitForLine("listening on", 30s);
    ASSERT_TRUE(line) << "the rendezvous server did not start";
    serverPort_ = std::stoi(line->substr(line->rfind(':') + 1));
  }

  // On the Xvfb screen, or in `desktop`'s environment when given.
  void startAgent(const std::map<std::string, std::string>& desktop = {}) {
    ChildProcess::Options options;
    options.env = {{"DISPLAY", xvfb_->display()},
                   {"ZUL_SECRET_BACKEND", "file"},
                   {"ZUL_VERBOSE", "1"},  // the test reads the detailed lines
                   {"XDG_DATA_HOME", dataHome_.string()},
                   {"XDG_CONFIG_HOME", (dataHome_ / "config").string()},
                   {"HOME", (dataHome_ / "home").string()},
                   {"ZUL_SIGNALING_URL", "http://localhost:" + std::to_string(serverPort_)}};
    options.unsetEnv = {"DBUS_SESSION_BUS_ADDRESS", "ZUL_DEMO_SECONDS", "ZUL_DESKTOP"};
    if (!desktop.empty()) {
      options.env.erase("DISPLAY");
      options.unsetEnv.push_back("DISPLAY");
      options.env.insert(desktop.begin(), desktop.end());
    }
    options.captureStdout = true;
    agent_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{ZUL_AGENT_PATH, "--real-agent"}, options);
  }

  // The pairing link of the agent's latest banner, once the agent is also
  // connected to the server (the two come in either order; a phone that comes
  // before the agent's connection is refused by the server).
  std::string pairingLink(std::size_t from = 0) {
    auto line = agent_->waitForLine("zul://pair?payload=", 60s, from);
    EXPECT_TRUE(line) << agent_->tail();
    EXPECT_TRUE(agent_->waitForLine("signaling: connected", 60s)) << agent_->tail();
    return line.value_or("");
  }

  void openPhone() {
    if (!browser_) browser_ = std::make_unique<HeadlessChromium>();
    phone_ = std::make_unique<Phone>(*browser_, serverPort_);
  }

  // Agent, server and phone, paired and in session; returns the session id.
  std::string pairAndConnect(const std::string& connectOptions = "{}",
                             const nlohmann::json& permissions = {"view", "control"}) {
    const std::string link = pairingLink();
    openPhone();
    const auto grant = phone_->pair(link, permissions);
    EXPECT_EQ(grant["permissions"], permissions);
    return phone_->connect(connectOptions);
  }

  TrustedDeviceStore trustedDevices() const {
    auto backend = std::make_shared<FileSecretBackend>(dataHome_ / "zul-agent" / "secrets");
    return TrustedDeviceStore(SecretStore("trusted-devices", backend));
  }

  // The phone holds the left button down on the desktop, as a drag does.
  void holdButton(Phone& phone, const std::string& sessionId) {
    const std::size_t mark = agent_->lines().size();
    phone.send("input.cursor", sessionId, {{"phase", "down"}, {"x", 40}, {"y", 40}});
    ASSERT_TRUE(agent_->waitForLine("[input.cursor] ok: down", 30s, mark)) << agent_->tail();
    EXPECT_EQ(painter_->pressed(), "button 1 ");
  }
  // However a session ends, nothing the phone held stays down.
  void expectReleased(const std::string& how) {
    EXPECT_TRUE(waitUntil([&] { return painter_->pressed().empty(); }, 60s))
        << how << ": still down: " << painter_->pressed() << "\n"
        << agent_->tail();
  }

  // Lines in which the agent reports carrying out a phone's request.
  std::size_t executedRequests(std::size_t from = 0) const {
    return agent_->countContaining("] ok", from);
  }

  fs::path dataHome_;
  std::unique_ptr<XvfbServer> xvfb_;
  std::unique_ptr<ScreenPainter> painter_;  // also where the pointer is
  std::unique_ptr<ChildProcess> server_;
  int serverPort_ = 0;
  std::unique_ptr<ChildProcess> agent_;
  std::unique_ptr<HeadlessChromium> browser_;
  std::unique_ptr<Phone> phone_;
};

// One phone in session: video of the first monitor at its size, the pointer,
// a switch to the second monitor (its origin and size), scenes, and a revoke
// from the terminal tool that ends the session.
TEST_F(RealAgentE2eTest, PairedPhoneDrivesBothMonitorsUntilRevoked) {
  startServer();
  startAgent();
  const std::string sessionId = pairAndConnect();

  const auto ok = phone_->waitForControl(1);
  ASSERT_EQ(ok["type"], "control.hello.ok") << ok.dump() << "\n" << agent_->tail();
  EXPECT_EQ(ok["sessionId"], sessionId);
  EXPECT_EQ(ok["controlLease"], "granted");
  EXPECT_EQ(ok["permissions"], nlohmann::json({"view", "control"}));
  EXPECT_EQ(ok["host"]["platform"], "linux");
  EXPECT_TRUE(agent_->waitForLine("control session established: " + sessionId));

  ASSERT_TRUE(phone_->framesDecodedAbove(10)) << phone_->stats().dump();
  EXPECT_EQ(phone_->stats()["width"], 1920);
  EXPECT_EQ(phone_->stats()["height"], 1080);
  // Those frames came out of our encoder, not WebRTC's OpenH264.
  EXPECT_TRUE(agent_->waitForLine("video encoder: libav-h264/")) << agent_->tail();
  // The phone sees every channel as the catalogue makes it.
  const auto channels = phone_->eval(
      "Object.fromEntries(Object.values(zulPhone.state.session.channels).map(c => [c.label, "
      "[c.ordered, c.maxRetransmits, c.protocol]]))");
  ASSERT_EQ(channels.size(), DataChannelCatalog::all.size()) << channels.dump();
  for (const auto& spec : DataChannelCatalog::all) {
    const nlohmann::json retransmits =
        spec.maxRetransmits ? nlohmann::json(*spec.maxRetransmits) : nlohmann::json();
    EXPECT_EQ(channels.value(std::string(spec.label), nlohmann::json()),
              nlohmann::json({spec.ordered, retransmits, "zul/1"}))
        << spec.label;
  }

  // Wire points are points of the watched display; a request under another
  // session's id is refused.
  phone_->sendCursor(sessionId, 320, 120);
  ASSERT_TRUE(agent_->waitForLine("[input.cursor] ok: move x=320 y=120")) << agent_->tail();
  EXPECT_EQ(painter_->pointer(), std::make_pair(320, 120));
  phone_->sendCursor("00000000-0000-4000-8000-000000000000", 700, 500);
  EXPECT_EQ(phone_->waitForControl(2)["type"], "control.error");
  EXPECT_EQ(painter_->pointer(), std::make_pair(320, 120));

  const std::string lists =
      "zulPhone.controlMessages().filter(m => m.type === 'control.monitor.list')";
  ASSERT_TRUE(phone_->waitFor(lists + ".length >= 1")) << agent_->tail();
  const auto first = phone_->eval(lists + "[0]");
  EXPECT_EQ(first["sessionId"], sessionId);
  EXPECT_EQ(first["selected"], 0);
  ASSERT_EQ(first["monitors"].size(), 2u) << first.dump();
  EXPECT_EQ(first["monitors"][1]["name"], "Монитор 2");
  EXPECT_EQ(first["monitors"][1]["rect"],
            nlohmann::json({{"x", 1920}, {"y", 56}, {"w", 1280}, {"h", 1024}}));

  phone_->send("control.monitor.select", sessionId, {{"index", 1}});
  ASSERT_TRUE(phone_->waitFor(lists + ".length >= 2")) << agent_->tail();
  EXPECT_EQ(phone_->eval(lists + "[1].selected"), 1);
  EXPECT_TRUE(agent_->waitForLine("selected display 1: "));
  EXPECT_TRUE(
      phone_->waitFor("zulPhone.videoStats().then(s => s.width === 1280 && "
                      "s.height === 1024)"))
      << phone_->stats().dump();
  EXPECT_EQ(agent_->countContaining("falling back"), 0u) << agent_->tail();
  phone_->sendCursor(sessionId, 100, 50);
  ASSERT_TRUE(agent_->waitForLine("[input.cursor] ok: move x=100 y=50")) << agent_->tail();
  EXPECT_EQ(painter_->pointer(), std::make_pair(2020, 106));

  // A scene of the new display follows the switch; another one is sent on
  // request. Without an accessibility bus it stands for the whole computer.
  const std::string scenes =
      "zulPhone.state.received.filter(m => m.channel === 'scene').map(m => JSON.parse(m.data))";
  ASSERT_TRUE(phone_->waitFor(scenes + ".length >= 1")) << agent_->tail();
  phone_->send("scene.request_snapshot", sessionId);
  ASSERT_TRUE(phone_->waitFor(scenes + ".length >= 2")) << agent_->tail();
  const auto scene = phone_->eval(scenes + "[1]");
  EXPECT_EQ(scene["type"], "scene.snapshot");
  EXPECT_EQ(scene["seq"], phone_->eval(scenes + "[0].seq").get<int>() + 1);
  EXPECT_EQ(scene["screen"]["monitor"], 1);
  EXPECT_EQ(scene["screen"]["originX"], 1920);
  EXPECT_EQ(scene["activeWindow"]["appId"], "linux.unknown") << scene.dump();

  // The stored device is the page's key, and nothing else was stored.
  const auto devices = trustedDevices().load();
  ASSERT_EQ(devices.size(), 1u);
  const std::string deviceId = phone_->eval("zulPhone.state.device.id");
  EXPECT_EQ(devices[0].deviceId, deviceId);
  EXPECT_FALSE(devices[0].revoked);

  // A shell, granted at the computer while the phone is in session: it opens
  // at the phone's size, follows a resize, and dies with its processes when
  // the phone is revoked.
  // The tool as the agent's user runs it: the same store and log.
  const std::string tool = "ZUL_SECRET_BACKEND=file XDG_DATA_HOME='" + dataHome_.string() +
                           "' HOME='" + (dataHome_ / "home").string() +
                           "' " ZUL_TRUSTED_DEVICES_PATH " ";
  for (std::size_t granted = 1; const char* permission : {"files", "shell"}) {
    ASSERT_EQ(std::system((tool + "grant " + deviceId + " " + permission + " >/dev/null").c_str()),
              0);
    ASSERT_TRUE(waitUntil(
        [&] { return agent_->countContaining("the permissions of " + deviceId) >= granted; }, 30s))
        << agent_->tail();
    ++granted;
  }
  // Files: an upload that would leave the disk nearly full is refused before
  // it starts; one under way when the phone is revoked leaves no part behind.
  const std::string files = "zulPhone.filesMessages()";
  phone_->send("files.upload", sessionId,
               {{"transfer", 7}, {"name", "huge.bin"}, {"size", std::int64_t(1) << 60}});
  phone_->send("files.upload", sessionId, {{"transfer", 8}, {"name", "cut.bin"}, {"size", 1 << 20}});
  ASSERT_TRUE(phone_->waitFor(files + ".some(m => m.type === 'files.accepted')")) << agent_->tail();
  EXPECT_EQ(phone_->eval(files + ".find(m => m.transfer === 7).reason"), "noSpace");
  const auto uploads = dataHome_ / "home" /
                       phone_->eval(files + ".find(m => m.transfer === 8).folder").get<std::string>();
  auto parts = [&] {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(uploads))
      count += entry.path().extension() == ".part";
    return count;
  };
  EXPECT_EQ(parts(), 1u);
  phone_->send("shell.open", sessionId, {{"columns", 80}, {"rows", 24}});
  ASSERT_TRUE(phone_->receivedAtLeast("shell.opened", 1)) << agent_->tail();
  const std::string shell = phone_->received("shell.opened")[0]["shell"];
  const std::string output =
      "zulPhone.controlMessages().filter(m => m.type === 'shell.output').map(m => "
      "m.text ?? atob(m.data.replace(/-/g, '+').replace(/_/g, '/'))).join('')";
  auto type = [&](const std::string& line) {
    phone_->send("shell.input", sessionId,
                 {{"shell", shell}, {"data", Base64Url::encode(toBytes(line + "\n"))}});
  };
  // A sleep of this run's own length, so that no other run's is taken for it;
  // the bracket keeps pgrep from finding itself. It runs as a job in a group
  // of its own, under a shell that ignores the hang-up.
  const std::string seconds = std::to_string(100000 + ::getpid());
  const std::string sleeping = "pgrep -f 'sleep " + seconds.substr(0, seconds.size() - 1) + "[" +
                               seconds.back() + "]'";
  type("trap '' HUP; stty size; echo marker-$((6*7)); sleep " + seconds + " &");
  EXPECT_TRUE(
      phone_->waitFor(output + ".includes('24 80') && " + output + ".includes('marker-42')"))
      << phone_->eval(output);
  phone_->send("shell.resize", sessionId, {{"shell", shell}, {"columns", 100}, {"rows", 30}});
  type("stty size");
  EXPECT_TRUE(phone_->waitFor(output + ".includes('30 100')")) << phone_->eval(output);
  EXPECT_NE(commandOutput(sleeping), "");

  holdButton(*phone_, sessionId);
  const std::string revoke = tool + "revoke " + deviceId + " >/dev/null 2>&1";
  ASSERT_EQ(std::system(revoke.c_str()), 0);
  ASSERT_TRUE(agent_->waitForLine("device " + deviceId + " is no longer trusted", 30s))
      << agent_->tail();
  expectReleased("revoked");
  EXPECT_TRUE(waitUntil([&] { return commandOutput(sleeping).empty(); }, 10s))
      << "the shell's processes outlived the revoke";
  EXPECT_TRUE(waitUntil([&] { return parts() == 0; }, 10s)) << "the upload's part outlived it";
  // The computer's record of it all, in order, never a shell's content.
  const std::string log = commandOutput(tool + "log --device " + deviceId);
  std::size_t at = 0;
  for (const char* step :
       {"session.started", "granted", "shell.opened", "revoked", "session.ended", "how=revoked"}) {
    at = log.find(step, at);
    EXPECT_NE(at, std::string::npos) << step << " is missing from\n" << log;
  }
  EXPECT_EQ(log.find("marker"), std::string::npos) << log;

  // The X server goes away under the agent: it says why and ends, status 0.
  painter_.reset();
  xvfb_->process().terminate();
  EXPECT_TRUE(agent_->waitForLine("stopping: the desktop is gone", 30s)) << agent_->tail();
  EXPECT_TRUE(waitUntil([&] { return !agent_->running(); }, 30s)) << agent_->tail();
  EXPECT_EQ(agent_->terminate(), 0) << agent_->tail();
  EXPECT_TRUE(phone_->waitFor("zulPhone.state.session.pc.connectionState !== 'connected'"));
}

// Two paired phones at once: a newcomer never disturbs the phone in session
// until its own verified hello takes the session over; the same phone coming
// back gets an ICE restart; a crowd of strangers cannot make the agent open
// connection after connection.
TEST_F(RealAgentE2eTest, SecondPhoneTakesOverOnlyWithItsOwnHello) {
  startServer();
  startAgent();
  std::size_t firstLink = 0;
  ASSERT_TRUE(agent_->waitForLine("zul://pair?payload=", 60s, 0, &firstLink));
  const std::string linkA = pairingLink();
  openPhone();
  phone_->pair(linkA);
  Phone phoneB(*browser_, serverPort_, "127.0.0.1");
  phoneB.pair(pairingLink(firstLink + 1), {"view", "control", "clipboard", "files"});
  ASSERT_EQ(trustedDevices().load().size(), 2u);

  const std::string sessionA = phone_->connect();
  const auto helloA = phone_->waitForControl(1);
  ASSERT_EQ(helloA["type"], "control.hello.ok") << agent_->tail();
  EXPECT_EQ(helloA["host"]["clipboardCopy"], false);
  ASSERT_TRUE(phone_->framesDecodedAbove(5));
  auto aStillServed = [&](int x) {
    const int decoded = phone_->stats()["framesDecoded"].get<int>();
    EXPECT_TRUE(phone_->framesDecodedAbove(decoded + 3)) << "A's video stopped";
    phone_->sendCursor(sessionA, x, 100);
    EXPECT_TRUE(agent_->waitForLine("[input.cursor] ok: move x=" + std::to_string(x) + " y=100"))
        << agent_->tail();
  };

  // A announces itself again: ICE restarts on its connection, same session.
  std::size_t mark = agent_->lines().size();
  EXPECT_EQ(phone_->connect(), sessionA);
  EXPECT_EQ(phone_->waitForControl(2)["controlLease"], "granted");
  EXPECT_TRUE(agent_->waitForLine("ICE restart for ", 10s, mark)) << agent_->tail();
  EXPECT_EQ(agent_->countContaining("control session established", mark), 0u);
  aStillServed(101);

  // B arrives and says hello without asking to take over: refused, A undisturbed.
  const std::string sessionB = phoneB.connect("{autoHello: false}");
  aStillServed(102);
  phoneB.eval("zulPhone.hello({replaceSession: false})");
  const auto refusal = phoneB.waitForControl(1);
  EXPECT_EQ(refusal["type"], "control.error") << refusal.dump();
  EXPECT_EQ(refusal["message"], "anotherSessionActive");
  aStillServed(103);

  // Five strangers ask at once: B and one of them wait for a hello, the
  // others are turned away.
  mark = agent_->lines().size();
  phoneB.eval("zulPhone.flood(5)");
  waitUntil([&] { return agent_->countContaining("phones are already connecting", mark) >= 4; },
            30s);
  EXPECT_EQ(agent_->countContaining("phones are already connecting", mark), 4u) << agent_->tail();
  EXPECT_EQ(agent_->countContaining("offering a connection to", mark), 1u);
  aStillServed(104);

  // A was allowed neither the clipboard nor files: refused, saying which.
  phone_->send("files.list", sessionA);
  ASSERT_TRUE(
      phone_->waitFor(std::string(Phone::replies) + ".some(m => m.permission === 'files')"));
  phone_->send("control.clipboard.get", sessionA, {{"mimeType", "text/plain;charset=utf-8"}});
  // The files refusal is "denied" too: wait for the second.
  ASSERT_TRUE(phone_->waitFor(std::string(Phone::replies) +
                              ".filter(m => m.reason === 'denied').length >= 2"));
  EXPECT_EQ(phone_->eval(std::string(Phone::replies) + ".filter(m => m.reason === 'denied')[1]")
                .value("permission", ""),
            "clipboard");

  // B asks to take over: it is in session and A's connection is closed.
  holdButton(*phone_, sessionA);
  mark = agent_->lines().size();
  phoneB.eval("zulPhone.hello({replaceSession: true})");
  const auto ok = phoneB.waitForControl(2);
  EXPECT_EQ(ok["type"], "control.hello.ok") << ok.dump() << agent_->tail();
  EXPECT_EQ(ok["controlLease"], "replaced");
  EXPECT_TRUE(agent_->waitForLine("replaced by", 10s, mark));
  expectReleased("replaced");
  EXPECT_TRUE(
      phone_->waitFor("zulPhone.state.session.channels.control.readyState === 'closed' || "
                      "zulPhone.state.session.pc.connectionState !== 'connected'"));
  EXPECT_TRUE(phoneB.framesDecodedAbove(5)) << phoneB.stats().dump();
  phoneB.sendCursor(sessionB, 200, 100);
  EXPECT_TRUE(agent_->waitForLine("[input.cursor] ok: move x=200 y=100", 30s, mark));

  // B holds the clipboard and files permissions, which follow it into the
  // session it took over: the desktop's clipboard both ways, and paths that
  // lead out of the home folder refused. (The phone app's run moves large
  // contents in pieces, and files up and down.)
  EXPECT_EQ(ok["host"]["clipboardCopy"], true);
  const std::string xclip = "DISPLAY=" + xvfb_->display() + " xclip -selection clipboard ";
  const std::string fromDesktop = "С рабочего стола";
  const std::size_t changes = phoneB.received("control.clipboard.changed").size();
  ASSERT_EQ(std::system(("printf '%s' '" + fromDesktop + "' | " + xclip + "-i").c_str()), 0);
  ASSERT_TRUE(phoneB.receivedAtLeast("control.clipboard.changed", changes + 1)) << agent_->tail();
  EXPECT_EQ(phoneB.received("control.clipboard.changed").back()["mimeTypes"],
            nlohmann::json({"text/plain;charset=utf-8"}));
  phoneB.send("control.clipboard.get", sessionB, {{"mimeType", "text/plain;charset=utf-8"}});
  ASSERT_TRUE(phoneB.receivedAtLeast("control.clipboard.content", 1)) << agent_->tail();
  const auto piece = phoneB.received("control.clipboard.content")[0];
  EXPECT_EQ(toString(Base64Url::decode(piece["data"].get<std::string>()).value_or(Bytes{})),
            fromDesktop);
  const std::string fromPhone = "С телефона 📋";
  phoneB.send("control.clipboard.set", sessionB,
              {{"mimeType", "text/plain;charset=utf-8"},
               {"offset", 0},
               {"total", fromPhone.size()},
               {"data", Base64Url::encode(toBytes(fromPhone))}});
  ASSERT_TRUE(phoneB.receivedAtLeast("control.clipboard.done", 1)) << agent_->tail();
  EXPECT_EQ(commandOutput(xclip + "-o"), fromPhone);
  for (const char* path : {"../../etc/passwd", "/etc/passwd"}) {
    phoneB.send("files.download", sessionB, {{"transfer", 4}, {"path", path}});
  }
  ASSERT_TRUE(
      phoneB.waitFor("zulPhone.filesMessages().filter(m => m.type === 'files.error').length >= 2"))
      << agent_->tail();
  EXPECT_EQ(phoneB.eval("zulPhone.filesMessages().filter(m => m.type === 'files.error')"
                        ".map(m => m.reason)"),
            nlohmann::json({"badName", "outside"}));

  // B's connection is lost with its button down.
  holdButton(phoneB, sessionB);
  phoneB.eval("zulPhone.state.session.pc.close()");
  EXPECT_TRUE(agent_->waitForLine("phone disconnected: ", 60s, mark)) << agent_->tail();
  expectReleased("connection lost");
}

// Hellos the agent must refuse, each followed by a pointer request under the
// refused session's id: forged ones, one from a phone revoked after its
// connection opened (and the server told), and one from a phone that never
// paired but replays a spent pairing secret.
TEST_F(RealAgentE2eTest, RefusesForgedRevokedAndStrangePhonesAndExecutesNothing) {
  startServer();
  startAgent();
  const std::string link = pairingLink();
  openPhone();
  phone_->pair(link);
  std::string sessionId = phone_->connect("{autoHello: false}");
  const std::string deviceId = phone_->eval("zulPhone.state.device.id");
  const std::size_t mark = agent_->lines().size();
  const auto pointerBefore = painter_->pointer();

  std::size_t replies = 0;
  auto refused = [&](const std::string& hello, const std::string& why) {
    SCOPED_TRACE(hello);
    phone_->eval(hello);
    const auto reply = phone_->waitForControl(++replies);
    EXPECT_EQ(reply["type"], "control.error") << reply.dump();
    EXPECT_EQ(reply["code"], "PERMISSION_DENIED");
    EXPECT_NE(reply.value("message", "").find(why), std::string::npos) << reply.dump();
    phone_->sendCursor(sessionId, 700, 500);
    const auto request = phone_->waitForControl(++replies);
    EXPECT_EQ(request["type"], "control.error");
    EXPECT_NE(request.value("message", "").find("noActiveSession"), std::string::npos);
  };
  // The page's buttons for forged hellos.
  for (const auto& [button, why] :
       std::vector<std::pair<std::string, std::string>>{{"fingerprint", "fingerprintMismatch"},
                                                        {"transcript", "invalidSignature"},
                                                        {"session", "invalidSignature"},
                                                        {"device", "identityMismatch"}}) {
    refused("document.querySelector('[data-forge=" + button + "]').click()", why);
  }

  trustedDevices().revoke(deviceId);
  refused("zulPhone.hello()", "deviceNotTrusted");
  ASSERT_TRUE(server_->waitForLine("reports 1 revoked device(s)", 30s));
  // Revoked outside a session: the terminal still hears of it.
  EXPECT_TRUE(agent_->waitForLine("revoked: Device ", 30s)) << agent_->tail();
  EXPECT_THROW(phone_->connect(), std::exception);
  EXPECT_EQ(phone_->eval("zulPhone.state.signalErrors.at(-1)"), "device-revoked");

  // Another phone (a fresh key) with the same link: the secret is spent, and
  // the agent does not know it.
  phone_->eval("zulPhone.newDevice()");
  EXPECT_THROW(phone_->pair(link), std::exception);
  EXPECT_EQ(phone_->eval("zulPhone.state.signalErrors.at(-1)"), "pairing-used");
  sessionId = phone_->connect("{autoHello: false}");
  refused("zulPhone.hello()", "deviceNotTrusted");

  EXPECT_EQ(executedRequests(mark), 0u) << agent_->tail();
  EXPECT_EQ(painter_->pointer(), pointerBefore);
  const auto devices = trustedDevices().load();
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0].deviceId, deviceId);
  EXPECT_TRUE(devices[0].revoked);
}

// A phone relayed through TURN when it asks for it. The rendezvous server goes
// away while it is in session: the video goes on, the agent reconnects when
// the server is back, and the phone connects again. (Restarts of the agent
// itself: the installed package's test.)
TEST_F(RealAgentE2eTest, KeepsThePhoneAcrossSignalingRestarts) {
  TurnServer turn;
  const std::vector<std::string> serverArgs = {"--turn-url", turn.url(), "--turn-secret",
                                               TurnServer::secret};
  startServer(serverArgs);
  startAgent();
  pairAndConnect("{relay: true}");
  ASSERT_EQ(phone_->waitForControl(1)["type"], "control.hello.ok") << agent_->tail();
  ASSERT_TRUE(phone_->framesDecodedAbove(5)) << phone_->stats().dump();
  EXPECT_EQ(phone_->stats()["localCandidateType"], "relay");

  const int port = serverPort_;
  server_.reset();
  ASSERT_TRUE(agent_->waitForLine("signaling disconnected: ", 30s));
  const int decoded = phone_->stats()["framesDecoded"].get<int>();
  EXPECT_TRUE(phone_->framesDecodedAbove(decoded + 10)) << "the video stopped with the server";

  std::size_t connectedAt = 0;
  ASSERT_TRUE(agent_->waitForLine("signaling: connected", 5s, 0, &connectedAt));
  // Back with a limit of one phone session per agent connection.
  std::vector<std::string> limited = serverArgs;
  limited.insert(limited.end(), {"--session-limit", "1"});
  startServer(limited, port);
  ASSERT_TRUE(agent_->waitForLine("signaling: connected", 30s, connectedAt + 1)) << agent_->tail();
  EXPECT_EQ(phone_->eval("zulPhone.state.session.pc.connectionState"), "connected");

  // Connecting again makes a new connection on the same agent.
  const std::string sessionId = phone_->connect();
  EXPECT_EQ(phone_->waitForControl(2)["type"], "control.hello.ok") << agent_->tail();
  EXPECT_TRUE(phone_->framesDecodedAbove(5));

  // A second session on this agent connection is over the server's limit:
  // the server ends the one in progress too.
  holdButton(*phone_, sessionId);
  EXPECT_THROW(phone_->connect(), std::exception);
  EXPECT_TRUE(agent_->waitForLine("session limit reached", 30s)) << agent_->tail();
  expectReleased("session limit");
}

// The same agent on a GNOME Wayland desktop (headless mutter, two monitors)
// with a GTK window: the phone sees the window, its text (Cyrillic too)
// reaches the window's entry, and it can watch the other monitor.
TEST_F(RealAgentE2eTest, DrivesAGnomeWaylandDesktop) {
  if (const std::string missing = GnomeSession::whyMissing(); !missing.empty()) {
    GTEST_SKIP() << missing;
  }
  // Chromium starts before the session takes over this process's
  // environment: it must not see the Wayland display.
  browser_ = std::make_unique<HeadlessChromium>();
  GnomeSession gnome({"1920x1080", "1280x720"});
  ChildProcess::Options appOptions;
  appOptions.captureStdout = true;
  appOptions.env = gnome.environment();
  appOptions.env["GDK_BACKEND"] = "wayland";
  appOptions.unsetEnv = {"DISPLAY"};
  ChildProcess app(
      {"/usr/bin/python3", ZUL_TEST_APP_PATH, "--fullscreen", "--background", "#c02040"},
      appOptions);
  ASSERT_TRUE(app.waitForLine("ready ", 30s));
  ChildProcess notifications({"/usr/bin/python3", ZUL_NOTIFICATION_SERVICE_PATH}, appOptions);
  ASSERT_EQ(notifications.readStdoutLine(30s), "ready");

  startServer();
  startAgent(gnome.environment());
  const std::string sessionId = pairAndConnect("{}", {"view", "control", "clipboard"});
  ASSERT_EQ(phone_->waitForControl(1)["type"], "control.hello.ok") << agent_->tail();
  EXPECT_TRUE(agent_->waitForLine("desktop: gnome (")) << agent_->tail();
  // Mutter asks nobody: the user learns of the phone from a notification.
  EXPECT_TRUE(notifications.waitForLine("notify Удалённое управление | Телефон Device ", 30s))
      << notifications.tail();
  ASSERT_TRUE(phone_->framesDecodedAbove(10)) << phone_->stats().dump() << agent_->tail();
  EXPECT_EQ(phone_->stats()["width"], 1920);
  EXPECT_EQ(phone_->stats()["height"], 1080);
  const std::string pixel =
      "(() => { const v = document.getElementById('video');"
      " const c = document.createElement('canvas'); c.width = v.videoWidth;"
      " c.height = v.videoHeight; const g = c.getContext('2d'); g.drawImage(v, 0, 0);"
      " return Array.from(g.getImageData(1800, 1000, 1, 1).data.slice(0, 3)); })()";
  EXPECT_TRUE(
      phone_->waitFor("((p) => Math.abs(p[0] - 192) < 24 && Math.abs(p[1] - 32) < 24 &&"
                      " Math.abs(p[2] - 64) < 24)(" +
                      pixel + ")"))
      << phone_->eval(pixel).dump();

  phone_->send("input.text", sessionId, {{"value", "\u0414\u0430, ok"}});
  EXPECT_TRUE(agent_->waitForLine("[input.text] ok")) << agent_->tail();
  EXPECT_TRUE(app.waitForLine("text \"\\u0414\\u0430, ok\"", 30s)) << app.tail();

  // The clipboard through mutter: the window copies, the phone hears of it
  // and fetches the text; the phone sets the clipboard and the window pastes.
  const std::size_t changes = phone_->received("control.clipboard.changed").size();
  phone_->send("input.key", sessionId, {{"combo", "Ctrl+A"}});
  phone_->send("input.key", sessionId, {{"combo", "Ctrl+C"}});
  ASSERT_TRUE(phone_->receivedAtLeast("control.clipboard.changed", changes + 1)) << agent_->tail();
  phone_->send("control.clipboard.get", sessionId, {{"mimeType", "text/plain;charset=utf-8"}});
  ASSERT_TRUE(phone_->receivedAtLeast("control.clipboard.content", 1)) << agent_->tail();
  const auto piece = phone_->received("control.clipboard.content")[0];
  EXPECT_EQ(toString(Base64Url::decode(piece["data"].get<std::string>()).value_or(Bytes{})),
            "\u0414\u0430, ok");
  const std::string fromPhone = "pasted from the phone";
  phone_->send("control.clipboard.set", sessionId,
               {{"mimeType", "text/plain;charset=utf-8"},
                {"offset", 0},
                {"total", fromPhone.size()},
                {"data", Base64Url::encode(toBytes(fromPhone))}});
  ASSERT_TRUE(phone_->receivedAtLeast("control.clipboard.done", 1)) << agent_->tail();
  phone_->send("input.key", sessionId, {{"combo", "Ctrl+A"}});
  phone_->send("input.key", sessionId, {{"combo", "Ctrl+V"}});
  EXPECT_TRUE(app.waitForLine("text " + nlohmann::json(fromPhone).dump(), 30s)) << app.tail();

  // Monitors are named by their place, as on X11; mutter's connector goes beside.
  ASSERT_TRUE(
      phone_->waitFor("zulPhone.controlMessages().some(m => m.type === 'control.monitor.list')"));
  const auto list = phone_->eval(
      "zulPhone.controlMessages().find(m => m.type === 'control.monitor.list').monitors");
  ASSERT_EQ(list.size(), 2u) << list.dump();
  EXPECT_EQ(list[1]["name"], "Монитор 2");
  EXPECT_EQ(list[1]["scale"], 1.0);
  EXPECT_EQ(list[1].value("connector", "").rfind("Meta-", 0), 0u) << list.dump();

  phone_->send("control.monitor.select", sessionId, {{"index", 1}});
  EXPECT_TRUE(agent_->waitForLine("selected display 1: ")) << agent_->tail();
  EXPECT_TRUE(phone_->waitFor("zulPhone.videoStats().then(s => s.width === 1280)"))
      << phone_->stats().dump();

  // Mutter goes away mid-session and another takes over: the phone hears
  // why, and video and input come back on the new one in the same session.
  const std::size_t mark = agent_->lines().size();
  gnome.restartCompositor();
  EXPECT_TRUE(agent_->waitForLine("desktop lost: ", 10s, mark)) << agent_->tail();
  EXPECT_TRUE(
      phone_->waitFor("zulPhone.controlMessages().some(m => m.type === "
                      "'control.notice' && m.reason === 'desktopLost')"));
  EXPECT_TRUE(agent_->waitForLine("desktop back: ", 60s, mark)) << agent_->tail();
  const int decoded = phone_->stats()["framesDecoded"].get<int>();
  EXPECT_TRUE(phone_->framesDecodedAbove(decoded + 3)) << phone_->stats().dump();
  phone_->sendCursor(sessionId, 10, 10);
  EXPECT_TRUE(agent_->waitForLine("[input.cursor] ok: move x=10 y=10", 30s, mark))
      << agent_->tail();
}

// As a person gets it: this build's package installed with apt-get (an
// agent installed before is purged first, so no other can answer) and checked
// for the libraries its programs load; then a fresh ordinary user enables its
// unit under their own systemd user manager and logs in: their desktop session
// (the Xvfb screen, a screensaver and a notification service) starts it. The
// phone pairs and drives it; a locked screen keeps it out until it is allowed
// unattended access; a pause, two crashes and an upgrade keep the pairing
// (and the pause); the session's end stops it. Their GNOME session (headless
// mutter) starts it next, on Wayland, where the phone sees, taps and is kept
// out of a locked screen too. Nothing is written outside the user's home.
TEST_F(RealAgentE2eTest, InstalledPackageServesAnOrdinaryUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "installing a package needs root (CI runs as root)";
  const std::string user = "zul-e2e-user", home = "/home/" + user;
  const fs::path work = dataHome_ / "session";
  fs::create_directories(work);
  fs::permissions(work, fs::perms::all);  // the user's screensaver takes its presses here
  auto shell = [&](const std::string& command) {
    const std::string log = (dataHome_ / "command.log").string();
    const int status = std::system((command + " >'" + log + "' 2>&1").c_str());
    std::ifstream in(log);
    EXPECT_EQ(status, 0) << command << "\n" << std::string(std::istreambuf_iterator<char>(in), {});
    return status == 0;
  };
  const std::string apt = "DEBIAN_FRONTEND=noninteractive apt-get -y -o DPkg::Lock::Timeout=300 ";
  // What a booted machine has and this one may lack, made for the user's
  // manager and taken away after it (cgroups by rmdir, once emptied).
  std::vector<fs::path> made;
  auto makeDirectory = [&](const fs::path& path) {
    fs::path outermost;
    for (fs::path p = path; !fs::exists(p); p = p.parent_path()) outermost = p;
    fs::create_directories(path);
    if (!outermost.empty()) made.push_back(outermost);
  };
  std::unique_ptr<ChildProcess> journald, manager;
  struct Cleanup {
    std::function<void()> run;
    ~Cleanup() { run(); }
  } cleanup{[&] {
    agent_.reset();
    if (manager) manager->terminate(30s);  // it stops the user's services first
    journald.reset();
    for (auto path = made.rbegin(); path != made.rend(); ++path) {
      if (path->string().starts_with("/sys/fs/cgroup/")) {
        const std::string tree = "find '" + path->string() + "' -depth -type d";
        std::system((tree + " -exec cat {}/cgroup.procs ';' | xargs -r kill -9").c_str());
        waitUntil(
            [&] { return std::system((tree + " -exec rmdir {} + 2>/dev/null").c_str()) == 0; },
            10s);
      } else {
        fs::remove_all(*path);
      }
    }
    std::system(
        ("userdel -rf " + user + " >/dev/null 2>&1; dpkg --purge zul-agent >/dev/null").c_str());
  }};
  ASSERT_TRUE(shell("cpack --config " ZUL_BUILD_DIR "/CPackConfig.cmake -G DEB -B '" +
                    work.string() + "/package' -D CPACK_DEBIAN_COMPRESSION_TYPE=gzip"));
  const std::string deb = commandOutput("ls '" + work.string() + "'/package/zul-agent_*.deb");
  ASSERT_TRUE(shell("dpkg --purge zul-agent && " + apt + "install '" + deb + "'"));
  EXPECT_TRUE(shell(ZUL_INSTALLED_DEPENDENCIES_CHECK));
  // The user unit as systemd reads it, with its program and manual pages.
  EXPECT_TRUE(shell("XDG_RUNTIME_DIR='" + work.string() +
                    "' systemd-analyze --user verify /usr/lib/systemd/user/zul-agent.service"));
  EXPECT_EQ(commandOutput("find /usr/bin/zul-agent /usr/bin/zul-trusted-devices -perm /6000"), "");
  ASSERT_TRUE(shell("(userdel -rf " + user + " || true) && useradd -m " + user));
  std::ofstream(work / "user-added");  // what the user writes is newer (their uid may be reused)
  const std::string uid = commandOutput("id -u " + user), runtime = "/run/user/" + uid;
  // Run by the user, in a clean environment, against their manager.
  const std::string cleanEnvironment =
      "env -i HOME=" + home + " USER=" + user + " LOGNAME=" + user +
      " PATH=/usr/bin:/bin LANG=C.UTF-8 XDG_RUNTIME_DIR=" + runtime + " ";
  const std::string asUser = "runuser -u " + user + " -- " + cleanEnvironment;
  auto systemctl = [&](const std::string& arguments) {
    return commandOutput(asUser + "systemctl --user " + arguments + " 2>&1");
  };

  // The user's units: two desktop sessions of the test's own (as GNOME's
  // binds itself to graphical-session.target), each with a screensaver and
  // notification service: the Xvfb screen, and GNOME (headless mutter, the
  // user's PipeWire and WirePlumber, a window); no sound server.
  const fs::path units = home + "/.config/systemd/user";
  fs::create_directories(units);
  fs::copy_file(ZUL_NOTIFICATION_SERVICE_PATH, work / "notification_service.py");
  fs::copy_file(ZUL_TEST_APP_PATH, work / "zul_test_app.py");
  const fs::path locked = work / "locked";
  const std::string inSession =
      "[Unit]\nPartOf=graphical-session.target\nBefore=graphical-session.target\n";
  auto target = [&](const std::string& name, const std::string& wants) {
    std::ofstream(units / name) << "[Unit]\nBindsTo=graphical-session.target\n"
                                   "Before=graphical-session.target\nWants="
                                << wants << "\n";
  };
  target("zul-e2e-session.target", "zul-e2e-desktop.service");
  target("zul-e2e-gnome.target", "zul-e2e-desktop.service zul-e2e-mutter.service");
  std::ofstream(units / "zul-e2e-desktop.service")
      << inSession << "[Service]\nType=dbus\nBusName=org.freedesktop.ScreenSaver\n"
      << "ExecStart=/usr/bin/python3 " << (work / "notification_service.py").string() << " "
      << locked.string() << "\n";
  std::ofstream(units / "zul-e2e-mutter.service")
      << inSession << "Wants=wireplumber.service zul-e2e-app.service\nAfter=pipewire.socket\n"
      << "[Service]\nType=dbus\nBusName=org.gnome.Mutter.RemoteDesktop\n"
         "Environment=GSETTINGS_BACKEND=memory\nUnsetEnvironment=DISPLAY WAYLAND_DISPLAY\n"
         "ExecStart=/usr/bin/mutter --headless --wayland --no-x11 --virtual-monitor 1280x720\n";
  std::ofstream(units / "zul-e2e-app.service")
      << "[Unit]\nPartOf=graphical-session.target\nAfter=zul-e2e-mutter.service\n"
      << "[Service]\nEnvironment=GDK_BACKEND=wayland\nExecStart=/usr/bin/python3 "
      << (work / "zul_test_app.py").string() << " --fullscreen\n";
  fs::create_symlink("/dev/null", units / "pipewire-pulse.socket");
  ASSERT_TRUE(shell("chown -R " + user + ": " + home + "/.config"));

  // The user's manager as logind would start it, on a machine that looks
  // booted with systemd: its run-time folder, a cgroup of its own in each
  // hierarchy, and a journal (that of the machine when there is one).
  for (const char* path : {"/run/systemd/system", "/run/log/journal", "/run/systemd/journal"}) {
    if (!fs::exists(path)) makeDirectory(path);
  }
  if (!fs::exists("/run/systemd/journal/stdout")) {
    journald =
        std::make_unique<ChildProcess>(std::vector<std::string>{"/lib/systemd/systemd-journald"});
  }
  fs::remove_all(runtime);
  makeDirectory(runtime);
  ASSERT_TRUE(shell("chown " + user + ": " + runtime + " && chmod 0700 " + runtime));
  std::string enter = "ulimit -c 0 && ";  // a crash leaves no core file behind
  // Both hierarchies of a hybrid layout, else the one unified hierarchy.
  const bool hybrid = fs::exists("/sys/fs/cgroup/systemd");
  for (const char* hierarchy :
       {"/sys/fs/cgroup/systemd", "/sys/fs/cgroup/unified", "/sys/fs/cgroup"}) {
    if (!fs::exists(hierarchy) || hybrid == (std::string(hierarchy) == "/sys/fs/cgroup")) continue;
    const std::string cgroup =
        std::string(hierarchy) + "/user.slice/user-" + uid + ".slice/user@" + uid + ".service";
    makeDirectory(cgroup);
    ASSERT_TRUE(shell("chown -R " + user + " " + cgroup));
    enter += "echo $$ >" + cgroup + "/cgroup.procs && ";
  }
  ASSERT_TRUE(waitUntil([] { return fs::exists("/run/systemd/journal/stdout"); }, 30s));
  manager = std::make_unique<ChildProcess>(std::vector<std::string>{
      "sh", "-c",
      enter + "exec setpriv --reuid=" + user + " --regid=" + user + " --init-groups " +
          cleanEnvironment + "/lib/systemd/systemd --user"});
  ASSERT_TRUE(waitUntil([&] { return systemctl("is-system-running") == "running"; }, 60s))
      << systemctl("is-system-running") << "\n"
      << systemctl("--failed --no-pager");
  // The agent's lines, and those of the desktop's services, from the journal.
  agent_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"journalctl", "-f", "-n", "all", "-o", "cat", "_UID=" + uid,
                               "_SYSTEMD_USER_UNIT=zul-agent.service",
                               "_SYSTEMD_USER_UNIT=zul-e2e-desktop.service",
                               "_SYSTEMD_USER_UNIT=zul-e2e-app.service"},
      ChildProcess::Options{.captureStdout = true});

  // Enabled once; started by the next login, with the environment the
  // session hands its manager.
  ASSERT_TRUE(shell(asUser + "systemctl --user enable zul-agent.service"));
  startServer();
  ASSERT_TRUE(shell(asUser + "DISPLAY=" + xvfb_->display() +
                    " ZUL_SIGNALING_URL=http://localhost:" + std::to_string(serverPort_) +
                    " ZUL_VERBOSE=1 ZUL_ASK_BEFORE_CONNECTING=1 sh -c 'systemctl --user "
                    "import-environment DISPLAY ZUL_SIGNALING_URL ZUL_VERBOSE "
                    "ZUL_ASK_BEFORE_CONNECTING && systemctl --user start zul-e2e-session.target'"));
  EXPECT_TRUE(waitUntil([&] { return systemctl("is-active zul-agent.service") == "active"; }, 30s))
      << systemctl("status zul-agent.service --no-pager");

  // Asked before each connection: refused, then let in, from the question's
  // notification.
  const fs::path press = locked.string() + ".press";
  auto answer = [&](const std::string& key, std::size_t from) {
    const bool asked = bool(agent_->waitForLine("notify Подключение телефона | ", 30s, from));
    std::ofstream(press) << key;
    return asked;
  };
  std::size_t asked = agent_->lines().size();
  const std::string agentId = linkField(pairingLink(), "agentId");
  pairAndConnect();
  EXPECT_TRUE(answer("deny", asked)) << agent_->tail();
  EXPECT_EQ(phone_->waitForControl(1).value("reason", ""), "connectionDenied");
  asked = agent_->lines().size();
  const std::string sessionId = phone_->connect();
  EXPECT_TRUE(answer("allow", asked)) << agent_->tail();
  ASSERT_EQ(phone_->waitForControl(2)["type"], "control.hello.ok") << agent_->tail();
  EXPECT_TRUE(phone_->framesDecodedAbove(5)) << phone_->stats().dump() << agent_->tail();
  phone_->sendCursor(sessionId, 640, 360);
  EXPECT_TRUE(agent_->waitForLine("[input.cursor] ok: move x=640 y=360", 30s)) << agent_->tail();
  EXPECT_EQ(painter_->pointer(), std::make_pair(640, 360));
  EXPECT_TRUE(agent_->waitForLine("notify Velto работает | Подключён телефон: ", 30s))
      << agent_->tail();

  // Locked: sent away and kept out, until allowed unattended access with the
  // installed tool, as the user.
  auto toldWhy = [&](const std::string& reason) {
    return phone_->waitFor(
        "zulPhone.controlMessages().some(m => m.type === 'control.notice' && m.reason === '" +
        reason + "')");
  };
  std::ofstream(locked) << "locked";
  EXPECT_TRUE(toldWhy("computerLocked")) << agent_->tail();
  std::size_t replies = phone_->eval(Phone::replies).size();
  phone_->connect();
  EXPECT_EQ(phone_->waitForControl(++replies).value("reason", ""), "computerLocked");
  const std::string deviceId = phone_->eval("zulPhone.state.device.id");
  EXPECT_TRUE(shell(asUser + "zul-trusted-devices grant " + deviceId + " unattended"));
  phone_->connect();
  EXPECT_EQ(phone_->waitForControl(++replies)["type"], "control.hello.ok") << agent_->tail();
  EXPECT_TRUE(phone_->framesDecodedAbove(5)) << phone_->stats().dump();

  // Killed with `signal`, the agent is started again by systemd: the index
  // of the new one's first line (the old one's last came 5 s before), once
  // it is connected to the server.
  auto crash = [&](const std::string& signal, const std::string& restarts) {
    std::size_t start = agent_->lines().size();
    EXPECT_TRUE(shell(asUser + "systemctl --user kill --kill-whom=main -s " + signal +
                      " zul-agent.service"));
    EXPECT_TRUE(waitUntil(
        [&] { return systemctl("show -P NRestarts zul-agent.service") == restarts; }, 60s))
        << systemctl("status zul-agent.service --no-pager");
    EXPECT_TRUE(agent_->waitForLine("Zul Linux agent", 60s, start, &start)) << agent_->tail();
    EXPECT_TRUE(agent_->waitForLine("signaling: connected", 60s, start)) << agent_->tail();
    return start;
  };
  // Its notification's buttons: one sends the phone away; another pauses
  // the agent, which keeps the phone out (also once restarted after a
  // crash) until resumed; the pairing stays.
  std::ofstream(press) << "disconnect";
  EXPECT_TRUE(toldWhy("sessionEnded")) << agent_->tail();
  replies = phone_->eval(Phone::replies).size();
  phone_->connect();
  EXPECT_EQ(phone_->waitForControl(++replies)["type"], "control.hello.ok") << agent_->tail();
  std::ofstream(press) << "pause";
  EXPECT_TRUE(toldWhy("agentPaused")) << agent_->tail();
  std::size_t start = crash("SIGSEGV", "1");
  EXPECT_TRUE(agent_->waitForLine("notify Velto приостановлен | ", 30s, start)) << agent_->tail();
  phone_->connect();
  EXPECT_TRUE(agent_->waitForLine("rejecting control.hello: agentPaused", 30s, start))
      << agent_->tail();
  std::ofstream(press) << "resume";
  EXPECT_TRUE(agent_->waitForLine("resumed: phones connect again", 30s, start)) << agent_->tail();
  phone_->connect();
  EXPECT_TRUE(agent_->waitForLine("control session established: ", 30s, start)) << agent_->tail();

  // An upgrade (the package installed again) under the running agent, then
  // a kill: the new program keeps the identity and the phone with its grant.
  ASSERT_TRUE(shell(apt + "install --reinstall '" + deb + "'"));
  start = crash("SIGKILL", "2");
  EXPECT_EQ(
      linkField(agent_->waitForLine("zul://pair?payload=", 30s, start).value_or(""), "agentId"),
      agentId);
  const std::string lastSession = phone_->connect();
  EXPECT_TRUE(agent_->waitForLine("control session established: ", 30s, start))
      << agent_->tail() << phone_->log();

  // The session ends, and the agent with it, of its own accord, letting go
  // of what the phone held.
  holdButton(*phone_, lastSession);
  EXPECT_TRUE(shell(asUser + "systemctl --user stop zul-e2e-session.target"));
  EXPECT_TRUE(
      waitUntil([&] { return systemctl("is-active zul-agent.service") == "inactive"; }, 30s));
  EXPECT_EQ(systemctl("show -P Result zul-agent.service"), "success");
  expectReleased("session ended");

  // The same user logs in to GNOME: their unit finds the Wayland desktop;
  // the phone sees it and taps its window; allowed no longer to connect
  // unattended, it is sent away when the screen locks and kept out.
  fs::remove(locked);
  start = agent_->lines().size();
  ASSERT_TRUE(shell(asUser + "sh -c 'systemctl --user unset-environment DISPLAY && systemctl "
                             "--user set-environment WAYLAND_DISPLAY=wayland-0 "
                             "XDG_SESSION_TYPE=wayland && systemctl --user start "
                             "zul-e2e-gnome.target'"))
      << systemctl("status zul-e2e-mutter.service --no-pager");
  EXPECT_TRUE(agent_->waitForLine("desktop: gnome (", 60s, start)) << agent_->tail();
  // The window fills the monitor; its pad spans its width, below the first rows.
  EXPECT_TRUE(agent_->waitForLine("ready 0 0 1280 720 ", 60s, start))
      << systemctl("status zul-e2e-app.service --no-pager");
  EXPECT_TRUE(agent_->waitForLine("signaling: connected", 60s, start)) << agent_->tail();
  const std::string gnomeSession = phone_->connect();
  EXPECT_TRUE(agent_->waitForLine("control session established: ", 30s, start)) << agent_->tail();
  const int decoded = phone_->stats()["framesDecoded"].get<int>();
  EXPECT_TRUE(phone_->framesDecodedAbove(decoded + 5)) << phone_->stats().dump();
  EXPECT_EQ(phone_->stats()["width"], 1280);
  for (const char* phase : {"down", "up"}) {
    phone_->send("input.cursor", gnomeSession, {{"phase", phase}, {"x", 640}, {"y", 150}});
  }
  EXPECT_TRUE(agent_->waitForLine("release 1 640 150", 30s, start)) << agent_->tail();
  EXPECT_TRUE(shell(asUser + "zul-trusted-devices deny " + deviceId + " unattended"));
  const std::string lockedNotices =
      "zulPhone.controlMessages().filter(m => m.reason === 'computerLocked').length";
  const int refusals = phone_->eval(lockedNotices).get<int>();
  std::ofstream(locked) << "locked";
  EXPECT_TRUE(phone_->waitFor(lockedNotices + " > " + std::to_string(refusals))) << agent_->tail();
  replies = phone_->eval(Phone::replies).size();
  phone_->connect();
  EXPECT_EQ(phone_->waitForControl(++replies).value("reason", ""), "computerLocked");
  EXPECT_TRUE(shell(asUser + "systemctl --user stop zul-e2e-gnome.target"));
  EXPECT_TRUE(
      waitUntil([&] { return systemctl("is-active zul-agent.service") == "inactive"; }, 30s));

  // Its secrets and settings in the user's XDG folders, and its record,
  // which the user reads where the session has no journal: the six
  // sessions of four agents. Outside their home, nothing but their run-time
  // folder (and this test's session).
  EXPECT_TRUE(fs::exists(home + "/.local/share/zul-agent/secrets"));
  EXPECT_EQ(commandOutput(asUser + "zul-trusted-devices log --device " + deviceId +
                          " | grep -c session.started"),
            "6");
  EXPECT_EQ(commandOutput("find /tmp /var/tmp /dev/shm /run -xdev -user " + user + " -newer '" +
                          (work / "user-added").string() + "' -not -path '" + work.string() +
                          "*' -not -path '" + runtime + "*' 2>/dev/null"),
            "");
}

}  // namespace
}  // namespace zul::test
