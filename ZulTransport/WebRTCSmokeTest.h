#pragma once

#include "ZulCore/Support/Error.h"

namespace zul {

class SmokeTestError : public Error {
 public:
  enum class Case { peerConnectionCreationFailed };

  static SmokeTestError peerConnectionCreationFailed();
  Case kind() const { return Case::peerConnectionCreationFailed; }

 private:
  explicit SmokeTestError(std::string text) : Error(std::move(text)) {}
};

// Checks that the WebRTC library can build a factory and a peer connection.
namespace WebRTCSmokeTest {

// Throws SmokeTestError.
void run();

}  // namespace WebRTCSmokeTest
}  // namespace zul
