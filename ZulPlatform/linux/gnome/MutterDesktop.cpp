#include "ZulPlatform/linux/gnome/MutterDesktop.h"

#include <gio/gio.h>
#include <gio/gunixfdlist.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace zul {

MutterError MutterError::busUnavailable(std::string reason) {
  return {Case::busUnavailable, formatErrorCase("busUnavailable", {field(reason)})};
}
MutterError MutterError::callFailed(std::string method, std::string reason) {
  return {Case::callFailed, formatErrorCase("callFailed", {field(method), field(reason)})};
}
MutterError MutterError::monitorUnavailable(std::string connector) {
  return {Case::monitorUnavailable, formatErrorCase("monitorUnavailable", {field(connector)})};
}
MutterError MutterError::streamNotAnnounced(std::string connector) {
  return {Case::streamNotAnnounced, formatErrorCase("streamNotAnnounced", {field(connector)})};
}

std::uint32_t mutterDisplayID(const std::string& connector) {
  std::uint32_t hash = 2166136261u;  // FNV-1a
  for (unsigned char c : connector) hash = (hash ^ c) * 16777619u;
  return hash;
}

namespace {

constexpr const char* remoteDesktopName = "org.gnome.Mutter.RemoteDesktop";
constexpr const char* remoteDesktopPath = "/org/gnome/Mutter/RemoteDesktop";
constexpr const char* remoteDesktopSession = "org.gnome.Mutter.RemoteDesktop.Session";
constexpr const char* screenCastName = "org.gnome.Mutter.ScreenCast";
constexpr const char* screenCastPath = "/org/gnome/Mutter/ScreenCast";
constexpr const char* screenCastSession = "org.gnome.Mutter.ScreenCast.Session";
constexpr const char* screenCastStream = "org.gnome.Mutter.ScreenCast.Stream";
constexpr const char* displayConfigName = "org.gnome.Mutter.DisplayConfig";
constexpr const char* displayConfigPath = "/org/gnome/Mutter/DisplayConfig";
constexpr int callTimeoutMs = 5000;
constexpr auto streamAnnounceTimeout = std::chrono::seconds(10);
constexpr std::uint32_t cursorEmbedded = 1;
constexpr std::uint32_t keysymShiftL = 0xffe1;

struct VariantDeleter {
  void operator()(GVariant* v) const { g_variant_unref(v); }
};
using Variant = std::unique_ptr<GVariant, VariantDeleter>;

struct ErrorHolder {
  GError* error = nullptr;
  ~ErrorHolder() {
    if (error) g_error_free(error);
  }
  std::string message() const { return error ? error->message : "unknown error"; }
};

struct ObjectDeleter {
  void operator()(gpointer p) const { g_object_unref(p); }
};
using Connection = std::unique_ptr<GDBusConnection, ObjectDeleter>;

Variant call(GDBusConnection* bus, const char* name, const std::string& path, const char* interface,
             const char* method, GVariant* arguments, const GVariantType* reply,
             int timeoutMs = callTimeoutMs) {
  ErrorHolder error;
  GVariant* result =
      g_dbus_connection_call_sync(bus, name, path.c_str(), interface, method, arguments, reply,
                                  G_DBUS_CALL_FLAGS_NONE, timeoutMs, nullptr, &error.error);
  if (!result) throw MutterError::callFailed(method, error.message());
  return Variant(result);
}

Variant property(GDBusConnection* bus, const char* name, const std::string& path,
                 const char* interface, const char* property) {
  auto reply = call(bus, name, path, "org.freedesktop.DBus.Properties", "Get",
                    g_variant_new("(ss)", interface, property), G_VARIANT_TYPE("(v)"));
  GVariant* value = nullptr;
  g_variant_get(reply.get(), "(v)", &value);
  return Variant(value);
}

std::string objectPathOf(const Variant& reply) {
  const gchar* path = nullptr;
  g_variant_get(reply.get(), "(&o)", &path);
  return path;
}

// GetCurrentState: (serial, monitors a((ssss)a(siiddada{sv})a{sv}),
// logical monitors a(iiduba(ssss)a{sv}), properties a{sv}).
std::vector<MutterMonitor> parseState(GVariant* state) {
  struct Mode {
    int width = 0, height = 0;
  };
  std::map<std::string, Mode> current;
  Variant monitors(g_variant_get_child_value(state, 1));
  for (gsize i = 0; i < g_variant_n_children(monitors.get()); ++i) {
    Variant monitor(g_variant_get_child_value(monitors.get(), i));
    Variant identity(
        g_variant_get_child_value(monitor.get(), 0));  // (connector, vendor, product, serial)
    const gchar* connector = nullptr;
    g_variant_get_child(identity.get(), 0, "&s", &connector);
    Variant modes(g_variant_get_child_value(monitor.get(), 1));
    for (gsize m = 0; m < g_variant_n_children(modes.get()); ++m) {
      Variant mode(g_variant_get_child_value(modes.get(), m));
      gint32 width = 0, height = 0;
      g_variant_get_child(mode.get(), 1, "i", &width);
      g_variant_get_child(mode.get(), 2, "i", &height);
      Variant properties(g_variant_get_child_value(mode.get(), 6));
      gboolean isCurrent = FALSE;
      if (g_variant_lookup(properties.get(), "is-current", "b", &isCurrent) && isCurrent) {
        current[connector] = {width, height};
      }
    }
  }
  Variant properties(g_variant_get_child_value(state, 3));
  guint32 layoutMode = 1;  // logical unless mutter says physical (2)
  g_variant_lookup(properties.get(), "layout-mode", "u", &layoutMode);

  std::vector<MutterMonitor> out;
  Variant logical(g_variant_get_child_value(state, 2));
  for (gsize i = 0; i < g_variant_n_children(logical.get()); ++i) {
    Variant entry(g_variant_get_child_value(logical.get(), i));
    gint32 x = 0, y = 0;
    gdouble scale = 1;
    guint32 transform = 0;
    gboolean primary = FALSE;
    g_variant_get_child(entry.get(), 0, "i", &x);
    g_variant_get_child(entry.get(), 1, "i", &y);
    g_variant_get_child(entry.get(), 2, "d", &scale);
    g_variant_get_child(entry.get(), 3, "u", &transform);
    g_variant_get_child(entry.get(), 4, "b", &primary);
    Variant members(g_variant_get_child_value(entry.get(), 5));
    if (g_variant_n_children(members.get()) == 0) continue;
    Variant first(g_variant_get_child_value(members.get(), 0));
    const gchar* connector = nullptr;
    g_variant_get_child(first.get(), 0, "&s", &connector);
    Mode mode = current[connector];
    if (transform % 2 == 1) std::swap(mode.width, mode.height);  // 90 and 270 degrees
    if (layoutMode == 1 && scale > 0) {
      mode.width = int(mode.width / scale);
      mode.height = int(mode.height / scale);
    }
    MutterMonitor monitor;
    monitor.connector = connector;
    monitor.scale = scale;
    monitor.primary = primary;
    monitor.display = {.index = std::int64_t(out.size()),
                       .displayID = mutterDisplayID(connector),
                       .width = mode.width,
                       .height = mode.height,
                       .originX = x,
                       .originY = y,
                       .scale = scale > 0 ? scale : 1.0,
                       .elementScale = layoutMode == 2 && scale > 0 ? scale : 1.0,
                       .name = connector};
    out.push_back(std::move(monitor));
  }
  return out;
}

class Desktop;

class Session final : public MutterSession {
 public:
  Session(std::shared_ptr<GDBusConnection> bus, MutterMonitor monitor)
      : bus_(std::move(bus)), monitor_(std::move(monitor)) {}
  ~Session() override;

