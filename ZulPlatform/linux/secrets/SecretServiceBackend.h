#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "ZulCore/Trust/SecretStore.h"

namespace zul {

// Secrets in the desktop's Secret Service (GNOME Keyring, KWallet, KeePassXC)
// over the session bus: one item per (service, account) in the default
// collection, schema "dev.zul.agent.Secret", stored as binary
// "application/octet-stream".
class SecretServiceBackend final : public SecretBackend {
 public:
  // Connects to the service; throws SecretStoreError::unavailable.
  SecretServiceBackend();
  ~SecretServiceBackend() override;
  SecretServiceBackend(const SecretServiceBackend&) = delete;
  SecretServiceBackend& operator=(const SecretServiceBackend&) = delete;

  // Whether the Secret Service answers on the session bus (starting it if the
  // bus can), within `timeout`, on a private connection: nothing when it does,
  // else the reason. With `requireDefaultCollection`, a service without a
  // default collection (a fresh keyring nobody has unlocked, where a save
  // would need a dialog) counts as not answering. Never throws.
  static std::optional<std::string> probe(std::chrono::milliseconds timeout,
                                          bool requireDefaultCollection = false);

  // The session bus address the process would use, if any: the
  // DBUS_SESSION_BUS_ADDRESS variable or $XDG_RUNTIME_DIR/bus.
  static std::optional<std::string> sessionBusAddress();

  // libsecret keeps one connection to the service per process; this drops
  // it, so that the next backend connects to the bus the environment names.
  static void resetSharedConnection();

  std::string name() const override { return "secret-service"; }
  std::optional<Bytes> load(const std::string& service, const std::string& account) override;
  void save(const std::string& service, const std::string& account, const Bytes& secret) override;
  void remove(const std::string& service, const std::string& account) noexcept override;
  // A lock file in $XDG_RUNTIME_DIR/zul-agent (or, without one, beside the
  // file store), shared by every process of the user.
  std::unique_ptr<SecretUpdateLock> lockForUpdate(const std::string& service,
                                                  const std::string& account) override;

 private:
  struct Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace zul
