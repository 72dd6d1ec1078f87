#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace zul {

// Asks the person at the computer, in a desktop notification with
// «Разрешить» and «Отклонить», whether a phone may connect. No answer within
// the limit, a dismissed question or a session without a notification
// service is a no. Any thread; each question waits on its caller's thread.
class ConnectionQuestions {
 public:
  explicit ConnectionQuestions(std::chrono::seconds limit = std::chrono::seconds(30))
      : limit_(limit) {}

  bool ask(const std::string& phoneName);
  // Every open question is answered no, and later ones at once (the agent
  // stops).
  void cancelAll();

 private:
  const std::chrono::seconds limit_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool cancelled_ = false;
};

}  // namespace zul
