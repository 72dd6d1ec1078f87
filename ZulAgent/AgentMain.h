#pragma once

#include <functional>
#include <string_view>

#include "ZulTransport/PeerVideoEncoding.h"

namespace zul {

// The real agent behind its windows (setup, pairing QR, trusted devices), in
// an executable that has them; `atLogin`: started with the desktop session.
using WindowedRealAgent =
    std::function<void(const PeerVideoEncoding& videoEncoding,
                       const std::function<void(std::string_view)>& print, bool atLogin)>;

// The whole program behind `main`: picks the run mode from the arguments and
// environment, runs it to its end, and returns the exit status (always 0: the
// modes are read from their printed lines, not their status).
int agentMain(int argc, char** argv, const WindowedRealAgent& windowed = {});

}  // namespace zul
