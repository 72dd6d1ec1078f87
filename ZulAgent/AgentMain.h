#pragma once

namespace zul {

// The whole program behind `main`: picks the run mode from the arguments and
// environment, runs it to its end, and returns the exit status (always 0: the
// modes are read from their printed lines, not their status).
int agentMain(int argc, char** argv);

}  // namespace zul
