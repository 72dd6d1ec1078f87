// Feeds arbitrary (channel, bytes) to the control session dispatcher, with and
// without an established session. Beyond not crashing, it checks that no
// input opens a session without a valid signed hello and that only messages
// of the established session are handed on.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/IdentityKeyStore.h"
#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulTransport/ControlSessionDispatcher.h"

namespace {

using namespace zul;

constexpr std::string_view labels[] = {"control", "input", "input-fast", "scene",
                                       "files",   "",      "Control"};

class NullChannel : public ControlChannel {
 public:
  std::string dtlsFingerprint() const override { return "sha-256 AA:BB"; }
  void sendControlText(const std::string&) override {}
};

struct World {
  std::shared_ptr<MemorySecretBackend> secrets = std::make_shared<MemorySecretBackend>();
  TrustedDeviceStore store{SecretStore(TrustedDeviceStore::account, secrets)};
  std::shared_ptr<IdentityKeyStore> phone;
  std::string deviceId;

  World() {
    // A fixed phone key, so that inputs replay the same way.
    auto phoneSecrets = std::make_shared<MemorySecretBackend>();
    phoneSecrets->save(SecretStore::service, "phone", Bytes(32, 0x42));
    phone = std::make_shared<IdentityKeyStore>(SecretStore("phone", phoneSecrets));
    deviceId = IdentityKeyStore::deriveId("device_", phone->publicKey());
    store.save({{deviceId,
                 "phone",
                 Base64Url::encode(phone->publicKey()),
                 {DevicePermission::view, DevicePermission::control},
                 UtcSeconds{},
                 false}});
  }

  std::string signedHello(const std::string& sessionId) const {
    const std::string nonce = "nonce";
    auto signature =
        phone->sign(toBytes(ControlSessionDispatcher::helloTranscript(sessionId, deviceId, nonce)));
    return nlohmann::json{{"type", "control.hello"}, {"protoVersion", "1.0"},
                          {"sessionId", sessionId},  {"deviceId", deviceId},
                          {"nonce", nonce},          {"signature", Base64Url::encode(signature)}}
        .dump();
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const World world;
  if (size == 0) return 0;
  const std::uint8_t selector = data[0];
  const std::string_view channel = labels[selector % std::size(labels)];
  const std::string_view body(reinterpret_cast<const char*>(data + 1), size - 1);

  ControlSessionDispatcher dispatcher(std::make_shared<NullChannel>(), world.store);
  dispatcher.setExpectedPeerDeviceId(world.deviceId);
  std::optional<std::string> established;
  if (selector & 0x80) {
    dispatcher.handle("control", world.signedHello("fuzz-session"));
    if (dispatcher.activeSessionId() != "fuzz-session") __builtin_trap();
    established = "fuzz-session";
  }
  dispatcher.onAuthenticatedMessage = [&](const RoutedMessage& message, const PermissionGate&) {
    if (message.sessionId != established) __builtin_trap();
  };
  dispatcher.handle(channel, body);
  // The key never signs fuzz data: a session other than ours cannot appear.
  if (dispatcher.activeSessionId() != established) __builtin_trap();
  return 0;
}
