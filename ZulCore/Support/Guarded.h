#pragma once

#include <mutex>

namespace zul {

// A value with a lock of its own, held for one statement or scope.
template <typename T>
class Guarded {
 public:
  class Access {
   public:
    Access(std::mutex& mutex, T& value) : lock_(mutex), value_(value) {}
    T& operator*() { return value_; }
    T* operator->() { return &value_; }

   private:
    std::unique_lock<std::mutex> lock_;
    T& value_;
  };
  Access lock() { return {mutex_, value_}; }

 private:
  std::mutex mutex_;
  T value_{};
};

}  // namespace zul
