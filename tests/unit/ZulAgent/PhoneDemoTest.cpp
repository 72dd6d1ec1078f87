#include <gtest/gtest.h>

#include "ZulAgent/demo/PhoneDemo.h"

namespace zul {
namespace {

TEST(PhoneDemoSettings, FromEnvironmentValues) {
  struct Case {
    const char* seconds;
    const char* port;
    double expectedSeconds;
    std::int64_t expectedPort;
  };
  const Case cases[] = {
      {nullptr, nullptr, 300, 8787},
      {"12", "0", 12, 0},
      {"2.5", "9000", 2.5, 9000},
      {"abc", "x", 300, 8787},
      {"-3", "70000", 300, 8787},
      {"nan", "-1", 300, 8787},
      {"", "", 300, 8787},
      {"1e308", "1e9", 1e9, 8787},
      {"inf", "99999999999999999999", 300, 8787},
  };
  for (const auto& c : cases) {
    const auto settings = PhoneDemoSettings::fromValues(c.seconds, c.port);
    EXPECT_EQ(settings.seconds, c.expectedSeconds) << (c.seconds ? c.seconds : "unset");
    EXPECT_EQ(settings.port, c.expectedPort) << (c.port ? c.port : "unset");
  }
}

TEST(PhoneDemoRoutes, ServesPageOfferAndOneAnswer) {
  std::vector<std::string> printed;
  std::vector<std::string> answers;
  bool failNext = false;
  PhoneDemoRoutes routes(
      "v=0 offer",
      [&](const std::string& sdp) {
        if (failNext) {
          failNext = false;
          throw std::runtime_error("bad answer");
        }
        answers.push_back(sdp);
      },
      [&](std::string_view line) { printed.emplace_back(line); });

  const auto page = routes.handle("GET", "/", {});
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.contentType, "text/html; charset=utf-8");
  EXPECT_NE(toString(page.body).find("<title>Zul Linux agent \u2014 transport smoke test</title>"),
            std::string::npos);
  for (int i = 0; i < 2; ++i) {
    const auto offer = routes.handle("GET", "/offer", {});
    EXPECT_EQ(offer.status, 200);
    EXPECT_EQ(offer.contentType, "text/plain; charset=utf-8");
    EXPECT_EQ(toString(offer.body), "v=0 offer");
  }
  struct Miss {
    const char* method;
    const char* path;
  };
  for (const Miss& m : {Miss{"GET", "/answer"}, Miss{"POST", "/offer"}, Miss{"GET", "/offer?x"},
                        Miss{"get", "/"}, Miss{"GET", "/nope"}}) {
    const auto response = routes.handle(m.method, m.path, {});
    EXPECT_EQ(response.status, 404) << m.method << " " << m.path;
    EXPECT_EQ(toString(response.body), "not found");
  }

  failNext = true;
  const auto failed = routes.handle("POST", "/answer", toBytes("broken"));
  EXPECT_EQ(failed.status, 400);
  EXPECT_EQ(toString(failed.body), "failed to accept answer: bad answer");

  const auto accepted = routes.handle("POST", "/answer", toBytes("v=0 answer"));
  EXPECT_EQ(accepted.status, 200);
  EXPECT_EQ(toString(accepted.body), "answer accepted \u2014 ICE negotiation should start now");
  EXPECT_EQ(answers, std::vector<std::string>{"v=0 answer"});

  const auto duplicate = routes.handle("POST", "/answer", toBytes("v=0 other"));
  EXPECT_EQ(duplicate.status, 409);
  const std::string text =
      "already connected to a previous answer \u2014 reload the computer-side demo (not just the "
      "phone page) to retry";
  EXPECT_EQ(toString(duplicate.body), text);
  EXPECT_EQ(printed, std::vector<std::string>{"rejected duplicate /answer: " + text});
  EXPECT_EQ(answers.size(), 1u);
}

TEST(PhoneDemo, ChoosesThePrivateLanAddress) {
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
  };
  for (const auto& c : cases) EXPECT_EQ(chooseLANAddress(c.addresses), c.expected);
}

TEST(PhoneDemo, Banner) {
  const std::string rule(58, '=');
  EXPECT_EQ(phoneDemoBanner(std::string("192.168.1.20"), 8787, 300.9),
            (std::vector<std::string>{
                "", rule, "Open this on your phone, same Wi-Fi as this computer:", "",
                "    http://192.168.1.20:8787", "",
                "Running for 300s (override with ZUL_DEMO_SECONDS=<n>).", rule}));
  EXPECT_EQ(phoneDemoBanner(std::nullopt, 8787, 5)[4], "    http://<this-computer-lan-ip>:8787");
}

}  // namespace
}  // namespace zul
