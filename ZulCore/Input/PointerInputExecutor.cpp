#include "ZulCore/Input/PointerInputExecutor.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace zul {
namespace {

double numberOr(const nlohmann::json& payload, const char* key, double fallback) {
  if (!payload.is_object()) return fallback;
  auto it = payload.find(key);
  if (it == payload.end() || !it->is_number()) return fallback;
  double value = it->get<double>();
  return std::isfinite(value) ? value : fallback;
}

std::optional<std::string> stringAt(const nlohmann::json& payload, const char* key) {
  if (!payload.is_object()) return std::nullopt;
  auto it = payload.find(key);
  if (it == payload.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

// "right" and "middle" are themselves; every other name acts as the left
// button.
PointerButton buttonNamed(const std::string& name) {
  if (name == "right") return PointerButton::right;
  if (name == "middle") return PointerButton::middle;
  return PointerButton::left;
}

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

void PointerInputExecutor::handle(const nlohmann::json& payload,
                                  const PermissionGate& permissions) {
  permissions.demand(DevicePermission::control);
  auto phase = stringAt(payload, "phase");
  if (!phase) return;
  DesktopPoint point = displayPoint(numberOr(payload, "x", 0), numberOr(payload, "y", 0));
  std::string button = stringAt(payload, "button").value_or("left");

  // Held for the whole read-modify-post sequence so that a release cannot
  // slip between a "down" and its bookkeeping.
  std::lock_guard lock(inputLock_);
  lastPoint_ = point;
  if (*phase == "move") {
    if (heldButton_) {
      post(EventKind::dragged, point, *heldButton_);
    } else {
      post(EventKind::moved, point, button);
    }
  } else if (*phase == "down") {
    // One button at a time: a "down" whose "up" never came is let go first.
    if (heldButton_) post(EventKind::up, point, *heldButton_);
    heldButton_ = button;
    post(EventKind::down, point, button);
  } else if (*phase == "up") {
    // An "up" naming another button still ends the held one.
    if (heldButton_ && buttonNamed(*heldButton_) != buttonNamed(button)) {
      post(EventKind::up, point, *heldButton_);
    }
    heldButton_.reset();
    post(EventKind::up, point, button);
  }
}

void PointerInputExecutor::scroll(const nlohmann::json& payload,
                                  const PermissionGate& permissions) {
  permissions.demand(DevicePermission::control);
  if (!payload.is_object()) return;
  bool hasPoint = payload.contains("x") || payload.contains("y");
  DesktopPoint point;
  if (hasPoint) point = displayPoint(numberOr(payload, "x", 0), numberOr(payload, "y", 0));
  double dx = numberOr(payload, "dx", 0);
  double dy = numberOr(payload, "dy", 0);

  std::lock_guard lock(inputLock_);
  if (hasPoint) {
    lastPoint_ = point;
    injector_->movePointer(point);
  }
  int stepsX = takeSteps(scrollRemainderX_, dx);
  int stepsY = takeSteps(scrollRemainderY_, dy);
  if (stepsX != 0 || stepsY != 0) injector_->scroll(stepsX, stepsY);
}

void PointerInputExecutor::releaseHeldButton() {
  std::lock_guard lock(inputLock_);
  if (!heldButton_) return;
  std::string button = *heldButton_;
  heldButton_.reset();
  post(EventKind::up, lastPoint_, button);
}

void PointerInputExecutor::releaseAll() {
  std::lock_guard lock(inputLock_);
  heldButton_.reset();
  injector_->releaseAll();
}

std::optional<std::string> PointerInputExecutor::heldButton() const {
  std::lock_guard lock(inputLock_);
  return heldButton_;
}

DesktopPoint PointerInputExecutor::lastPoint() const {
  std::lock_guard lock(inputLock_);
  return lastPoint_;
}

void PointerInputExecutor::post(EventKind kind, DesktopPoint point, const std::string& button) {
  // Every event carries its point: the pointer goes there first, as a
  // positioned mouse event would.
  injector_->movePointer(point);
  switch (kind) {
    case EventKind::moved:
    case EventKind::dragged:
      break;  // X reports motion with the held buttons' state
    case EventKind::down:
      injector_->setButton(buttonNamed(button), true);
      break;
    case EventKind::up:
      injector_->setButton(buttonNamed(button), false);
      break;
  }
}

}  // namespace zul
