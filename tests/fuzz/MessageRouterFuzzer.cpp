// Feeds arbitrary (channel, bytes) to the router: it must answer with a
// message or one of its errors, never crash, hang or leak.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ZulTransport/AgentPeerSessionError.h"
#include "ZulTransport/MessageRouter.h"

namespace {

constexpr std::string_view labels[] = {"input-fast", "input", "scene",  "control",
                                       "files",      "",      "Control"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // First byte picks the channel; the rest is what arrived on it.
  const std::string_view channel = labels[data[0] % std::size(labels)];
  const std::string_view body(reinterpret_cast<const char*>(data + 1), size - 1);
  try {
    auto message = zul::MessageRouter::parse(channel, body);
    if (!zul::MessageRouter::typeBelongsToChannel(message.channel, message.type)) __builtin_trap();
    (void)message.json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  } catch (const zul::MessageRouterError&) {
  } catch (const nlohmann::json::exception&) {
  }
  try {
    zul::requireSendable(channel, (data[0] & 0x80) != 0, body.size());
  } catch (const zul::AgentPeerSessionError&) {
  }
  return 0;
}
