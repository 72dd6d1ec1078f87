#include "ZulAgent/orchestration/WatchedCapture.h"

#include <future>
#include <utility>

namespace zul {

WatchedCapture::WatchedCapture(Hooks hooks) : hooks_(std::move(hooks)) {}

WatchedCapture::~WatchedCapture() { shutdown(); }

DisplayDescriptor WatchedCapture::startOn(std::int64_t index) {
  std::promise<DisplayDescriptor> started;
  auto result = started.get_future();
  auto task = [this, index, &started] {
    try {
      const DisplayDescriptor display = hooks_.start(index);
      {
        std::lock_guard lock(mutex_);
        index_ = index;
        display_ = display;
        running_ = true;
      }
      apply();
      started.set_value(display);
    } catch (...) {
      started.set_exception(std::current_exception());
    }
  };
  if (!queue_.post(task)) task();
  return result.get();
}

void WatchedCapture::setWatched(bool watched) {
  {
    std::lock_guard lock(mutex_);
    watched_ = watched;
  }
  queue_.post([this] { apply(); });
}

void WatchedCapture::lost() {
  std::lock_guard lock(mutex_);
  running_ = false;
}

void WatchedCapture::resume() {
  queue_.post([this] { apply(); });
}

// Brings capture in line with whether anybody watches. On the queue's thread.
void WatchedCapture::apply() {
  bool watched, running;
  std::int64_t index;
  DisplayDescriptor left;
  {
    std::lock_guard lock(mutex_);
    watched = watched_;
    running = running_;
    index = index_;
    left = display_;
  }
  if (watched == running) return;
  if (watched) {
    DisplayDescriptor resumed;
    try {
      if (hooks_.indexOf) index = hooks_.indexOf(left.displayID).value_or(0);
      resumed = hooks_.start(index);
      hooks_.print("capture resumed: a phone watches");
    } catch (const std::exception& error) {
      hooks_.print(std::string("capture failed to resume: ") + error.what());
      return;
    }
    {
      std::lock_guard lock(mutex_);
      index_ = resumed.index;
      display_ = resumed;
      running_ = true;
    }
    if (!(resumed == left) && hooks_.resumedElsewhere) hooks_.resumedElsewhere(resumed);
    return;
  } else {
    hooks_.stop();
    hooks_.print("capture paused: no phone watches");
  }
  std::lock_guard lock(mutex_);
  running_ = watched;
}

void WatchedCapture::shutdown() {
  queue_.shutdown();
  bool running;
  {
    std::lock_guard lock(mutex_);
    running = std::exchange(running_, false);
  }
  if (running) hooks_.stop();
}

bool WatchedCapture::running() const {
  std::lock_guard lock(mutex_);
  return running_;
}

}  // namespace zul
