#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zul::test {

// A network namespace of its own behind a veth pair whose two ends `tc`
// shapes: a poor network between a process started inside (`wrap`) and the
// rest of the machine. netem limits the rate and delays each way; a kernel
// without netem gets a token bucket (tbf) that limits the rate only. Needs
// root, `ip` and `tc`; removed with the object.
class ThrottledLink {
 public:
  static constexpr const char* outsideAddress = "10.231.0.1";
  static constexpr const char* insideAddress = "10.231.0.2";

  // Nothing, with the reason in `why`, when namespaces cannot be made here.
  static std::optional<ThrottledLink> make(const std::string& rate, int delayMsEachWay,
                                           std::string* why = nullptr);
  ThrottledLink(ThrottledLink&& other) noexcept;
  ThrottledLink& operator=(ThrottledLink&& other) noexcept;
  ~ThrottledLink();

  // `command` run inside the namespace; `ip netns exec` execs it in place, so
  // the child's pid is the command's.
  std::vector<std::string> wrap(std::vector<std::string> command) const;
  // The shaping each end got, as given to tc.
  const std::string& shaping() const { return shaping_; }

 private:
  ThrottledLink(std::string name, std::string veth, std::string shaping)
      : name_(std::move(name)), veth_(std::move(veth)), shaping_(std::move(shaping)) {}
  std::string name_;
  std::string veth_;
  std::string shaping_;
};

}  // namespace zul::test
