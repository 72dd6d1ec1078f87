#pragma once

#include <signal.h>

#include <chrono>

namespace zul {

// SIGINT and SIGTERM, taken by the thread that waits for them: blocked in
// every thread started while this object lives, and restored after it.
class StopSignals {
 public:
  StopSignals();
  // A signal that arrived during tear-down is consumed rather than left
  // pending to kill the process once unblocked.
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // The signal that arrived within `timeout`, or 0.
  int wait(std::chrono::milliseconds timeout);

 private:
  sigset_t set_;
  sigset_t previous_;
};

}  // namespace zul