  const MutterMonitor& monitor() const override { return monitor_; }
  std::uint32_t pipeWireNode() const override { return node_; }
  int streamWidth() const override { return width_; }
  int streamHeight() const override { return height_; }
  bool open() const override {
    std::lock_guard lock(mutex_);
    return open_;
  }

  void pointerMotion(double x, double y) override {
    notify("NotifyPointerMotionAbsolute", g_variant_new("(sdd)", streamPath_.c_str(), x, y));
  }
  void pointerButton(int evdevButton, bool pressed) override {
    notify("NotifyPointerButton", g_variant_new("(ib)", evdevButton, gboolean(pressed)));
  }
  void pointerAxisDiscrete(unsigned axis, int steps) override {
    notify("NotifyPointerAxisDiscrete", g_variant_new("(ui)", guint32(axis), gint32(steps)));
  }
  void keyboardKeysym(std::uint32_t keysym, bool pressed) override {
    notify("NotifyKeyboardKeysym", g_variant_new("(ub)", guint32(keysym), gboolean(pressed)));
  }

  void enableClipboard() override {
    GVariantBuilder options;
    g_variant_builder_init(&options, G_VARIANT_TYPE("a{sv}"));
    notify("EnableClipboard", g_variant_new("(a{sv})", &options));
  }
  void disableClipboard() override { notify("DisableClipboard", nullptr); }
  void setSelection(const std::vector<std::string>& mimeTypes) override {
    GVariantBuilder types;
    g_variant_builder_init(&types, G_VARIANT_TYPE("as"));
    for (const auto& type : mimeTypes) g_variant_builder_add(&types, "s", type.c_str());
    GVariantBuilder options;
    g_variant_builder_init(&options, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&options, "{sv}", "mime-types", g_variant_builder_end(&types));
    notify("SetSelection", g_variant_new("(a{sv})", &options));
  }
  int selectionRead(const std::string& mimeType) override {
    return callForFd("SelectionRead", g_variant_new("(s)", mimeType.c_str()));
  }
  int selectionWrite(std::uint32_t serial) override {
    return callForFd("SelectionWrite", g_variant_new("(u)", guint32(serial)));
  }
  void selectionWriteDone(std::uint32_t serial, bool success) override {
    notify("SelectionWriteDone", g_variant_new("(ub)", guint32(serial), gboolean(success)));
  }

