#pragma once

#include <filesystem>
#include <string>

#include "ZulCore/Trust/SecretStore.h"

namespace zul {

// Secrets as files readable by the user alone, for machines without a Secret
// Service: one file per account under <root>/<service>/, folders 0700 and
// files 0600. A save replaces the file atomically (an unnamed temporary file,
// fsync, a name, rename, fsync of the folder), so a crash leaves either the
// old or the new secret, never half of one; a temporary file that a killed
// writer left named is removed by the next save. Updates take a lock file
// beside the secret (".<account>.lock"), shared with every process.
class FileSecretBackend final : public SecretBackend {
 public:
  // $XDG_DATA_HOME/zul-agent/secrets, $XDG_DATA_HOME defaulting to
  // $HOME/.local/share.
  static std::filesystem::path defaultRoot();

  FileSecretBackend() : FileSecretBackend(defaultRoot()) {}
  explicit FileSecretBackend(std::filesystem::path root) : root_(std::move(root)) {}

  const std::filesystem::path& root() const { return root_; }
  // Where the secret of (service, account) lives; the names are escaped so
  // that any string stays inside its folder and no two strings share a file.
  std::filesystem::path pathFor(const std::string& service, const std::string& account) const;

  // The escaped file-name form of a service or account name.
  static std::string escapeName(const std::string& name);

  std::string name() const override { return "file"; }
  std::optional<Bytes> load(const std::string& service, const std::string& account) override;
  void save(const std::string& service, const std::string& account, const Bytes& secret) override;
  void remove(const std::string& service, const std::string& account) noexcept override;
  std::unique_ptr<SecretUpdateLock> lockForUpdate(const std::string& service,
                                                  const std::string& account) override;

  // An exclusive flock on `path` (created 0600 when missing, never through a
  // symbolic link), held until the lock is destroyed. Throws
  // SecretStoreError::writeFailed for `account`.
  static std::unique_ptr<SecretUpdateLock> lockFile(const std::filesystem::path& path,
                                                    const std::string& account);
  // Creates `folder` 0700 when missing; refuses one the user does not own.
  // Throws std::system_error or std::runtime_error.
  static void ensurePrivateFolder(const std::filesystem::path& folder);

 private:
  std::filesystem::path root_;
};

}  // namespace zul
