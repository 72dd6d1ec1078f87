#include "ZulPlatform/linux/secrets/SecretServiceBackend.h"

#include <libsecret/secret.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string_view>

#include "ZulPlatform/linux/secrets/FileSecretBackend.h"

namespace zul {
namespace {

const SecretSchema kSchema = {
    "dev.zul.agent.Secret",
    SECRET_SCHEMA_NONE,
    {
        {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
        {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
        {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
    },
};

constexpr const char* kContentType = "application/octet-stream";
constexpr const char* kBusName = "org.freedesktop.secrets";

struct ErrorDeleter {
  void operator()(GError* error) const { g_error_free(error); }
};
struct ObjectDeleter {
  void operator()(gpointer object) const { g_object_unref(object); }
};
struct HashTableDeleter {
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
struct ValueDeleter {
  void operator()(SecretValue* value) const { secret_value_unref(value); }
};
struct ItemListDeleter {
  void operator()(GList* list) const { g_list_free_full(list, g_object_unref); }
};
struct VariantDeleter {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
struct MainContextDeleter {
  void operator()(GMainContext* context) const { g_main_context_unref(context); }
};
struct SourceDeleter {
  void operator()(GSource* source) const {
    g_source_destroy(source);
    g_source_unref(source);
  }
};
using ErrorPtr = std::unique_ptr<GError, ErrorDeleter>;
using HashTablePtr = std::unique_ptr<GHashTable, HashTableDeleter>;
using ValuePtr = std::unique_ptr<SecretValue, ValueDeleter>;
using ItemListPtr = std::unique_ptr<GList, ItemListDeleter>;
using VariantPtr = std::unique_ptr<GVariant, VariantDeleter>;
using MainContextPtr = std::unique_ptr<GMainContext, MainContextDeleter>;
using SourcePtr = std::unique_ptr<GSource, SourceDeleter>;
template <typename T>
using ObjectPtr = std::unique_ptr<T, ObjectDeleter>;

std::string messageOf(GError* error) {
  if (!error) return "unknown error";
  // "GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown: ..." -> the message.
  if (g_dbus_error_is_remote_error(error)) g_dbus_error_strip_remote_error(error);
  return error->message ? error->message : "unknown error";
}

// The attribute table borrows the strings; it must not outlive them.
HashTablePtr attributesFor(const std::string& service, const std::string& account) {
  HashTablePtr table(g_hash_table_new(g_str_hash, g_str_equal));
  g_hash_table_insert(table.get(), const_cast<char*>("service"),
                      const_cast<char*>(service.c_str()));
  g_hash_table_insert(table.get(), const_cast<char*>("account"),
                      const_cast<char*>(account.c_str()));
  return table;
}

}  // namespace

struct SecretServiceBackend::Connection {
  ObjectPtr<SecretService> service;
};

std::optional<std::string> SecretServiceBackend::sessionBusAddress() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) {
    return std::string(address);
  }
  // The systemd user bus, which GLib also uses when the variable is unset.
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
    std::string path = std::string(runtime) + "/bus";
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode)) {
      char* escaped = g_dbus_address_escape_value(path.c_str());
      std::string address = std::string("unix:path=") + escaped;
      g_free(escaped);
      return address;
    }
  }
  return std::nullopt;
}

std::optional<std::string> SecretServiceBackend::probe(std::chrono::milliseconds timeout,
                                                       bool requireDefaultCollection) {
  auto address = sessionBusAddress();
  if (!address) return std::string("no session bus (DBUS_SESSION_BUS_ADDRESS is not set)");

  // A private connection and main context: the probe must neither reuse the
  // process's shared bus connection (it may be bound to another bus) nor
  // block longer than the time-out on a bus that does not answer.
  MainContextPtr context(g_main_context_new());
  g_main_context_push_thread_default(context.get());
  ObjectPtr<GCancellable> cancellable(g_cancellable_new());
  SourcePtr timer(g_timeout_source_new(static_cast<guint>(timeout.count())));
  g_source_set_callback(
      timer.get(),
      [](gpointer data) -> gboolean {
        g_cancellable_cancel(static_cast<GCancellable*>(data));
        return G_SOURCE_REMOVE;
      },
      cancellable.get(), nullptr);
  g_source_attach(timer.get(), context.get());

  struct Pending {
    bool done = false;
    GAsyncResult* result = nullptr;
  };
  auto wait = [&](Pending& pending) {
    while (!pending.done) g_main_context_iteration(context.get(), TRUE);
    return ObjectPtr<GAsyncResult>(pending.result);
  };
  auto finished = [](GObject*, GAsyncResult* result, gpointer data) {
    auto* pending = static_cast<Pending*>(data);
    pending->result = static_cast<GAsyncResult*>(g_object_ref(result));
    pending->done = true;
  };

  std::optional<std::string> failure;
  GError* rawError = nullptr;
  Pending connecting;
  g_dbus_connection_new_for_address(
      address->c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, cancellable.get(), finished, &connecting);
  auto connectResult = wait(connecting);
  ObjectPtr<GDBusConnection> bus(
      g_dbus_connection_new_for_address_finish(connectResult.get(), &rawError));
  if (!bus) {
    ErrorPtr error(rawError);
    failure = g_cancellable_is_cancelled(cancellable.get())
                  ? "the session bus did not answer in time"
                  : "cannot connect to the session bus: " + messageOf(error.get());
  } else {
    // Any call starts the service through bus activation when it is not
    // running yet; asking for the default collection also tells whether a
    // save could succeed without a dialog to create one.
    Pending calling;
    g_dbus_connection_call(
        bus.get(), kBusName, "/org/freedesktop/secrets", "org.freedesktop.Secret.Service",
        "ReadAlias", g_variant_new("(s)", "default"), G_VARIANT_TYPE("(o)"), G_DBUS_CALL_FLAGS_NONE,
        static_cast<int>(timeout.count()), cancellable.get(), finished, &calling);
    auto callResult = wait(calling);
    VariantPtr reply(g_dbus_connection_call_finish(bus.get(), callResult.get(), &rawError));
    if (!reply) {
      ErrorPtr error(rawError);
      failure = g_cancellable_is_cancelled(cancellable.get())
                    ? "the Secret Service did not answer in time"
                    : "the Secret Service does not answer: " + messageOf(error.get());
    } else if (requireDefaultCollection) {
      const gchar* path = nullptr;
      g_variant_get(reply.get(), "(&o)", &path);
      if (!path || std::string_view(path) == "/") {
        failure = "the Secret Service has no default collection";
      }
    }
    Pending closing;
    g_dbus_connection_close(bus.get(), nullptr, finished, &closing);
    auto closeResult = wait(closing);
    g_dbus_connection_close_finish(bus.get(), closeResult.get(), nullptr);
  }
  timer.reset();
  // Let the connection's last callbacks run on this context before it goes.
  bus.reset();
  while (g_main_context_iteration(context.get(), FALSE)) {
  }
  g_main_context_pop_thread_default(context.get());
  return failure;
}

void SecretServiceBackend::resetSharedConnection() { secret_service_disconnect(); }

SecretServiceBackend::SecretServiceBackend() : connection_(std::make_unique<Connection>()) {
  if (!sessionBusAddress()) {
    throw SecretStoreError::unavailable("no session bus (DBUS_SESSION_BUS_ADDRESS is not set)");
  }
  GError* rawError = nullptr;
  connection_->service.reset(
      secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &rawError));
  if (!connection_->service) {
    ErrorPtr error(rawError);
    throw SecretStoreError::unavailable(messageOf(error.get()));
  }
}

