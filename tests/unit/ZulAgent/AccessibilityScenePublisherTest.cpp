#include <gtest/gtest.h>

#include "ZulAgent/orchestration/AccessibilityScenePublisher.h"

namespace zul {
namespace {

struct Node : AccessibleElement {
  AccessibleElementInfo info;
  std::vector<AccessibleElementRef> kids;
};

// A focused window of push buttons, or none.
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
    for (const auto& label : labels) {
      auto button = std::make_shared<Node>();
      button->info = {.role = "push button",
                      .name = label,
                      .enabled = true,
                      .visible = true,
                      .showing = true,
                      .rect = DesktopRect{10 + 100.0 * window->kids.size(), 10, 80, 30},
                      .actions = std::vector<std::string>{"click"}};
      window->kids.push_back(button);
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

TEST(AccessibilityScenePublisher, AnswersEveryRequestInTheVideosPixels) {
  auto backend = std::make_shared<ButtonsBackend>();
  std::vector<nlohmann::json> sent;
  std::vector<std::string> printed;
  std::optional<std::string> session = "s-1";
  AccessibilityScenePublisher publisher{{
      .source = [&] { return std::make_shared<AccessibilitySceneSource>(backend); },
      .activeSessionId = [&] { return session; },
      .sendScene = [&](const std::string& text) { sent.push_back(nlohmann::json::parse(text)); },
      .print = [&](std::string_view line) { printed.emplace_back(line); },
      .nowMilliseconds = [] { return std::int64_t(42); },
      .hostName = "workstation",
  }};
  auto publish = [&](int times) {
    for (int i = 0; i < times; ++i) publisher.publish();
    publisher.waitUntilIdle();
  };

  // Nothing has focus: the whole computer is the one window. A second
  // monitor left of the first, its width rounded up to one pixel.
  publisher.setDisplay(VideoMapping::unscaled({-1280, 0, 0.4, 720}), 1);
  publish(2);
  ASSERT_EQ(sent.size(), 2u);
  const auto window = nlohmann::json::parse(R"({"appId": "linux.unknown", "className": "desktop",
      "icon": "", "id": "axwin:unavailable", "pid": 0, "process": "unknown",
      "rect": {"h": 720, "w": 0, "x": 0, "y": 0}, "title": "workstation"})");
  auto expected = nlohmann::json::parse(R"({"elements": [], "profileRef": null, "protoVersion":
      "1.0", "screen": {"h": 720, "hdr": false, "monitor": 1, "originX": -1280, "originY": 0,
      "scale": 1.0, "w": 1}, "seq": 1, "sessionId": "s-1", "source": "none", "stalenessMs": 0,
      "ts": 42, "type": "scene.snapshot"})");
  expected["activeWindow"] = window;
  expected["windows"] = {window};
  EXPECT_EQ(sent[0], expected);
  EXPECT_EQ(sent[1]["seq"], 2);  // requests in a row: consecutive numbers
  EXPECT_EQ(printed[0], "[scene] semantic scan found no focused accessible window");

  // A 1920x1080 display captured at 1280x720: the screen and every rectangle
  // are in the video's pixels.
  backend->focusWindowWithButtons({"OK", "Cancel"});
  publisher.setDisplay(VideoMapping{{0, 0, 1920, 1080}, 1280, 720}, 0);
  sent.clear();
  printed.clear();
  publish(1);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0]["source"], "uia");
  EXPECT_EQ(sent[0]["seq"], 3);
  EXPECT_EQ(sent[0]["screen"]["w"], 1280);
  EXPECT_EQ(sent[0]["screen"]["h"], 720);
  std::map<std::string, nlohmann::json> rects;
  for (const auto& element : sent[0]["elements"]) rects[element["text"]] = element["rect"];
  EXPECT_EQ(rects["OK"], nlohmann::json::parse(R"({"x": 7, "y": 7, "w": 53, "h": 20})"));
  EXPECT_EQ(rects["Cancel"], nlohmann::json::parse(R"({"x": 73, "y": 7, "w": 54, "h": 20})"));
  EXPECT_EQ(printed, std::vector<std::string>{
                         "semantic snapshot sent: " + std::to_string(sent[0]["elements"].size()) +
                         " elements, seq 3"});

  session.reset();
  publish(1);
  EXPECT_EQ(sent.size(), 1u) << "nothing without a session";

  // No accessibility bus and a channel that is not open.
  AccessibilityScenePublisher failing{{
      .source = [] { return std::shared_ptr<AccessibilitySceneSource>(); },
      .activeSessionId = [] { return std::optional<std::string>("s-2"); },
      .sendScene = [](const std::string&) { throw std::runtime_error("channelNotOpen(scene)"); },
      .print = [&](std::string_view line) { printed.emplace_back(line); },
      .nowMilliseconds = [] { return std::int64_t(0); },
      .hostName = "h",
  }};
  failing.publish();
  failing.waitUntilIdle();
  EXPECT_EQ(printed.back(), "fallback semantic snapshot send failed: channelNotOpen(scene)");
}

}  // namespace
}  // namespace zul
