#pragma once

#include <X11/XKBlib.h>
#include <X11/Xlib.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "integration/TestApp.h"
#include "support/XvfbServer.h"

namespace zul::test {

// libatspi connects once per process: one desktop for the whole program.
// DISPLAY and DBUS_SESSION_BUS_ADDRESS point at it while it lives.
class Desktop {
 public:
  static Desktop* get() {
    static std::unique_ptr<Desktop> desktop(whyMissing().empty() ? new Desktop() : nullptr);
    return desktop.get();
  }
  static std::string whyMissing() {
    for (const char* program : {"Xvfb", "xrandr", "dbus-daemon", "dbus-send"}) {
      if (!haveProgram(program)) return std::string(program) + " is not installed";
    }
    if (!std::filesystem::exists("/usr/libexec/at-spi-bus-launcher")) return "no at-spi2-core";
    if (std::system("/usr/bin/python3 -c \"import gi; gi.require_version('Gtk', '3.0')\" "
                    ">/dev/null 2>&1") != 0) {
      return "python3-gi with GTK 3 is not installed";
    }
    return {};
  }
  ~Desktop() {
    XCloseDisplay(x);
    bus_.reset();
    xvfb_.reset();
    std::filesystem::remove_all(runtimeDir_);
  }
  const std::string& display() const { return xvfb_->display(); }

  // X state as the server sees it.
  std::vector<unsigned long> keyboardMap() {
    int minKeycode = 0, maxKeycode = 0, per = 0;
    XDisplayKeycodes(x, &minKeycode, &maxKeycode);
    KeySym* syms = XGetKeyboardMapping(x, KeyCode(minKeycode), maxKeycode - minKeycode + 1, &per);
    std::vector<unsigned long> out(syms, syms + (maxKeycode - minKeycode + 1) * per);
    XFree(syms);
    return out;
  }
  // Pointer position and held buttons (X's Button1Mask..Button5Mask bits).
  std::tuple<int, int, unsigned> pointer() {
    Window root, child;
    int rx = 0, ry = 0, wx = 0, wy = 0;
    unsigned mask = 0;
    XQueryPointer(x, DefaultRootWindow(x), &root, &child, &rx, &ry, &wx, &wy, &mask);
    return {rx, ry, mask & 0x1f00};
  }
  int pressedKeyCount() {
    char keys[32] = {};
    XQueryKeymap(x, keys);
    int count = 0;
    for (char byte : keys) count += __builtin_popcount(static_cast<unsigned char>(byte));
    return count;
  }
  void lockCaps(bool locked) {
    XkbLockModifiers(x, XkbUseCoreKbd, LockMask, locked ? LockMask : 0);
    XSync(x, False);
  }

 private:
  Desktop() : xvfb_(std::make_unique<XvfbServer>(3200, 1200)) {
    // Held open for the session's life: Xvfb resets itself (keyboard map,
    // monitors) whenever its last client leaves.
    x = XOpenDisplay(display().c_str());
    if (!x ||
        xvfb_->run("xrandr --setmonitor zul-main 1920/508x1080/286+0+0 screen >/dev/null") != 0 ||
        xvfb_->run("xrandr --setmonitor zul-side 1280/338x1024/271+1920+176 none >/dev/null") !=
            0) {
      throw std::runtime_error("the X server or its monitors did not come up");
    }
    // A private runtime directory keeps the sockets of concurrent sessions apart.
    char runtime[] = "/tmp/zul-desktop-XXXXXX";
    runtimeDir_ = mkdtemp(runtime);
    setenv("XDG_RUNTIME_DIR", runtime, 1);
    setenv("DISPLAY", display().c_str(), 1);
    bus_ = std::make_unique<SessionBus>();
    setenv("DBUS_SESSION_BUS_ADDRESS", bus_->address().c_str(), 1);
    unsetenv("NO_AT_BRIDGE");
    // Before the first application or libatspi client: libatspi reads the
    // application list once.
    bus_->startAccessibility();
  }
  std::unique_ptr<XvfbServer> xvfb_;
  std::unique_ptr<SessionBus> bus_;
  std::string runtimeDir_;

 public:
  Display* x = nullptr;
};

}  // namespace zul::test
