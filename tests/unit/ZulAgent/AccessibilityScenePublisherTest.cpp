#include <gtest/gtest.h>

#include <future>

#include "ZulAgent/orchestration/AccessibilityScenePublisher.h"

namespace zul {
namespace {

struct Node : AccessibleElement {
  AccessibleElementInfo info;
  std::vector<AccessibleElementRef> kids;
};

// A window of push buttons, or no focused window at all.
class ButtonsBackend : public AccessibilityBackend {
 public:
  std::shared_ptr<Node> window;

  void focusWindowWithButtons(const std::vector<std::string>& labels) {
    window = std::make_shared<Node>();
    window->info = {.role = "frame",
                    .name = "Demo",
                    .visible = true,
                    .showing = true,
                    .rect = DesktopRect{0, 0, 800, 600}};
    double x = 10;
    for (const auto& label : labels) {
      auto button = std::make_shared<Node>();
      button->info = {.role = "push button",
                      .name = label,
                      .enabled = true,
                      .visible = true,
                      .showing = true,
                      .rect = DesktopRect{x, 10, 80, 30},
                      .actions = std::vector<std::string>{"click"}};
      window->kids.push_back(button);
      x += 100;
    }
  }

  bool isAvailable() override { return true; }
  std::optional<AccessibleWindow> focusedWindow() override {
    if (!window) return std::nullopt;
    return AccessibleWindow{window, "Demo", window->info.rect, "demo", 7};
  }
  std::vector<AccessibleWindowControl> windowControls(const AccessibleElementRef&) override {
    return {};
  }
  std::vector<AccessibleElementRef> children(const AccessibleElementRef& e) override {
    return static_cast<Node&>(*e).kids;
  }
  AccessibleElementInfo describe(const AccessibleElementRef& e) override {
    return static_cast<Node&>(*e).info;
  }
  bool focus(const AccessibleElementRef&) override { return false; }
  std::int32_t performAction(const AccessibleElementRef&, const std::string&) override { return 0; }
};

// The publisher over a scene source that may have a focused window.
struct Publisher {
  std::shared_ptr<ButtonsBackend> backend = std::make_shared<ButtonsBackend>();
  std::shared_ptr<AccessibilitySceneSource> source =
      std::make_shared<AccessibilitySceneSource>(backend);
  std::mutex mutex;
  std::vector<nlohmann::json> sent;
  std::vector<std::string> printed;
  std::optional<std::string> session = "s-1";
  AccessibilityScenePublisher publisher{{
      .source = [this] { return source; },
      .activeSessionId = [this] { return session; },
      .sendScene =
          [this](const std::string& text) {
            std::lock_guard lock(mutex);
            sent.push_back(nlohmann::json::parse(text));
          },
      .print =
          [this](std::string_view line) {
            std::lock_guard lock(mutex);
            printed.emplace_back(line);
          },
      .nowMilliseconds = [] { return std::int64_t(42); },
      .hostName = "workstation",
  }};

  void publish(int times = 1) {
    for (int i = 0; i < times; ++i) publisher.publish();
    publisher.waitUntilIdle();
  }
};

TEST(AccessibilityScenePublisher, AnswersWithTheWholeComputerWhenNothingHasFocus) {
  Publisher p;
  p.publisher.setDisplay(VideoMapping::unscaled({-1280, 0, 0.4, 720}), 1);
  p.publish(2);
  ASSERT_EQ(p.sent.size(), 2u);
  const auto& snapshot = p.sent[0];
  EXPECT_EQ(snapshot["type"], "scene.snapshot");
  EXPECT_EQ(snapshot["sessionId"], "s-1");
  EXPECT_EQ(snapshot["source"], "none");
  EXPECT_EQ(snapshot["screen"], nlohmann::json::parse(R"({"w": 1, "h": 720, "scale": 1.0,
      "monitor": 1, "originX": -1280, "originY": 0, "hdr": false})"));
  EXPECT_TRUE(snapshot["elements"].empty());
  ASSERT_EQ(snapshot["windows"].size(), 1u);
  EXPECT_EQ(snapshot["activeWindow"]["id"], "axwin:unavailable");
  EXPECT_EQ(snapshot["activeWindow"]["title"], "workstation");
  EXPECT_EQ(snapshot["activeWindow"]["appId"], "linux.unknown");
  // Requests in a row get consecutive sequence numbers.
  EXPECT_EQ(snapshot["seq"], 1);
  EXPECT_EQ(p.sent[1]["seq"], 2);
  EXPECT_EQ(p.printed[0], "[scene] semantic scan found no focused accessible window");
}

TEST(AccessibilityScenePublisher, SendsTheFocusedWindowsElements) {
  Publisher p;
  p.backend->focusWindowWithButtons({"OK", "Cancel"});
  // A 1920x1080 display captured at 1280x720: the screen and every
  // rectangle are in the video's pixels.
  p.publisher.setDisplay(VideoMapping{{0, 0, 1920, 1080}, 1280, 720}, 0);
  p.publish();
  ASSERT_EQ(p.sent.size(), 1u);
  EXPECT_EQ(p.sent[0]["source"], "uia");
  EXPECT_EQ(p.sent[0]["screen"]["w"], 1280);
  EXPECT_EQ(p.sent[0]["screen"]["h"], 720);
  std::vector<std::string> texts;
  for (const auto& element : p.sent[0]["elements"]) {
    texts.push_back(element["text"]);
    if (element["text"] == "OK") {
      EXPECT_EQ(element["rect"], nlohmann::json::parse(R"({"x": 7, "y": 7, "w": 53, "h": 20})"));
    }
  }
  EXPECT_NE(std::find(texts.begin(), texts.end(), "OK"), texts.end());
  EXPECT_NE(std::find(texts.begin(), texts.end(), "Cancel"), texts.end());
  EXPECT_EQ(p.printed,
            (std::vector<std::string>{"semantic snapshot sent: " + std::to_string(texts.size()) +
                                      " elements, seq 1"}));
}

TEST(AccessibilityScenePublisher, SendsNothingWithoutASessionAndReportsSendFailures) {
  Publisher p;
  p.session.reset();
  p.publish();
  EXPECT_TRUE(p.sent.empty());

  p.session = "s-2";
  p.source = nullptr;  // as when AT-SPI cannot be reached
  AccessibilityScenePublisher failing{{
      .source = [] { return std::shared_ptr<AccessibilitySceneSource>(); },
      .activeSessionId = [] { return std::optional<std::string>("s-2"); },
      .sendScene = [](const std::string&) { throw std::runtime_error("channelNotOpen(scene)"); },
      .print = [&](std::string_view line) { p.printed.emplace_back(line); },
      .nowMilliseconds = [] { return std::int64_t(0); },
      .hostName = "h",
  }};
  failing.publish();
  failing.waitUntilIdle();
  EXPECT_EQ(p.printed.back(), "fallback semantic snapshot send failed: channelNotOpen(scene)");
}

}  // namespace
}  // namespace zul
