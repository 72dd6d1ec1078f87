#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "ZulCore/Trust/TrustedDevice.h"
#include "ZulPlatform/linux/audit/AuditLog.h"

namespace zul {

// The trusted phones from a terminal:
//   zul-trusted-devices [list]                 one line per phone
//   zul-trusted-devices revoke ID              the phone can no longer open sessions
//   zul-trusted-devices grant|deny ID PERM     one permission given or taken
//   zul-trusted-devices log [--device ID] [--since TIME]   what phones did
// A running agent notices a change within a second. Changes are recorded in
// `log` when given. Returns the exit status: 0 done, 1 failed (unknown
// phone, unreadable store), 2 bad arguments.
int runTrustedDevicesTool(const std::vector<std::string>& arguments,
                          const TrustedDeviceStore& store, std::ostream& out, std::ostream& err,
                          const AuditLog* log = nullptr);

}  // namespace zul
