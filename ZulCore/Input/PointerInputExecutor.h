#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "ZulCore/Input/DesktopRect.h"
#include "ZulCore/Input/InputInjector.h"
#include "ZulCore/Input/VideoMapping.h"

namespace zul {

enum class PointerPhase { move, down, up };

// One pointer request, in the video's pixels.
struct PointerAction {
  PointerPhase phase = PointerPhase::move;
  double x = 0;
  double y = 0;
  PointerButton button = PointerButton::left;
  friend bool operator==(const PointerAction&, const PointerAction&) = default;
};

// Wheel steps (fractions add up across requests), after a move to `at` when
// it is given.
struct ScrollAction {
  double dx = 0;
  double dy = 0;
  std::optional<std::pair<double, double>> at;
  friend bool operator==(const ScrollAction&, const ScrollAction&) = default;
};

// Performs the phone's pointer and wheel requests on one display. Wire coordinates are video
// pixels, measured from the video's top-left corner; they land on that display only, clamped to its
// edges. At most one button is held at a time, and none once a session ends
// (`releaseAll`).
class PointerInputExecutor {
 public:
  // The mapping is fixed here: a display rearranged later needs a new
  // executor.
  PointerInputExecutor(const VideoMapping& mapping, std::shared_ptr<InputInjector> injector);

  void handle(const PointerAction& action);
  void scroll(const ScrollAction& action);

  // Lets go of a button still held by a "down" without its "up".
  void releaseHeldButton();
  // Lets go of the held button and of every button and key still down
  // through this executor's injector (the keyboard's too when they share it).
  void releaseAll();

  DesktopPoint displayPoint(double wireX, double wireY) const;

  // For tests and diagnostics.
  std::optional<PointerButton> heldButton() const;
  DesktopPoint lastPoint() const;

 private:
  enum class EventKind { moved, down, up, dragged };
  void post(EventKind kind, DesktopPoint point, PointerButton button);

  const VideoMapping mapping_;
  const std::shared_ptr<InputInjector> injector_;

  mutable std::mutex inputLock_;
  std::optional<PointerButton> heldButton_;
  DesktopPoint lastPoint_;
  double scrollRemainderX_ = 0;
  double scrollRemainderY_ = 0;
};

}  // namespace zul
