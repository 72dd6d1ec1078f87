#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ZulCore/Media/DisplayDescriptor.h"

struct _XDisplay;

namespace zul {

// One Xlib connection of the capture code, closed with the object. Xlib's
// default reaction to a lost server or a protocol error is to end the
// process; connections opened here report them instead: a lost server marks
// the connection dead and later calls on it do nothing.
class X11CaptureConnection {
 public:
  // Empty `name`: $DISPLAY. Nothing when the display cannot be opened.
  static std::unique_ptr<X11CaptureConnection> open(const std::string& name);
  ~X11CaptureConnection();
  X11CaptureConnection(const X11CaptureConnection&) = delete;
  X11CaptureConnection& operator=(const X11CaptureConnection&) = delete;

  _XDisplay* display() const { return display_; }
  const std::string& name() const { return name_; }

  // A round trip to the server; false once the server is gone.
  bool alive();
  // Whether the root window's pixels can be read (what stands for the
  // screen-recording permission on X11).
  bool canReadScreen();
  // The RandR monitors in the server's order, in root-window pixels; the
  // whole screen when RandR offers none. `primary`, when given, receives the
  // id of the monitor RandR marks primary (nothing when none is).
  std::vector<DisplayDescriptor> monitors(std::optional<std::uint32_t>* primary = nullptr);

  // Asks the server to report changes of the screen and its monitors to this
  // connection: RandR screen changes, and the root window's configure
  // notices that `xrandr --setmonitor` and `--delmonitor` cause.
  void watchMonitors();
  // Asks the server to tell this connection when the screen's pixels or the
  // cursor's shape change (XDamage on the root window, XFixes cursor
  // notices), so that capture reads the screen as soon as it changes instead
  // of sampling it. False when the server has no Damage extension.
  bool watchScreen();
  // The connection's socket, readable when notices arrive; for poll().
  int fd() const;

  struct Notices {
    bool monitors = false;  // the monitors may have changed
    bool screen = false;    // pixels or the cursor changed since the last takeDamage()
  };
  // Reads the notices that arrived since the last call. Never blocks; after
  // it, Xlib holds no unread event, so poll() on fd() sees the next one.
  Notices takeNotices();
  // Empties the damage recorded so far and waits until the server has done
  // so: a change after this call is reported again, and a picture read after
  // it shows every change reported before.
  void takeDamage();
  // The pointer's position on the root window; nothing once the server is gone.
  std::optional<std::pair<int, int>> pointer();

  // Opening and closing a connection, and a connection's first use of an
  // extension, change bookkeeping that Xlib's extension libraries share
  // between all connections of the process; done on two threads at once (a
  // capture ending by itself while another thread lists the monitors) it
  // damaged the heap. So all of it happens under this lock: openDisplay()
  // sets up every extension this code uses at once, closeDisplay() takes it,
  // and so does whoever lets WebRTC open or close its own connection.
  static std::unique_lock<std::mutex> lockConnections();
  // XOpenDisplay (empty `name`: $DISPLAY) with RandR, Render, Damage, XFixes,
  // XTest and MIT-SHM set up, under lockConnections(); null when it fails.
  static _XDisplay* openDisplay(const std::string& name);
  // Sets up those extensions on a connection opened elsewhere; the caller
  // holds lockConnections().
  static void setUpExtensions(_XDisplay* display);

  // Makes a lost server on `display` set `lost` instead of ending the
  // process; for connections opened elsewhere (WebRTC's capturer).
  static void reportServerLoss(_XDisplay* display, std::atomic<bool>* lost);
  // Closes `display`; once its server is lost (or its socket says it went
  // away) only the socket is closed, under lockConnections():
  // Xlib's own close then waits for ever on the lock the failed call left
  // behind (the little memory of the connection is left to the process).
  static void closeDisplay(_XDisplay* display, bool lost);

 private:
  X11CaptureConnection(_XDisplay* display, std::string name);

  _XDisplay* display_;
  std::string name_;
  std::atomic<bool> lost_{false};
  int randrEventBase_ = -1;
  int damageEventBase_ = -1;
  int fixesEventBase_ = -1;
  unsigned long damage_ = 0;  // the root window's Damage object, 0 when not watched
};

}  // namespace zul
