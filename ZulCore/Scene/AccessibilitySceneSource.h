#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "ZulCore/Input/DesktopRect.h"
#include "ZulCore/Input/VideoMapping.h"
#include "ZulCore/Scene/AccessibilityBackend.h"
#include "ZulCore/Scene/AccessibilityScene.h"
#include "ZulCore/Support/Error.h"

namespace zul {

class AccessibilitySceneError : public Error {
 public:
  enum class Case { axFailure, permissionRequired, staleElement, notInvokable };

  static AccessibilitySceneError axFailure(std::int32_t code);
  static AccessibilitySceneError permissionRequired();
  static AccessibilitySceneError staleElement();
  static AccessibilitySceneError notInvokable();

  Case kind() const { return kind_; }
  std::int32_t code() const { return code_; }
  friend bool operator==(const AccessibilitySceneError& a, const AccessibilitySceneError& b) {
    return a.kind_ == b.kind_ && a.code_ == b.code_;
  }

 private:
  AccessibilitySceneError(Case kind, std::string text, std::int32_t code = 0)
      : Error(std::move(text)), kind_(kind), code_(code) {}
  Case kind_;
  std::int32_t code_;
};

// Gives the phone a flat, labelled view of the focused window and performs
// element actions by the identifiers it published.
class AccessibilitySceneSource {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  static constexpr std::chrono::seconds elementLifetime{3};
  static constexpr std::int64_t sceneTolerance = 2;  // scenes back or ahead
  static constexpr int maxDepth = 64;

  explicit AccessibilitySceneSource(std::shared_ptr<AccessibilityBackend> backend,
                                    Clock clock = {});

  // Walks the focused window breadth-first until 200 elements are collected or
  // `budgetSeconds` have passed. Rectangles are in the video's pixels, as
  // `video` maps the captured display. Nothing when no focused window is
  // found. Never throws.
  std::optional<AccessibilityScene> scan(std::int64_t sequence, const VideoMapping& video,
                                         double budgetSeconds);

  // Focuses a text field, otherwise performs the element's default action.
  // Throws AccessibilitySceneError.
  void invoke(const std::string& elementId, std::int64_t sceneSequence);

  // Action names in the order they are preferred for each kind of default
  // action (compared without regard to case).
  static std::optional<std::string> chooseAction(const std::vector<std::string>& actions);

 private:
  struct Remembered {
    AccessibleElementRef element;
    std::int64_t sequence = 0;
    std::chrono::steady_clock::time_point expiresAt;
    bool editable = false;
  };

  std::shared_ptr<AccessibilityBackend> backend_;
  Clock clock_;

  std::mutex lock_;
  std::map<std::string, Remembered> remembered_;
};

}  // namespace zul
