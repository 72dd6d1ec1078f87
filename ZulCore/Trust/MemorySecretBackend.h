#pragma once

#include <map>
#include <mutex>
#include <utility>

#include "ZulCore/Trust/SecretStore.h"

namespace zul {

// Keeps secrets in memory, for tests of the logic above the store.
class MemorySecretBackend final : public SecretBackend {
 public:
  std::string name() const override { return "memory"; }

  std::optional<Bytes> load(const std::string& service, const std::string& account) override {
    std::lock_guard lock(mutex_);
    auto it = secrets_.find({service, account});
    if (it == secrets_.end()) return std::nullopt;
    return it->second;
  }
  void save(const std::string& service, const std::string& account,
            const Bytes& secret) override {
    std::lock_guard lock(mutex_);
    secrets_[{service, account}] = secret;
  }
  void remove(const std::string& service, const std::string& account) noexcept override {
    std::lock_guard lock(mutex_);
    secrets_.erase({service, account});
  }

 private:
  std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, Bytes> secrets_;
};

}  // namespace zul
