#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ZulCore/Input/PointerInputExecutor.h"
#include "ZulTransport/PhoneRequests.h"
#include "support/ChildProcess.h"

namespace zul::test {

// A phone's pointer payload as the agent reads it: a "phase" makes it a
// pointer request, anything else a wheel request.
inline void drivePointer(PointerInputExecutor& pointer, nlohmann::json payload) {
  payload["type"] = payload.contains("phase") ? "input.cursor" : "input.scroll";
  const auto request = PhoneRequests::decode({"input", payload["type"], "1.0", "s", payload});
  if (!request) return;
  if (auto* press = std::get_if<PointerRequest>(&*request)) pointer.handle(press->action);
  if (auto* wheel = std::get_if<ScrollRequest>(&*request)) pointer.scroll(wheel->action);
}

// The GTK test window (apps/zul_test_app.py) with accessibility on, and the
// lines it prints about what it receives.
class TestApp {
 public:
  // On the X server of DISPLAY unless `options` say otherwise.
  explicit TestApp(std::vector<std::string> args = {},
                   ChildProcess::Options options = {.env = {{"GDK_BACKEND", "x11"}}}) {
    args.insert(args.begin(), {"/usr/bin/python3", ZUL_TEST_APP_PATH});
    options.unsetEnv.insert(options.unsetEnv.end(), {"NO_AT_BRIDGE", "GTK_MODULES"});
    options.captureStdout = true;
    process_ = std::make_unique<ChildProcess>(args, options);
    auto ready = waitFor("ready ", std::chrono::seconds(30));
    if (!ready) throw std::runtime_error("the test app did not start");
    std::istringstream(ready->substr(6)) >> window.x >> window.y >> window.width >> window.height >>
        pad.x >> pad.y >> pad.width >> pad.height;
  }
  // The first line for which `match` holds; lines before it are skipped,
  // the last one read is kept in `last`.
  std::optional<std::string> waitFor(const std::function<bool(const std::string&)>& match,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (auto line = process_->readStdoutLine(std::max(
               std::chrono::milliseconds(1), std::chrono::duration_cast<std::chrono::milliseconds>(
                                                 deadline - std::chrono::steady_clock::now())))) {
      last = *line;
      if (match(*line)) return line;
      if (std::chrono::steady_clock::now() > deadline) break;
    }
    return std::nullopt;
  }
  std::optional<std::string> waitFor(const std::string& prefix,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    return waitFor([&](const std::string& l) { return l.rfind(prefix, 0) == 0; }, timeout);
  }

  struct {
    int x = 0, y = 0, width = 0, height = 0;
  } window, pad;  // root coordinates
  std::string last;

 private:
  std::unique_ptr<ChildProcess> process_;
};

}  // namespace zul::test
