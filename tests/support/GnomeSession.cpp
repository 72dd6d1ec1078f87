#include "support/GnomeSession.h"

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
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
  // Scales come from a monitors.xml in mutter's configuration folder; its
  // virtual monitors are named Meta-0, Meta-1, … by mutter.
  std::string layout;
  int x = 0;
  for (std::size_t i = 0; i < monitors_.size(); ++i) {
    std::string& monitor = monitors_[i];
    const auto at = monitor.find('@');
    const std::string scale = at == std::string::npos ? "1" : monitor.substr(at + 1);
    if (at != std::string::npos) monitor.resize(at);
    const auto by = monitor.find('x');
    const std::string width = monitor.substr(0, by), height = monitor.substr(by + 1);
    const std::string index = std::to_string(i);
    layout += "<logicalmonitor><x>" + std::to_string(x) + "</x><y>0</y><scale>" + scale +
              "</scale>" + (i == 0 ? "<primary>yes</primary>" : "") +
              "<monitor><monitorspec><connector>Meta-" + index +
              "</connector><vendor>MetaVendor</vendor><product>MetaVirtualMonitor</product>"
              "<serial>0x0" +
              index + "</serial></monitorspec><mode><width>" + width + "</width><height>" + height +
              "</height><rate>60.000</rate></mode></monitor>"
              "</logicalmonitor>";
    x += std::stoi(width);
  }
  std::filesystem::create_directories(runtimeDir_ + "/config");
  std::ofstream(runtimeDir_ + "/config/monitors.xml")
      << "<monitors version=\"2\"><configuration>" << layout << "</configuration></monitors>\n";
  options.env["XDG_CONFIG_HOME"] = runtimeDir_ + "/config";
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
