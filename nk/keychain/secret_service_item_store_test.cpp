// Tests of the Secret Service store as other Secret Service clients see its items,
// and of the question whether the session bus offers a Secret Service.

#include "nk/keychain/secret_service_item_store_internal.hpp"

#include <gtest/gtest.h>
#include <libsecret/secret.h>

#include <chrono>
#include <string>

#include "nk/keychain/keychain_test_support_internal.hpp"

namespace nk::keychain_internal {
namespace {

using test::ScopedEnv;
using test::TempDir;

std::vector<uint8_t> V(std::string_view text) { return {text.begin(), text.end()}; }

class SecretService : public testing::Test {
 protected:
  void SetUp() override {
    if (test::secretServiceOffered()) return;
    if (test::secretServiceRequired()) FAIL() << "the session bus has no Secret Service";
    GTEST_SKIP() << "no Secret Service on the session bus; run under scripts/with-secret-service";
  }
  void TearDown() override { store_.remove(key_); }

  SecretServiceItemStore store_;
  const ItemKey key_{test::uniqueService("secret-service"), "person@example.com"};
};

TEST_F(SecretService, ItemsAsAKeyringManagerShowsThem) {
  ASSERT_EQ(store_.add(key_, V(std::string("bin\0ary", 7))), errSecSuccess);
  GHashTable* attributes = g_hash_table_new(g_str_hash, g_str_equal);
  g_hash_table_insert(attributes, const_cast<char*>("service"),
                      const_cast<char*>(key_.service.c_str()));
  g_hash_table_insert(attributes, const_cast<char*>("account"),
                      const_cast<char*>(key_.account.c_str()));
  GError* error = nullptr;
  GList* items = secret_service_search_sync(
      nullptr, nullptr, attributes,
      static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | SECRET_SEARCH_LOAD_SECRETS), nullptr,
      &error);
  g_hash_table_unref(attributes);
  ASSERT_EQ(error, nullptr) << error->message;
  ASSERT_EQ(g_list_length(items), 1u);
  auto* item = static_cast<SecretItem*>(items->data);
  {  // a label a person recognises, and the schema's name among the attributes
    gchar* label = secret_item_get_label(item);
    EXPECT_EQ(std::string(label), key_.service + " \u2014 " + key_.account);
    g_free(label);
    GHashTable* found = secret_item_get_attributes(item);
    EXPECT_STREQ(static_cast<const char*>(g_hash_table_lookup(found, "xdg:schema")),
                 SecretServiceItemStore::kSchemaName);
    g_hash_table_unref(found);
  }
  {  // the value is kept as binary, NUL and all (gnome-keyring keeps no content type)
    SecretValue* secret = secret_item_get_secret(item);
    ASSERT_NE(secret, nullptr);
    gsize length = 0;
    const gchar* bytes = secret_value_get(secret, &length);
    EXPECT_EQ(std::string(bytes, length), std::string("bin\0ary", 7));
    secret_value_unref(secret);
  }
  {  // the item lives in a collection that persists, not the in-memory session one
    SecretCollection* collection = nullptr;
    g_object_get(item, "collection", &collection, nullptr);
    if (collection) {
      EXPECT_STRNE(g_dbus_proxy_get_object_path(G_DBUS_PROXY(collection)),
                   "/org/freedesktop/secrets/collection/session");
      g_object_unref(collection);
    }
  }
  g_list_free_full(items, g_object_unref);
}

TEST(SecretServiceOnTheBus, AnAbsentBusAnswersAtOnce) {
  {  // a bus address that leads nowhere
    ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/nk-bus");
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(SecretServiceItemStore::isOfferedOnSessionBus());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  }
  {  // no address and no runtime socket: no bus, and nothing launched
    ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
    TempDir runtime;
    ScopedEnv runtimeDir("XDG_RUNTIME_DIR", runtime.path());
    EXPECT_EQ(SecretServiceItemStore::sessionBusAddress(), std::nullopt);
    EXPECT_FALSE(SecretServiceItemStore::isOfferedOnSessionBus());
    SecretServiceItemStore store;
    EXPECT_EQ(store.copy({"com.example.app", "a"}, nullptr), errSecNotAvailable);
  }
}

}  // namespace
}  // namespace nk::keychain_internal
