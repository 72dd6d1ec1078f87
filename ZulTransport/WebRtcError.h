#pragma once

#include <string>

#include "ZulCore/Support/Error.h"

namespace zul {

// An error reported by the WebRTC library itself (offer, answer, description),
// passed up unchanged: its type name and message as the library gives them.
class WebRtcError : public Error {
 public:
  WebRtcError(std::string type, std::string message);

  const std::string& type() const { return type_; }
  const std::string& message() const { return message_; }

 private:
  std::string type_;
  std::string message_;
};

}  // namespace zul
