#include "ZulCore/Input/PointerInputExecutor.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace zul {
namespace {

// Whole wheel steps out of an accumulated amount; the fraction stays behind.
int takeSteps(double& remainder, double delta) {
  remainder += delta;
  double whole = std::trunc(remainder);
  // A runaway request must not flood the display server.
  whole = std::clamp(whole, -100.0, 100.0);
  remainder -= whole;
  if (std::fabs(remainder) >= 1) remainder = 0;
  return static_cast<int>(whole);
}

}  // namespace

PointerInputExecutor::PointerInputExecutor(const VideoMapping& mapping,
                                           std::shared_ptr<InputInjector> injector)
    : mapping_(mapping), injector_(std::move(injector)) {}

DesktopPoint PointerInputExecutor::displayPoint(double wireX, double wireY) const {
  return mapping_.toDesktop(wireX, wireY);
}

void PointerInputExecutor::handle(const PointerAction& action) {
  const DesktopPoint point = displayPoint(action.x, action.y);
  // Held for the whole read-modify-post sequence so that a release cannot
  // slip between a "down" and its bookkeeping.
  std::lock_guard lock(inputLock_);
  lastPoint_ = point;
  switch (action.phase) {
    case PointerPhase::move:
      post(heldButton_ ? EventKind::dragged : EventKind::moved, point,
           heldButton_.value_or(action.button));
      break;
    case PointerPhase::down:
      // One button at a time: a "down" whose "up" never came is let go first.
      if (heldButton_) post(EventKind::up, point, *heldButton_);
      heldButton_ = action.button;
      post(EventKind::down, point, action.button);
      break;
    case PointerPhase::up:
      // An "up" naming another button still ends the held one.
      if (heldButton_ && *heldButton_ != action.button) post(EventKind::up, point, *heldButton_);
      heldButton_.reset();
      post(EventKind::up, point, action.button);
      break;
  }
}

void PointerInputExecutor::scroll(const ScrollAction& action) {
  std::optional<DesktopPoint> point;
  if (action.at) point = displayPoint(action.at->first, action.at->second);
  std::lock_guard lock(inputLock_);
  if (point) {
    lastPoint_ = *point;
    injector_->movePointer(*point);
  }
  const int stepsX = takeSteps(scrollRemainderX_, action.dx);
  const int stepsY = takeSteps(scrollRemainderY_, action.dy);
  if (stepsX != 0 || stepsY != 0) injector_->scroll(stepsX, stepsY);
}

void PointerInputExecutor::releaseHeldButton() {
  std::lock_guard lock(inputLock_);
  if (!heldButton_) return;
  const PointerButton button = *heldButton_;
  heldButton_.reset();
  post(EventKind::up, lastPoint_, button);
}

void PointerInputExecutor::releaseAll() {
  std::lock_guard lock(inputLock_);
  heldButton_.reset();
  injector_->releaseAll();
}

std::optional<PointerButton> PointerInputExecutor::heldButton() const {
  std::lock_guard lock(inputLock_);
  return heldButton_;
}

DesktopPoint PointerInputExecutor::lastPoint() const {
  std::lock_guard lock(inputLock_);
  return lastPoint_;
}

void PointerInputExecutor::post(EventKind kind, DesktopPoint point, PointerButton button) {
  // Every event carries its point: the pointer goes there first, as a
  // positioned mouse event would.
  injector_->movePointer(point);
  switch (kind) {
    case EventKind::moved:
    case EventKind::dragged:
      break;  // X reports motion with the held buttons' state
    case EventKind::down:
      injector_->setButton(button, true);
      break;
    case EventKind::up:
      injector_->setButton(button, false);
      break;
  }
}

}  // namespace zul
