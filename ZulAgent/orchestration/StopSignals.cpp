#include "ZulAgent/orchestration/StopSignals.h"

#include <pthread.h>

#include <ctime>

namespace zul {

StopSignals::StopSignals() {
  sigemptyset(&set_);
  sigaddset(&set_, SIGINT);
  sigaddset(&set_, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set_, &previous_);
}

StopSignals::~StopSignals() {
  timespec none{};
  while (sigtimedwait(&set_, nullptr, &none) > 0) {
  }
  pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

int StopSignals::wait(std::chrono::milliseconds timeout) {
  timespec ts{static_cast<time_t>(timeout.count() / 1000),
              static_cast<long>((timeout.count() % 1000) * 1'000'000)};
  const int signal = sigtimedwait(&set_, nullptr, &ts);
  return signal > 0 ? signal : 0;
}

}  // namespace zul
