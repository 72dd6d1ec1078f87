#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "ZulCore/Trust/TrustedDevice.h"

namespace zul {

// The trusted phones from a terminal, until the agent has a window for them:
//   zul-trusted-devices [list]        one line per phone
//   zul-trusted-devices revoke ID     the phone can no longer open sessions
// A running agent notices a revoke within a second. Returns the exit status:
// 0 done, 1 failed (unknown phone, unreadable store), 2 bad arguments.
int runTrustedDevicesTool(const std::vector<std::string>& arguments,
                          const TrustedDeviceStore& store, std::ostream& out, std::ostream& err);

}  // namespace zul
