#pragma once

#include <cstdint>
#include <string_view>

#include "ZulCore/Input/DesktopRect.h"

namespace zul {

// Pointer buttons by their X button number.
enum class PointerButton : std::uint8_t { left = 1, middle = 2, right = 3 };

// Key symbols, X keysym values (the X protocol's, not tied to Xlib), so that
// the logic above the injector names keys the same way on every backend.
namespace keysym {
inline constexpr std::uint32_t backSpace = 0xff08;
inline constexpr std::uint32_t tab = 0xff09;
inline constexpr std::uint32_t returnKey = 0xff0d;
inline constexpr std::uint32_t escape = 0xff1b;
inline constexpr std::uint32_t deleteKey = 0xffff;
inline constexpr std::uint32_t home = 0xff50;
inline constexpr std::uint32_t left = 0xff51;
inline constexpr std::uint32_t up = 0xff52;
inline constexpr std::uint32_t right = 0xff53;
inline constexpr std::uint32_t down = 0xff54;
inline constexpr std::uint32_t pageUp = 0xff55;
inline constexpr std::uint32_t pageDown = 0xff56;
inline constexpr std::uint32_t end = 0xff57;
inline constexpr std::uint32_t f1 = 0xffbe;  // F2..F12 follow in order
inline constexpr std::uint32_t space = 0x0020;
inline constexpr std::uint32_t shiftL = 0xffe1;
inline constexpr std::uint32_t controlL = 0xffe3;
inline constexpr std::uint32_t altL = 0xffe9;
inline constexpr std::uint32_t superL = 0xffeb;
}  // namespace keysym

// Synthetic input on the desktop. Implementations make each call's events
// reach the display server before returning, and serialise concurrent calls.
class InputInjector {
 public:
  virtual ~InputInjector() = default;

  // Moves the pointer to a point in global desktop coordinates.
  virtual void movePointer(DesktopPoint point) = 0;
  virtual void setButton(PointerButton button, bool pressed) = 0;
  // Whole wheel steps: positive `dy` scrolls down (X button 5), negative up
  // (4); positive `dx` right (7), negative left (6).
  virtual void scroll(int dx, int dy) = 0;
  // Presses or releases the key that produces `keysym` in the current
  // keyboard map; a keysym the map lacks is ignored.
  virtual void setKey(std::uint32_t keysym, bool pressed) = 0;
  // Types Unicode code points, characters missing from the keyboard map
  // included; leaves the keyboard map as it found it.
  virtual void typeText(std::u32string_view text) = 0;
  // Releases every button and key pressed through this injector and not
  // released since, so that nothing stays down after a session.
  virtual void releaseAll() = 0;
};

}  // namespace zul
