#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "ZulCore/Trust/SecretStore.h"

namespace zul {

// The secret store of this run, chosen from the environment variable
// ZUL_SECRET_BACKEND:
//   "secret-service"  the Secret Service, failing with
//                     SecretStoreError::unavailable when it cannot be reached;
//   "file"            the private file store under $XDG_DATA_HOME;
//   unset, "" or "auto"  the store that holds the agent's identity, so that a
//                     start never flips to the other store and makes a new
//                     identity: the one remembered in
//                     $XDG_DATA_HOME/zul-agent/secret-store; else the file
//                     store when it holds an identity; else the Secret
//                     Service when the session bus offers it with a default
//                     collection within a short time-out; else the file
//                     store. The choice is then remembered. A remembered
//                     Secret Service that does not answer is
//                     SecretStoreError::unavailable, not the file store.
// Any other value fails with SecretStoreError::unavailable naming the
// allowed values. Calls with the same environment return the same backend,
// so the windows and the agent of one process share it; a failure is
// repeated without asking again for 30 s. While another thread is choosing,
// a call waits for it, or with waitForChoice false fails at once with
// SecretStoreError::unavailable.
std::shared_ptr<SecretBackend> makeSecretBackend(bool rememberChoice = true);
std::shared_ptr<SecretBackend> makeSecretBackend(bool rememberChoice, bool waitForChoice);

// A backend that makes the choice above on each use and forwards to the
// chosen store (the same object the agent gets); a failed choice is that
// use's error. For windows that open before the agent and must not fail
// with it; with waitForChoice false, a use while the store is being looked
// for fails at once instead of holding up the windows.
std::shared_ptr<SecretBackend> deferredSecretBackend(bool waitForChoice = true);

// One line saying which store a backend is and why it was chosen, e.g.
// "secret store: file (/home/u/.local/share/zul-agent/secrets; no session bus ...)".
std::string describeSecretBackendChoice(const SecretBackend& backend);

// The choice itself, over stores that the caller supplies.
struct SecretBackendCandidates {
  std::string setting;  // the value of ZUL_SECRET_BACKEND
  std::function<std::shared_ptr<SecretBackend>()> openFile;
  // Nothing when the Secret Service answers (with a default collection when
  // asked for), else why not.
  std::function<std::optional<std::string>(bool requireDefaultCollection)> probeSecretService;
  std::function<std::shared_ptr<SecretBackend>()> openSecretService;  // may throw
  std::filesystem::path remembered;  // where the automatic choice is kept
  // False for a reader of the store (the trusted-devices tool): it uses the
  // choice but leaves making it to the agent, so that a look at an empty
  // store never pins the agent to one.
  bool rememberChoice = true;
};
struct SecretBackendChoice {
  std::shared_ptr<SecretBackend> backend;
  std::string fallbackReason;  // why "auto" took the file store, if it fell back
};
SecretBackendChoice chooseSecretBackend(const SecretBackendCandidates& candidates);

}  // namespace zul
