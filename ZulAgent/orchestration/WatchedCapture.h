#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>

#include "ZulCore/Media/DisplayDescriptor.h"
#include "ZulCore/Support/TaskQueue.h"

namespace zul {

// Screen capture that runs only while a phone is in session, so that capture
// and the video encoder idle when nobody watches. Starts and stops run in
// order on one thread of their own, never on the thread that asked.
class WatchedCapture {
 public:
  struct Hooks {
    // Stops capture and starts it on the display with this index; throws when
    // it cannot. Returns the display that capture resolved.
    std::function<DisplayDescriptor(std::int64_t index)> start;
    std::function<void()> stop;
    std::function<void(std::string_view)> print;
    // Optional. Where the display with this id is now, if still there:
    // monitors may come and go while nobody watches, so a resume follows the
    // display rather than its old index (else the first display).
    std::function<std::optional<std::int64_t>(std::uint32_t displayID)> indexOf;
    // Optional. Capture resumed on a display other than the one it left
    // (moved, resized or gone); the pointer and the phone must follow.
    std::function<void(const DisplayDescriptor&)> resumedElsewhere;
  };

  explicit WatchedCapture(Hooks hooks);
  // shutdown()
  ~WatchedCapture();
  WatchedCapture(const WatchedCapture&) = delete;
  WatchedCapture& operator=(const WatchedCapture&) = delete;

  // Captures display `index` from now on (start-up, display switches); waits
  // for the start and throws its failure. Without a watcher capture stops
  // again at once: the display is resolved, nothing is encoded.
  DisplayDescriptor startOn(std::int64_t index);
  // A phone came into session (true) or the last one left (false).
  void setWatched(bool watched);
  // Capture ended by itself (its desktop went away): it is started again at
  // the next resume() while a phone watches.
  void lost();
  // Starts capture again if a phone watches and it is not running; a start
  // that fails is tried again at the next call.
  void resume();
  // Stops capture and the thread.
  void shutdown();

  bool running() const;
  void waitUntilIdle() { queue_.waitUntilIdle(); }

 private:
  void apply();

  Hooks hooks_;
  mutable std::mutex mutex_;
  std::int64_t index_ = 0;
  DisplayDescriptor display_;  // what the last start resolved
  bool watched_ = false;
  bool running_ = false;
  TaskQueue queue_{64};  // last: its thread ends before the fields above go
};

}  // namespace zul
