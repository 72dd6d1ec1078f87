#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ZulCore/Clipboard/Clipboard.h"
#include "ZulCore/Input/InputInjector.h"
#include "ZulCore/Media/CaptureSource.h"
#include "ZulCore/Media/DisplayDescriptor.h"
#include "ZulCore/Support/Error.h"

namespace zul {

// A capture source that also tells which display it resolved, when its
// stream ends and when the monitors change: what the real agent needs of
// every desktop backend.
class DesktopCaptureSource : public CaptureSource {
 public:
  using CaptureFailed = std::function<void(const CaptureError&)>;
  using DisplaysChanged = std::function<void(const std::vector<DisplayDescriptor>& displays)>;

  // Called on the source's thread when capture ends by itself (server or
  // stream gone); the source is stopped afterwards.
  virtual void setCaptureFailed(CaptureFailed handler) = 0;
  // Called on the source's thread when the monitors change while capturing,
  // with the new list. When the captured monitor is gone the run ends
  // without a captureFailed call and the owner restarts capture where it
  // wants.
  virtual void setDisplaysChanged(DisplaysChanged handler) = 0;
  // The display the last start picked.
  virtual std::optional<std::uint32_t> resolvedDisplayID() const = 0;
};

class DesktopBackendError : public Error {
 public:
  enum class Case { unsupportedSession, unknownBackend, backendUnavailable };
  // A session no built-in backend can drive; `missing` names what is absent.
  static DesktopBackendError unsupportedSession(std::string missing);
  static DesktopBackendError unknownBackend(std::string name);
  static DesktopBackendError backendUnavailable(std::string name, std::string reason);
  Case kind() const { return kind_; }

 private:
  DesktopBackendError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// The desktop the agent runs on: an X11 session (XShm capture, XTest input)
// or a GNOME Wayland session (mutter's remote-desktop and screen-cast
// interfaces, frames over PipeWire). Everything that captures, injects input
// or lists displays gets it from here, so the choice is made once.
class DesktopBackend {
 public:
  virtual ~DesktopBackend() = default;

  // "x11" or "gnome".
  virtual std::string name() const = 0;
  virtual std::unique_ptr<DesktopCaptureSource> makeCaptureSource() = 0;
  // Throws when input cannot reach the desktop.
  virtual std::shared_ptr<InputInjector> makeInputInjector() = 0;
  // The monitors in the order CaptureOptions::displayIndex counts them.
  virtual std::vector<DisplayDescriptor> availableDisplays() = 0;
  virtual std::optional<std::uint32_t> primaryDisplayID() = 0;
  // Tells the user, where the desktop shows no prompt of its own, that a
  // phone now controls it (a desktop notification); nothing elsewhere.
  // False when the desktop could not show it.
  virtual bool announceRemoteControl(const std::string& /*deviceName*/) { return true; }
  // Whether the screen is locked (the session's screensaver); nothing when
  // the desktop does not say.
  virtual std::optional<bool> screenLocked() { return std::nullopt; }
  // The desktop's clipboard; nothing where it cannot be shared.
  virtual std::shared_ptr<Clipboard> makeClipboard() { return nullptr; }
  // After capture failed: true when the desktop is gone for good (an X
  // server that no longer answers), false when it may come back (a
  // compositor restarting) and capture may be started again.
  virtual bool desktopGone() { return false; }
};

// What the session looks like, read from the environment and the session bus.
struct DesktopSessionFacts {
  std::string forced;       // ZUL_DESKTOP
  std::string sessionType;  // XDG_SESSION_TYPE
  std::string waylandDisplay;
  std::string x11Display;
  bool mutterRemoteDesktop = false;  // org.gnome.Mutter.RemoteDesktop on the session bus
};

struct DesktopChoice {
  std::string backend;  // "x11" or "gnome"
  std::string reason;   // why, for the one line the agent prints
};

// The backend for a session: ZUL_DESKTOP ("x11", "gnome", "portal") when
// set, else GNOME when the session is Wayland and mutter's remote-desktop
// service answers, else X11 when there is an X display. Throws
// DesktopBackendError naming what is missing.
DesktopChoice chooseDesktop(const DesktopSessionFacts& facts);

// Reads the facts of this process's session (probing the session bus only
// when the environment leaves the choice open).
DesktopSessionFacts currentDesktopSessionFacts();

// The backend for this session, made once per process and shared; prints
// one line "desktop: NAME (REASON)" through `print` the first time. Throws
// DesktopBackendError.
std::shared_ptr<DesktopBackend> desktopBackend(
    const std::function<void(const std::string&)>& print = {});

// A fresh backend of the given choice (tests, tools).
std::shared_ptr<DesktopBackend> makeDesktopBackend(const DesktopChoice& choice);

}  // namespace zul
