#pragma once

#include <memory>
#include <string>

#include "support/ChildProcess.h"

namespace zul::test {

// A private X server for one test: Xvfb on a free display number, no access
// control, torn down with the object.
class XvfbServer {
 public:
  explicit XvfbServer(int width = 1280, int height = 720, int depth = 24);
  const std::string& display() const { return display_; }  // ":N"
  ChildProcess& process() { return *process_; }
  // Runs a command against this display (xrandr, xdotool...); returns its exit code.
  int run(const std::string& shellCommand) const;

 private:
  std::unique_ptr<ChildProcess> process_;
  std::string display_;
};

// A private session bus for one test: DBUS_SESSION_BUS_ADDRESS to hand to the
// code under test (set it in the environment while the object lives).
class SessionBus {
 public:
  SessionBus();
  const std::string& address() const { return address_; }
  // Waits until the accessibility bus (started on demand by this bus) and
  // its registry answer: before the first AT-SPI client of a process.
  void startAccessibility() const;

 private:
  std::unique_ptr<ChildProcess> process_;
  std::string address_;
};

}  // namespace zul::test
