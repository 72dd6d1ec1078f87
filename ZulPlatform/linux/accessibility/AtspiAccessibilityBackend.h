#pragma once

#include <memory>

#include "ZulCore/Scene/AccessibilityBackend.h"

namespace zul {

// The accessibility tree over AT-SPI 2 (libatspi). The library is
// process-wide and connects once, to the accessibility bus of the session in
// $DBUS_SESSION_BUS_ADDRESS (or the X root window's AT_SPI_BUS) at the time
// the first backend is made; when that bus is unreachable the backend stays
// unavailable. Calls are serialised; libatspi's events are dispatched on a
// main context of the backend's own, never on the application's.
//
// Window decorations belong to the window manager and have no accessible
// objects, so windowControls() is always empty; a client-side title bar's
// buttons (GTK header bars) are ordinary buttons in the tree.
class AtspiAccessibilityBackend final : public AccessibilityBackend {
 public:
  AtspiAccessibilityBackend();
  ~AtspiAccessibilityBackend() override;
  AtspiAccessibilityBackend(const AtspiAccessibilityBackend&) = delete;
  AtspiAccessibilityBackend& operator=(const AtspiAccessibilityBackend&) = delete;

  bool isAvailable() override;
  std::optional<AccessibleWindow> focusedWindow() override;
  std::vector<AccessibleWindowControl> windowControls(const AccessibleElementRef& window) override;
  std::vector<AccessibleElementRef> children(const AccessibleElementRef& element) override;
  AccessibleElementInfo describe(const AccessibleElementRef& element) override;
  bool focus(const AccessibleElementRef& element) override;
  std::int32_t performAction(const AccessibleElementRef& element,
                             const std::string& action) override;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace zul
