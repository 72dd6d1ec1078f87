// Desktop control figures on a private X server: how long an input request
// takes from the executor's call until an X client sees the event, and how
// long a scan of a window with a thousand widgets takes. Prints figures only.
#include <X11/Xlib.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ZulCore/Input/KeyboardExecutor.h"
#include "ZulCore/Input/PointerInputExecutor.h"
#include "ZulCore/Scene/AccessibilitySceneSource.h"
#include "ZulPlatform/linux/accessibility/AtspiAccessibilityBackend.h"
#include "ZulPlatform/linux/x11/XTestInputInjector.h"
#include "integration/TestDesktop.h"

namespace {

using Clock = std::chrono::steady_clock;
using zul::test::Desktop;

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

struct Stats {
  std::vector<double> values;
  void add(double v) { values.push_back(v); }
  void print(const char* what) {
    std::sort(values.begin(), values.end());
    auto at = [&](double q) { return values[static_cast<std::size_t>(q * (values.size() - 1))]; };
    std::printf("%-44s n=%-4zu median %8.3f ms   p95 %8.3f ms   max %8.3f ms\n", what,
                values.size(), at(0.5), at(0.95), values.back());
  }
};

// A client of its own that covers the screen and reports what reaches it.
class Watcher {
 public:
  explicit Watcher(const std::string& name) : d_(XOpenDisplay(name.c_str())) {
    XSetWindowAttributes attributes{};
    attributes.override_redirect = True;
    attributes.event_mask =
        PointerMotionMask | ButtonPressMask | ButtonReleaseMask | KeyPressMask | KeyReleaseMask;
    window_ =
        XCreateWindow(d_, DefaultRootWindow(d_), 0, 0, 1280, 720, 0, CopyFromParent, InputOutput,
                      CopyFromParent, CWOverrideRedirect | CWEventMask, &attributes);
    XMapRaised(d_, window_);
    XSync(d_, False);
    XSetInputFocus(d_, window_, RevertToParent, CurrentTime);
    XSync(d_, False);
    drain();
  }
  ~Watcher() { XCloseDisplay(d_); }

  // Waits for an event of `type`; its arrival time, or nothing after 2 s.
  std::optional<Clock::time_point> waitFor(int type) {
    auto deadline = Clock::now() + std::chrono::seconds(2);
    while (Clock::now() < deadline) {
      while (XPending(d_) > 0) {
        XEvent e;
        XNextEvent(d_, &e);
        if (e.type == type) return Clock::now();
      }
      pollfd fd{ConnectionNumber(d_), POLLIN, 0};
      poll(&fd, 1, 20);
    }
    return std::nullopt;
  }
  void drain() {
    XSync(d_, False);
    while (XPending(d_) > 0) {
      XEvent e;
      XNextEvent(d_, &e);
    }
  }

 private:
  Display* d_;
  Window window_;
};

}  // namespace

int main(int argc, char** argv) {
  const bool scanOnly = argc > 1 && std::string(argv[1]) == "--scan-only";
  auto missing = Desktop::whyMissing();
  if (!missing.empty()) {
    std::printf("input/scene bench skipped: %s\n", missing.c_str());
    return 0;
  }
  Desktop* desktop = Desktop::get();
  const zul::DesktopRect screen{0, 0, 1280, 720};
  std::printf("desktop control bench on Xvfb %s (1280x720)\n", desktop->display().c_str());

  if (!scanOnly) {
    auto injector = std::make_shared<zul::XTestInputInjector>(desktop->display());
    zul::PointerInputExecutor pointer(zul::VideoMapping::unscaled(screen), injector);
    zul::KeyboardExecutor keyboard(injector);
    Watcher watcher(desktop->display());
    Stats handled, seen, keyHandled, keySeen, textHandled;
    for (int i = 0; i < 300; ++i) {
      const zul::PointerAction move{zul::PointerPhase::move, 100.0 + (i * 37) % 1000,
                                    50.0 + i % 600};
      auto t0 = Clock::now();
      pointer.handle(move);
      auto t1 = Clock::now();
      auto t2 = watcher.waitFor(MotionNotify);
      handled.add(ms(t1 - t0));
      if (t2) seen.add(ms(*t2 - t0));
      watcher.drain();
    }
    for (int i = 0; i < 200; ++i) {
      auto t0 = Clock::now();
      keyboard.sendHotkey("Ctrl+K");
      auto t1 = Clock::now();
      auto t2 = watcher.waitFor(KeyPress);
      keyHandled.add(ms(t1 - t0));
      if (t2) keySeen.add(ms(*t2 - t0));
      watcher.drain();
    }
    for (int i = 0; i < 50; ++i) {
      auto t0 = Clock::now();
      keyboard.sendText("hello, world");
      textHandled.add(ms(Clock::now() - t0));
      watcher.drain();
    }
    handled.print("pointer move: request handled");
    seen.print("pointer move: event seen by a client");
    keyHandled.print("Ctrl+K: request handled");
    keySeen.print("Ctrl+K: first key seen by a client");
    textHandled.print("text \"hello, world\" (in the key map)");
  }

  if (!scanOnly) {
    // Characters missing from the key map wait until the focused client has
    // read them (a ping round trip) before the map is restored.
    zul::test::TestApp app;
    auto injector = std::make_shared<zul::XTestInputInjector>(desktop->display());
    zul::KeyboardExecutor keyboard(injector);
    Stats cyrillic;
    for (int i = 0; i < 20; ++i) {
      auto t0 = Clock::now();
      keyboard.sendText("Привет, мир");
      cyrillic.add(ms(Clock::now() - t0));
    }
    cyrillic.print("text \"Привет, мир\" into a GTK window");
  }

  {
    zul::test::TestApp app({"--widgets", "1000"});
    auto backend = std::make_shared<zul::AtspiAccessibilityBackend>();
    zul::AccessibilitySceneSource source(backend);
    // Wait until the window is in the accessibility tree.
    for (int i = 0; i < 100; ++i) {
      auto scene = source.scan(0, zul::VideoMapping::unscaled(screen), 30);
      if (scene && scene->elements.size() >= 200) break;
    }
    Stats full, budgeted;
    std::size_t fullCount = 0, budgetedCount = 0;
    for (int i = 1; i <= 10; ++i) {
      auto t0 = Clock::now();
      auto scene = source.scan(i, zul::VideoMapping::unscaled(screen), 30);
      full.add(ms(Clock::now() - t0));
      fullCount = scene ? scene->elements.size() : 0;
      t0 = Clock::now();
      scene = source.scan(i, zul::VideoMapping::unscaled(screen), 0.3);
      budgeted.add(ms(Clock::now() - t0));
      budgetedCount = scene ? scene->elements.size() : 0;
    }
    full.print("scan, 1000 widgets, no time limit");
    std::printf("%-44s %zu elements\n", "  collected", fullCount);
    budgeted.print("scan, 1000 widgets, 0.3 s budget");
    std::printf("%-44s %zu elements\n", "  collected", budgetedCount);
  }
  return 0;
}