  // A method that answers with a file descriptor.
  int callForFd(const char* method, GVariant* arguments) {
    ErrorHolder error;
    GUnixFDList* fds = nullptr;
    GVariant* result = g_dbus_connection_call_with_unix_fd_list_sync(
        bus_.get(), remoteDesktopName, sessionPath_.c_str(), remoteDesktopSession, method,
        arguments, G_VARIANT_TYPE("(h)"), G_DBUS_CALL_FLAGS_NONE, callTimeoutMs, nullptr, &fds,
        nullptr, &error.error);
    if (!result) throw MutterError::callFailed(method, error.message());
    Variant reply(result);
    gint32 index = -1;
    g_variant_get(reply.get(), "(h)", &index);
    const int fd = fds ? g_unix_fd_list_get(fds, index, nullptr) : -1;
    if (fds) g_object_unref(fds);
    if (fd < 0) throw MutterError::callFailed(method, "no file descriptor in the answer");
    return fd;
  }

  void notify(const char* method, GVariant* arguments) {
    call(bus_.get(), remoteDesktopName, sessionPath_, remoteDesktopSession, method, arguments,
         nullptr);
  }

  // Bus thread.
  void closedByMutter() {
    {
      std::lock_guard lock(mutex_);
      if (!open_) return;
      open_ = false;
    }
    onClosed();
    onClosed = nullptr;
  }
  void announced(std::uint32_t node) {
    std::lock_guard lock(mutex_);
    node_ = node;
    announced_.notify_all();
  }

  std::shared_ptr<GDBusConnection> bus_;
  MutterMonitor monitor_;
  std::string sessionPath_;
  std::string streamPath_;
  std::uint32_t node_ = 0;
  int width_ = 0;
  int height_ = 0;

  mutable std::mutex mutex_;  // guards open_, node_ while waiting
  std::condition_variable announced_;
  bool open_ = true;
  std::function<void(const std::string&, const std::string&)> forget_;
};

Session::~Session() {
  if (forget_) forget_(sessionPath_, streamPath_);
  if (!sessionPath_.empty() && open()) {
    try {
      call(bus_.get(), remoteDesktopName, sessionPath_, remoteDesktopSession, "Stop", nullptr,
           nullptr);
    } catch (const MutterError&) {
      // mutter closed it already
    }
  }
}

class Desktop final : public MutterDesktop, public std::enable_shared_from_this<Desktop> {
 public:
  explicit Desktop(std::shared_ptr<GDBusConnection> bus) : bus_(std::move(bus)) {
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    // Subscriptions deliver on the thread-default context at the time of the
    // call: ours, iterated by our thread from here on.
    g_main_context_push_thread_default(context_);
    for (const char* signal : {"Closed", "SelectionOwnerChanged", "SelectionTransfer"}) {
      subscriptions_.push_back(g_dbus_connection_signal_subscribe(
          bus_.get(), nullptr, remoteDesktopSession, signal, nullptr, nullptr,
          G_DBUS_SIGNAL_FLAGS_NONE, &Desktop::onSignal, this, nullptr));
    }
    subscriptions_.push_back(g_dbus_connection_signal_subscribe(
        bus_.get(), nullptr, screenCastStream, "PipeWireStreamAdded", nullptr, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, &Desktop::onSignal, this, nullptr));
    subscriptions_.push_back(g_dbus_connection_signal_subscribe(
        bus_.get(), displayConfigName, displayConfigName, "MonitorsChanged", displayConfigPath,
        nullptr, G_DBUS_SIGNAL_FLAGS_NONE, &Desktop::onSignal, this, nullptr));
    // Mutter gone (crashed, killed, restarting): its sessions are over,
    // though it could not say so.
    subscriptions_.push_back(g_dbus_connection_signal_subscribe(
        bus_.get(), "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", remoteDesktopName, G_DBUS_SIGNAL_FLAGS_NONE, &Desktop::onSignal,
        this, nullptr));
    g_main_context_pop_thread_default(context_);
    thread_ = std::thread([this] {
      g_main_context_push_thread_default(context_);
      g_main_loop_run(loop_);
      g_main_context_pop_thread_default(context_);
    });
  }

