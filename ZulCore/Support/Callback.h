#pragma once

#include <functional>
#include <mutex>
#include <utility>

namespace zul {

// How a component tells its owner of an event: an optional `on...` handler,
// set from any thread under a lock of its own and called outside it, so a
// handler may call back into the component. An unset handler is skipped, and
// an owner's exception stays the owner's: it never reaches the component's
// thread.
template <typename... Args>
class Callback {
 public:
  using Handler = std::function<void(Args...)>;

  Callback() = default;
  Callback(const Callback&) = delete;
  Callback& operator=(const Callback&) = delete;

  Callback& operator=(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
    return *this;
  }
  Callback& operator=(std::nullptr_t) { return *this = Handler(); }

  explicit operator bool() const { return bool(handler()); }

  // The handler as it is now, for a caller that calls it later.
  Handler handler() const {
    std::lock_guard lock(mutex_);
    return handler_;
  }

  template <typename... Given>
  void operator()(Given&&... args) const {
    if (auto current = handler()) {
      try {
        current(std::forward<Given>(args)...);
      } catch (...) {
        // the owner's failure is its own
      }
    }
  }

 private:
  mutable std::mutex mutex_;
  Handler handler_;
};

}  // namespace zul
