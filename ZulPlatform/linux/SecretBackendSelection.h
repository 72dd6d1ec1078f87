#pragma once

#include <memory>
#include <string>

#include "ZulCore/Trust/SecretStore.h"

namespace zul {

// The secret store of this run, chosen once at start from the environment
// variable ZUL_SECRET_BACKEND:
//   "secret-service"  the Secret Service, failing with
//                     SecretStoreError::unavailable when it cannot be reached;
//   "file"            the private file store under $XDG_DATA_HOME;
//   unset, "" or "auto"  the Secret Service when the session bus offers it
//                     with a default collection within a short time-out,
//                     else the file store.
// Any other value fails with SecretStoreError::unavailable naming the
// allowed values.
std::shared_ptr<SecretBackend> makeSecretBackend();

// One line saying which store a backend is and why it was chosen, e.g.
// "secret store: file (/home/u/.local/share/zul-agent/secrets; no session bus ...)".
std::string describeSecretBackendChoice(const SecretBackend& backend);

}  // namespace zul
