#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zul {

enum class RunMode { help, webrtcSmoke, realAgent, phoneDemo, pipeline };

struct LaunchPlan {
  RunMode mode = RunMode::pipeline;
  bool useRealBackends = false;  // pipeline mode only
  // Real agent only: started with the session ("--at-login"), so it connects
  // at once with the server last used and shows its window only when that
  // cannot be done.
  bool atLogin = false;

  friend bool operator==(const LaunchPlan&, const LaunchPlan&) = default;
};

// Picks the one mode this process runs; "--help" or "-h" anywhere asks for
// the help text instead. `arguments` excludes the program
// name; flags match whole arguments only ("--real" is not "--real-agent").
// `captureBackend` is ZUL_CAPTURE_BACKEND: only the exact value "real"
// selects the real backends. `launchedAsApp` is the desktop application's own
// launch, which always means the real agent (Linux builds have no such bundle
// yet, so the agent passes false).
LaunchPlan chooseRunMode(const std::vector<std::string>& arguments,
                         std::optional<std::string_view> captureBackend, bool launchedAsApp);

// What `zul-agent --help` prints: the modes, the settings and the
// environment variables, in lines of at most 80 columns.
std::string helpText();

}  // namespace zul
