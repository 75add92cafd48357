// Tests of host classes archiving themselves through SecureCoding: the coder's
// keyed values, the class methods in the runtime tables, name translations and
// the allow-list as it applies to host classes.
#include "nk/foundation/secure_coding.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/keyed_archiver.hpp"
#include "nk/foundation/keyed_unarchiver.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/property_list.hpp"

namespace nk {
namespace {

// A credential-like host class holding every kind of coder value.
class ArchiveToken : public Object, public SecureCoding {
  NK_DECLARE_CLASS(ArchiveToken, Object)

 public:
  Ref<String> name;
  int64_t count = 0;
  double ratio = 0;
  bool flag = false;
  std::vector<uint8_t> bytes;
  Ref<ArchiveToken> child;
  Ref<Array> scopes;

  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(name.get(), "name");
    coder.encodeInt64(count, "count");
    coder.encodeDouble(ratio, "ratio");
    coder.encodeBool(flag, "flag");
    coder.encodeBytes(bytes, "bytes");
    coder.encodeObject(child.get(), "child");
    coder.encodeObject(scopes.get(), "$scopes");  // escaped: never taken for "$class"
  }
  static Ref<ArchiveToken> initWithCoder(KeyedUnarchiver& coder) {
    auto token = make<ArchiveToken>();
    token->name = cast<String>(coder.decodeObjectOfClass(String::staticClass(), "name"));
    token->count = coder.decodeInt64("count");
    token->ratio = coder.decodeDouble("ratio");
    token->flag = coder.decodeBool("flag");
    token->bytes = coder.decodeBytes("bytes");
    token->child = cast<ArchiveToken>(coder.decodeObjectOfClass(staticClass(), "child"));
    const Class* const scopeClasses[] = {&Array::staticClass(), &String::staticClass()};
    token->scopes = cast<Array>(coder.decodeObjectOfClasses(scopeClasses, "$scopes"));
    return token;
  }
};
NK_DEFINE_CLASS(ArchiveToken, "VNKArchiveTestToken");
NK_DEFINE_SECURE_CODING(ArchiveToken);

// Archives itself but never registered secure coding.
class PlainCoded : public Object, public SecureCoding {
  NK_DECLARE_CLASS(PlainCoded, Object)

 public:
  void encodeWithCoder(KeyedArchiver& coder) const override { coder.encodeInt64(1, "one"); }
};
NK_DEFINE_CLASS(PlainCoded, "ArchiveTestPlainCoded");

// Refuses to decode: initWithCoder returns nil.
class Refusing : public Object, public SecureCoding {
  NK_DECLARE_CLASS(Refusing, Object)

 public:
  void encodeWithCoder(KeyedArchiver& coder) const override { coder.encodeBool(true, "x"); }
  static Ref<Refusing> initWithCoder(KeyedUnarchiver& coder) {
    EXPECT_TRUE(coder.containsValueForKey("x"));
    EXPECT_FALSE(coder.containsValueForKey("y"));
    return nullptr;
  }
};
NK_DEFINE_CLASS(Refusing, "ArchiveTestRefusing");
NK_DEFINE_SECURE_CODING(Refusing);

// Encodes 7 under a key the test chooses, and reads it and the key's first byte.
class KeyProbe : public Object, public SecureCoding {
  NK_DECLARE_CLASS(KeyProbe, Object)

 public:
  static std::string& key() {
    static std::string k;
    return k;
  }
  int64_t value = 0;
  int64_t prefixValue = 0;

