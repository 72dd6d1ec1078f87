#pragma once

#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "ZulCore/Input/DesktopRect.h"
#include "ZulCore/Input/InputInjector.h"
#include "ZulCore/Input/VideoMapping.h"
#include "ZulCore/Trust/DevicePermission.h"

namespace zul {

// Performs the phone's pointer requests ("input.cursor", "input.scroll") on
// one display. Wire coordinates are video pixels, measured from the video's
// top-left corner; they land on that display only, clamped to its edges.
// At most one button is held at a time, and none once a session ends
// (`releaseAll`).
class PointerInputExecutor {
 public:
  // The mapping is fixed here: a display rearranged later needs a new
  // executor.
  PointerInputExecutor(const VideoMapping& mapping, std::shared_ptr<InputInjector> injector);

  // One "input.cursor" payload: "phase" ("move", "down", "up"), "x", "y",
  // "button" ("left", "right", "middle"). Throws PermissionGateError only.
  void handle(const nlohmann::json& payload, const PermissionGate& permissions);

  // One "input.scroll" payload: "dx", "dy" in wheel steps (fractions add up
  // across requests), optional "x", "y" to move to first. Throws
  // PermissionGateError only.
  void scroll(const nlohmann::json& payload, const PermissionGate& permissions);

  // Lets go of a button still held by a "down" without its "up".
  void releaseHeldButton();
  // Lets go of the held button and of every button and key still down
  // through this executor's injector (the keyboard's too when they share it).
  void releaseAll();

  DesktopPoint displayPoint(double wireX, double wireY) const;

  // For tests and diagnostics.
  std::optional<std::string> heldButton() const;
  DesktopPoint lastPoint() const;

 private:
  enum class EventKind { moved, down, up, dragged };
  void post(EventKind kind, DesktopPoint point, const std::string& button);

  const VideoMapping mapping_;
  const std::shared_ptr<InputInjector> injector_;

  mutable std::mutex inputLock_;
  std::optional<std::string> heldButton_;
  DesktopPoint lastPoint_;
  double scrollRemainderX_ = 0;
  double scrollRemainderY_ = 0;
};

}  // namespace zul
