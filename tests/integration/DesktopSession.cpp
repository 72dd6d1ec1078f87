#include "integration/DesktopSession.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace zul::test {
namespace {

const char* const busLauncher = "/usr/libexec/at-spi-bus-launcher";

std::string commandOutput(const std::string& command) {
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe)) out += buffer;
    pclose(pipe);
  }
  return out;
}
std::unique_ptr<DesktopSession> session;
std::once_flag started;

bool haveGtk() {
  return std::system(
             "/usr/bin/python3 -c \"import gi; gi.require_version('Gtk', '3.0'); "
             "from gi.repository import Gtk\" >/dev/null 2>&1") == 0;
}

struct DisplayHandle {
  explicit DisplayHandle(const std::string& name) : d(XOpenDisplay(name.c_str())) {
    if (!d) throw std::runtime_error("cannot open " + name);
  }
  ~DisplayHandle() { XCloseDisplay(d); }
  Display* d;
};

}  // namespace

std::string DesktopSession::whyMissing() {
  for (const char* program : {"Xvfb", "xrandr", "dbus-daemon", "dbus-send"}) {
    if (!haveProgram(program)) return std::string(program) + " is not installed";
  }
  if (!std::filesystem::exists(busLauncher)) return "at-spi2-core is not installed";
  if (!haveGtk()) return "python3-gi with GTK 3 is not installed";
  return {};
}

DesktopSession* DesktopSession::get() {
  std::call_once(started, [] {
    if (whyMissing().empty()) session.reset(new DesktopSession());
  });
  return session.get();
}

void DesktopSession::shutdown() { session.reset(); }

DesktopSession::~DesktopSession() {
  keeper_.reset();
  bus_.reset();
  xvfb_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(runtimeDir_, ignored);
}

DesktopSession::DesktopSession() {
  xvfb_ = std::make_unique<XvfbServer>(3200, 1200);
  Display* keeper = XOpenDisplay(xvfb_->display().c_str());
  if (!keeper) throw std::runtime_error("cannot open " + xvfb_->display());
  keeper_ = std::shared_ptr<void>(keeper, [](void* d) { XCloseDisplay(static_cast<Display*>(d)); });
  if (xvfb_->run("xrandr --setmonitor zul-main 1920/508x1080/286+0+0 screen >/dev/null") != 0 ||
      xvfb_->run("xrandr --setmonitor zul-side 1280/338x1024/271+1920+176 none >/dev/null") != 0) {
    throw std::runtime_error("xrandr could not set the monitors");
  }
  // The accessibility bus launcher and the toolkits put their sockets in
  // the runtime directory, named after the display at best: a private one
  // keeps concurrent sessions apart and is removed with the session.
  char runtime[] = "/tmp/zul-desktop-XXXXXX";
  if (!mkdtemp(runtime)) throw std::runtime_error("cannot make a runtime directory");
  runtimeDir_ = runtime;
  setenv("XDG_RUNTIME_DIR", runtime, 1);
  setenv("DISPLAY", xvfb_->display().c_str(), 1);
  bus_ = std::make_unique<SessionBus>();
  setenv("DBUS_SESSION_BUS_ADDRESS", bus_->address().c_str(), 1);
  unsetenv("NO_AT_BRIDGE");
  // The session bus starts the accessibility bus launcher on the first
  // request for its address (one launcher, one address for everybody); the
  // registry is started on that bus by its first call. Both must answer
  // before the first application or libatspi client looks for them: libatspi
  // reads the application list once.
  for (int i = 0; i < 200; ++i) {
    std::string address = commandOutput(
        "dbus-send --session --dest=org.a11y.Bus --print-reply=literal /org/a11y/bus "
        "org.a11y.Bus.GetAddress 2>/dev/null");
    while (!address.empty() && (address.back() == '\n' || address.back() == ' ')) {
      address.pop_back();
    }
    while (!address.empty() && address.front() == ' ') address.erase(address.begin());
    if (!address.empty() &&
        std::system(("dbus-send --bus='" + address +
                     "' --dest=org.a11y.atspi.Registry --print-reply "
                     "/org/a11y/atspi/accessible/root org.a11y.atspi.Accessible.GetChildren "
                     ">/dev/null 2>&1")
                        .c_str()) == 0) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  throw std::runtime_error("the accessibility bus did not start");
}

TestApp::TestApp(std::vector<std::string> extraArgs) {
  std::vector<std::string> argv{"/usr/bin/python3", ZUL_TEST_APP_PATH};
  argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
  ChildProcess::Options options;
  options.captureStdout = true;
  options.unsetEnv = {"NO_AT_BRIDGE", "GTK_MODULES"};
  options.env = {{"GDK_BACKEND", "x11"}};
  process_ = std::make_unique<ChildProcess>(argv, options);
  auto ready = waitForPrefix("ready ", std::chrono::seconds(30));
  if (!ready) throw std::runtime_error("the test app did not start");
  std::istringstream in(ready->substr(6));
  in >> window.x >> window.y >> window.width >> window.height >> pad.x >> pad.y >> pad.width >>
      pad.height;
  seen.clear();
}

TestApp::~TestApp() { process_->terminate(); }

std::optional<std::string> TestApp::waitFor(const std::function<bool(const std::string&)>& match,
                                            std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    auto line = process_->readStdoutLine(left);
    if (!line) return std::nullopt;
    seen.push_back(*line);
    if (match(*line)) return line;
  }
}

std::optional<std::string> TestApp::waitForPrefix(const std::string& prefix,
                                                  std::chrono::milliseconds timeout) {
  return waitFor([&](const std::string& l) { return l.rfind(prefix, 0) == 0; }, timeout);
}

std::vector<unsigned long> XState::keyboardMap(const std::string& display) {
  DisplayHandle h(display);
  int minKeycode = 0, maxKeycode = 0, per = 0;
  XDisplayKeycodes(h.d, &minKeycode, &maxKeycode);
  KeySym* syms =
      XGetKeyboardMapping(h.d, static_cast<KeyCode>(minKeycode), maxKeycode - minKeycode + 1, &per);
  std::vector<unsigned long> out(syms, syms + (maxKeycode - minKeycode + 1) * per);
  XFree(syms);
  return out;
}

std::pair<int, int> XState::pointer(const std::string& display) {
  DisplayHandle h(display);
  Window root, child;
  int rx = 0, ry = 0, wx = 0, wy = 0;
  unsigned mask = 0;
  XQueryPointer(h.d, DefaultRootWindow(h.d), &root, &child, &rx, &ry, &wx, &wy, &mask);
  return {rx, ry};
}

unsigned XState::buttonMask(const std::string& display) {
  DisplayHandle h(display);
  Window root, child;
  int rx = 0, ry = 0, wx = 0, wy = 0;
  unsigned mask = 0;
  XQueryPointer(h.d, DefaultRootWindow(h.d), &root, &child, &rx, &ry, &wx, &wy, &mask);
  return mask & (Button1Mask | Button2Mask | Button3Mask | Button4Mask | Button5Mask);
}

int XState::pressedKeyCount(const std::string& display) {
  DisplayHandle h(display);
  char keys[32] = {};
  XQueryKeymap(h.d, keys);
  int count = 0;
  for (char byte : keys) count += __builtin_popcount(static_cast<unsigned char>(byte));
  return count;
}

void XState::lockCaps(const std::string& display, bool locked) {
  DisplayHandle h(display);
  XkbLockModifiers(h.d, XkbUseCoreKbd, LockMask, locked ? LockMask : 0);
  XSync(h.d, False);
}

}  // namespace zul::test
