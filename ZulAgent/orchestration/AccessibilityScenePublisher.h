#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "ZulCore/Input/DesktopRect.h"
#include "ZulCore/Input/VideoMapping.h"
#include "ZulCore/Scene/AccessibilityScene.h"
#include "ZulCore/Scene/AccessibilitySceneSource.h"
#include "ZulCore/Support/TaskQueue.h"

namespace zul {

// Answers the phone's "scene.request_snapshot": scans the focused window and
// sends one "scene.snapshot" on the "scene" channel, or, when no focused
// accessible window is found, a snapshot with the whole computer as its one
// window, so that every request is answered. Scans run one at a time on the
// publisher's own thread.
class AccessibilityScenePublisher {
 public:
  struct Hooks {
    // The scene source; may throw or give nothing (no accessibility bus).
    std::function<std::shared_ptr<AccessibilitySceneSource>()> source;
    std::function<std::optional<std::string>()> activeSessionId;
    // Writes a message on the "scene" channel; may throw.
    std::function<void(const std::string&)> sendScene;
    std::function<void(std::string_view)> print;
    std::function<std::int64_t()> nowMilliseconds;
    std::string hostName;  // the fallback window's title
  };

  // Long enough for the first elements of a window on a busy machine, where
  // each rectangle is a round trip to the application; a large window stops
  // at the element limit well before it.
  static constexpr double scanBudgetSeconds = 1.0;

  explicit AccessibilityScenePublisher(Hooks hooks);

  // The captured display and the video it is seen in, when capture resolves
  // or switches it; scene rectangles are sent in the video's pixels.
  void setDisplay(const VideoMapping& video, std::int64_t monitorIndex);
  // Queues one snapshot; its sequence number is taken now.
  void publish();
  void shutdown();
  void waitUntilIdle();

  struct Screen {
    VideoMapping video;
    std::int64_t monitorIndex = 0;
  };
  static nlohmann::json snapshot(const AccessibilityScene& scene, const Screen& screen,
                                 const std::string& sessionId, std::int64_t timestampMs,
                                 const char* source);
  static AccessibilityScene fallbackScene(std::int64_t sequence, const VideoMapping& video,
                                          const std::string& hostName);

 private:
  void publishNow(std::int64_t sequence, Screen screen);

  Hooks hooks_;
  std::mutex mutex_;
  Screen screen_;
  std::int64_t sequence_ = 0;
  TaskQueue tasks_;  // last: its thread ends before the fields above go
};

}  // namespace zul
