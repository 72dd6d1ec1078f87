#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Callback.h"
#include "ZulCore/Support/Error.h"

namespace zul {

// The kinds of content the phone exchanges with the desktop's clipboard, and
// how much of each.
inline constexpr std::string_view clipboardTextType = "text/plain;charset=utf-8";
inline constexpr std::string_view clipboardImageType = "image/png";
inline constexpr std::size_t maxClipboardTextBytes = std::size_t(1) << 20;    // 1 MiB
inline constexpr std::size_t maxClipboardImageBytes = std::size_t(16) << 20;  // 16 MiB

// The most a clipboard of this type may hold; 0 for a type the phone does
// not take.
std::size_t clipboardLimit(std::string_view type);

class ClipboardError : public Error {
 public:
  enum class Case { unavailable, empty, tooLarge, unsupportedType };
  // The desktop's clipboard cannot be reached (no display, no session).
  static ClipboardError unavailable(const std::string& reason);
  // Nothing of that type is on the clipboard.
  static ClipboardError empty(const std::string& type);
  static ClipboardError tooLarge(std::size_t limit);
  static ClipboardError unsupportedType(const std::string& type);
  Case kind() const { return kind_; }

 private:
  ClipboardError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// The desktop's clipboard (the one Ctrl+C and Ctrl+V use). Watched only
// between start() and stop(), so that nothing of it is read while no phone
// may see it.
class Clipboard {
 public:
  virtual ~Clipboard() = default;

  // The clipboard changed; the types of the new content that the phone can
  // take (clipboardTextType, clipboardImageType), possibly none. Called on
  // the clipboard's own thread, also for content the phone set.
  Callback<const std::vector<std::string>& /*types*/> onChanged;

  virtual void start() = 0;
  virtual void stop() = 0;
  // The content of one type, at most clipboardLimit(type) bytes. Blocks
  // until the owner answered, a few seconds at most. Throws ClipboardError.
  virtual Bytes read(const std::string& type) = 0;
  // Takes the clipboard with this content, given to whoever pastes until
  // something else takes it. Throws ClipboardError.
  virtual void write(const std::string& type, Bytes content) = 0;
};

}  // namespace zul
