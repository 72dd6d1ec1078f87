#include "ZulCore/Trust/ControlSessionLease.h"

#include <utility>

namespace zul {

ControlLeaseResult ControlSessionLease::acquire(const std::string& sessionId,
                                                const std::string& deviceId, bool replace) {
  std::lock_guard lock(mutex_);
  if (!sessionId_) {
    sessionId_ = sessionId;
    deviceId_ = deviceId;
    return {true, std::nullopt, sessionId};
  }
  if (*sessionId_ == sessionId && deviceId_ == deviceId) return {true, std::nullopt, sessionId};
  if (replace) {
    auto replaced = std::exchange(sessionId_, sessionId);
    deviceId_ = deviceId;
    return {true, replaced, sessionId};
  }
  return {false, std::nullopt, sessionId_};
}

void ControlSessionLease::release(const std::string& sessionId) {
  std::lock_guard lock(mutex_);
  if (sessionId_ == sessionId) {
    sessionId_.reset();
    deviceId_.reset();
  }
}

std::optional<std::string> ControlSessionLease::activeSessionId() const {
  std::lock_guard lock(mutex_);
  return sessionId_;
}

std::optional<std::string> ControlSessionLease::activeDeviceId() const {
  std::lock_guard lock(mutex_);
  return deviceId_;
}

}  // namespace zul
