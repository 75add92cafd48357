// Tests of the keychain item services, run on both stores: add, find, update and
// delete, keys and values of any bytes, malformed queries, and threads at once.

#include "nk/keychain/sec_item.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "nk/foundation/number.hpp"
#include "nk/keychain/keychain_test_support_internal.hpp"

namespace nk {
namespace {

using test::bytes;
using test::S;

OSStatus add(const Ref<MutableDictionary>& query, const Ref<Data>& value) {
  Ref<MutableDictionary> attributes = MutableDictionary::withDictionary(query.get());
  attributes->setObjectForKey(value, kSecValueData());
  return SecItemAdd(attributes.get());
}

// The item's value as text, or "(status)" when there is none.
std::string read(const Ref<MutableDictionary>& query) {
  Ref<MutableDictionary> search = MutableDictionary::withDictionary(query.get());
  search->setObjectForKey(Number::yes(), kSecReturnData());
  search->setObjectForKey(kSecMatchLimitOne(), kSecMatchLimit());
  Id result;
  OSStatus status = SecItemCopyMatching(search.get(), &result);
  Ref<Data> data = cast<Data>(result);
  if (status != errSecSuccess || !data) return "(" + std::to_string(status) + ")";
  return std::string(data->bytes(), data->bytes() + data->length());
}

OSStatus update(const Ref<MutableDictionary>& query, const Ref<Data>& value) {
  return SecItemUpdate(query.get(), Dictionary::make({{kSecValueData(), value}}).get());
}

using ItemServices = test::BackendTest;

TEST_P(ItemServices, AddFindUpdateDelete) {
  auto token = item("token");
  const std::string notFound = "(" + std::to_string(errSecItemNotFound) + ")";
  // Without kSecReturnData only the status comes back.
  ASSERT_EQ(add(token, bytes("first")), errSecSuccess);
  EXPECT_EQ(read(token), "first");
  Id result = bytes("stale");
  EXPECT_EQ(SecItemCopyMatching(token.get(), &result), errSecSuccess);
  EXPECT_FALSE(result);
  // A second add is refused; update replaces, even with value data in the query.
  EXPECT_EQ(add(token, bytes("second")), errSecDuplicateItem);
  EXPECT_EQ(read(token), "first");
  Ref<MutableDictionary> withData = MutableDictionary::withDictionary(token.get());
  withData->setObjectForKey(bytes("first"), kSecValueData());
  EXPECT_EQ(update(withData, bytes("third")), errSecSuccess);
  EXPECT_EQ(read(token), "third");
  // Service and account are compared exactly.
  const std::string other = test::uniqueService("other");
  ASSERT_EQ(add(item("Token"), bytes("upper")), errSecSuccess);
  ASSERT_EQ(add(item(other, "token"), bytes("elsewhere")), errSecSuccess);
  EXPECT_EQ(read(token), "third");
  EXPECT_EQ(read(item("Token")), "upper");
  EXPECT_EQ(read(item(other, "token")), "elsewhere");
  // Deleted once, then gone, and the others stay.
  EXPECT_EQ(SecItemDelete(token.get()), errSecSuccess);
  EXPECT_EQ(SecItemDelete(token.get()), errSecItemNotFound);
  EXPECT_EQ(read(token), notFound);
  EXPECT_EQ(update(token, bytes("x")), errSecItemNotFound);
  EXPECT_EQ(read(item("Token")), "upper");
}

TEST_P(ItemServices, AnyBytes) {
  {  // values: every byte value, empty, absent, large
    std::string all(512, '\0'), large(1 << 20, '\0');
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<char>(i);
    for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 + i / 256);
    for (const std::string& value : {all, std::string(), large}) {
      auto query = item("value" + std::to_string(value.size()));
      ASSERT_EQ(add(query, bytes(value)), errSecSuccess);
      EXPECT_TRUE(read(query) == value);
    }
    ASSERT_EQ(SecItemAdd(item("absent").get()), errSecSuccess);
    EXPECT_EQ(read(item("absent")), "");
  }
  {  // names: any text, empty, with path syntax and escapes
    const std::string odd = test::uniqueService("/../%2F.\xC3\xA9 \xF0\x9F\x94\x91");
    for (const std::string& account :
         {std::string(), std::string("caf\xC3\xA9"), std::string("../../etc/passwd"),
          std::string("%41"), std::string(300, 'k')}) {
      ASSERT_EQ(add(item(odd, account), bytes(account)), errSecSuccess) << account;
      EXPECT_EQ(read(item(odd, account)), account);
    }
    EXPECT_EQ(SecItemCopyMatching(item(odd, "A").get(), nullptr), errSecItemNotFound);
  }
  {  // text no store can keep (U+0000, an unpaired surrogate) is refused
    const char16_t withNul[] = {u'a', 0, u'b'}, lone[] = {u'x', 0xD800};
    for (const Ref<String>& text :
         {String::withCharacters({withNul, 3}), String::withCharacters({lone, 2})}) {
      for (String* attribute : {kSecAttrAccount(), kSecAttrService()}) {
        Ref<MutableDictionary> query = item("unused");
        query->setObjectForKey(text, attribute);
        EXPECT_EQ(add(query, bytes("v")), errSecParam);
        EXPECT_EQ(SecItemCopyMatching(query.get(), nullptr), errSecParam);
        EXPECT_EQ(update(query, bytes("v")), errSecParam);
        EXPECT_EQ(SecItemDelete(query.get()), errSecParam);
      }
    }
  }
}

TEST_P(ItemServices, MalformedQueries) {
  auto changed = [&](Id key, Id value) {
    Ref<MutableDictionary> query = item("q");
    value ? query->setObjectForKey(value, key.get()) : query->removeObjectForKey(key.get());
    return query;
  };
  for (const Ref<MutableDictionary>& query :
       {changed(kSecClass(), nullptr), changed(kSecClass(), S("inet")),
        changed(kSecAttrService(), nullptr), changed(kSecAttrAccount(), nullptr),
        changed(kSecAttrAccount(), Number::withInt(7)), changed(kSecAttrAccessible(), S("dk")),
        changed(kSecValueData(), S("not data")), changed(S("labl"), S("a label")),
        changed(Number::withInt(1), S("number key")), Ref<MutableDictionary>()}) {
    EXPECT_EQ(SecItemAdd(query.get()), errSecParam);
    EXPECT_EQ(SecItemCopyMatching(query.get(), nullptr), errSecParam);
    EXPECT_EQ(update(query, bytes("x")), errSecParam);
    EXPECT_EQ(SecItemDelete(query.get()), errSecParam);
  }
  // Search keys belong to searches, and the only match limit is one.
  EXPECT_EQ(SecItemAdd(changed(kSecReturnData(), Number::yes()).get()), errSecParam);
  EXPECT_EQ(SecItemDelete(changed(kSecMatchLimit(), kSecMatchLimitOne()).get()), errSecParam);
  EXPECT_EQ(SecItemCopyMatching(changed(kSecMatchLimit(), S("m_LimitAll")).get(), nullptr),
            errSecParam);
  EXPECT_EQ(SecItemCopyMatching(changed(kSecReturnData(), S("yes")).get(), nullptr), errSecParam);
  // An update changes the value data and nothing else.
  ASSERT_EQ(add(changed(kSecAttrAccessible(), kSecAttrAccessibleWhenUnlocked()), bytes("v")),
            errSecSuccess);
  for (const Ref<Dictionary>& attributes :
       {Ref<Dictionary>(), Dictionary::make(), Dictionary::make({{kSecValueData(), S("w")}}),
        Dictionary::make({{kSecValueData(), bytes("w")}, {kSecAttrAccount(), S("q2")}})}) {
    EXPECT_EQ(SecItemUpdate(item("q").get(), attributes.get()), errSecParam);
  }
  EXPECT_EQ(read(item("q")), "v");
}

TEST_P(ItemServices, ThreadsAtOnce) {
  constexpr int kThreads = 4, kItems = 4;
  std::vector<Ref<MutableDictionary>> queries;
  for (int i = 0; i < kThreads * kItems; ++i) queries.push_back(item("t" + std::to_string(i)));
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t * kItems; i < (t + 1) * kItems; ++i) {
        std::string value = std::to_string(i);
        failures[t] += add(queries[i], bytes(value)) != errSecSuccess;
        failures[t] += update(queries[i], bytes(value + "!")) != errSecSuccess;
        failures[t] += read(queries[i]) != value + "!";
        failures[t] += i % 2 == 0 && SecItemDelete(queries[i].get()) != errSecSuccess;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
  for (int i = 0; i < kThreads * kItems; ++i) {
    EXPECT_EQ(SecItemCopyMatching(queries[i].get(), nullptr),
              i % 2 == 0 ? errSecItemNotFound : errSecSuccess);
  }
}

INSTANTIATE_TEST_SUITE_P(Stores, ItemServices, test::kBothBackends, test::backendName);

}  // namespace
}  // namespace nk
