#include "ZulCore/Support/TaskQueue.h"

namespace zul {

TaskQueue::TaskQueue(std::size_t capacity, Overflow overflow)
    : capacity_(capacity == 0 ? 1 : capacity), overflow_(overflow), worker_([this] { run(); }) {}

TaskQueue::~TaskQueue() { shutdown(); }

bool TaskQueue::post(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return false;
    if (overflow_ == Overflow::latestWins) {
      tasks_.clear();
    } else if (tasks_.size() >= capacity_) {
      return false;
    }
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
  return true;
}

void TaskQueue::shutdown() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    tasks_.clear();
  }
  wake_.notify_all();
  idle_.notify_all();
  if (worker_.joinable() && worker_.get_id() != std::this_thread::get_id()) worker_.join();
}

void TaskQueue::waitUntilIdle() {
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [this] { return stopping_ || (tasks_.empty() && !busy_); });
}

void TaskQueue::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (stopping_) return;
    auto task = std::move(tasks_.front());
    tasks_.pop_front();
    busy_ = true;
    lock.unlock();
    try {
      task();
    } catch (...) {
      // Tasks report their own failures; one that escapes ends only itself.
    }
    lock.lock();
    busy_ = false;
    if (tasks_.empty()) idle_.notify_all();
  }
}

}  // namespace zul