  void encodeWithCoder(KeyedArchiver& coder) const override { coder.encodeInt64(7, key()); }
  static Ref<KeyProbe> initWithCoder(KeyedUnarchiver& coder) {
    auto probe = make<KeyProbe>();
    probe->value = coder.decodeInt64(key());
    probe->prefixValue = coder.decodeInt64(key().substr(0, 1));
    return probe;
  }
};
NK_DEFINE_CLASS(KeyProbe, "ArchiveTestKeyProbe");
NK_DEFINE_SECURE_CODING(KeyProbe);

const Class* const kProbeOnly[] = {&KeyProbe::staticClass()};

Ref<ArchiveToken> sampleToken() {
  auto token = make<ArchiveToken>();
  token->name = String::fromUTF8("access");
  token->count = -42;
  token->ratio = 0.25;
  token->flag = true;
  token->bytes = {0, 0xff, 0};
  token->child = make<ArchiveToken>();
  token->child->name = String::fromUTF8("refresh");
  token->scopes = Array::make({String::fromUTF8("read")});
  return token;
}

Id archiveAndDecode(const Object* root, std::span<const Class* const> classes,
                    Ref<Error>* error = nullptr) {
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject(root, true, error);
  return data ? KeyedUnarchiver::unarchivedObjectOfClasses(classes, data.get(), error) : nullptr;
}

const Class* const kTokenOnly[] = {&ArchiveToken::staticClass()};

TEST(SecureCoding, HostClassRoundTrips) {
  // every coder value comes back, nested host objects included
  auto full = cast<ArchiveToken>(archiveAndDecode(sampleToken().get(), kTokenOnly));
  ASSERT_TRUE(full);
  EXPECT_EQ(full->name->utf8(), "access");
  EXPECT_EQ(full->count, -42);
  EXPECT_EQ(full->ratio, 0.25);
  EXPECT_TRUE(full->flag);
  EXPECT_EQ(full->bytes, (std::vector<uint8_t>{0, 0xff, 0}));
  ASSERT_TRUE(full->child);
  EXPECT_EQ(full->child->name->utf8(), "refresh");
  EXPECT_TRUE(isEqual(full->scopes, Array::make({String::fromUTF8("read")})));
  // absent and nil values decode as nil, 0, false and empty
  auto empty = cast<ArchiveToken>(archiveAndDecode(make<ArchiveToken>().get(), kTokenOnly));
  ASSERT_TRUE(empty);
  EXPECT_FALSE(empty->name);
  EXPECT_EQ(empty->count, 0);
  EXPECT_FALSE(empty->flag);
  EXPECT_TRUE(empty->bytes.empty());
  EXPECT_FALSE(empty->child);
}

TEST(SecureCoding, ArchiveNamesTheHostClass) {
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject(sampleToken().get(), true);
  auto plist = cast<Dictionary>(readPropertyList({data->bytes(), data->length()}));
  auto objects = cast<Array>(plist->objectForKey(String::fromUTF8("$objects")));
  auto body = cast<Dictionary>(objects->objectAtIndex(1));
  ASSERT_TRUE(body);
  // coder values are stored in the object's dictionary, "$" keys escaped
  EXPECT_TRUE(isEqual(body->objectForKey(String::fromUTF8("count")), Number::withInt(-42)));
  EXPECT_TRUE(body->objectForKey(String::fromUTF8("$$scopes")));
  auto classRef = cast<PlistUID>(body->objectForKey(String::fromUTF8("$class")));
  auto info = cast<Dictionary>(objects->objectAtIndex(classRef->value()));
  EXPECT_TRUE(isEqual(
      info->objectForKey(String::fromUTF8("$classes")),
      Array::make({String::fromUTF8("VNKArchiveTestToken"), String::fromUTF8("NSObject")})));
}

TEST(SecureCoding, ClassMethodsLiveInTheRuntimeTables) {
  // registered on the metaclass and found through it
  EXPECT_TRUE(classSupportsSecureCoding(ArchiveToken::staticClass()));
  EXPECT_TRUE(invokeClassMethod<bool>(ArchiveToken::staticClass(), kSupportsSecureCodingMethod));
  EXPECT_FALSE(classSupportsSecureCoding(PlainCoded::staticClass()));
  EXPECT_FALSE(classSupportsSecureCoding(Dictionary::staticClass()));
  // a host that replaces supportsSecureCoding turns decoding off for the class
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject(make<Refusing>().get(), true);
  auto answerNo = +[](const Class&) { return false; };
  Class* cls = Class::named("ArchiveTestRefusing");
  Imp previous = cls->metaclass().replaceMethod(kSupportsSecureCodingMethod,
                                                reinterpret_cast<Imp>(answerNo), "B16@0:8");
  const Class* const allowed[] = {cls};
  Ref<Error> error;
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses(allowed, data.get(), &error));
  EXPECT_NE(error->description()->utf8().find("secure coding"), std::string::npos);
  EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObject(make<Refusing>().get(), true));
  cls->metaclass().replaceMethod(kSupportsSecureCodingMethod, previous, "B16@0:8");
}

TEST(SecureCoding, ArchivingRequiresSecureCodingWhenAsked) {
  auto plain = make<PlainCoded>();
  Ref<Error> error;
  EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObject(plain.get(), true, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kCoderInvalidValueError);
  // without the requirement it archives, but still cannot be decoded securely
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject(plain.get(), false);
  ASSERT_TRUE(data);
  const Class* const allowed[] = {&PlainCoded::staticClass()};
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses(allowed, data.get()));
}

