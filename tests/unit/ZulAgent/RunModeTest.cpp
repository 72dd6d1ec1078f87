#include <gtest/gtest.h>

#include "ZulAgent/RunMode.h"

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

}  // namespace
}  // namespace zul
