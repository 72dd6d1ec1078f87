#include "ZulAgent/AgentMain.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "ZulAgent/RunMode.h"
#include "ZulAgent/demo/PhoneDemo.h"
#include "ZulAgent/demo/PipelineTest.h"
#include "ZulAgent/orchestration/CaptureGeometry.h"
#include "ZulAgent/orchestration/RealAgent.h"
#include "ZulCore/Media/FakeCaptureSource.h"
#include "ZulCore/Media/FakeH264Encoder.h"
#include "ZulCore/Support/Console.h"
#include "ZulPlatform/linux/DesktopBackend.h"
#include "ZulPlatform/linux/encoder/LibavH264Encoder.h"
#include "ZulTransport/PeerVideoEncoding.h"
#include "ZulTransport/SignalingUrl.h"
#include "ZulTransport/WebRTCSmokeTest.h"
#include "ZulTransport/WebRtcLogging.h"

namespace zul {
namespace {

void runPipelineMode(bool useReal) {
  if (useReal) {
    std::unique_ptr<CaptureSource> source;
    try {
      // The banner names the backend; no separate line.
      source = desktopBackend()->makeCaptureSource();
    } catch (const std::exception& error) {
      printLine(std::string("pipeline failed: ") + error.what());
      return;
    }
    printLine("Zul Linux agent \u2014 skeleton build (backend: " + source->name() + "+libav)");
    auto encoder = std::make_unique<LibavH264Encoder>();
    // The test measures the steady pipeline: a still test display must not
    // fall back to the idle rate, and a machine without a GPU encodes with
    // libx264 (the encoder line says which codec ran).
    CaptureOptions options = pipelineCaptureOptions();
    options.idleFramesPerSecond = options.framesPerSecond;
    VideoEncoderSettings settings = pipelineEncoderSettings(useReal);
    settings.hardwareRequired = false;
    runPipelineTest(*source, *encoder, options, settings, pipelineDuration, printLine);
    return;
  }
  printLine("Zul Linux agent \u2014 skeleton build (backend: fake)");
  auto source = std::make_unique<FakeCaptureSource>();
  auto encoder = std::make_unique<FakeH264Encoder>();
  runPipelineTest(*source, *encoder, pipelineCaptureOptions(), pipelineEncoderSettings(useReal),
                  pipelineDuration, printLine);
}

void runWebRtcSmokeMode() {
  try {
    WebRTCSmokeTest::run();
    printLine("webrtc smoke test: OK (factory + peer connection created and closed)");
  } catch (const std::exception& error) {
    printLine(std::string("webrtc smoke test failed: ") + error.what());
  }
}

// Every peer session streams with our H.264 encoder (hardware when the
// machine has one, else libx264 on all cores); OpenH264 is the fallback.
PeerVideoEncoding agentVideoEncoding() {
  return {.makeEncoder = [] { return std::make_unique<LibavH264Encoder>(); },
          .print =
              [](const std::string& line) {
                // Which encoder runs is said once; each session's own start
                // only with the detailed diagnostics. Failures and the
                // fallback always.
                static std::atomic<bool> saidWhich{false};
                const bool routine = line.find(" fps, starting at ") != std::string::npos;
                if (!routine || verboseOutput() || !saidWhich.exchange(true)) printLine(line);
              },
          .frameRate = std::make_shared<FrameRateChoice>(
              framesPerSecondFrom(std::getenv("ZUL_MAX_FPS")), lowerFramesPerSecond)};
}

void runRealAgentMode(const WindowedRealAgent& windowed, bool atLogin) {
  // With a server named in the environment the agent runs without windows
  // (development, tests, headless machines); otherwise the setup window asks.
  const char* url = std::getenv("ZUL_SIGNALING_URL");
  if ((!url || !*url) && windowed) {
    windowed(agentVideoEncoding(), printLine, atLogin);
    return;
  }
  try {
    RealAgentSettings settings = RealAgentSettings::fromEnvironment();
    settings.videoEncoding = agentVideoEncoding();
    printLine("Zul Linux agent \u2014 real agent (signaling: " +
              redactedUrl(settings.signalingBaseURL) + "; set ZUL_SIGNALING_URL to change)");
    runRealAgent(settings, nullptr, printLine);
  } catch (const std::exception& error) {
    printLine(std::string("real-agent failed: ") + error.what());
  }
}

void runPhoneDemoMode() {
  try {
    PhoneDemoSettings settings = PhoneDemoSettings::fromEnvironment();
    settings.videoEncoding = agentVideoEncoding();
    runPhoneDemo(
        settings, [] { return desktopBackend(printLine)->makeCaptureSource(); }, printLine);
  } catch (const std::exception& error) {
    printLine(std::string("phone-demo failed: ") + error.what());
  }
}

}  // namespace

int agentMain(int argc, char** argv, const WindowedRealAgent& windowed) {
  makeStdoutUnbuffered();
  configureWebRtcLogging();
  std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  const char* captureBackend = std::getenv("ZUL_CAPTURE_BACKEND");
  const LaunchPlan plan = chooseRunMode(
      arguments, captureBackend ? std::optional<std::string_view>(captureBackend) : std::nullopt,
      /*launchedAsApp=*/false);

  switch (plan.mode) {
    case RunMode::help:
      std::fputs(helpText().c_str(), stdout);
      break;
    case RunMode::webrtcSmoke:
      runWebRtcSmokeMode();
      break;
    case RunMode::realAgent:
      runRealAgentMode(windowed, plan.atLogin);
      break;
    case RunMode::phoneDemo:
      runPhoneDemoMode();
      break;
    case RunMode::pipeline:
      runPipelineMode(plan.useRealBackends);
      break;
  }
  return 0;
}

}  // namespace zul
