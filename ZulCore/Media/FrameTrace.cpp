#include "ZulCore/Media/FrameTrace.h"

#include <cstdlib>
#include <cstring>

#include "ZulCore/Support/Console.h"

namespace zul {

bool frameTraceEnabled() {
  static const bool enabled = [] {
    const char* value = std::getenv("ZUL_FRAME_TRACE");
    return value && *value && std::strcmp(value, "0") != 0;
  }();
  return enabled;
}

double wallMsOf(std::chrono::steady_clock::time_point at) {
  const auto wallNow = std::chrono::system_clock::now();
  const auto steadyNow = std::chrono::steady_clock::now();
  const auto wall =
      wallNow - std::chrono::duration_cast<std::chrono::system_clock::duration>(steadyNow - at);
  return std::chrono::duration<double, std::milli>(wall.time_since_epoch()).count();
}

void traceFrame(const std::string& fields) { printLine("[frame] " + fields); }

}  // namespace zul