  ~Desktop() override {
    {
      std::lock_guard lock(mutex_);
      input_.reset();
    }
    for (guint id : subscriptions_) g_dbus_connection_signal_unsubscribe(bus_.get(), id);
    g_main_loop_quit(loop_);
    if (thread_.joinable()) thread_.join();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

  std::vector<MutterMonitor> monitors() override {
    auto state = call(bus_.get(), displayConfigName, displayConfigPath, displayConfigName,
                      "GetCurrentState", nullptr, nullptr);
    return parseState(state.get());
  }

  std::shared_ptr<MutterSession> openSession(const std::string& connector) override {
    MutterMonitor monitor;
    bool found = false;
    for (auto& candidate : monitors()) {
      if (candidate.connector == connector) {
        monitor = candidate;
        found = true;
      }
    }
    if (!found) throw MutterError::monitorUnavailable(connector);

    auto session = std::make_shared<Session>(bus_, monitor);
    session->sessionPath_ =
        objectPathOf(call(bus_.get(), remoteDesktopName, remoteDesktopPath, remoteDesktopName,
                          "CreateSession", nullptr, G_VARIANT_TYPE("(o)")));
    {
      std::lock_guard lock(mutex_);
      sessions_[session->sessionPath_] = session;
    }
    std::weak_ptr<Desktop> self = weak_from_this();
    session->forget_ = [self](const std::string& sessionPath, const std::string& streamPath) {
      if (auto desktop = self.lock()) desktop->forget(sessionPath, streamPath);
    };
    auto id = property(bus_.get(), remoteDesktopName, session->sessionPath_, remoteDesktopSession,
                       "SessionId");
    GVariantBuilder properties;
    g_variant_builder_init(&properties, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&properties, "{sv}", "remote-desktop-session-id",
                          g_variant_new_string(g_variant_get_string(id.get(), nullptr)));
    const std::string castPath = objectPathOf(
        call(bus_.get(), screenCastName, screenCastPath, screenCastName, "CreateSession",
             g_variant_new("(a{sv})", &properties), G_VARIANT_TYPE("(o)")));
    GVariantBuilder record;
    g_variant_builder_init(&record, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&record, "{sv}", "cursor-mode", g_variant_new_uint32(cursorEmbedded));
    session->streamPath_ = objectPathOf(
        call(bus_.get(), screenCastName, castPath, screenCastSession, "RecordMonitor",
             g_variant_new("(sa{sv})", connector.c_str(), &record), G_VARIANT_TYPE("(o)")));
    {
      std::lock_guard lock(mutex_);
      streams_[session->streamPath_] = session;
    }
    // The screen cast bound to the session starts with it.
    session->notify("Start", nullptr);
    {
      std::unique_lock lock(session->mutex_);
      if (!session->announced_.wait_for(lock, streamAnnounceTimeout,
                                        [&] { return session->node_ != 0 || !session->open_; }) ||
          session->node_ == 0) {
        throw MutterError::streamNotAnnounced(connector);
      }
    }
    auto parameters =
        property(bus_.get(), screenCastName, session->streamPath_, screenCastStream, "Parameters");
    gint32 width = 0, height = 0;
    if (g_variant_lookup(parameters.get(), "size", "(ii)", &width, &height)) {
      session->width_ = width;
      session->height_ = height;
    } else {
      session->width_ = int(monitor.display.width);
      session->height_ = int(monitor.display.height);
    }
    // Mutter makes its virtual keyboard and pointer on their first events
    // and loses those: a Shift tap and a motion by nothing now keep the
    // first real key and click.
    session->keyboardKeysym(keysymShiftL, true);
    session->keyboardKeysym(keysymShiftL, false);
    session->notify("NotifyPointerMotionRelative", g_variant_new("(dd)", 0.0, 0.0));
    return session;
  }

  void setInputSession(std::shared_ptr<MutterSession> session) override {
    std::shared_ptr<MutterSession> previous;
    {
      std::lock_guard lock(mutex_);
      previous = std::move(input_);
      input_ = std::move(session);
    }
    onInputSessionChanged();
    // `previous` stops its session here, outside the lock.
  }

  void releaseInputSession(const std::shared_ptr<MutterSession>& session) override {
    std::shared_ptr<MutterSession> previous;
    {
      std::lock_guard lock(mutex_);
      if (input_ == session) previous = std::move(input_);
    }
  }

  std::shared_ptr<MutterSession> openInputSession() override {
    std::lock_guard guard(mutex_);
    return input_ && input_->open() ? input_ : nullptr;
  }

  std::shared_ptr<MutterSession> inputSession() override {
    std::unique_lock lock(inputOpening_);
    {
      std::lock_guard guard(mutex_);
      if (input_ && input_->open()) return input_;
    }
    std::string connector;
    for (const auto& monitor : monitors()) {
      if (connector.empty() || monitor.primary) connector = monitor.connector;
      if (monitor.primary) break;
    }
    if (connector.empty()) throw MutterError::monitorUnavailable("primary");
    auto session = openSession(connector);
    setInputSession(session);
    return session;
  }

  int addMonitorsChanged(MonitorsChanged handler) override {
    std::lock_guard lock(mutex_);
    const int token = ++lastToken_;
    monitorsChanged_[token] = std::move(handler);
    return token;
  }
  void removeMonitorsChanged(int token) override {
    std::lock_guard lock(mutex_);
    monitorsChanged_.erase(token);
  }

  std::optional<bool> screenLocked() override {
    try {
      auto reply = call(bus_.get(), "org.gnome.ScreenSaver", "/org/gnome/ScreenSaver",
                        "org.gnome.ScreenSaver", "GetActive", nullptr, G_VARIANT_TYPE("(b)"), 300);
      gboolean active = FALSE;
      g_variant_get(reply.get(), "(b)", &active);
      return bool(active);
    } catch (const MutterError&) {
      return std::nullopt;
    }
  }

  bool notify(const std::string& summary, const std::string& body) override {
    GVariantBuilder actions, hints;
    g_variant_builder_init(&actions, G_VARIANT_TYPE("as"));
    g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&hints, "{sv}", "urgency", g_variant_new_byte(1));
    try {
      call(bus_.get(), "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
           "org.freedesktop.Notifications", "Notify",
           g_variant_new("(susssasa{sv}i)", "Velto", guint32(0),
                         "preferences-desktop-remote-desktop", summary.c_str(), body.c_str(),
                         &actions, &hints, gint32(-1)),
           G_VARIANT_TYPE("(u)"), 2000);
      return true;
    } catch (const MutterError&) {
      return false;
    }
  }

