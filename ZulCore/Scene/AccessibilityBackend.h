#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ZulCore/Input/DesktopRect.h"

namespace zul {

// One element of the platform's accessibility tree. Opaque to the logic; a
// backend hands out its own subclass and gets it back in later calls.
class AccessibleElement {
 public:
  virtual ~AccessibleElement() = default;
};
using AccessibleElementRef = std::shared_ptr<AccessibleElement>;

// What one element tells about itself. Attributes that cannot be read are
// empty or false.
struct AccessibleElementInfo {
  std::string role;  // the platform's role name, e.g. "push button"
  std::string name;
  std::string description;
  std::string help;
  std::string identifier;
  // A text field's text, a slider's value. Sources after the name may be left
  // empty when an earlier one is set.
  std::string value;
  bool enabled = false;
  bool visible = false;  // not hidden by the application
  bool showing = false;  // visible and actually on screen (mapped, not scrolled away)
  bool focused = false;
  std::optional<DesktopRect> rect;  // global desktop coordinates
  // The element's action names, or nothing when they cannot be read.
  std::optional<std::vector<std::string>> actions;
};

// The focused window of the active application.
struct AccessibleWindow {
  AccessibleElementRef element;
  std::string title;
  std::optional<DesktopRect> rect;
  std::string applicationName;  // the toolkit's application name, may be empty
  std::int64_t processId = 0;
};

// A window control reached through the window rather than its children.
struct AccessibleWindowControl {
  AccessibleElementRef element;
  std::string kind;  // "close", "minimize", "fullscreen", ...
};

// The platform's accessibility interface (AT-SPI on Linux). Calls may block
// on the platform; implementations serialise them.
class AccessibilityBackend {
 public:
  virtual ~AccessibilityBackend() = default;

  // May this process use the interface (is it reachable, is it allowed).
  virtual bool isAvailable() = 0;
  virtual std::optional<AccessibleWindow> focusedWindow() = 0;
  virtual std::vector<AccessibleWindowControl> windowControls(
      const AccessibleElementRef& window) = 0;
  virtual std::vector<AccessibleElementRef> children(const AccessibleElementRef& element) = 0;
  virtual AccessibleElementInfo describe(const AccessibleElementRef& element) = 0;
  // Gives the element keyboard focus; false when it cannot take it.
  virtual bool focus(const AccessibleElementRef& element) = 0;
  // Performs the named action; 0 on success, else the platform's error code.
  virtual std::int32_t performAction(const AccessibleElementRef& element,
                                     const std::string& action) = 0;
};

}  // namespace zul