SecretServiceBackend::~SecretServiceBackend() = default;

std::optional<Bytes> SecretServiceBackend::load(const std::string& service,
                                                const std::string& account) {
  auto attributes = attributesFor(service, account);
  GError* rawError = nullptr;
  // A search rather than a plain lookup: a lookup answers "absent" when the
  // item exists but stays locked, which would make the agent replace it.
  ItemListPtr items(secret_service_search_sync(
      connection_->service.get(), &kSchema, attributes.get(),
      static_cast<SecretSearchFlags>(SECRET_SEARCH_UNLOCK | SECRET_SEARCH_LOAD_SECRETS), nullptr,
      &rawError));
  if (rawError) {
    ErrorPtr error(rawError);
    throw SecretStoreError::readFailed(account, messageOf(error.get()));
  }
  if (!items) return std::nullopt;
  auto* item = static_cast<SecretItem*>(items->data);
  if (secret_item_get_locked(item)) {
    throw SecretStoreError::readFailed(account, "the keyring is locked");
  }
  ValuePtr value(secret_item_get_secret(item));
  if (!value) throw SecretStoreError::readFailed(account, "the secret could not be retrieved");
  gsize length = 0;
  const gchar* data = secret_value_get(value.get(), &length);
  return Bytes(reinterpret_cast<const std::uint8_t*>(data),
               reinterpret_cast<const std::uint8_t*>(data) + length);
}

void SecretServiceBackend::save(const std::string& service, const std::string& account,
                                const Bytes& secret) {
  auto attributes = attributesFor(service, account);
  static const char empty = 0;
  ValuePtr value(
      secret_value_new(secret.empty() ? &empty : reinterpret_cast<const gchar*>(secret.data()),
                       static_cast<gssize>(secret.size()), kContentType));
  const std::string label = "Zul agent: " + account;
  GError* rawError = nullptr;
  // Storing replaces an item with the same attributes in one step.
  gboolean stored = secret_service_store_sync(connection_->service.get(), &kSchema,
                                              attributes.get(), SECRET_COLLECTION_DEFAULT,
                                              label.c_str(), value.get(), nullptr, &rawError);
  if (!stored || rawError) {
    ErrorPtr error(rawError);
    throw SecretStoreError::writeFailed(account, messageOf(error.get()));
  }
}

void SecretServiceBackend::remove(const std::string& service, const std::string& account) noexcept {
  try {
    auto attributes = attributesFor(service, account);
    GError* rawError = nullptr;
    secret_service_clear_sync(connection_->service.get(), &kSchema, attributes.get(), nullptr,
                              &rawError);
    if (rawError) g_error_free(rawError);
  } catch (...) {
    // Removing never fails: at worst the secret stays.
  }
}

}  // namespace zul

namespace zul {

std::unique_ptr<SecretUpdateLock> SecretServiceBackend::lockForUpdate(const std::string& service,
                                                                      const std::string& account) {
  namespace fs = std::filesystem;
  fs::path folder;
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && runtime[0] == '/') {
    folder = fs::path(runtime) / "zul-agent";
  } else {
    folder = FileSecretBackend::defaultRoot().parent_path() / "locks";
  }
  try {
    std::error_code ignored;
    fs::create_directories(folder.parent_path(), ignored);
    FileSecretBackend::ensurePrivateFolder(folder);
  } catch (const std::exception& error) {
    throw SecretStoreError::writeFailed(account, error.what());
  }
  const std::string name =
      FileSecretBackend::escapeName(service) + "." + FileSecretBackend::escapeName(account);
  return FileSecretBackend::lockFile(folder / (name.substr(0, 200) + ".lock"), account);
}

}  // namespace zul
