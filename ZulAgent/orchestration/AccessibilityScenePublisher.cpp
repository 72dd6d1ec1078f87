#include "ZulAgent/orchestration/AccessibilityScenePublisher.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace zul {

AccessibilityScenePublisher::AccessibilityScenePublisher(Hooks hooks) : hooks_(std::move(hooks)) {}

void AccessibilityScenePublisher::setDisplay(const VideoMapping& video, std::int64_t monitorIndex) {
  std::lock_guard lock(mutex_);
  screen_ = {video, monitorIndex};
}

void AccessibilityScenePublisher::shutdown() { tasks_.shutdown(); }

void AccessibilityScenePublisher::waitUntilIdle() { tasks_.waitUntilIdle(); }

void AccessibilityScenePublisher::publish() {
  std::int64_t sequence;
  Screen screen;
  {
    std::lock_guard lock(mutex_);
    if (sequence_ == std::numeric_limits<std::int64_t>::max()) {
      throw std::overflow_error("scene sequence exhausted");
    }
    sequence = ++sequence_;
    screen = screen_;
  }
  tasks_.post([this, sequence, screen] { publishNow(sequence, screen); });
}

nlohmann::json AccessibilityScenePublisher::snapshot(const AccessibilityScene& scene,
                                                     const Screen& screen,
                                                     const std::string& sessionId,
                                                     std::int64_t timestampMs, const char* source) {
  nlohmann::json windows = nlohmann::json::array();
  for (const auto& window : scene.windows) windows.push_back(window.toJson());
  nlohmann::json elements = nlohmann::json::array();
  for (const auto& element : scene.elements) elements.push_back(element.toJson());
  const auto side = [](double value) { return std::max<std::int64_t>(std::int64_t(value), 1); };
  return {
      {"type", "scene.snapshot"},
      {"protoVersion", "1.0"},
      {"ts", timestampMs},
      {"sessionId", sessionId},
      {"seq", scene.sequence},
      // The video's size, the space of every rectangle here; the origin
      // says where the display lies on the desktop.
      {"screen",
       {{"w", side(screen.video.videoWidth)},
        {"h", side(screen.video.videoHeight)},
        {"scale", 1.0},
        {"monitor", screen.monitorIndex},
        {"originX", std::int64_t(screen.video.display.minX())},
        {"originY", std::int64_t(screen.video.display.minY())},
        {"hdr", false}}},
      {"activeWindow", scene.activeWindow.toJson()},
      {"windows", std::move(windows)},
      {"elements", std::move(elements)},
      {"source", source},
      {"stalenessMs", 0},
      {"profileRef", nullptr},
  };
}

AccessibilityScene AccessibilityScenePublisher::fallbackScene(std::int64_t sequence,
                                                              const VideoMapping& video,
                                                              const std::string& hostName) {
  SceneWindow window;
  window.id = "axwin:unavailable";
  window.appId = "linux.unknown";
  window.title = hostName;
  window.rect = {0, 0, video.videoWidth, video.videoHeight};
  window.process = "unknown";
  window.className = "desktop";
  AccessibilityScene scene;
  scene.sequence = sequence;
  scene.activeWindow = window;
  scene.windows = {window};
  return scene;
}

void AccessibilityScenePublisher::publishNow(std::int64_t sequence, Screen screen) {
  const auto sessionId = hooks_.activeSessionId();
  if (!sessionId) return;
  std::optional<AccessibilityScene> scene;
  try {
    if (auto source = hooks_.source())
      scene = source->scan(sequence, screen.video, scanBudgetSeconds);
  } catch (const std::exception& error) {
    hooks_.print(std::string("[scene] accessibility unavailable: ") + error.what());
  }
  const bool scanned = scene.has_value();
  if (!scanned) {
    hooks_.print("[scene] semantic scan found no focused accessible window");
    scene = fallbackScene(sequence, screen.video, hooks_.hostName);
  }
  const auto message =
      snapshot(*scene, screen, *sessionId, hooks_.nowMilliseconds(), scanned ? "uia" : "none");
  try {
    hooks_.sendScene(message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    if (scanned) {
      hooks_.print("semantic snapshot sent: " + std::to_string(scene->elements.size()) +
                   " elements, seq " + std::to_string(sequence));
    }
  } catch (const std::exception& error) {
    hooks_.print(std::string(scanned ? "semantic snapshot send failed: "
                                     : "fallback semantic snapshot send failed: ") +
                 error.what());
  }
}

}  // namespace zul
