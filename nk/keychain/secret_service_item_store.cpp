// The Secret Service store of keychain items, and the question whether the session
// bus offers one.
#include "nk/keychain/secret_service_item_store_internal.hpp"

#include <gio/gio.h>
// The search for item paths alone sits in the part of libsecret's interface it calls
// unstable; it has not changed since it appeared.
#define SECRET_WITH_UNSTABLE 1
#define SECRET_API_SUBJECT_TO_CHANGE 1
#include <libsecret/secret.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

namespace nk::keychain_internal {
namespace {

constexpr const char* kSecretsBusName = "org.freedesktop.secrets";
constexpr int kBusTimeoutMs = 1000;

const SecretSchema& schema() {
  static const SecretSchema s = {SecretServiceItemStore::kSchemaName,
                                 SECRET_SCHEMA_NONE,
                                 {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                  {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                  {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                                 0,
                                 nullptr,
                                 nullptr,
                                 nullptr,
                                 nullptr,
                                 nullptr,
                                 nullptr,
                                 nullptr};
  return s;
}

// Consumes `error`.
OSStatus statusOf(GError* error) {
  OSStatus status = errSecNotAvailable;
  if (g_error_matches(error, SECRET_ERROR, SECRET_ERROR_IS_LOCKED)) {
    status = errSecInteractionNotAllowed;
  } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    status = errSecUserCanceled;
  }
  g_error_free(error);
  return status;
}

// A reply of the bus's own interface, or nullptr.
GVariant* askBus(GDBusConnection* bus, const char* method, GVariant* parameters,
                 const char* replyType) {
  return g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus", method, parameters,
                                     G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE,
                                     kBusTimeoutMs, nullptr, nullptr);
}

bool hasOwner(GDBusConnection* bus) {
  GVariant* reply = askBus(bus, "NameHasOwner", g_variant_new("(s)", kSecretsBusName), "(b)");
  if (!reply) return false;
  gboolean owned = FALSE;
  g_variant_get(reply, "(b)", &owned);
  g_variant_unref(reply);
  return owned;
}

bool isActivatable(GDBusConnection* bus) {
  GVariant* reply = askBus(bus, "ListActivatableNames", nullptr, "(as)");
  if (!reply) return false;
  const gchar** names = nullptr;
  g_variant_get(reply, "(^a&s)", &names);
  bool found = names && g_strv_contains(names, kSecretsBusName);
  g_free(names);
  g_variant_unref(reply);
  return found;
}

// Whether the item exists, as a status. Asks for item paths only: the service makes
// no item proxies (which would cost a round trip each).
OSStatus find(const ItemKey& key) {
  GError* error = nullptr;
  SecretService* service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, &error);
  if (!service) return statusOf(error);
  GHashTable* attributes = g_hash_table_new(g_str_hash, g_str_equal);
  g_hash_table_insert(attributes, const_cast<char*>("service"),
                      const_cast<char*>(key.service.c_str()));
  g_hash_table_insert(attributes, const_cast<char*>("account"),
                      const_cast<char*>(key.account.c_str()));
  gchar** unlocked = nullptr;
  gchar** locked = nullptr;
  secret_service_search_for_dbus_paths_sync(service, &schema(), attributes, nullptr, &unlocked,
                                            &locked, &error);
  g_hash_table_unref(attributes);
  g_object_unref(service);
  bool found = (unlocked && unlocked[0]) || (locked && locked[0]);
  g_strfreev(unlocked);
  g_strfreev(locked);
  if (error) return statusOf(error);
  return found ? errSecSuccess : errSecItemNotFound;
}

// Creates the item, or replaces the value of the one that exists.
OSStatus store(const ItemKey& key, std::span<const uint8_t> value) {
  std::string label = key.service + " \u2014 " + key.account;
  static const char kNoBytes = 0;
  SecretValue* secret =
      secret_value_new(value.empty() ? &kNoBytes : reinterpret_cast<const gchar*>(value.data()),
                       static_cast<gssize>(value.size()), "application/octet-stream");
  GError* error = nullptr;
  secret_password_store_binary_sync(&schema(), SECRET_COLLECTION_DEFAULT, label.c_str(), secret,
                                    nullptr, &error, "service", key.service.c_str(), "account",
                                    key.account.c_str(), nullptr);
  secret_value_unref(secret);
  return error ? statusOf(error) : errSecSuccess;
}

}  // namespace

std::optional<std::string> SecretServiceItemStore::sessionBusAddress() {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) return std::string(address);
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (!runtime || runtime[0] != '/') return std::nullopt;
  std::string socket = std::string(runtime) + "/bus";
  struct stat st;
  if (::stat(socket.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return std::nullopt;
  gchar* escaped = g_dbus_address_escape_value(socket.c_str());
  std::string result = std::string("unix:path=") + escaped;
  g_free(escaped);
  return result;
}

bool SecretServiceItemStore::isOfferedOnSessionBus() {
  std::optional<std::string> address = sessionBusAddress();
  if (!address) return false;
  // A connection of its own, so the answer reflects the address asked about and the
  // shared connection libsecret uses is left alone.
  GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
      address->c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  if (!bus) return false;
  bool offered = hasOwner(bus) || isActivatable(bus);
  g_dbus_connection_close_sync(bus, nullptr, nullptr);
  g_object_unref(bus);
  return offered;
}

OSStatus SecretServiceItemStore::add(const ItemKey& key, std::span<const uint8_t> value) {
  if (!sessionBusAddress()) return errSecNotAvailable;
  OSStatus status = find(key);
  if (status == errSecSuccess) return errSecDuplicateItem;
  return status == errSecItemNotFound ? store(key, value) : status;
}

OSStatus SecretServiceItemStore::copy(const ItemKey& key, std::vector<uint8_t>* value) {
  if (!sessionBusAddress()) return errSecNotAvailable;
  GError* error = nullptr;
  SecretValue* secret =
      secret_password_lookup_binary_sync(&schema(), nullptr, &error, "service", key.service.c_str(),
                                         "account", key.account.c_str(), nullptr);
  if (error) return statusOf(error);
  if (!secret) return errSecItemNotFound;
  if (value) {
    gsize length = 0;
    const gchar* bytes = secret_value_get(secret, &length);
    value->assign(reinterpret_cast<const uint8_t*>(bytes),
                  reinterpret_cast<const uint8_t*>(bytes) + length);
  }
  secret_value_unref(secret);
  return errSecSuccess;
}

OSStatus SecretServiceItemStore::update(const ItemKey& key, std::span<const uint8_t> value) {
  if (!sessionBusAddress()) return errSecNotAvailable;
  OSStatus status = find(key);
  return status == errSecSuccess ? store(key, value) : status;
}

OSStatus SecretServiceItemStore::remove(const ItemKey& key) {
  if (!sessionBusAddress()) return errSecNotAvailable;
  GError* error = nullptr;
  gboolean removed =
      secret_password_clear_sync(&schema(), nullptr, &error, "service", key.service.c_str(),
                                 "account", key.account.c_str(), nullptr);
  if (error) return statusOf(error);
  return removed ? errSecSuccess : errSecItemNotFound;
}

}  // namespace nk::keychain_internal
