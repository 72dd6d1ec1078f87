#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "ZulCore/Input/InputInjector.h"
#include "ZulCore/Support/Error.h"

namespace zul {

class InputInjectorError : public Error {
 public:
  enum class Case { displayUnavailable, extensionMissing };
  static InputInjectorError displayUnavailable(std::string display);
  static InputInjectorError extensionMissing(std::string extension);
  Case kind() const { return kind_; }

 private:
  InputInjectorError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// Synthetic input on an X server through the XTest extension, on a
// connection of its own. Characters missing from the keyboard map are typed
// through spare keycodes that are mapped for the moment and restored
// afterwards. Every call returns once the server has processed its events.
class XTestInputInjector final : public InputInjector {
 public:
  // An empty name means $DISPLAY. Throws InputInjectorError.
  explicit XTestInputInjector(const std::string& displayName = {});
  ~XTestInputInjector() override;
  XTestInputInjector(const XTestInputInjector&) = delete;
  XTestInputInjector& operator=(const XTestInputInjector&) = delete;

  void movePointer(DesktopPoint point) override;
  void setButton(PointerButton button, bool pressed) override;
  void scroll(int dx, int dy) override;
  void setKey(std::uint32_t keysym, bool pressed) override;
  void typeText(std::u32string_view text) override;

  // Releases every key and button this injector pressed and has not released
  // (a combination that failed half-way included).
  void releaseAll() override;

  // How long a temporary mapping stays after its characters were sent, so
  // that clients translate them before the map changes again.
  void setMappingSettleTime(std::chrono::milliseconds settle);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zul
