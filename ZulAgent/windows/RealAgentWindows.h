#pragma once

#include "ZulAgent/orchestration/RealAgent.h"

namespace zul {

// The real agent as an application: the setup window takes the server's
// address and starts the agent on a thread of its own; its statuses go to the
// setup window, its pairing links to the QR window. Returns when the last
// window is closed, after the agent has stopped. Started at login, it
// connects at once to the server last used, its window out of the way (in
// the status area when there is one, else minimized), and opens the window
// only when it cannot (no server yet, a permission missing).
void runRealAgentWithWindows(const PeerVideoEncoding& videoEncoding, const PrintLine& print,
                             bool atLogin);

}  // namespace zul