 private:
  static void onSignal(GDBusConnection*, const gchar*, const gchar* path, const gchar* interface,
                       const gchar* signal, GVariant* parameters, gpointer data) {
    static_cast<Desktop*>(data)->dispatch(path, interface, signal, parameters);
  }

  void dispatch(const std::string& path, const std::string& interface, const std::string& signal,
                GVariant* parameters) {
    if (signal == "MonitorsChanged") {
      std::vector<MonitorsChanged> handlers;
      {
        std::lock_guard lock(mutex_);
        for (auto& [token, handler] : monitorsChanged_) handlers.push_back(handler);
      }
      for (auto& handler : handlers) {
        try {
          handler();
        } catch (...) {
          // an owner's failure must not reach GLib
        }
      }
      return;
    }
    if (signal == "NameOwnerChanged") {
      const gchar *name = nullptr, *previous = nullptr, *owner = nullptr;
      if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sss)"))) return;
      g_variant_get(parameters, "(&s&s&s)", &name, &previous, &owner);
      if (owner && *owner) return;
      std::vector<std::shared_ptr<Session>> open;
      {
        std::lock_guard lock(mutex_);
        for (auto& [path, weak] : sessions_) {
          if (auto session = weak.lock()) open.push_back(session);
        }
      }
      for (auto& session : open) session->closedByMutter();
      return;
    }
    std::shared_ptr<Session> session;
    {
      std::lock_guard lock(mutex_);
      auto& index = interface == remoteDesktopSession ? sessions_ : streams_;
      if (auto it = index.find(path); it != index.end()) session = it->second.lock();
    }
    if (!session) return;
    if (signal == "PipeWireStreamAdded" && interface == screenCastStream &&
        g_variant_is_of_type(parameters, G_VARIANT_TYPE("(u)"))) {
      guint32 node = 0;
      g_variant_get(parameters, "(u)", &node);
      session->announced(node);
    } else if (signal == "Closed" && interface == remoteDesktopSession) {
      session->closedByMutter();
    } else if (signal == "SelectionOwnerChanged" &&
               g_variant_is_of_type(parameters, G_VARIANT_TYPE("(a{sv})"))) {
      Variant options(g_variant_get_child_value(parameters, 0));
      std::vector<std::string> types;
      GVariant* list = g_variant_lookup_value(options.get(), "mime-types", G_VARIANT_TYPE("as"));
      if (list) {
        GVariantIter iter;
        const gchar* type = nullptr;
        g_variant_iter_init(&iter, list);
        while (g_variant_iter_next(&iter, "&s", &type)) types.emplace_back(type);
        g_variant_unref(list);
      }
      gboolean ours = FALSE;
      g_variant_lookup(options.get(), "session-is-owner", "b", &ours);
      session->onSelectionOwnerChanged(types, bool(ours));
    } else if (signal == "SelectionTransfer" &&
               g_variant_is_of_type(parameters, G_VARIANT_TYPE("(su)"))) {
      const gchar* type = nullptr;
      guint32 serial = 0;
      g_variant_get(parameters, "(&su)", &type, &serial);
      session->onSelectionTransfer(std::string(type), std::uint32_t(serial));
    }
  }

