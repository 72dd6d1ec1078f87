// The phone demo as a person uses it: `zul-agent --phone-demo` on a private X
// screen, opened in headless Chromium, which must show that screen.

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <optional>

#include "HeadlessChromium.h"
#include "support/ChildProcess.h"
#include "support/ScreenPainter.h"
#include "support/ThrottledLink.h"
#include "support/XvfbServer.h"

namespace zul::test {
namespace {

using namespace std::chrono_literals;

constexpr unsigned red = 0xff0000, green = 0x00ff00, blue = 0x0000ff, white = 0xffffff;

constexpr const char* videoStats = R"js((async () => {
  const stats = await pc.getStats();
  let inbound = null;
  const codecs = {};
  stats.forEach((s) => {
    if (s.type === "inbound-rtp" && s.kind === "video") inbound = s;
    if (s.type === "codec") codecs[s.id] = s.mimeType;
  });
  if (!inbound) return { framesDecoded: 0, width: 0, height: 0, codec: "" };
  return { framesDecoded: inbound.framesDecoded || 0, width: inbound.frameWidth || 0,
           height: inbound.frameHeight || 0, codec: codecs[inbound.codecId] || "" };
})())js";

// The colour names seen at the centres of the four quadrants of the video.
constexpr const char* quadrantColours = R"js((() => {
  const v = document.getElementById("video");
  if (!v.videoWidth) return [];
  const c = document.createElement("canvas");
  c.width = v.videoWidth; c.height = v.videoHeight;
  const g = c.getContext("2d");
  g.drawImage(v, 0, 0);
  const name = (x, y) => {
    const [r, gr, b] = g.getImageData(Math.floor(x * c.width), Math.floor(y * c.height), 1, 1).data;
    const hi = (n) => n > 160, lo = (n) => n < 90;
    if (hi(r) && hi(gr) && hi(b)) return "white";
    if (hi(r) && lo(gr) && lo(b)) return "red";
    if (lo(r) && hi(gr) && lo(b)) return "green";
    if (lo(r) && lo(gr) && hi(b)) return "blue";
    return `other(${r},${gr},${b})`;
  };
  return [name(.25, .25), name(.75, .25), name(.25, .75), name(.75, .75)];
})())js";

// On loopback, and with the agent behind a poor link (4 Mbit/s, 25 ms each
// way, in a network namespace of its own): the phone still gets the whole
// 1920x1080 picture, since frame rate and quality give way before size.
TEST(E2ePhoneDemo, BrowserShowsTheScreenInH264) {
  if (!HeadlessChromium::available()) GTEST_SKIP() << "no " << HeadlessChromium::program;
  if (!haveProgram("Xvfb")) GTEST_SKIP() << "no Xvfb";

  struct Row {
    const char* name;
    int width, height;
    bool throttled;
  } rows[] = {{"loopback", 1280, 720, false}, {"4 Mbit/s, 50 ms round trip", 1920, 1080, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::optional<ThrottledLink> link;
    if (row.throttled) {
      std::string why;
      link = ThrottledLink::make("4mbit", 25, &why);
      if (!link) GTEST_SKIP() << "no throttled link: " << why;
      SCOPED_TRACE("tc " + link->shaping());
    }
    XvfbServer xvfb(row.width, row.height);
    ScreenPainter painter(xvfb.display());
    auto show = [&](std::array<unsigned, 4> quadrants) {
      for (int q = 0; q < 4; ++q) {
        painter.fill(q % 2 * row.width / 2, q / 2 * row.height / 2, row.width / 2, row.height / 2,
                     quadrants[q]);
      }
    };
    show({red, green, blue, white});

    ChildProcess::Options options;
    options.env = {
        {"DISPLAY", xvfb.display()}, {"ZUL_DEMO_SECONDS", "120"}, {"ZUL_DEMO_PORT", "0"}};
    const std::vector<std::string> command = {ZUL_AGENT_PATH, "--phone-demo"};
    options.captureStdout = true;
    ChildProcess agent(link ? link->wrap(command) : command, options);
    // The announced address, from the banner line "    http://ADDRESS:PORT".
    const auto banner = agent.waitForLine("http://");
    ASSERT_TRUE(banner) << "no banner; output so far:\n" << agent.tail();
    const int port = std::stoi(banner->substr(banner->rfind(':') + 1));
    EXPECT_EQ(agent.countContaining("starting capture\u2026"), 1u) << agent.tail();

    HeadlessChromium browser;
    const std::string host = link ? ThrottledLink::insideAddress : "127.0.0.1";
    const std::string page = browser.openPage("http://" + host + ":" + std::to_string(port) + "/");

    ASSERT_TRUE(browser.waitFor(page, "typeof pc !== 'undefined'"));
    ASSERT_TRUE(browser.waitFor(
        page, std::string("(async () => (await ") + videoStats + ").framesDecoded > 5)()"))
        << "status: " << browser.evaluate(page, "document.getElementById('status').textContent");
    // The page says that it plays, not that it still waits.
    EXPECT_TRUE(browser.waitFor(
        page, "document.getElementById('status').textContent.startsWith('playing')"));
    const auto first = browser.evaluate(page, videoStats);
    EXPECT_EQ(first["codec"], "video/H264");
    EXPECT_EQ(first["width"], row.width);
    EXPECT_EQ(first["height"], row.height);

    const nlohmann::json expected = {"red", "green", "blue", "white"};
    EXPECT_TRUE(browser.waitFor(
        page, "JSON.stringify(" + std::string(quadrantColours) + ") === '" + expected.dump() + "'"))
        << browser.evaluate(page, quadrantColours).dump();

    // A change on the screen reaches the browser, still at full size.
    show({white, blue, green, red});
    const nlohmann::json changed = {"white", "blue", "green", "red"};
    EXPECT_TRUE(browser.waitFor(
        page, "JSON.stringify(" + std::string(quadrantColours) + ") === '" + changed.dump() + "'"))
        << browser.evaluate(page, quadrantColours).dump();
    const auto later = browser.evaluate(page, videoStats);
    EXPECT_EQ(later["width"], row.width);
    EXPECT_EQ(later["height"], row.height);

    // The page's own answer was the one; a second one is refused.
    const auto second = browser.evaluate(
        page, "fetch('/answer', {method: 'POST', body: 'v=0'}).then(r => r.status)");
    EXPECT_EQ(second, 409);
    EXPECT_EQ(browser.evaluate(page, "document.title"),
              "Zul Linux agent \u2014 transport smoke test");
  }
}

}  // namespace
}  // namespace zul::test
