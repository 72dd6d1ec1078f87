#include <gtest/gtest.h>

#include <mutex>
#include <sstream>

#include "ZulAgent/RunMode.h"
#include "ZulAgent/TrustedDevicesTool.h"
#include "ZulAgent/demo/PipelineTest.h"
#include "ZulCore/Media/FakeCaptureSource.h"
#include "ZulCore/Media/FakeH264Encoder.h"
#include "ZulCore/Trust/MemorySecretBackend.h"

namespace zul {
namespace {

TEST(RunMode, PicksOneModeInOrder) {
  struct Case {
    std::vector<std::string> arguments;
    std::optional<std::string_view> captureBackend;
    bool launchedAsApp;
    LaunchPlan expected;
  };
  const auto pipeline = [](bool real) { return LaunchPlan{RunMode::pipeline, real}; };
  const Case cases[] = {
      {{}, std::nullopt, false, pipeline(false)},
      {{"--webrtc-smoke", "--real-agent", "--phone-demo"}, "real", true, {RunMode::webrtcSmoke}},
      {{"--phone-demo", "--real-agent"}, std::nullopt, false, {RunMode::realAgent}},
      {{"--phone-demo"}, std::nullopt, true, {RunMode::realAgent}},
      {{"--phone-demo", "--real"}, "real", false, {RunMode::phoneDemo}},
      {{"--real"}, std::nullopt, false, pipeline(true)},
      {{}, "real", false, pipeline(true)},
      {{}, "REAL", false, pipeline(false)},
      {{}, "1", false, pipeline(false)},
      {{"--real"}, "REAL", false, pipeline(true)},
      {{"--real-agent"}, std::nullopt, false, {RunMode::realAgent}},
      {{"--at-login", "--real-agent"}, std::nullopt, false, {RunMode::realAgent, false, true}},
      {{"--at-login"}, std::nullopt, false, pipeline(false)},
      // Whole-argument matches only.
      {{"--real=1", "--real-agentx", "--phone-demo=yes", "-real"},
       std::nullopt,
       false,
       pipeline(false)},
      {{"--REAL"}, std::nullopt, false, pipeline(false)},
      {{"--webrtc-smoke", "-h"}, "real", true, {RunMode::help}},
      {{"--real-agent", "--help"}, std::nullopt, false, {RunMode::help}},
      {{"--helpme", "-help"}, std::nullopt, false, pipeline(false)},
  };
  for (const auto& c : cases) {
    std::string joined;
    for (const auto& a : c.arguments) joined += a + " ";
    EXPECT_EQ(chooseRunMode(c.arguments, c.captureBackend, c.launchedAsApp), c.expected) << joined;
  }
}

// An encoder that never has output yet, or fails every frame or at once.
class StubEncoder : public VideoEncoder {
 public:
  enum class Behaviour { buffer, fail, failConfigure };
  explicit StubEncoder(Behaviour behaviour) : behaviour_(behaviour) {}
  std::string name() const override { return "stub"; }
  bool isHardwareAccelerated() const override { return true; }
  void configure(const VideoEncoderSettings&) override {
    if (behaviour_ == Behaviour::failConfigure) throw MediaError::sessionCreationFailed(-7);
  }
  std::optional<EncodedVideoFrame> encode(const CapturedFrame& frame, bool force) override {
    std::lock_guard lock(mutex_);
    forced.emplace_back(frame.sequence, force);
    if (behaviour_ == Behaviour::fail) throw MediaError::encodeFailed(-3);
    return std::nullopt;
  }
  void setBitrate(std::int64_t) override {}
  std::mutex mutex_;
  std::vector<std::pair<std::int64_t, bool>> forced;

