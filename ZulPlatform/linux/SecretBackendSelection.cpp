#include "ZulPlatform/linux/SecretBackendSelection.h"

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string_view>

#include "ZulPlatform/linux/FileSecretBackend.h"
#include "ZulPlatform/linux/SecretServiceBackend.h"

namespace zul {
namespace {

// Long enough for the bus to start the keyring daemon on first use.
constexpr std::chrono::milliseconds kProbeTimeout{5000};

// Why "auto" fell back to the file store, for the description line.
std::mutex reasonMutex;
std::string fallbackReason;

void rememberFallback(std::string reason) {
  std::lock_guard lock(reasonMutex);
  fallbackReason = std::move(reason);
}

}  // namespace

std::shared_ptr<SecretBackend> makeSecretBackend() {
  const char* raw = std::getenv("ZUL_SECRET_BACKEND");
  const std::string_view choice = raw ? raw : "";
  rememberFallback({});

  if (choice == "file") return std::make_shared<FileSecretBackend>();
  if (choice == "secret-service") {
    if (auto failure = SecretServiceBackend::probe(kProbeTimeout)) {
      throw SecretStoreError::unavailable(*failure);
    }
    return std::make_shared<SecretServiceBackend>();
  }
  if (!choice.empty() && choice != "auto") {
    throw SecretStoreError::unavailable("ZUL_SECRET_BACKEND is \"" + std::string(choice) +
                                        "\"; use \"secret-service\", \"file\" or \"auto\"");
  }

  if (auto failure = SecretServiceBackend::probe(kProbeTimeout, true)) {
    rememberFallback(*failure);
    return std::make_shared<FileSecretBackend>();
  }
  try {
    return std::make_shared<SecretServiceBackend>();
  } catch (const SecretStoreError& error) {
    rememberFallback(error.text());
    return std::make_shared<FileSecretBackend>();
  }
}

std::string describeSecretBackendChoice(const SecretBackend& backend) {
  std::string line = "secret store: " + backend.name();
  if (auto* file = dynamic_cast<const FileSecretBackend*>(&backend)) {
    line += " (" + file->root().string();
    std::lock_guard lock(reasonMutex);
    if (!fallbackReason.empty()) line += "; " + fallbackReason;
    line += ")";
  }
  return line;
}

}  // namespace zul
