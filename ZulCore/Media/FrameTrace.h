#pragma once

#include <chrono>
#include <string>

namespace zul {

// Where each captured frame's time goes, one "[frame] " line per step on
// standard output when ZUL_FRAME_TRACE is set to anything but "" or "0". The
// latency benchmark joins these lines with the browser's own figures; the
// times are wall-clock milliseconds, which both sides share.
bool frameTraceEnabled();

// Wall-clock milliseconds of a moment on the steady clock that has just
// passed (the two clocks are read together).
double wallMsOf(std::chrono::steady_clock::time_point at);

// Prints "[frame] " + `fields`.
void traceFrame(const std::string& fields);

}  // namespace zul
