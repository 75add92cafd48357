// Tests of NKKeychainUtils on both stores: the query, round trips, storing twice,
// nil keys, undecodable items, the allow-list, the legacy class names, no bundle
// identifier, and calls from the main thread.

#include "nk/keychain/keychain_utils.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "nk/dispatch/main_thread.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/keyed_archiver.hpp"
#include "nk/foundation/keyed_unarchiver.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/property_list.hpp"
#include "nk/foundation/secure_coding.hpp"
#include "nk/keychain/keychain_test_support_internal.hpp"

namespace nk {
namespace {

using test::S;
using test::ScopedEnv;
using test::TempDir;

// A credential class of the host's, under the name the store translates
// "NKAOAuthToken" to.
class OAuthToken : public Object, public SecureCoding {
  NK_DECLARE_CLASS(OAuthToken, Object)

 public:
  OAuthToken(Ref<String> access, int64_t expiry) : access_(std::move(access)), expiry_(expiry) {}
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(access_.get(), "access");
    coder.encodeInt64(expiry_, "expiry");
  }
  static Ref<OAuthToken> initWithCoder(KeyedUnarchiver& coder) {
    Ref<String> access = cast<String>(coder.decodeObjectOfClass(String::staticClass(), "access"));
    if (!access) return nullptr;
    return make<OAuthToken>(access, coder.decodeInt64("expiry"));
  }
  bool isEqual(const Object* other) const noexcept override {
    const auto* token = cast<OAuthToken>(other);
    return token && nk::isEqual(token->access_.get(), access_.get()) && token->expiry_ == expiry_;
  }

 private:
  Ref<String> access_;
  int64_t expiry_;
};
NK_DEFINE_CLASS(OAuthToken, "VNKAOAuthToken");
NK_DEFINE_SECURE_CODING(OAuthToken);

// A host class whose decoding raises: an Exception, or another thrown object.
class Raising : public Object, public SecureCoding {
  NK_DECLARE_CLASS(Raising, Object)

 public:
  explicit Raising(bool exception) : exception_(exception) {}
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeBool(exception_, "exception");
  }
  static Ref<Raising> initWithCoder(KeyedUnarchiver& coder) {
    if (coder.decodeBool("exception")) {
      Exception::raise(kInternalInconsistencyException, "cannot decode");
    }
    nk::raise(S("not an exception"));
  }

 private:
  bool exception_;
};
NK_DEFINE_CLASS(Raising, "NKTestRaisingCredential");
NK_DEFINE_SECURE_CODING(Raising);

Ref<Dictionary> strings() {
  return Dictionary::make(
      {{S("user"), S("ann@example.com")}, {S("token"), S("t0k\xC3\xA9n")}, {S("empty"), S("")}});
}

// The keyed archive of `root` with every class name `from` written as `to`, as an
// archive written before a class was renamed.
Ref<Data> archiveRenaming(const Object* root, std::string_view from, std::string_view to) {
  Ref<Data> archive = KeyedArchiver::archivedDataWithRootObject(root, true);
  std::function<Id(const Id&)> rename = [&](const Id& object) -> Id {
    if (auto text = cast<String>(object)) return text->utf8() == from ? S(to) : object;
    if (auto array = cast<Array>(object)) {
      std::vector<Id> items;
      for (const Id& item : *array) items.push_back(rename(item));
      return Array::make(std::move(items));
    }
    if (auto dictionary = cast<Dictionary>(object)) {
      Ref<MutableDictionary> out = MutableDictionary::make();
      for (const auto& [key, value] : dictionary->entries()) {
        out->setObjectForKey(rename(value), key.get());
      }
      return out;
    }
    return object;
  };
  Id renamed = rename(readPropertyList(archive->span()));
  return Data::fromVector(*writePropertyList(renamed.get(), PropertyListFormat::kBinary));
}

void writeInfoPlist(const std::string& folder, const std::string& entries) {
  test::writeFile(folder + "/Info.plist",
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" +
                      entries + "</dict></plist>\n");
}

class KeychainUtils : public test::BackendTest {
 protected:
  void SetUp() override {
    BackendTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    writeInfoPlist(dir_ / "app", "<key>CFBundleIdentifier</key><string>" + service_ + "</string>");
    bundle_.emplace("NK_MAIN_BUNDLE", dir_ / "app");
    ASSERT_TRUE(isMainThread());
  }

  // A key whose item is deleted after the test.
  Ref<String> key(const std::string& account) {
    item(account);
    return S(account);
  }
  static Id get(const Ref<String>& key, const Class* cls) {
    return NKKeychainUtils::getKeychainObjectForKeyOfClassType(key.get(), cls);
  }
  // Stores `bytes` as the item of `key`, as another writer of the item would.
  static void storeRaw(const Ref<String>& key, const Ref<Data>& bytes) {
    Ref<MutableDictionary> query = NKKeychainUtils::getInitKeychainDictionaryWithKey(key.get());
    query->setObjectForKey(bytes, kSecValueData());
    ASSERT_EQ(SecItemAdd(query.get()), errSecSuccess);
  }

