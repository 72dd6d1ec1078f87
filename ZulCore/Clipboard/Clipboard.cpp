#include "ZulCore/Clipboard/Clipboard.h"

namespace zul {

std::size_t clipboardLimit(std::string_view type) {
  if (type == clipboardTextType) return maxClipboardTextBytes;
  if (type == clipboardImageType) return maxClipboardImageBytes;
  return 0;
}

ClipboardError ClipboardError::unavailable(const std::string& reason) {
  return {Case::unavailable, formatErrorCase("unavailable", {field(reason)})};
}
ClipboardError ClipboardError::empty(const std::string& type) {
  return {Case::empty, formatErrorCase("empty", {field(type)})};
}
ClipboardError ClipboardError::tooLarge(std::size_t limit) {
  return {Case::tooLarge, formatErrorCase("tooLarge", {field("limit", std::int64_t(limit))})};
}
ClipboardError ClipboardError::unsupportedType(const std::string& type) {
  return {Case::unsupportedType, formatErrorCase("unsupportedType", {field(type)})};
}

}  // namespace zul
