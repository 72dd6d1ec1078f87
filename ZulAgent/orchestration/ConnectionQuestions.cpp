#include "ZulAgent/orchestration/ConnectionQuestions.h"

#include <memory>
#include <optional>

#include "ZulAgent/windows/AgentWindowTexts.h"
#include "ZulPlatform/linux/notifications/StatusNotification.h"

namespace zul {

bool ConnectionQuestions::ask(const std::string& phoneName) {
  auto answer = std::make_shared<std::optional<bool>>();
  StatusNotification question;
  const auto answered = [this, answer](bool yes) {
    {
      std::lock_guard lock(mutex_);
      if (!*answer) *answer = yes;
    }
    changed_.notify_all();
  };
  question.onAction = [answered](const std::string& key) { answered(key == "allow"); };
  question.onDismissed = [answered] { answered(false); };
  if (!question.show(windows::connectQuestionTitle, windows::connectQuestion(phoneName),
                     {{"allow", "Разрешить"}, {"deny", "Отклонить"}})) {
    return false;
  }
  bool yes = false;
  {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit_, [&] { return cancelled_ || answer->has_value(); });
    yes = !cancelled_ && answer->value_or(false);
  }
  question.onAction = nullptr;
  question.onDismissed = nullptr;
  question.close();
  return yes;
}

void ConnectionQuestions::cancelAll() {
  {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
  }
  changed_.notify_all();
}

}  // namespace zul
