#pragma once

#include <mutex>
#include <optional>
#include <string>

namespace zul {

struct ControlLeaseResult {
  bool granted = false;
  std::optional<std::string> replacedSessionId;  // the session displaced to grant this one
  std::optional<std::string> activeSessionId;    // who holds the lease after the call

  friend bool operator==(const ControlLeaseResult&, const ControlLeaseResult&) = default;
};

// The single control session of the process: at most one phone drives the
// computer at a time. Thread-safe.
class ControlSessionLease {
 public:
  ControlLeaseResult acquire(const std::string& sessionId, const std::string& deviceId,
                             bool replace);
  // Only the holder's session id frees the lease: a displaced session
  // releasing late must not evict its successor.
  void release(const std::string& sessionId);

  std::optional<std::string> activeSessionId() const;
  std::optional<std::string> activeDeviceId() const;

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> sessionId_;
  std::optional<std::string> deviceId_;
};

}  // namespace zul
