#include "support/XvfbServer.h"

#include <cstdlib>
#include <stdexcept>

namespace zul::test {

XvfbServer::XvfbServer(int width, int height, int depth) {
  std::string screen =
      std::to_string(width) + "x" + std::to_string(height) + "x" + std::to_string(depth);
  ChildProcess::Options options;
  options.captureStdout = true;
  // -displayfd 1: Xvfb picks a free display number and prints it when ready.
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"Xvfb", "-displayfd", "1", "-screen", "0", screen, "-nolisten",
                               "tcp", "-ac", "-noreset", "+extension", "RANDR"},
      options);
  auto line = process_->readStdoutLine(std::chrono::seconds(20));
  if (!line || line->empty()) throw std::runtime_error("Xvfb did not start");
  display_ = ":" + *line;
}

int XvfbServer::run(const std::string& shellCommand) const {
  std::string command = "DISPLAY=" + display_ + " " + shellCommand;
  int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

SessionBus::SessionBus() {
  ChildProcess::Options options;
  options.captureStdout = true;
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--print-address=1"},
      options);
  auto line = process_->readStdoutLine(std::chrono::seconds(20));
  if (!line || line->empty()) throw std::runtime_error("dbus-daemon did not start");
  address_ = *line;
}

void SessionBus::startAccessibility() const {
  const std::string onBus = "DBUS_SESSION_BUS_ADDRESS='" + address_ + "' ";
  const bool ready = waitUntil(
      [&] {
        const std::string address =
            commandOutput(onBus +
                          "dbus-send --session --dest=org.a11y.Bus --print-reply=literal "
                          "/org/a11y/bus org.a11y.Bus.GetAddress 2>/dev/null");
        return !address.empty() &&
               std::system(("dbus-send --bus='" + address +
                            "' --dest=org.a11y.atspi.Registry --print-reply "
                            "/org/a11y/atspi/accessible/root "
                            "org.a11y.atspi.Accessible.GetChildren >/dev/null 2>&1")
                               .c_str()) == 0;
      },
      std::chrono::seconds(20));
  if (!ready) throw std::runtime_error("the accessibility bus did not start");
}

}  // namespace zul::test