  std::optional<ScopedEnv> bundle_;
};

TEST_P(KeychainUtils, QueriesAndRoundTrips) {
  {  // four entries, the bundle identifier as service, the key copied
    Ref<MutableString> account = make<MutableString>(S("token").get());
    Ref<MutableDictionary> query = NKKeychainUtils::getInitKeychainDictionaryWithKey(account.get());
    account->appendUTF8("!");
    ASSERT_TRUE(query);
    EXPECT_TRUE(
        query->isEqual(Dictionary::make({{kSecClass(), kSecClassGenericPassword()},
                                         {kSecAttrService(), S(service_)},
                                         {kSecAttrAccount(), S("token")},
                                         {kSecAttrAccessible(), kSecAttrAccessibleWhenUnlocked()}})
                           .get()));
  }
  Ref<String> credentials = key("credentials");
  {  // a dictionary of strings comes back equal
    ASSERT_TRUE(NKKeychainUtils::setKeychainObjectForKey(strings().get(), credentials.get()));
    EXPECT_TRUE(isEqual(get(credentials, &Dictionary::staticClass()), strings()));
  }
  {  // storing again succeeds and replaces, leaving one item
    auto second = Dictionary::make({{S("user"), S("bob")}});
    EXPECT_TRUE(NKKeychainUtils::setKeychainObjectForKey(second.get(), credentials.get()));
    EXPECT_TRUE(isEqual(get(credentials, &Dictionary::staticClass()), second));
    EXPECT_TRUE(NKKeychainUtils::deleteKeychainObjectForKey(credentials.get()));
    EXPECT_FALSE(NKKeychainUtils::deleteKeychainObjectForKey(credentials.get()));
  }
  {  // a nil object is stored as such and reads back as nil
    EXPECT_TRUE(NKKeychainUtils::setKeychainObjectForKey(nullptr, key("nothing").get()));
    EXPECT_FALSE(get(key("nothing"), nullptr));
    EXPECT_TRUE(NKKeychainUtils::deleteKeychainObjectForKey(key("nothing").get()));
  }
  {  // a key no store keeps (U+0000) fails cleanly
    const char16_t withNul[] = {u'a', 0, u'b'};
    Ref<String> bad = String::withCharacters({withNul, 3});
    EXPECT_FALSE(NKKeychainUtils::setKeychainObjectForKey(S("v").get(), bad.get()));
    EXPECT_FALSE(get(bad, nullptr));
  }
}

TEST_P(KeychainUtils, NilKeysAndUndecodableItems) {
  {  // a nil key: NO or nil
    EXPECT_FALSE(NKKeychainUtils::getInitKeychainDictionaryWithKey(nullptr));
    EXPECT_FALSE(NKKeychainUtils::setKeychainObjectForKey(S("v").get(), nullptr));
    EXPECT_FALSE(get(nullptr, &String::staticClass()));
    EXPECT_FALSE(NKKeychainUtils::deleteKeychainObjectForKey(nullptr));
  }
  {  // data that is not an archive reads as nil
    storeRaw(key("garbage"), test::bytes("not an archive"));
    EXPECT_FALSE(get(key("garbage"), nullptr));
  }
}

