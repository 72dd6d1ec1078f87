#include <gtest/gtest.h>

#include "ZulAgent/demo/PhoneDemo.h"

namespace zul {
namespace {

TEST(PhoneDemo, SettingsAddressAndBanner) {
  const std::pair<const char*, double> seconds[] = {
      {nullptr, 300}, {"12", 12}, {"2.5", 2.5},   {"abc", 300}, {"-3", 300},
      {"nan", 300},   {"", 300},  {"1e308", 1e9}, {"inf", 300},
  };
  for (const auto& [text, expected] : seconds) {
    EXPECT_EQ(PhoneDemoSettings::fromValues(text, nullptr).seconds, expected) << (text ? text : "");
  }
  const std::pair<const char*, std::int64_t> ports[] = {
      {nullptr, 8787}, {"0", 0},        {"9000", 9000},
      {"x", 8787},     {"70000", 8787}, {"-1", 8787},
      {"", 8787},      {"1e9", 8787},   {"99999999999999999999", 8787},
  };
  for (const auto& [text, expected] : ports) {
    EXPECT_EQ(PhoneDemoSettings::fromValues(nullptr, text).port, expected) << (text ? text : "");
  }

  struct Case {
    std::vector<InterfaceAddress> addresses;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {{}, std::nullopt},
      {{{"lo", "127.0.0.1", true, true}}, std::nullopt},
      {{{"lo", "127.0.0.1", true, true}, {"eth0", "192.168.1.20", true, false}}, "192.168.1.20"},
      {{{"eth0", "192.168.1.20", false, false}, {"wlan0", "10.0.0.7", true, false}}, "10.0.0.7"},
      {{{"eth0", "203.0.113.9", true, false}, {"wlan0", "172.20.1.2", true, false}}, "172.20.1.2"},
      {{{"eth0", "203.0.113.9", true, false}, {"eth1", "169.254.3.3", true, false}}, "203.0.113.9"},
      {{{"eth0", "172.32.0.1", true, false}}, "172.32.0.1"},
      {{{"eth0", "203.0.113.9", true, false}, {"wlan0", "10.0.0.7", true, false}}, "10.0.0.7"},
  };
  for (const auto& c : cases) EXPECT_EQ(chooseLANAddress(c.addresses), c.expected);

  const auto banner = phoneDemoBanner(std::string("192.168.1.20"), 8787, 300.9);
  ASSERT_EQ(banner.size(), 8u);
  EXPECT_EQ(banner[4], "    http://192.168.1.20:8787");
  EXPECT_EQ(banner[6], "Running for 300s (override with ZUL_DEMO_SECONDS=<n>).");
  EXPECT_EQ(phoneDemoBanner(std::nullopt, 8787, 5)[4], "    http://<this-computer-lan-ip>:8787");
}

TEST(PhoneDemoRoutes, ServesPageOfferAndOneAnswer) {
  std::vector<std::string> printed, answers;
  PhoneDemoRoutes routes(
      "v=0 offer",
      [&](const std::string& sdp) {
        if (sdp == "broken") throw std::runtime_error("bad answer");
        answers.push_back(sdp);
      },
      [&](std::string_view line) { printed.emplace_back(line); });
  const std::string duplicate =
      "already connected to a previous answer \u2014 reload the computer-side demo (not just the "
      "phone page) to retry";
  struct Case {
    const char *method, *path, *body;
    int status;
    std::string text;  // the body (a part of the page's)
    const char* contentType = "text/plain; charset=utf-8";
  };
  const Case cases[] = {
      {"GET", "/", "", 200, "<title>Zul Linux agent \u2014 transport smoke test</title>",
       "text/html; charset=utf-8"},
      {"GET", "/offer", "", 200, "v=0 offer"},
      {"GET", "/offer", "", 200, "v=0 offer"},
      {"GET", "/answer", "", 404, "not found"},
      {"POST", "/offer", "", 404, "not found"},
      {"GET", "/offer?x", "", 404, "not found"},
      {"get", "/", "", 404, "not found"},
      {"GET", "/nope", "", 404, "not found"},
      {"POST", "/answer", "broken", 400, "failed to accept answer: bad answer"},
      {"POST", "/answer", "v=0 answer", 200,
       "answer accepted \u2014 ICE negotiation should start now"},
      {"POST", "/answer", "v=0 other", 409, duplicate},
  };
  for (const auto& c : cases) {
    const auto response = routes.handle(c.method, c.path, toBytes(c.body));
    SCOPED_TRACE(std::string(c.method) + " " + c.path + " " + c.body);
    EXPECT_EQ(response.status, c.status);
    EXPECT_EQ(response.contentType, c.status == 200 ? c.contentType : response.contentType);
    if (c.path == std::string("/") && c.status == 200) {
      EXPECT_NE(toString(response.body).find(c.text), std::string::npos);
    } else {
      EXPECT_EQ(toString(response.body), c.text);
    }
  }
  EXPECT_EQ(answers, std::vector<std::string>{"v=0 answer"});
  EXPECT_EQ(printed, std::vector<std::string>{"rejected duplicate /answer: " + duplicate});
}

}  // namespace
}  // namespace zul