TEST(SecureCoding, AllowListAppliesToHostClasses) {
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject(sampleToken().get(), true);
  // outside the list: nil
  const Class* const values[] = {&Dictionary::staticClass(), &String::staticClass()};
  Ref<Error> error;
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses(values, data.get(), &error));
  EXPECT_NE(error->description()->utf8().find("VNKArchiveTestToken"), std::string::npos);
  // a nested decode uses its own classes: Array is allowed only where "$scopes" is read
  auto dict = Dictionary::make({{String::fromUTF8("k"), sampleToken()}});
  const Class* const withToken[] = {&Dictionary::staticClass(), &String::staticClass(),
                                    &ArchiveToken::staticClass()};
  EXPECT_TRUE(archiveAndDecode(dict.get(), withToken));
  // ...and what it decoded is not let through where it is reached again: the
  // token's scopes array, shared with the root, would bring a String into a
  // result that allows only arrays and tokens
  auto token = sampleToken();
  const Class* const arraysAndTokens[] = {&Array::staticClass(), &ArchiveToken::staticClass()};
  error = nullptr;
  EXPECT_FALSE(
      archiveAndDecode(Array::make({token, token->scopes}).get(), arraysAndTokens, &error));
  ASSERT_TRUE(error);
  EXPECT_NE(error->description()->utf8().find("'String'"), std::string::npos);
  EXPECT_TRUE(archiveAndDecode(Array::make({token, token->child}).get(), arraysAndTokens));
  // a host class that fails its own decode fails the whole archive
  Ref<Data> refusing =
      KeyedArchiver::archivedDataWithRootObject(Array::make({make<Refusing>()}).get(), true);
  const Class* const withRefusing[] = {&Array::staticClass(), &Refusing::staticClass()};
  error = nullptr;
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses(withRefusing, refusing.get(), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kCoderReadCorruptError);
}

TEST(SecureCoding, ClassNameTranslations) {
  // an archive written under an old class name decodes as the translated class
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject(sampleToken().get(), true);
  std::string bytes(reinterpret_cast<const char*>(data->bytes()), data->length());
  size_t at = bytes.find("VNKArchiveTestToken");
  ASSERT_NE(at, std::string::npos);
  bytes.replace(at, 3, "Old");  // same length: the binary layout stays valid
  auto renamed = Data::fromBytes(bytes.data(), bytes.size());
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses(kTokenOnly, renamed.get()));
  KeyedUnarchiver::setClassForClassName(&ArchiveToken::staticClass(), "OldArchiveTestToken");
  KeyedUnarchiver::setClassForClassName(&ArchiveToken::staticClass(), "OldArchiveTestToken");
  EXPECT_EQ(KeyedUnarchiver::classForClassName("OldArchiveTestToken"),
            &ArchiveToken::staticClass());
  auto token =
      cast<ArchiveToken>(KeyedUnarchiver::unarchivedObjectOfClasses(kTokenOnly, renamed.get()));
  ASSERT_TRUE(token);
  EXPECT_EQ(token->child->name->utf8(), "refresh");
  // removal restores the failure
  KeyedUnarchiver::setClassForClassName(nullptr, "OldArchiveTestToken");
  EXPECT_EQ(KeyedUnarchiver::classForClassName("OldArchiveTestToken"), nullptr);
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses(kTokenOnly, renamed.get()));
}

TEST(SecureCoding, TranslationsAreThreadSafe) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      std::string name = "ConcurrentName" + std::to_string(t % 2);
      for (int i = 0; i < 2000; ++i) {
        KeyedUnarchiver::setClassForClassName(i % 3 ? &ArchiveToken::staticClass() : nullptr, name);
        const Class* cls = KeyedUnarchiver::classForClassName(name);
        EXPECT_TRUE(cls == nullptr || cls == &ArchiveToken::staticClass());
      }
    });
  }
  for (auto& thread : threads) thread.join();
  KeyedUnarchiver::setClassForClassName(nullptr, "ConcurrentName0");
  KeyedUnarchiver::setClassForClassName(nullptr, "ConcurrentName1");
}

TEST(SecureCoding, KeysOfAnyBytes) {
  // a NUL inside a key is part of it: "a\0b" and "a" are different keys
  KeyProbe::key() = std::string("a\0b", 3);
  auto probe = cast<KeyProbe>(archiveAndDecode(make<KeyProbe>().get(), kProbeOnly));
  ASSERT_TRUE(probe);
  EXPECT_EQ(probe->value, 7);
  EXPECT_EQ(probe->prefixValue, 0);
  // a key that is not UTF-8 fails the archive cleanly
  KeyProbe::key() = "\xff\xfe";
  Ref<Error> error;
  EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObject(make<KeyProbe>().get(), true, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kCoderInvalidValueError);
}

}  // namespace
}  // namespace nk
