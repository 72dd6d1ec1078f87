#include "ZulPlatform/linux/DesktopBackend.h"

#include <gio/gio.h>

#include <cstdlib>
#include <mutex>
#include <utility>

#include "ZulPlatform/linux/gnome/MutterCaptureSource.h"
#include "ZulPlatform/linux/gnome/MutterClipboard.h"
#include "ZulPlatform/linux/gnome/MutterDesktop.h"
#include "ZulPlatform/linux/gnome/MutterInputInjector.h"
#include "ZulPlatform/linux/x11/ScreenCaptureSource.h"
#include "ZulPlatform/linux/x11/X11CaptureConnection.h"
#include "ZulPlatform/linux/x11/X11Clipboard.h"
#include "ZulPlatform/linux/x11/XTestInputInjector.h"

namespace zul {

DesktopBackendError DesktopBackendError::unsupportedSession(std::string missing) {
  return {Case::unsupportedSession, formatErrorCase("unsupportedSession", {field(missing)})};
}
DesktopBackendError DesktopBackendError::unknownBackend(std::string name) {
  return {Case::unknownBackend, formatErrorCase("unknownBackend", {field(name)})};
}
DesktopBackendError DesktopBackendError::backendUnavailable(std::string name, std::string reason) {
  return {Case::backendUnavailable,
          formatErrorCase("backendUnavailable", {field(name), field(reason)})};
}

namespace {

// The X11 capture source as every backend's source looks.
class X11Capture final : public DesktopCaptureSource {
 public:
  std::string name() const override { return source_.name(); }
  void setFrameReady(FrameReady handler) override { source_.setFrameReady(std::move(handler)); }
  void start(const CaptureOptions& options) override { source_.start(options); }
  void stop() noexcept override { source_.stop(); }
  void setCaptureFailed(CaptureFailed handler) override {
    source_.setCaptureFailed(std::move(handler));
  }
  void setDisplaysChanged(DisplaysChanged handler) override {
    source_.setDisplaysChanged(std::move(handler));
  }
  std::optional<std::uint32_t> resolvedDisplayID() const override {
    return source_.resolvedDisplayID();
  }

 private:
  ScreenCaptureSource source_;
};

class X11Backend final : public DesktopBackend {
 public:
  std::string name() const override { return "x11"; }
  std::unique_ptr<DesktopCaptureSource> makeCaptureSource() override {
    return std::make_unique<X11Capture>();
  }
  std::shared_ptr<InputInjector> makeInputInjector() override {
    return std::make_shared<XTestInputInjector>();
  }
  std::vector<DisplayDescriptor> availableDisplays() override {
    return ScreenCaptureSource::availableDisplays();
  }
  std::optional<std::uint32_t> primaryDisplayID() override {
    return ScreenCaptureSource::primaryDisplayID();
  }
  bool desktopGone() override { return X11CaptureConnection::open("") == nullptr; }
  // The screensaver of the session bus (org.freedesktop.ScreenSaver), when
  // the session has one.
  std::optional<bool> screenLocked() override {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (!address || !*address) return std::nullopt;
    if (!bus_) bus_.reset(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
    if (!bus_) return std::nullopt;
    GVariant* reply = g_dbus_connection_call_sync(
        bus_.get(), "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver",
        "org.freedesktop.ScreenSaver", "GetActive", nullptr, G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NONE, 300, nullptr, nullptr);
    if (!reply) return std::nullopt;
    gboolean active = FALSE;
    g_variant_get(reply, "(b)", &active);
    g_variant_unref(reply);
    return bool(active);
  }

 private:
  struct Unref {
    void operator()(GDBusConnection* bus) const { g_object_unref(bus); }
  };
  std::unique_ptr<GDBusConnection, Unref> bus_;
  std::shared_ptr<Clipboard> makeClipboard() override { return std::make_shared<X11Clipboard>(); }
};

class GnomeBackend final : public DesktopBackend {
 public:
  explicit GnomeBackend(std::shared_ptr<MutterDesktop> desktop) : desktop_(std::move(desktop)) {}

