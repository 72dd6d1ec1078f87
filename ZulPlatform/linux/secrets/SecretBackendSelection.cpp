#include "ZulPlatform/linux/secrets/SecretBackendSelection.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string_view>

#include "ZulPlatform/linux/secrets/FileSecretBackend.h"
#include "ZulPlatform/linux/secrets/SecretServiceBackend.h"

namespace zul {
namespace {

// Long enough for the bus to start the keyring daemon on first use.
constexpr std::chrono::milliseconds kProbeTimeout{5000};
constexpr const char* kFile = "file";
constexpr const char* kSecretService = "secret-service";

std::optional<std::string> readRemembered(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::string name;
  if (!in || !std::getline(in, name)) return std::nullopt;
  if (name == kFile || name == kSecretService) return name;
  return std::nullopt;
}

// Best effort: a choice that cannot be kept is made again next time.
void remember(const std::filesystem::path& path, const std::string& name) {
  std::error_code ignored;
  std::filesystem::create_directories(path.parent_path(), ignored);
  const std::string temporary = path.string() + ".tmp." + std::to_string(::getpid());
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << name << "\n";
    if (!out.flush()) {
      std::filesystem::remove(temporary, ignored);
      return;
    }
  }
  std::filesystem::rename(temporary, path, ignored);
  if (ignored) std::filesystem::remove(temporary, ignored);
}

// Whether the store has the agent's identity; an unreadable one counts, since
// something is there.
bool holdsIdentity(SecretBackend& backend) {
  try {
    return backend.load(SecretStore::service, "identity").has_value();
  } catch (const SecretStoreError&) {
    return true;
  }
}

struct Memo {
  std::mutex mutex;
  std::string environment;
  std::shared_ptr<SecretBackend> backend;
  std::string fallbackReason;
};

Memo& memo() {
  static Memo instance;
  return instance;
}

std::string environmentKey() {
  std::string key;
  for (const char* name : {"ZUL_SECRET_BACKEND", "DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR",
                           "XDG_DATA_HOME", "HOME"}) {
    const char* value = std::getenv(name);
    key += value ? std::string("=") + value : std::string("!");
    key += '\0';
  }
  return key;
}

}  // namespace

SecretBackendChoice chooseSecretBackend(const SecretBackendCandidates& c) {
  const std::string& choice = c.setting;
  if (choice == kFile) return {c.openFile(), {}};
  if (choice == kSecretService) {
    if (auto failure = c.probeSecretService(false)) throw SecretStoreError::unavailable(*failure);
    return {c.openSecretService(), {}};
  }
  if (!choice.empty() && choice != "auto") {
    throw SecretStoreError::unavailable("ZUL_SECRET_BACKEND is \"" + choice +
                                        "\"; use \"secret-service\", \"file\" or \"auto\"");
  }

  const auto remembered = readRemembered(c.remembered);
  if (remembered == kSecretService) {
    if (auto failure = c.probeSecretService(false)) {
      throw SecretStoreError::unavailable(
          "the agent's identity is kept in the Secret Service, which does not answer (" + *failure +
          "); start it, or set ZUL_SECRET_BACKEND=file for a new identity");
    }
    return {c.openSecretService(), {}};
  }
  auto keep = [&](const std::string& name) {
    if (c.rememberChoice) remember(c.remembered, name);
  };
  auto file = c.openFile();
  if (remembered == kFile || holdsIdentity(*file)) {
    if (!remembered) keep(kFile);
    return {file, {}};
  }
  std::string reason;
  if (auto failure = c.probeSecretService(true)) {
    reason = *failure;
  } else {
    try {
      auto service = c.openSecretService();
      keep(kSecretService);
      return {service, {}};
    } catch (const SecretStoreError& error) {
      reason = error.text();
    }
  }
  keep(kFile);
  return {file, reason};
}

std::shared_ptr<SecretBackend> makeSecretBackend(bool rememberChoice) {
  Memo& m = memo();
  std::lock_guard lock(m.mutex);
  const std::string environment = environmentKey();
  if (m.backend && m.environment == environment) return m.backend;
  const char* setting = std::getenv("ZUL_SECRET_BACKEND");
  SecretBackendCandidates candidates{
      .setting = setting ? setting : "",
      .openFile = [] { return std::make_shared<FileSecretBackend>(); },
      .probeSecretService =
          [](bool requireDefaultCollection) {
            return SecretServiceBackend::probe(kProbeTimeout, requireDefaultCollection);
          },
      .openSecretService = [] { return std::make_shared<SecretServiceBackend>(); },
      .remembered = FileSecretBackend::defaultRoot().parent_path() / "secret-store",
      .rememberChoice = rememberChoice,
  };
  SecretBackendChoice chosen = chooseSecretBackend(candidates);
  m.environment = environment;
  m.backend = chosen.backend;
  m.fallbackReason = chosen.fallbackReason;
  return chosen.backend;
}

namespace {

class DeferredSecretBackend final : public SecretBackend {
 public:
  std::string name() const override { return makeSecretBackend()->name(); }
  std::optional<Bytes> load(const std::string& service, const std::string& account) override {
    return makeSecretBackend()->load(service, account);
  }
  void save(const std::string& service, const std::string& account, const Bytes& secret) override {
    makeSecretBackend()->save(service, account, secret);
  }
  void remove(const std::string& service, const std::string& account) noexcept override {
    try {
      makeSecretBackend()->remove(service, account);
    } catch (...) {
      // Removing never fails: with no store there is nothing to remove.
    }
  }
  std::unique_ptr<SecretUpdateLock> lockForUpdate(const std::string& service,
                                                  const std::string& account) override {
    return makeSecretBackend()->lockForUpdate(service, account);
  }
};

}  // namespace

std::shared_ptr<SecretBackend> deferredSecretBackend() {
  return std::make_shared<DeferredSecretBackend>();
}

std::string describeSecretBackendChoice(const SecretBackend& backend) {
  std::string line = "secret store: " + backend.name();
  if (auto* file = dynamic_cast<const FileSecretBackend*>(&backend)) {
    line += " (" + file->root().string();
    Memo& m = memo();
    std::lock_guard lock(m.mutex);
    if (m.backend.get() == &backend && !m.fallbackReason.empty()) line += "; " + m.fallbackReason;
    line += ")";
  }
  return line;
}

}  // namespace zul
