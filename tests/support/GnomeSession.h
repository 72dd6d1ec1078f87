#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/XvfbServer.h"

namespace zul::test {

// A headless GNOME Wayland session for one test program: a private session
// bus with PipeWire, WirePlumber and `mutter --headless --wayland --no-x11`
// with virtual monitors, in a private runtime directory. No GPU: PipeWire
// streams are shared memory.
class GnomeSession {
 public:
  // Empty when everything needed is installed, else what is missing.
  static std::string whyMissing();

  // Monitors as "WxH" or "WxH@SCALE" (a whole scale mutter offers for that
  // size), laid out left to right, the first primary. Points
  // this process's environment at the session (DISPLAY unset). Throws when
  // the session does not come up.
  explicit GnomeSession(std::vector<std::string> monitors);
  ~GnomeSession();
  GnomeSession(const GnomeSession&) = delete;
  GnomeSession& operator=(const GnomeSession&) = delete;

  // What a client of the session needs (bus, runtime directory, Wayland
  // display, session type).
  std::map<std::string, std::string> environment() const;
  // The session's bus (its accessibility bus starts on demand).
  const SessionBus& bus() const { return *bus_; }
  // Mutter ends (its clients with it) and a new one takes over the session,
  // as after a crash.
  void restartCompositor();

 private:
  void startCompositor();

  std::vector<std::string> monitors_;
  ChildProcess::Options options_;
  std::string runtimeDir_;
  std::unique_ptr<SessionBus> bus_;
  std::unique_ptr<ChildProcess> pipewire_;
  std::unique_ptr<ChildProcess> wireplumber_;
  std::unique_ptr<ChildProcess> mutter_;
};

}  // namespace zul::test