  std::string name() const override { return "gnome"; }
  std::unique_ptr<DesktopCaptureSource> makeCaptureSource() override {
    return std::make_unique<MutterCaptureSource>(desktop_);
  }
  std::shared_ptr<InputInjector> makeInputInjector() override {
    return std::make_shared<MutterInputInjector>(desktop_);
  }
  std::vector<DisplayDescriptor> availableDisplays() override {
    std::vector<DisplayDescriptor> out;
    for (const auto& monitor : monitors()) out.push_back(monitor.display);
    return out;
  }
  std::optional<std::uint32_t> primaryDisplayID() override {
    for (const auto& monitor : monitors()) {
      if (monitor.primary) return monitor.display.displayID;
    }
    return std::nullopt;
  }
  std::shared_ptr<Clipboard> makeClipboard() override {
    return std::make_shared<MutterClipboard>(desktop_);
  }
  std::optional<bool> screenLocked() override { return desktop_->screenLocked(); }
  // Mutter's remote-desktop interface asks nobody: the user learns of the
  // phone from us.
  bool announceRemoteControl(const std::string& deviceName) override {
    return desktop_->notify("Удалённое управление",
                            "Телефон " + deviceName + " видит экран компьютера и управляет им.");
  }

 private:
  std::vector<MutterMonitor> monitors() {
    try {
      return desktop_->monitors();
    } catch (const MutterError& error) {
      throw CaptureError::platformUnsupported(error.what());
    }
  }

  std::shared_ptr<MutterDesktop> desktop_;
};

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

DesktopChoice chooseDesktop(const DesktopSessionFacts& facts) {
  if (facts.forced == "x11") return {"x11", "ZUL_DESKTOP=x11"};
  if (facts.forced == "gnome") return {"gnome", "ZUL_DESKTOP=gnome"};
  if (facts.forced == "portal") {
    throw DesktopBackendError::unsupportedSession(
        "the desktop portal backend (org.freedesktop.portal.RemoteDesktop) is not built into "
        "this agent");
  }
  if (!facts.forced.empty()) throw DesktopBackendError::unknownBackend(facts.forced);

  const bool wayland = facts.sessionType == "wayland" ||
                       (facts.sessionType.empty() && !facts.waylandDisplay.empty());
  if (wayland) {
    if (facts.mutterRemoteDesktop) {
      return {"gnome", "Wayland session, org.gnome.Mutter.RemoteDesktop on the session bus"};
    }
    // XWayland would show only X11 windows and move no Wayland pointer.
    throw DesktopBackendError::unsupportedSession(
        "Wayland session without GNOME's org.gnome.Mutter.RemoteDesktop on the session bus; "
        "other compositors need the desktop portal (org.freedesktop.portal.RemoteDesktop), "
        "which this agent does not drive yet; ZUL_DESKTOP=x11 uses XWayland (X11 windows only)");
  }
  if (!facts.x11Display.empty()) return {"x11", "X11 session on " + facts.x11Display};
  if (facts.mutterRemoteDesktop) {
    return {"gnome", "no X display, org.gnome.Mutter.RemoteDesktop on the session bus"};
  }
  throw DesktopBackendError::unsupportedSession(
      "no X display (DISPLAY) and no GNOME remote-desktop service on the session bus");
}

DesktopSessionFacts currentDesktopSessionFacts() {
  DesktopSessionFacts facts;
  facts.forced = environment("ZUL_DESKTOP");
  facts.sessionType = environment("XDG_SESSION_TYPE");
  facts.waylandDisplay = environment("WAYLAND_DISPLAY");
  facts.x11Display = environment("DISPLAY");
  const bool wayland = facts.sessionType == "wayland" ||
                       (facts.sessionType.empty() && !facts.waylandDisplay.empty());
  // The bus is asked only when its answer decides.
  if (facts.forced.empty() && (wayland || facts.x11Display.empty())) {
    facts.mutterRemoteDesktop = MutterDesktop::serviceAvailable();
  }
  return facts;
}

std::shared_ptr<DesktopBackend> makeDesktopBackend(const DesktopChoice& choice) {
  if (choice.backend == "x11") return std::make_shared<X11Backend>();
  if (choice.backend == "gnome") {
    try {
      return std::make_shared<GnomeBackend>(MutterDesktop::connect());
    } catch (const MutterError& error) {
      throw DesktopBackendError::backendUnavailable("gnome", error.what());
    }
  }
  throw DesktopBackendError::unknownBackend(choice.backend);
}

std::shared_ptr<DesktopBackend> desktopBackend(
    const std::function<void(const std::string&)>& print) {
  static std::mutex mutex;
  static std::shared_ptr<DesktopBackend> chosen;
  static std::string line;  // said once, to the first caller that prints
  std::lock_guard lock(mutex);
  if (!chosen) {
    const DesktopChoice choice = chooseDesktop(currentDesktopSessionFacts());
    chosen = makeDesktopBackend(choice);
    line = "desktop: " + choice.backend + " (" + choice.reason + ")";
  }
  if (print && !line.empty()) print(std::exchange(line, {}));
  return chosen;
}

}  // namespace zul