  void forget(const std::string& sessionPath, const std::string& streamPath) {
    std::lock_guard lock(mutex_);
    sessions_.erase(sessionPath);
    streams_.erase(streamPath);
  }

  std::shared_ptr<GDBusConnection> bus_;
  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  std::vector<guint> subscriptions_;
  std::thread thread_;

  std::mutex inputOpening_;  // one input session opened at a time
  std::mutex mutex_;         // guards everything below
  std::shared_ptr<MutterSession> input_;
  std::map<std::string, std::weak_ptr<Session>> sessions_;  // by remote-desktop session path
  std::map<std::string, std::weak_ptr<Session>> streams_;   // by stream path
  std::map<int, MonitorsChanged> monitorsChanged_;
  int lastToken_ = 0;
};

std::shared_ptr<GDBusConnection> openSessionBus() {
  ErrorHolder error;
  gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &error.error);
  if (!address) throw MutterError::busUnavailable(error.message());
  GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
      address,
      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error.error);
  g_free(address);
  if (!bus) throw MutterError::busUnavailable(error.message());
  // Closing the connection ends every session mutter keeps for it.
  g_dbus_connection_set_exit_on_close(bus, FALSE);
  return std::shared_ptr<GDBusConnection>(bus, [](GDBusConnection* c) {
    g_dbus_connection_close_sync(c, nullptr, nullptr);
    g_object_unref(c);
  });
}

bool hasOwner(GDBusConnection* bus, const char* name) {
  try {
    auto reply = call(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                      "NameHasOwner", g_variant_new("(s)", name), G_VARIANT_TYPE("(b)"), 2000);
    gboolean owned = FALSE;
    g_variant_get(reply.get(), "(b)", &owned);
    return owned;
  } catch (const MutterError&) {
    return false;
  }
}

}  // namespace

std::shared_ptr<MutterDesktop> MutterDesktop::connect() {
  auto bus = openSessionBus();
  if (!hasOwner(bus.get(), remoteDesktopName)) {
    throw MutterError::busUnavailable(std::string(remoteDesktopName) +
                                      " is not on the session bus");
  }
  return std::make_shared<Desktop>(std::move(bus));
}

bool MutterDesktop::serviceAvailable() {
  try {
    auto bus = openSessionBus();
    return hasOwner(bus.get(), remoteDesktopName);
  } catch (const MutterError&) {
    return false;
  }
}

}  // namespace zul
