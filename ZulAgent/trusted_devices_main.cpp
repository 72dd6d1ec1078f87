#include <iostream>

#include "ZulAgent/TrustedDevicesTool.h"
#include "ZulCore/Support/Console.h"
#include "ZulPlatform/linux/secrets/SecretBackendSelection.h"

int main(int argc, char** argv) {
  try {
    // The agent's own store: the same automatic choice, so a revoke reaches
    // it; the choice is the agent's to keep, not a reader's.
    auto backend = zul::makeSecretBackend(/*rememberChoice=*/false);
    std::cerr << zul::escapeControlCharacters(zul::describeSecretBackendChoice(*backend)) << "\n";
    const zul::TrustedDeviceStore store(
        zul::SecretStore(zul::TrustedDeviceStore::account, backend));
    const zul::AuditLog log(zul::AuditLog::defaultPath());
    return zul::runTrustedDevicesTool({argv + 1, argv + argc}, store, std::cout, std::cerr, &log);
  } catch (const std::exception& error) {
    std::cerr << zul::escapeControlCharacters(error.what()) << "\n";
    return 1;
  }
}
