// Feeds arbitrary rendezvous-server messages (several per input, separated by
// 0x1E) to the signalling client's message handling: it must handle or
// refuse each with one of its errors, never crash, hang or leak, and never
// store a device whose identifier does not derive from its key.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/IdentityKeyStore.h"
#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulTransport/SignalingError.h"
#include "ZulTransport/SignalingMessageHandler.h"
#include "support/FakeSignalingPeer.h"

namespace {

const std::shared_ptr<const zul::PairingService>& pairing() {
  static const auto service = [] {
    auto secrets = std::make_shared<zul::MemorySecretBackend>();
    // A fixed agent key keeps runs reproducible.
    secrets->save(zul::SecretStore::service, "identity", zul::Bytes(32, 0x5a));
    auto identity =
        std::make_shared<const zul::IdentityKeyStore>(zul::SecretStore("identity", secrets));
    return std::make_shared<const zul::PairingService>(identity);
  }();
  return service;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto secrets = std::make_shared<zul::MemorySecretBackend>();
  zul::TrustedDeviceStore store(zul::SecretStore("trusted-devices", secrets));
  auto peer = std::make_shared<zul::test::FakeSignalingPeer>();
  zul::SignalingEvents events;
  std::size_t sentBytes = 0;
  events.onStatusChanged = [&](const std::string& status) { sentBytes += status.size(); };
  zul::SignalingMessageHandler handler(pairing(), peer, store, events);
  // One phone may pair per input; later requests take the refusal path.
  handler.addPairingOffer(zul::unixSeconds(std::chrono::system_clock::now()) + 120);
  zul::SignalingMessageHandler::Send send = [&](const std::string& text) {
    sentBytes += text.size();
  };

  std::string_view input(reinterpret_cast<const char*>(data), size);
  while (true) {
    auto end = input.find('\x1e');
    auto message = input.substr(0, end);
    try {
      handler.handle(message, send);
    } catch (const zul::SignalingError&) {
    } catch (const zul::SignalingTransportError&) {
    }
    if (end == std::string_view::npos) break;
    input.remove_prefix(end + 1);
  }

  for (const auto& device : store.load()) {
    auto key = zul::Base64Url::decode(device.ed25519PublicKey);
    if (!key || zul::IdentityKeyStore::deriveId("device_", *key) != device.deviceId) {
      __builtin_trap();
    }
  }
  return 0;
}
