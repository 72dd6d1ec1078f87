#include "support/ThrottledLink.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <utility>

#include "support/ChildProcess.h"

namespace zul::test {
namespace {

bool run(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

void remove(const std::string& name, const std::string& veth) {
  if (!veth.empty()) run("ip link del " + veth);
  if (!name.empty()) run("ip netns del " + name);
}

}  // namespace

std::optional<ThrottledLink> ThrottledLink::make(const std::string& rate, int delayMsEachWay,
                                                 std::string* why) {
  auto refuse = [&](const std::string& reason) -> std::optional<ThrottledLink> {
    if (why) *why = reason;
    return std::nullopt;
  };
  if (geteuid() != 0) return refuse("network namespaces need root");
  if (!haveProgram("ip") || !haveProgram("tc")) return refuse("ip or tc is not installed");
  static std::atomic<int> made{0};
  const std::string tag = std::to_string(getpid()) + "x" + std::to_string(made++);
  const std::string name = "zulthrottle" + tag;
  const std::string outside = "zt" + tag + "o", inside = "zt" + tag + "i";
  for (const std::string& command : {
           "ip netns add " + name,
           "ip link add " + outside + " type veth peer name " + inside,
           "ip link set " + inside + " netns " + name,
           "ip addr add " + std::string(outsideAddress) + "/24 dev " + outside,
           "ip link set " + outside + " up",
           "ip -n " + name + " addr add " + insideAddress + "/24 dev " + inside,
           "ip -n " + name + " link set " + inside + " up",
           "ip -n " + name + " link set lo up",
       }) {
    if (!run(command)) {
      remove(name, outside);
      return refuse("could not run: " + command);
    }
  }
  for (const std::string& shaping :
       {"netem rate " + rate + " delay " + std::to_string(delayMsEachWay) + "ms",
        "tbf rate " + rate + " burst 32kbit limit 1500000"}) {
    if (run("tc qdisc add dev " + outside + " root " + shaping) &&
        run("ip netns exec " + name + " tc qdisc add dev " + inside + " root " + shaping)) {
      return ThrottledLink(name, outside, shaping);
    }
    run("tc qdisc del dev " + outside + " root");
  }
  remove(name, outside);
  return refuse("tc can shape neither with netem nor with tbf");
}

ThrottledLink::ThrottledLink(ThrottledLink&& other) noexcept
    : name_(std::move(other.name_)),
      veth_(std::move(other.veth_)),
      shaping_(std::move(other.shaping_)) {
  other.name_.clear();
  other.veth_.clear();
}

ThrottledLink& ThrottledLink::operator=(ThrottledLink&& other) noexcept {
  std::swap(name_, other.name_);
  std::swap(veth_, other.veth_);
  std::swap(shaping_, other.shaping_);
  return *this;
}

ThrottledLink::~ThrottledLink() { remove(name_, veth_); }

std::vector<std::string> ThrottledLink::wrap(std::vector<std::string> command) const {
  command.insert(command.begin(), {"ip", "netns", "exec", name_});
  return command;
}

}  // namespace zul::test
