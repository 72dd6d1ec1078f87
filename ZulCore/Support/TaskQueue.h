#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <limits>
#include <mutex>
#include <thread>

namespace zul {

// One thread that runs posted tasks in order: work that must not run on the
// thread that asked for it (a data channel's delivery thread, the signalling
// read loop) and must not overlap with itself (typing, capture restarts,
// accessibility scans). The queue is bounded, so a phone that sends faster
// than the desktop can act cannot make the agent hoard work.
class TaskQueue {
 public:
  enum class Overflow {
    dropNewest,  // a full queue refuses the new task
    latestWins,  // the new task replaces every task still waiting
  };

  explicit TaskQueue(std::size_t capacity = std::numeric_limits<std::size_t>::max(),
                     Overflow overflow = Overflow::dropNewest);
  // shutdown()
  ~TaskQueue();
  TaskQueue(const TaskQueue&) = delete;
  TaskQueue& operator=(const TaskQueue&) = delete;

  // False when the task was dropped: the queue is shut down, or full and
  // dropping new tasks.
  bool post(std::function<void()> task);
  // Lets the task in progress finish, drops the others, joins the thread.
  void shutdown();
  // Waits until every task posted so far has run.
  void waitUntilIdle();

 private:
  void run();

  const std::size_t capacity_;
  const Overflow overflow_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> tasks_;
  bool busy_ = false;
  bool stopping_ = false;
  std::thread worker_;
};

}  // namespace zul
