#include "ZulPlatform/linux/secrets/SecretBackendSelection.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
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

// A store that does not answer is not asked again for a while: each use
// would wait for the probe's time-out.
constexpr std::chrono::seconds kFailureKept{30};

struct Memo {
  std::mutex mutex;
  std::condition_variable chosen;
  std::string environment;
  std::shared_ptr<SecretBackend> backend;
  std::string fallbackReason;
  bool choosing = false;
  std::optional<SecretStoreError> failure;
  std::chrono::steady_clock::time_point failedAt;
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
  return makeSecretBackend(rememberChoice, /*waitForChoice=*/true);
}

std::shared_ptr<SecretBackend> makeSecretBackend(bool rememberChoice, bool waitForChoice) {
  Memo& m = memo();
  std::unique_lock lock(m.mutex);
  const std::string environment = environmentKey();
  if (m.choosing && !waitForChoice) {
    throw SecretStoreError::unavailable("the secret store is still being looked for");
  }
  m.chosen.wait(lock, [&] { return !m.choosing; });
  if (m.environment == environment) {
    if (m.backend) return m.backend;
    if (m.failure && std::chrono::steady_clock::now() - m.failedAt < kFailureKept) {
      throw *m.failure;
    }
  }
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
  // The probe may take seconds: other users wait for it, or fail at once.
  m.choosing = true;
  lock.unlock();
  std::optional<SecretBackendChoice> chosen;
  std::optional<SecretStoreError> failure;
  try {
    chosen = chooseSecretBackend(candidates);
  } catch (const SecretStoreError& error) {
    failure = error;
  } catch (...) {
    lock.lock();
    m.choosing = false;
    m.chosen.notify_all();
    throw;
  }
  lock.lock();
  m.choosing = false;
  m.chosen.notify_all();
  m.environment = environment;
  m.backend = chosen ? chosen->backend : nullptr;
  m.fallbackReason = chosen ? chosen->fallbackReason : std::string();
  m.failure = failure;
  m.failedAt = std::chrono::steady_clock::now();
  if (failure) throw *failure;
  return m.backend;
}

namespace {

class DeferredSecretBackend final : public SecretBackend {
 public:
  // Waiting, or failing at once while another thread looks for the store.
  explicit DeferredSecretBackend(bool waitForChoice) : waitForChoice_(waitForChoice) {}
  std::string name() const override { return chosen()->name(); }
  std::optional<Bytes> load(const std::string& service, const std::string& account) override {
    return chosen()->load(service, account);
  }
  void save(const std::string& service, const std::string& account, const Bytes& secret) override {
    chosen()->save(service, account, secret);
  }
  void remove(const std::string& service, const std::string& account) noexcept override {
    try {
      chosen()->remove(service, account);
    } catch (...) {
      // Removing never fails: with no store there is nothing to remove.
    }
  }
  std::unique_ptr<SecretUpdateLock> lockForUpdate(const std::string& service,
                                                  const std::string& account) override {
    return chosen()->lockForUpdate(service, account);
  }

 private:
  std::shared_ptr<SecretBackend> chosen() const {
    return makeSecretBackend(/*rememberChoice=*/true, waitForChoice_);
  }
  bool waitForChoice_;
};

}  // namespace

std::shared_ptr<SecretBackend> deferredSecretBackend(bool waitForChoice) {
  return std::make_shared<DeferredSecretBackend>(waitForChoice);
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
