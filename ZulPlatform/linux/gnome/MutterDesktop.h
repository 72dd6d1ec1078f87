#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ZulCore/Media/DisplayDescriptor.h"
#include "ZulCore/Support/Callback.h"
#include "ZulCore/Support/Error.h"

namespace zul {

class MutterError : public Error {
 public:
  enum class Case { busUnavailable, callFailed, monitorUnavailable, streamNotAnnounced };
  static MutterError busUnavailable(std::string reason);
  static MutterError callFailed(std::string method, std::string reason);
  static MutterError monitorUnavailable(std::string connector);
  static MutterError streamNotAnnounced(std::string connector);
  Case kind() const { return kind_; }

 private:
  MutterError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// One monitor as mutter's display configuration lays it out.
struct MutterMonitor {
  DisplayDescriptor display;  // displayID: a hash of the connector name
  std::string connector;      // "DP-1", "Meta-0"
  double scale = 1;
  bool primary = false;
};

// The display id of a connector name, stable across runs.
std::uint32_t mutterDisplayID(const std::string& connector);

// One remote-desktop session of mutter with a screen cast of one monitor
// bound to it: input goes through the session, frames come from the
// PipeWire node the stream announced. Stopped when the last owner lets go.
class MutterSession {
 public:
  virtual ~MutterSession() = default;

  virtual const MutterMonitor& monitor() const = 0;
  virtual std::uint32_t pipeWireNode() const = 0;
  // The stream's own size (the monitor's pixels).
  virtual int streamWidth() const = 0;
  virtual int streamHeight() const = 0;
  // False once mutter closed the session (monitor gone, mutter restarted).
  virtual bool open() const = 0;
  // Called once, on the bus thread, when mutter closes the session.
  Callback<> onClosed;

  // Input, each returning once mutter took the call. Throw MutterError.
  // Pointer position in the stream's pixels.
  virtual void pointerMotion(double x, double y) = 0;
  // `evdevButton`: BTN_LEFT (0x110), BTN_RIGHT, BTN_MIDDLE.
  virtual void pointerButton(int evdevButton, bool pressed) = 0;
  // `axis` 0 vertical (positive down), 1 horizontal (positive right).
  virtual void pointerAxisDiscrete(unsigned axis, int steps) = 0;
  virtual void keyboardKeysym(std::uint32_t keysym, bool pressed) = 0;

  // The clipboard through the session (no prompt). Throw MutterError.
  virtual void enableClipboard() = 0;
  virtual void disableClipboard() = 0;
  // Offers content of these types; mutter then asks for it with
  // onSelectionTransfer each time something pastes.
  virtual void setSelection(const std::vector<std::string>& mimeTypes) = 0;
  // A pipe to read the clipboard's content of one type from (ours to close).
  virtual int selectionRead(const std::string& mimeType) = 0;
  // A pipe to write the content of a transfer to (ours to close), then done.
  virtual int selectionWrite(std::uint32_t serial) = 0;
  virtual void selectionWriteDone(std::uint32_t serial, bool success) = 0;
  // On the bus thread: the clipboard's owner changed (its types, and
  // whether it is this session).
  Callback<const std::vector<std::string>& /*mimeTypes*/, bool /*ours*/> onSelectionOwnerChanged;
  // On the bus thread: something pastes content this session offered.
  Callback<const std::string& /*mimeType*/, std::uint32_t /*serial*/> onSelectionTransfer;
};

// A connection to mutter on the session bus (a private one, so that every
// session it opens ends with it), with a thread of its own for mutter's
// signals.
class MutterDesktop {
 public:
  using MonitorsChanged = std::function<void()>;

  // Throws MutterError::busUnavailable when the session bus or mutter's
  // remote-desktop service is not there.
  static std::shared_ptr<MutterDesktop> connect();
  // Whether mutter's remote-desktop service has an owner on the session bus.
  static bool serviceAvailable();

  virtual ~MutterDesktop() = default;

  // The logical monitors, in mutter's order. Throws MutterError.
  virtual std::vector<MutterMonitor> monitors() = 0;
  // Opens a session recording `connector` with the cursor drawn in; returns
  // once the PipeWire node is known. Throws MutterError.
  virtual std::shared_ptr<MutterSession> openSession(const std::string& connector) = 0;

  // The session input goes to: the one capture opened last while it is open,
  // else one of its own on the primary monitor, opened on first use.
  virtual void setInputSession(std::shared_ptr<MutterSession> session) = 0;
  // Lets go of `session` if input uses it, so that mutter closes it (and
  // GNOME Shell's remote-access indicator goes) once capture ends.
  virtual void releaseInputSession(const std::shared_ptr<MutterSession>& session) = 0;
  virtual std::shared_ptr<MutterSession> inputSession() = 0;
  // The session input uses while it is open, without opening one.
  virtual std::shared_ptr<MutterSession> openInputSession() = 0;
  // Input moved to another session (a display switch, mutter back).
  Callback<> onInputSessionChanged;

  // Called on the bus thread after mutter changed the monitors. Returns a
  // token for removeMonitorsChanged.
  virtual int addMonitorsChanged(MonitorsChanged handler) = 0;
  virtual void removeMonitorsChanged(int token) = 0;

  // A desktop notification (org.freedesktop.Notifications); false when no
  // notification service answered.
  virtual bool notify(const std::string& summary, const std::string& body) = 0;
  // Whether GNOME's screen shield is up (org.gnome.ScreenSaver); nothing
  // when nobody answers.
  virtual std::optional<bool> screenLocked() = 0;
};

}  // namespace zul
