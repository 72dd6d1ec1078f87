#pragma once

#include <string>
#include <string_view>

namespace zul {

// Makes standard output unbuffered; the agent's diagnostics are single lines
// that must appear at once, also when stdout is a pipe. A reader that goes
// away (`zul-agent | head`) stops the process quietly: SIGPIPE is ignored,
// and the first write that fails with EPIPE sends the process SIGTERM, which
// the agent takes as its ordinary stop (keys released, connections closed).
void makeStdoutUnbuffered();
// The same stop when standard output is a pipe whose reader has gone, for a
// process that may print nothing for a while; cheap enough to call each tick.
void stopIfOutputClosed();

// Whether the detailed diagnostics are printed: ZUL_VERBOSE set to anything
// but "" or "0". Otherwise the terminal gets one line per event a person
// cares about, and libraries keep their warnings to themselves.
bool verboseOutput();

// `text` safe for one terminal line: control characters (C0, DEL, C1, the
// Unicode line and paragraph separators) become visible escapes such as
// "\n", "\x1b" or "\u2028", and a backslash becomes "\\", so text that a
// phone, a server or a store supplies can neither break a line nor drive the
// terminal. Other UTF-8 stays as it is.
std::string escapeControlCharacters(std::string_view text);

// Writes `line`, escaped as above, and a line feed to standard output in one
// call, so lines printed from different threads never interleave and one
// diagnostic is always one line.
void printLine(std::string_view line);

}  // namespace zul
