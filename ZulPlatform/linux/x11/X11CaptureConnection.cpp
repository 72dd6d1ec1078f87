#include "ZulPlatform/linux/x11/X11CaptureConnection.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/Xdamage.h>
#include <X11/extensions/Xfixes.h>
#include <X11/extensions/XShm.h>
#include <X11/extensions/XTest.h>
#include <X11/extensions/Xrandr.h>
#include <X11/extensions/Xrender.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>

namespace zul {
namespace {

// Xlib's handlers are process-wide. A protocol error is reported by the call
// that caused it; a lost connection goes on to the per-connection exit
// handler, which decides whether the process ends.
int ignoreProtocolError(Display*, XErrorEvent*) { return 0; }
int continueAfterIoError(Display*) { return 0; }

void installHandlers() {
  static std::once_flag once;
  std::call_once(once, [] {
    XSetErrorHandler(ignoreProtocolError);
    XSetIOErrorHandler(continueAfterIoError);
  });
}

void markLost(Display*, void* flag) { static_cast<std::atomic<bool>*>(flag)->store(true); }

}  // namespace

std::unique_lock<std::mutex> X11CaptureConnection::lockConnections() {
  static std::mutex connections;
  return std::unique_lock(connections);
}

void X11CaptureConnection::setUpExtensions(_XDisplay* display) {
  int event = 0, error = 0, major = 0, minor = 0;
  Bool pixmaps = False;
  XRRQueryExtension(display, &event, &error);
  XRenderQueryExtension(display, &event, &error);
  XDamageQueryExtension(display, &event, &error);
  XFixesQueryExtension(display, &event, &error);
  XTestQueryExtension(display, &event, &error, &major, &minor);
  XShmQueryVersion(display, &major, &minor, &pixmaps);
}

_XDisplay* X11CaptureConnection::openDisplay(const std::string& name) {
  installHandlers();
  auto lock = lockConnections();
  Display* display = XOpenDisplay(name.empty() ? nullptr : name.c_str());
  if (display) setUpExtensions(display);
  return display;
}

std::unique_ptr<X11CaptureConnection> X11CaptureConnection::open(const std::string& name) {
  Display* display = openDisplay(name);
  if (!display) return nullptr;
  return std::unique_ptr<X11CaptureConnection>(
      new X11CaptureConnection(display, DisplayString(display)));
}

X11CaptureConnection::X11CaptureConnection(_XDisplay* display, std::string name)
    : display_(display), name_(std::move(name)) {
  reportServerLoss(display_, &lost_);
}

X11CaptureConnection::~X11CaptureConnection() {
  if (damage_ && !lost_) XDamageDestroy(display_, damage_);
  closeDisplay(display_, lost_);
}

void X11CaptureConnection::closeDisplay(_XDisplay* display, bool lost) {
  // A server that went away a moment ago, before any call noticed: its end
  // of the socket is closed.
  char unread = 0;
  if (!lost) {
    lost = ::recv(ConnectionNumber(display), &unread, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
  }
  if (lost) {
    ::close(ConnectionNumber(display));
  } else {
    auto lock = lockConnections();
    XCloseDisplay(display);
  }
}

void X11CaptureConnection::reportServerLoss(_XDisplay* display, std::atomic<bool>* lost) {
  installHandlers();
  XSetIOErrorExitHandler(display, markLost, lost);
}

bool X11CaptureConnection::alive() {
  if (lost_) return false;
  XSync(display_, False);
  return !lost_;
}

bool X11CaptureConnection::canReadScreen() {
  if (!alive()) return false;
  XImage* image = XGetImage(display_, DefaultRootWindow(display_), 0, 0, 1, 1, AllPlanes, ZPixmap);
  if (!image) return false;
  XDestroyImage(image);
  return true;
}

void X11CaptureConnection::watchMonitors() {
  if (lost_) return;
  const Window root = DefaultRootWindow(display_);
  XSelectInput(display_, root, StructureNotifyMask);
  int eventBase = 0, errorBase = 0;
  if (XRRQueryExtension(display_, &eventBase, &errorBase)) {
    randrEventBase_ = eventBase;
    XRRSelectInput(display_, root, RRScreenChangeNotifyMask);
  }
  XFlush(display_);
}

bool X11CaptureConnection::watchScreen() {
  if (lost_) return false;
  int errorBase = 0;
  if (!XDamageQueryExtension(display_, &damageEventBase_, &errorBase)) {
    damageEventBase_ = -1;
    return false;
  }
  const Window root = DefaultRootWindow(display_);
  // One notice when the damage goes from empty to non-empty: a flood of
  // drawing costs one wake-up per picture, not one per request.
  damage_ = XDamageCreate(display_, root, XDamageReportNonEmpty);
  if (XFixesQueryExtension(display_, &fixesEventBase_, &errorBase)) {
    XFixesSelectCursorInput(display_, root, XFixesDisplayCursorNotifyMask);
  } else {
    fixesEventBase_ = -1;
  }
  XSync(display_, False);
  return damage_ != 0 && !lost_;
}

int X11CaptureConnection::fd() const { return ConnectionNumber(display_); }

X11CaptureConnection::Notices X11CaptureConnection::takeNotices() {
  Notices notices;
  while (!lost_ && XPending(display_) > 0) {
    XEvent event;
    XNextEvent(display_, &event);
    if (randrEventBase_ >= 0 && event.type == randrEventBase_ + RRScreenChangeNotify) {
      XRRUpdateConfiguration(&event);
      notices.monitors = true;
    } else if (event.type == ConfigureNotify) {
      notices.monitors = true;
    } else if ((damageEventBase_ >= 0 && event.type == damageEventBase_ + XDamageNotify) ||
               (fixesEventBase_ >= 0 && event.type == fixesEventBase_ + XFixesCursorNotify)) {
      notices.screen = true;
    }
  }
  return notices;
}

void X11CaptureConnection::takeDamage() {
  if (lost_ || !damage_) return;
  XDamageSubtract(display_, damage_, 0, 0);
  // The picture is read on another connection: the server must have emptied
  // the damage before that read starts.
  XSync(display_, False);
}

std::optional<std::pair<int, int>> X11CaptureConnection::pointer() {
  if (lost_) return std::nullopt;
  Window root = 0, child = 0;
  int rootX = 0, rootY = 0, windowX = 0, windowY = 0;
  unsigned int mask = 0;
  if (!XQueryPointer(display_, DefaultRootWindow(display_), &root, &child, &rootX, &rootY, &windowX,
                     &windowY, &mask) ||
      lost_) {
    return std::nullopt;
  }
  return std::pair{rootX, rootY};
}

std::vector<DisplayDescriptor> X11CaptureConnection::monitors(
    std::optional<std::uint32_t>* primary) {
  std::vector<DisplayDescriptor> list;
  if (primary) primary->reset();
  if (!alive()) return list;
  int eventBase = 0, errorBase = 0, major = 0, minor = 0;
  if (XRRQueryExtension(display_, &eventBase, &errorBase) &&
      XRRQueryVersion(display_, &major, &minor) && (major > 1 || (major == 1 && minor >= 5))) {
    int count = 0;
    XRRMonitorInfo* monitors = XRRGetMonitors(display_, DefaultRootWindow(display_), True, &count);
    for (int i = 0; monitors && i < count; ++i) {
      list.push_back(DisplayDescriptor{.index = std::int64_t(list.size()),
                                       .displayID = std::uint32_t(monitors[i].name),
                                       .width = monitors[i].width,
                                       .height = monitors[i].height,
                                       .originX = monitors[i].x,
                                       .originY = monitors[i].y});
      if (primary && monitors[i].primary) *primary = std::uint32_t(monitors[i].name);
    }
    if (monitors) XRRFreeMonitors(monitors);
  }
  if (list.empty() && !lost_) {
    const int screen = DefaultScreen(display_);
    list.push_back(DisplayDescriptor{.index = 0,
                                     .displayID = 0,
                                     .width = DisplayWidth(display_, screen),
                                     .height = DisplayHeight(display_, screen),
                                     .originX = 0,
                                     .originY = 0});
  }
  return list;
}

}  // namespace zul