TEST_P(KeychainUtils, AllowListAndLegacyNames) {
  auto token = make<OAuthToken>(S("abc"), 1700000000);
  ASSERT_TRUE(NKKeychainUtils::setKeychainObjectForKey(token.get(), key("token").get()));
  {  // a class outside the allow-list: nil as another class, the object as its own
    EXPECT_FALSE(get(key("token"), &Dictionary::staticClass()));
    EXPECT_FALSE(get(key("token"), nullptr));
    EXPECT_TRUE(isEqual(get(key("token"), &OAuthToken::staticClass()), token));
  }
  {  // the requested class only widens the list: a string comes back whatever is asked
    ASSERT_TRUE(NKKeychainUtils::setKeychainObjectForKey(S("plain").get(), key("text").get()));
    EXPECT_TRUE(isEqual(get(key("text"), &OAuthToken::staticClass()), S("plain")));
    EXPECT_TRUE(isEqual(get(key("text"), &Dictionary::staticClass()), S("plain")));
  }
  {  // written as "NKAOAuthToken": read as the class named "VNKAOAuthToken" when asked for
    storeRaw(key("legacy"), archiveRenaming(token.get(), "VNKAOAuthToken", "NKAOAuthToken"));
    Id back = get(key("legacy"), &OAuthToken::staticClass());
    EXPECT_TRUE(back && back->isMemberOfClass(OAuthToken::staticClass()));
    EXPECT_TRUE(isEqual(back, token));
    EXPECT_FALSE(get(key("legacy"), &Dictionary::staticClass()));
  }
  {  // a legacy name whose new class the host lacks is not decoded, even when the name
     // was mapped elsewhere before: every read sets all three translations afresh
    storeRaw(key("legacy2"), archiveRenaming(token.get(), "VNKAOAuthToken", "NKAOAuth2Credential"));
    KeyedUnarchiver::setClassForClassName(&OAuthToken::staticClass(), "NKAOAuth2Credential");
    EXPECT_FALSE(get(key("legacy2"), &OAuthToken::staticClass()));
    EXPECT_EQ(KeyedUnarchiver::classForClassName("NKAOAuth2Credential"), nullptr);
    KeyedUnarchiver::setClassForClassName(nullptr, "NKAOAuth2Credential");
  }
  {  // an Exception raised while decoding gives nil; other thrown objects reach the caller
    ASSERT_TRUE(
        NKKeychainUtils::setKeychainObjectForKey(make<Raising>(true).get(), key("raising").get()));
    EXPECT_FALSE(get(key("raising"), &Raising::staticClass()));
    ASSERT_TRUE(
        NKKeychainUtils::setKeychainObjectForKey(make<Raising>(false).get(), key("raising").get()));
    EXPECT_THROW(get(key("raising"), &Raising::staticClass()), ThrownObject);
  }
}

TEST_P(KeychainUtils, MainThreadCallsMatchBackgroundCalls) {
  auto run = [&](const std::string& account) {
    Ref<String> k = key(account);
    return std::vector<bool>{NKKeychainUtils::setKeychainObjectForKey(strings().get(), k.get()),
                             NKKeychainUtils::setKeychainObjectForKey(strings().get(), k.get()),
                             isEqual(get(k, &Dictionary::staticClass()), strings()),
                             NKKeychainUtils::deleteKeychainObjectForKey(k.get()),
                             NKKeychainUtils::deleteKeychainObjectForKey(k.get()),
                             get(k, nullptr) == nullptr};
  };
  std::vector<bool> onMain = run("main"), onBackground;
  std::thread([&] { onBackground = run("background"); }).join();
  EXPECT_EQ(onMain, (std::vector<bool>{true, true, true, true, false, true}));
  EXPECT_EQ(onBackground, onMain);
}

INSTANTIATE_TEST_SUITE_P(Stores, KeychainUtils, test::kBothBackends, test::backendName);

TEST(KeychainUtilsOffTheMainThread, WorkRunsElsewhereAndIsAwaited) {
  ASSERT_TRUE(isMainThread());
  {  // from the main thread: on another thread, and finished before the call returns
    std::atomic<bool> finished{false};
    std::thread::id ranOn;
    OSStatus status = NKKeychainUtils::runOnNotMainThread([&] {
      ranOn = std::this_thread::get_id();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      finished = true;
      return errSecDuplicateItem;
    });
    EXPECT_EQ(status, errSecDuplicateItem);
    EXPECT_TRUE(finished);
    EXPECT_NE(ranOn, std::this_thread::get_id());
  }
  {  // from another thread: inline, on that thread
    std::thread([] {
      std::thread::id ranOn;
      OSStatus status = NKKeychainUtils::runOnNotMainThread([&] {
        ranOn = std::this_thread::get_id();
        return errSecItemNotFound;
      });
      EXPECT_EQ(status, errSecItemNotFound);
      EXPECT_EQ(ranOn, std::this_thread::get_id());
    }).join();
  }
}

TEST(KeychainUtilsWithoutBundleIdentifier, EveryOperationFailsWithoutTouchingTheStore) {
  TempDir dir;
  writeInfoPlist(dir / "app", "<key>CFBundleName</key><string>App</string>");
  ScopedEnv bundle("NK_MAIN_BUNDLE", dir / "app");
  ScopedEnv backend("NK_KEYCHAIN_BACKEND", "file");
  ScopedEnv data("XDG_DATA_HOME", dir / "data");
  Ref<String> k = S("token");
  EXPECT_FALSE(NKKeychainUtils::getInitKeychainDictionaryWithKey(k.get()));
  EXPECT_FALSE(NKKeychainUtils::setKeychainObjectForKey(strings().get(), k.get()));
  EXPECT_FALSE(NKKeychainUtils::getKeychainObjectForKeyOfClassType(k.get(), nullptr));
  EXPECT_FALSE(NKKeychainUtils::deleteKeychainObjectForKey(k.get()));
  EXPECT_FALSE(test::exists(dir / "data"));
}

}  // namespace
}  // namespace nk
