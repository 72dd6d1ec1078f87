#include <gtest/gtest.h>

#include <variant>

#include "ZulCore/Trust/ControlSessionLease.h"

namespace zul {
namespace {

struct Acquire {
  std::string session, device;
  bool replace;
  ControlLeaseResult expected;
};
struct Release {
  std::string session;
};
using Step = std::variant<Acquire, Release>;

struct Scenario {
  const char* name;
  std::vector<Step> steps;
  std::optional<std::string> holder;  // session holding the lease at the end
};

const std::optional<std::string> none;

TEST(ControlSessionLease, Scenarios) {
  const Scenario scenarios[] = {
      {"free lease is granted", {Acquire{"s1", "d1", false, {true, none, "s1"}}}, "s1"},
      {"same session and device is idempotent",
       {Acquire{"s1", "d1", false, {true, none, "s1"}},
        Acquire{"s1", "d1", false, {true, none, "s1"}}},
       "s1"},
      {"another session is refused without replace",
       {Acquire{"s1", "d1", false, {true, none, "s1"}},
        Acquire{"s2", "d2", false, {false, none, "s1"}}},
       "s1"},
      {"replace displaces any device",
       {Acquire{"s1", "d1", false, {true, none, "s1"}},
        Acquire{"s2", "d2", true, {true, "s1", "s2"}}},
       "s2"},
      {"same session from another device names itself replaced",
       {Acquire{"s1", "d1", false, {true, none, "s1"}},
        Acquire{"s1", "d2", true, {true, "s1", "s1"}}},
       "s1"},
      {"same session from another device without replace is refused",
       {Acquire{"s1", "d1", false, {true, none, "s1"}},
        Acquire{"s1", "d2", false, {false, none, "s1"}}},
       "s1"},
      {"a displaced session releasing late keeps the successor",
       {Acquire{"s1", "d1", false, {true, none, "s1"}},
        Acquire{"s2", "d1", true, {true, "s1", "s2"}}, Release{"s1"}},
       "s2"},
      {"release by the holder frees the lease",
       {Acquire{"s1", "d1", false, {true, none, "s1"}}, Release{"s1"},
        Acquire{"s2", "d2", false, {true, none, "s2"}}},
       "s2"},
      {"release on a free lease does nothing", {Release{"s1"}}, none},
  };
  for (const auto& scenario : scenarios) {
    SCOPED_TRACE(scenario.name);
    ControlSessionLease lease;
    for (const auto& step : scenario.steps) {
      if (auto* a = std::get_if<Acquire>(&step)) {
        EXPECT_EQ(lease.acquire(a->session, a->device, a->replace), a->expected);
      } else {
        lease.release(std::get<Release>(step).session);
      }
    }
    EXPECT_EQ(lease.activeSessionId(), scenario.holder);
  }
}

}  // namespace
}  // namespace zul
