#pragma once

#include <memory>

#include "ZulCore/Input/InputInjector.h"
#include "ZulPlatform/linux/gnome/MutterDesktop.h"

namespace zul {

// Synthetic input on a GNOME Wayland session through mutter's remote-desktop
// session (the one capture records, else one of its own): absolute pointer
// motion on the recorded stream, evdev buttons, discrete wheel steps and
// keys by keysym. Mutter types only keysyms of its current keyboard map, so
// text beyond ASCII goes through the toolkits' Unicode entry (Ctrl+Shift+U,
// code point, space: GTK and IBus), without touching the user's layouts.
// Keeps what it pressed so that releaseAll() lets go of it.
class MutterInputInjector final : public InputInjector {
 public:
  explicit MutterInputInjector(std::shared_ptr<MutterDesktop> desktop);
  ~MutterInputInjector() override;

  void movePointer(DesktopPoint point) override;
  void setButton(PointerButton button, bool pressed) override;
  void scroll(int dx, int dy) override;
  void setKey(std::uint32_t keysym, bool pressed) override;
  void typeText(std::u32string_view text) override;
  void releaseAll() override;

  // Whether `codePoint` is sent as its own key (ASCII and the control keys)
  // rather than through the Unicode entry.
  static bool typedDirectly(char32_t codePoint);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zul
