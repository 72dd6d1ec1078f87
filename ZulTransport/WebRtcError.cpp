#include "ZulTransport/WebRtcError.h"

namespace zul {

WebRtcError::WebRtcError(std::string type, std::string message)
    : Error(formatErrorCase("webRtcError", {field("type", type), field("message", message)})),
      type_(std::move(type)),
      message_(std::move(message)) {}

}  // namespace zul