 private:
  Behaviour behaviour_;
};

std::vector<std::string> run(VideoEncoder& encoder, bool sourceBusy = false) {
  FakeCaptureSource source;
  auto options = pipelineCaptureOptions();
  options.framesPerSecond = 50;
  if (sourceBusy) source.start(options);  // start fails
  std::vector<std::string> lines;
  std::mutex mutex;
  runPipelineTest(source, encoder, options, pipelineEncoderSettings(false),
                  std::chrono::milliseconds(200), [&](std::string_view line) {
                    std::lock_guard lock(mutex);
                    lines.emplace_back(line);
                  });
  if (sourceBusy) source.stop();
  return lines;
}

TEST(PipelineTest, PrintsEachFrameAndTheTotalsOrTheFailure) {
  // The fake pair's own output is the executable's (agent.pipelineOutput).
  FakeH264Encoder fake;
  using B = StubEncoder::Behaviour;
  StubEncoder buffering(B::buffer), failing(B::fail), unconfigurable(B::failConfigure);
  auto lines = run(buffering);
  EXPECT_EQ(lines[0], "encoder: stub, hardware=true");
  EXPECT_EQ(lines[1], "frame #1: encoder buffered it, no output yet");
  EXPECT_EQ(lines.back(), "stopped: 0 frame(s) encoded, 0 total bytes");
  ASSERT_GE(buffering.forced.size(), 2u);
  for (auto [sequence, force] : buffering.forced) EXPECT_EQ(force, sequence == 1) << sequence;

  lines = run(failing);
  EXPECT_EQ(lines[1], "frame #1: encode failed: encodeFailed(-3)");
  EXPECT_EQ(lines.back(), "stopped: 0 frame(s) encoded, 0 total bytes");
  EXPECT_EQ(run(unconfigurable),
            std::vector<std::string>{"pipeline failed: sessionCreationFailed(-7)"});
  EXPECT_EQ(run(fake, true), (std::vector<std::string>{"encoder: fake-h264, hardware=false",
                                                       "pipeline failed: alreadyRunning"}));
}

TrustedDevice phone(std::string id, bool revoked = false) {
  TrustedDevice device;
  device.deviceId = std::move(id);
  device.name = "Device " + device.deviceId.substr(device.deviceId.size() - 3);
  device.ed25519PublicKey = "key";
  device.permissions = {DevicePermission::view, DevicePermission::control};
  device.pairedAt = UtcSeconds{std::chrono::seconds(1'790'000'000)};
  device.revoked = revoked;
  return device;
}

// Each command on a store of a trusted phone and a revoked one named with
// control characters, which stay on one line.
TEST(TrustedDevicesTool, ListsAndRevokes) {
  struct Case {
    std::vector<std::string> arguments;
    int status;
    std::string out, err, revokedAfter;  // of device_aaa, device_bbb
  };
  const Case cases[] = {
      {{},
       0,
       "DEVICE ID  STATE  PAIRED  PERMISSIONS  NAME\n"
       "device_aaa  trusted  2026-09-21T14:13:20Z  view,control  Device aaa\n"
       "device_bbb  revoked  2026-09-21T14:13:20Z  view,control  Device\\nbbb\\x1b[2J\n",
       "",
       "01"},
      {{"revoke", "device_aaa"}, 0, "revoked device_aaa (Device aaa)\n", "", "11"},
      // The end of an id, as the windows show it, when only one id ends so.
      {{"revoke", "_aaa"}, 0, "revoked device_aaa (Device aaa)\n", "", "11"},
      {{"revoke", "aaa"}, 1, "", "no trusted phone with the id aaa\n", "01"},
      {{"revoke", "ice_"}, 1, "", "no trusted phone", "01"},
      {{"--help"}, 0, "usage: zul-trusted-devices [list]\n", "", "01"},
      {{"grant", "_aaa", "shell"}, 0, "granted shell to device_aaa (Device aaa)\n", "", "01"},
      {{"deny", "device_aaa", "control"},
       0,
       "withdrew control from device_aaa (Device aaa)\n",
       "",
       "01"},
      {{"grant", "device_aaa", "root"}, 2, "", "no such permission: root", "01"},
      {{"revoke", "device_bbb"}, 0, "device_bbb was already revoked\n", "", "01"},
      {{"revoke", "device_\x07zzz"}, 1, "", "no trusted phone with the id device_\\x07zzz\n", "01"},
      {{"revoke"}, 2, "", "usage", "01"},
      {{"forget", "device_aaa"}, 2, "", "usage", "01"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments.empty() ? "list" : c.arguments[0] + " " + c.arguments.back());
    const TrustedDeviceStore store(
        SecretStore(TrustedDeviceStore::account, std::make_shared<MemorySecretBackend>()));
    TrustedDevice hostile = phone("device_bbb", true);
    hostile.name = "Device\nbbb\x1b[2J";
    store.save({phone("device_aaa"), hostile});
    std::ostringstream out, err;
    EXPECT_EQ(runTrustedDevicesTool(c.arguments, store, out, err), c.status);
    // The help's first line; everything else whole.
    const bool help = !c.arguments.empty() && c.arguments[0] == "--help";
    EXPECT_EQ(help ? out.str().substr(0, c.out.size()) : out.str(), c.out);
    EXPECT_EQ(err.str().substr(0, c.err.size()), c.err);
    const auto after = store.load();
    EXPECT_EQ(std::to_string(after[0].revoked) + std::to_string(after[1].revoked), c.revokedAfter);
    if (c.arguments.size() == 3 && c.status == 0) {  // grant or deny reached the store
      const auto permission = devicePermissionFromRaw(c.arguments[2]).value();
      EXPECT_EQ(after[0].permissions.count(permission) > 0, c.arguments[0] == "grant");
    }
  }
}

// An empty store is listed; a damaged one is reported and left as it was.
TEST(TrustedDevicesTool, ReportsAStoreItCannotRead) {
  auto backend = std::make_shared<MemorySecretBackend>();
  const TrustedDeviceStore store(SecretStore(TrustedDeviceStore::account, backend));
  std::ostringstream out, err;
  EXPECT_EQ(runTrustedDevicesTool({}, store, out, err), 0);
  EXPECT_EQ(out.str(), "no trusted phones\n");
  backend->save(SecretStore::service, TrustedDeviceStore::account, toBytes("not json"));
  EXPECT_EQ(runTrustedDevicesTool({"revoke", "device_aaa"}, store, out, err), 1);
  EXPECT_NE(err.str().find("cannot be read"), std::string::npos);
  EXPECT_EQ(backend->load(SecretStore::service, TrustedDeviceStore::account), toBytes("not json"));
}

}  // namespace
}  // namespace zul
