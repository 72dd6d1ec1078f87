#include "support/GnomeSession.h"

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>

namespace zul::test {

std::string GnomeSession::whyMissing() {
  for (const char* program : {"mutter", "pipewire", "wireplumber", "dbus-daemon", "dbus-send"}) {
    if (!haveProgram(program)) return std::string(program) + " is not installed";
  }
  return {};
}

GnomeSession::GnomeSession(std::vector<std::string> monitors) : monitors_(std::move(monitors)) {
  char runtime[] = "/tmp/zul-gnome-XXXXXX";
  if (!mkdtemp(runtime)) throw std::runtime_error("cannot make a runtime directory");
  runtimeDir_ = runtime;
  // The bus and what it starts (the accessibility bus) live in the session.
  setenv("XDG_RUNTIME_DIR", runtimeDir_.c_str(), 1);
  setenv("WAYLAND_DISPLAY", "wayland-0", 1);
  setenv("XDG_SESSION_TYPE", "wayland", 1);
  unsetenv("DISPLAY");
  unsetenv("NO_AT_BRIDGE");
  bus_ = std::make_unique<SessionBus>();
  setenv("DBUS_SESSION_BUS_ADDRESS", bus_->address().c_str(), 1);

  ChildProcess::Options& options = options_;
  options.env = environment();
  // mutter keeps its settings in memory: nothing of the machine's leaks in.
  options.env["GSETTINGS_BACKEND"] = "memory";
  options.unsetEnv = {"DISPLAY", "WAYLAND_DISPLAY"};
  pipewire_ = std::make_unique<ChildProcess>(std::vector<std::string>{"pipewire"}, options);
  if (!waitUntil([&] { return std::filesystem::exists(runtimeDir_ + "/pipewire-0"); },
                 std::chrono::seconds(20))) {
    throw std::runtime_error("pipewire did not start");
  }
  wireplumber_ = std::make_unique<ChildProcess>(std::vector<std::string>{"wireplumber"}, options);
  startCompositor();
}

void GnomeSession::restartCompositor() {
  mutter_.reset();
  std::error_code ignored;
  std::filesystem::remove(runtimeDir_ + "/wayland-0", ignored);
  startCompositor();
}

void GnomeSession::startCompositor() {
  std::vector<std::string> argv{"mutter", "--headless", "--wayland", "--no-x11"};
  for (const auto& monitor : monitors_) {
    argv.push_back("--virtual-monitor");
    argv.push_back(monitor);
  }
  mutter_ = std::make_unique<ChildProcess>(argv, options_);
  const std::string prefix = "DBUS_SESSION_BUS_ADDRESS='" + bus_->address() + "' ";
  auto owned = [&](const std::string& name) {
    return std::system((prefix +
                        "dbus-send --session --print-reply --dest=org.freedesktop.DBus "
                        "/org/freedesktop/DBus org.freedesktop.DBus.NameHasOwner string:" +
                        name + " 2>/dev/null | grep -q 'boolean true'")
                           .c_str()) == 0;
  };
  if (!waitUntil(
          [&] {
            return owned("org.gnome.Mutter.RemoteDesktop") &&
                   owned("org.gnome.Mutter.DisplayConfig") &&
                   std::filesystem::exists(runtimeDir_ + "/wayland-0");
          },
          std::chrono::seconds(60))) {
    throw std::runtime_error("mutter did not start");
  }
}

GnomeSession::~GnomeSession() {
  mutter_.reset();
  wireplumber_.reset();
  pipewire_.reset();
  bus_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(runtimeDir_, ignored);
}

std::map<std::string, std::string> GnomeSession::environment() const {
  return {{"DBUS_SESSION_BUS_ADDRESS", bus_->address()},
          {"XDG_RUNTIME_DIR", runtimeDir_},
          {"WAYLAND_DISPLAY", "wayland-0"},
          {"XDG_SESSION_TYPE", "wayland"}};
}

}  // namespace zul::test
