#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace zul {

// One thread that runs posted tasks in order: work that must not run on the
// thread that asked for it (a data channel's delivery thread) and must not
// overlap with itself (capture restarts, accessibility scans).
class TaskQueue {
 public:
  TaskQueue();
  // shutdown()
  ~TaskQueue();
  TaskQueue(const TaskQueue&) = delete;
  TaskQueue& operator=(const TaskQueue&) = delete;

  // False once shut down (the task is dropped).
  bool post(std::function<void()> task);
  // Lets the task in progress finish, drops the others, joins the thread.
  void shutdown();
  // Waits until every task posted so far has run.
  void waitUntilIdle();

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> tasks_;
  bool busy_ = false;
  bool stopping_ = false;
  std::thread worker_;
};

}  // namespace zul
