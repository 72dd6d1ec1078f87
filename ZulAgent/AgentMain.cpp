#include "ZulAgent/AgentMain.h"

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "ZulAgent/PipelineTest.h"
#include "ZulAgent/RunMode.h"
#include "ZulCore/Media/FakeCaptureSource.h"
#include "ZulCore/Media/FakeH264Encoder.h"
#include "ZulCore/Support/Console.h"

namespace zul {
namespace {

void notAvailable(std::string_view what) {
  printLine(std::string(what) + ": not available in this build");
}

void runPipelineMode(bool useReal) {
  if (useReal) {
    notAvailable("real capture and encoding (--real, ZUL_CAPTURE_BACKEND=real)");
    return;
  }
  printLine("Zul Linux agent \u2014 skeleton build (backend: fake)");
  auto source = std::make_unique<FakeCaptureSource>();
  auto encoder = std::make_unique<FakeH264Encoder>();
  runPipelineTest(*source, *encoder, pipelineCaptureOptions(), pipelineEncoderSettings(useReal),
                  pipelineDuration, printLine);
}

}  // namespace

int agentMain(int argc, char** argv) {
  makeStdoutUnbuffered();
  std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  const char* captureBackend = std::getenv("ZUL_CAPTURE_BACKEND");
  const LaunchPlan plan =
      chooseRunMode(arguments,
                    captureBackend ? std::optional<std::string_view>(captureBackend) : std::nullopt,
                    /*launchedAsApp=*/false);

  switch (plan.mode) {
    case RunMode::webrtcSmoke:
      notAvailable("webrtc smoke test (--webrtc-smoke)");
      break;
    case RunMode::realAgent:
      notAvailable("real agent (--real-agent)");
      break;
    case RunMode::phoneDemo:
      notAvailable("phone demo (--phone-demo)");
      break;
    case RunMode::pipeline:
      runPipelineMode(plan.useRealBackends);
      break;
  }
  return 0;
}

}  // namespace zul
