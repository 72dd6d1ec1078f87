#include "ZulAgent/RunMode.h"

#include <algorithm>

namespace zul {

LaunchPlan chooseRunMode(const std::vector<std::string>& arguments,
                         std::optional<std::string_view> captureBackend, bool launchedAsApp) {
  auto has = [&](std::string_view flag) {
    return std::find(arguments.begin(), arguments.end(), flag) != arguments.end();
  };
  if (has("--webrtc-smoke")) return {RunMode::webrtcSmoke, false};
  if (has("--real-agent") || launchedAsApp) return {RunMode::realAgent, false};
  if (has("--phone-demo")) return {RunMode::phoneDemo, false};
  const bool useReal = captureBackend == "real" || has("--real");
  return {RunMode::pipeline, useReal};
}

}  // namespace zul
