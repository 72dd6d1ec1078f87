#pragma once

#include <string_view>

namespace zul {

// Makes standard output unbuffered; the agent's diagnostics are single lines
// that must appear at once, also when stdout is a pipe.
void makeStdoutUnbuffered();

// Writes `line` and a line feed to standard output in one call, so lines
// printed from different threads never interleave.
void printLine(std::string_view line);

}  // namespace zul
