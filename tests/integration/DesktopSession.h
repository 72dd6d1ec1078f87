#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/XvfbServer.h"

namespace zul::test {

// One desktop for the whole test program: Xvfb, a session bus and the
// accessibility bus with its registry. libatspi connects once per process,
// so every test shares it. DISPLAY and DBUS_SESSION_BUS_ADDRESS point at it
// while it lives. Its screen holds two RandR monitors: "zul-main", 1920x1080
// at 0,0, and "zul-side", 1280x1024 at 1920,176.
class DesktopSession {
 public:
  // Starts it on first use; nothing when a required program is missing
  // (`whyMissing` says which).
  static DesktopSession* get();
  static std::string whyMissing();
  static void shutdown();

  const std::string& display() const { return xvfb_->display(); }
  ~DesktopSession();

 private:
  DesktopSession();
  std::unique_ptr<XvfbServer> xvfb_;
  // An X connection held open for the session's life: Xvfb resets itself
  // (keyboard map, root properties) whenever its last client leaves.
  std::shared_ptr<void> keeper_;
  std::unique_ptr<SessionBus> bus_;
  std::string runtimeDir_;
};

// The GTK test window (tests/integration/apps/zul_test_app.py), started on
// the shared desktop with accessibility on.
class TestApp {
 public:
  explicit TestApp(std::vector<std::string> extraArgs = {});
  ~TestApp();

  struct Geometry {
    int x = 0, y = 0, width = 0, height = 0;
  };
  Geometry window;
  Geometry pad;

  // Waits for a line for which `match` is true; lines before it are kept in
  // `seen`. Nothing on time-out.
  std::optional<std::string> waitFor(const std::function<bool(const std::string&)>& match,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(10));
  std::optional<std::string> waitForPrefix(
      const std::string& prefix, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  std::vector<std::string> seen;

 private:
  std::unique_ptr<ChildProcess> process_;
};

// X state as a separate client sees it.
struct XState {
  static std::vector<unsigned long> keyboardMap(const std::string& display);
  static std::pair<int, int> pointer(const std::string& display);
  static unsigned buttonMask(const std::string& display);  // Button1Mask..Button5Mask bits
  static int pressedKeyCount(const std::string& display);
  static void lockCaps(const std::string& display, bool locked);
};

}  // namespace zul::test
