#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/XvfbServer.h"

namespace zul {
namespace {

using namespace std::chrono_literals;

// `zul-agent --real` on a private X server, read as a user would: the banner
// names the real pair, the encoder line the codec that runs, then three
// seconds of frames at 10 per second, the first a key frame.
TEST(AgentRealPipelineTest, CapturesAndEncodesTheScreenForThreeSeconds) {
  if (!test::haveProgram("Xvfb")) GTEST_SKIP() << "Xvfb is not installed";
  test::XvfbServer server(1280, 720);
  test::ChildProcess::Options options;
  options.env["DISPLAY"] = server.display();
  options.unsetEnv.push_back("ZUL_CAPTURE_BACKEND");
  options.captureStdout = true;
  test::ChildProcess agent({ZUL_AGENT_PATH, "--real"}, options);
  std::vector<std::string> lines;
  while (auto line = agent.readStdoutLine(30s)) lines.push_back(*line);
  ASSERT_GE(lines.size(), 3u);

  EXPECT_EQ(lines[0], "Zul Linux agent \u2014 skeleton build (backend: x11+libav)");
  EXPECT_TRUE(
      std::regex_match(lines[1], std::regex(R"(encoder: libav-h264/\S+, hardware=(true|false))")))
      << lines[1];
  std::vector<std::string> frames;
  for (const auto& line : lines) {
    if (line.rfind("frame #", 0) == 0) frames.push_back(line);
  }
  EXPECT_GE(frames.size(), 27u);
  EXPECT_LE(frames.size(), 31u);
  ASSERT_FALSE(frames.empty());
  EXPECT_TRUE(std::regex_match(frames[0], std::regex(R"(frame #1: \d+ bytes annexB, key=true)")))
      << frames[0];
  EXPECT_EQ(lines.back().rfind("stopped: ", 0), 0u) << lines.back();
}

}  // namespace
}  // namespace zul
