#include "ZulPlatform/linux/notifications/StatusNotification.h"

#include <gio/gio.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <utility>

namespace zul {

namespace {
constexpr const char* service = "org.freedesktop.Notifications";
constexpr const char* path = "/org/freedesktop/Notifications";
// NotificationClosed's reason when the person dismissed it.
constexpr guint32 dismissedByUser = 2;
}  // namespace

struct StatusNotification::State {
  StatusNotification* owner = nullptr;
  GDBusConnection* bus = nullptr;
  GMainContext* context = nullptr;
  GMainLoop* loop = nullptr;
  std::vector<guint> subscriptions;
  std::thread thread;
  std::mutex mutex;   // guards `shown`
  guint32 shown = 0;  // the notification's id while it is shown

  static void onSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                       const gchar* signal, GVariant* parameters, gpointer data) {
    auto* state = static_cast<State*>(data);
    guint32 id = 0;
    if (g_strcmp0(signal, "ActionInvoked") == 0) {
      const gchar* key = nullptr;
      g_variant_get(parameters, "(u&s)", &id, &key);
      if (!state->ours(id)) return;
      state->owner->onAction(std::string(key ? key : ""));
    } else if (g_strcmp0(signal, "NotificationClosed") == 0) {
      guint32 reason = 0;
      g_variant_get(parameters, "(uu)", &id, &reason);
      if (!state->ours(id)) return;
      {
        std::lock_guard lock(state->mutex);
        state->shown = 0;
      }
      if (reason == dismissedByUser) state->owner->onDismissed();
    }
  }

  bool ours(guint32 id) {
    std::lock_guard lock(mutex);
    return id != 0 && id == shown;
  }
};

StatusNotification::StatusNotification() : state_(std::make_unique<State>()) {
  state_->owner = this;
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (!address || !*address) return;
  state_->bus = g_dbus_connection_new_for_address_sync(
      address,
      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  if (!state_->bus) return;
  g_dbus_connection_set_exit_on_close(state_->bus, FALSE);
  state_->context = g_main_context_new();
  state_->loop = g_main_loop_new(state_->context, FALSE);
  // Signals are delivered on the context that is the thread's default at
  // subscription: ours, iterated by our thread.
  g_main_context_push_thread_default(state_->context);
  for (const char* signal : {"ActionInvoked", "NotificationClosed"}) {
    state_->subscriptions.push_back(g_dbus_connection_signal_subscribe(
        state_->bus, service, service, signal, path, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        &State::onSignal, state_.get(), nullptr));
  }
  g_main_context_pop_thread_default(state_->context);
  state_->thread = std::thread([state = state_.get()] {
    g_main_context_push_thread_default(state->context);
    g_main_loop_run(state->loop);
    g_main_context_pop_thread_default(state->context);
  });
}

StatusNotification::~StatusNotification() {
  if (!state_->bus) return;
  close();
  for (guint id : state_->subscriptions) g_dbus_connection_signal_unsubscribe(state_->bus, id);
  g_main_loop_quit(state_->loop);
  if (state_->thread.joinable()) state_->thread.join();
  g_main_loop_unref(state_->loop);
  g_main_context_unref(state_->context);
  g_dbus_connection_close_sync(state_->bus, nullptr, nullptr);
  g_object_unref(state_->bus);
}

bool StatusNotification::available() const { return state_->bus != nullptr; }

bool StatusNotification::show(const std::string& summary, const std::string& body,
                              const std::vector<Action>& actions) {
  if (!state_->bus) return false;
  GVariantBuilder buttons, hints;
  g_variant_builder_init(&buttons, G_VARIANT_TYPE("as"));
  for (const auto& action : actions) {
    g_variant_builder_add(&buttons, "s", action.key.c_str());
    g_variant_builder_add(&buttons, "s", action.label.c_str());
  }
  g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
  // Stays after a button is pressed, and in the tray of notifications.
  g_variant_builder_add(&hints, "{sv}", "resident", g_variant_new_boolean(TRUE));
  g_variant_builder_add(&hints, "{sv}", "urgency", g_variant_new_byte(0));
  g_variant_builder_add(&hints, "{sv}", "category", g_variant_new_string("presence"));
  g_variant_builder_add(&hints, "{sv}", "desktop-entry", g_variant_new_string("zul-agent"));
  guint32 replaces = 0;
  {
    std::lock_guard lock(state_->mutex);
    replaces = state_->shown;
  }
  GVariant* reply = g_dbus_connection_call_sync(
      state_->bus, service, path, service, "Notify",
      g_variant_new("(susssasa{sv}i)", "Velto", replaces, "zul-agent", summary.c_str(),
                    body.c_str(), &buttons, &hints, gint32(0)),
      G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr);
  if (!reply) return false;
  guint32 id = 0;
  g_variant_get(reply, "(u)", &id);
  g_variant_unref(reply);
  std::lock_guard lock(state_->mutex);
  state_->shown = id;
  return true;
}

void StatusNotification::close() {
  if (!state_->bus) return;
  guint32 id = 0;
  {
    std::lock_guard lock(state_->mutex);
    id = std::exchange(state_->shown, 0);
  }
  if (!id) return;
  GVariant* reply = g_dbus_connection_call_sync(
      state_->bus, service, path, service, "CloseNotification", g_variant_new("(u)", id), nullptr,
      G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr);
  if (reply) g_variant_unref(reply);
}

}  // namespace zul
