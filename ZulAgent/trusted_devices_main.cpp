#include <iostream>

#include "ZulAgent/TrustedDevicesTool.h"
#include "ZulPlatform/linux/SecretBackendSelection.h"

int main(int argc, char** argv) {
  try {
    auto backend = zul::makeSecretBackend();
    std::cerr << zul::describeSecretBackendChoice(*backend) << "\n";
    const zul::TrustedDeviceStore store(
        zul::SecretStore(zul::TrustedDeviceStore::account, backend));
    return zul::runTrustedDevicesTool({argv + 1, argv + argc}, store, std::cout, std::cerr);
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
}
