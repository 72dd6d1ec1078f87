#include <algorithm>

#include "ZulCore/Media/CaptureSource.h"
#include "ZulCore/Media/VideoEncoder.h"

namespace zul {

CaptureError CaptureError::displayUnavailable(std::int64_t index) {
  return {Case::displayUnavailable, formatErrorCase("displayUnavailable", {field("index", index)}),
          index};
}
CaptureError CaptureError::platformUnsupported(std::string reason) {
  auto text = formatErrorCase("platformUnsupported", {field("reason", reason)});
  return {Case::platformUnsupported, std::move(text), 0, std::move(reason)};
}
CaptureError CaptureError::alreadyRunning() { return {Case::alreadyRunning, "alreadyRunning"}; }
CaptureError CaptureError::notRunning() { return {Case::notRunning, "notRunning"}; }
CaptureError CaptureError::screenRecordingPermissionDenied() {
  return {Case::screenRecordingPermissionDenied, "screenRecordingPermissionDenied"};
}
CaptureError CaptureError::captureFailed(std::string reason) {
  auto text = formatErrorCase("captureFailed", {field("reason", reason)});
  return {Case::captureFailed, std::move(text), 0, std::move(reason)};
}

std::uint32_t rtpDuration(std::int64_t framesPerSecond) {
  return static_cast<std::uint32_t>(90000 / std::max<std::int64_t>(framesPerSecond, 1));
}

MediaError MediaError::sessionCreationFailed(std::int32_t status) {
  return {Case::sessionCreationFailed, formatErrorCase("sessionCreationFailed", {field(status)}),
          status};
}
MediaError MediaError::encodeFailed(std::int32_t status) {
  return {Case::encodeFailed, formatErrorCase("encodeFailed", {field(status)}), status};
}
MediaError MediaError::propertyUpdateFailed(std::int32_t status) {
  return {Case::propertyUpdateFailed, formatErrorCase("propertyUpdateFailed", {field(status)}),
          status};
}
MediaError MediaError::notConfigured() { return {Case::notConfigured, "notConfigured"}; }
MediaError MediaError::invalidDimensions() {
  return {Case::invalidDimensions, "invalidDimensions"};
}
MediaError MediaError::bFramesNotSupported() {
  return {Case::bFramesNotSupported, "bFramesNotSupported"};
}
MediaError MediaError::missingNativeSurface() {
  return {Case::missingNativeSurface, "missingNativeSurface"};
}
MediaError MediaError::hardwareUnavailable() {
  return {Case::hardwareUnavailable, "hardwareUnavailable"};
}

}  // namespace zul
