#pragma once

#include <memory>
#include <optional>
#include <string>

#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Error.h"

namespace zul {

class SecretStoreError : public Error {
 public:
  enum class Case {
    unavailable,  // the backend cannot be reached (no session bus, no keyring, ...)
    readFailed,
    writeFailed,
  };

  static SecretStoreError unavailable(std::string reason);
  static SecretStoreError readFailed(std::string account, std::string reason);
  static SecretStoreError writeFailed(std::string account, std::string reason);

  Case kind() const { return kind_; }
  const std::string& account() const { return account_; }
  const std::string& reason() const { return reason_; }

 private:
  SecretStoreError(Case kind, std::string text, std::string account, std::string reason)
      : Error(std::move(text)),
        kind_(kind),
        account_(std::move(account)),
        reason_(std::move(reason)) {}

  Case kind_;
  std::string account_;
  std::string reason_;
};

// Held by whoever reads, changes and writes back one secret; released when
// destroyed.
class SecretUpdateLock {
 public:
  virtual ~SecretUpdateLock() = default;
};

// Where secrets are kept: the Secret Service, a private file store, a test
// double. Secrets are opaque bytes keyed by (service, account).
class SecretBackend {
 public:
  virtual ~SecretBackend() = default;
  virtual std::string name() const = 0;
  // Absent is not an error. Throws SecretStoreError.
  virtual std::optional<Bytes> load(const std::string& service, const std::string& account) = 0;
  // Replaces any existing secret. Throws SecretStoreError.
  virtual void save(const std::string& service, const std::string& account,
                    const Bytes& secret) = 0;
  // Never fails; removing an absent secret does nothing.
  virtual void remove(const std::string& service, const std::string& account) noexcept = 0;
  // Waits until no other process that uses the same store is updating this
  // secret and keeps them out until the lock is destroyed. Nothing for a
  // store that lives in this process alone. Throws SecretStoreError.
  virtual std::unique_ptr<SecretUpdateLock> lockForUpdate(const std::string& /*service*/,
                                                          const std::string& /*account*/) {
    return nullptr;
  }
};

// One named secret of the agent, under the agent's fixed service name.
class SecretStore {
 public:
  static constexpr const char* service = "dev.zul.agent.mac";

  SecretStore(std::string account, std::shared_ptr<SecretBackend> backend)
      : account_(std::move(account)), backend_(std::move(backend)) {}

  const std::string& account() const { return account_; }
  const std::shared_ptr<SecretBackend>& backend() const { return backend_; }

  std::optional<Bytes> load() const { return backend_->load(service, account_); }
  void save(const Bytes& secret) const { backend_->save(service, account_, secret); }
  void remove() const noexcept { backend_->remove(service, account_); }
  std::unique_ptr<SecretUpdateLock> lockForUpdate() const {
    return backend_->lockForUpdate(service, account_);
  }

 private:
  std::string account_;
  std::shared_ptr<SecretBackend> backend_;
};

}  // namespace zul
