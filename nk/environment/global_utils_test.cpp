// Tests of NKGlobalUtils: e-mail syntax, time, version tests, device names from a
// machine-info fixture, the cached flags, the zone-service flag, images and method exchange.

#include "nk/environment/global_utils.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "nk/foundation/exception.hpp"
#include "nk/system/locale.hpp"
#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using test::ScopedEnv;
using test::TempDir;
using test::writeFile;

Ref<String> S(std::string_view utf8) { return String::fromUTF8(utf8); }

TEST(NKGlobalUtils, EmailAddresses) {
  // Purely syntactic: leading and consecutive dots pass.
  for (const char* text : {"a.b+c@host.example", "x@y.co",
                           "first_last%tag-1@sub-domain.example.org", ".a@b.cd", "a..b@c..de"}) {
    EXPECT_TRUE(NKGlobalUtils::isValidEmailAddress(S(text).get())) << text;
  }
  // Malformed; then the match must cover the whole string, trailing line ends included;
  // then ASCII only: internationalised addresses are rejected.
  for (const char* text :
       {"", "a@b", "a@b.c", "a b@c.de", "a@b.c1", "a@@b.cd", "@b.cd", "x@y.co\n", " x@y.co",
        "jos\xC3\xA9@example.com", "a@b\xC3\xBC.de", "a@b.d\xC3\xA9"}) {
    EXPECT_FALSE(NKGlobalUtils::isValidEmailAddress(S(text).get())) << text;
  }
  EXPECT_FALSE(NKGlobalUtils::isValidEmailAddress(nullptr));
}

TEST(NKGlobalUtils, NowUnixTime) {
  const time_t before = ::time(nullptr);
  const int64_t now = NKGlobalUtils::getNowUnixTime();
  const time_t after = ::time(nullptr);
  EXPECT_GE(now, static_cast<int64_t>(before));
  EXPECT_LE(now, static_cast<int64_t>(after));
}

TEST(NKGlobalUtils, OperatingSystemVersionTests) {
  const OperatingSystemVersion own = ProcessInfo::processInfo()->operatingSystemVersion();
  auto check = [](const OperatingSystemVersion& v, bool atLeast) {
    EXPECT_EQ(NKGlobalUtils::isOSGreaterThan(v), atLeast)
        << v.majorVersion << "." << v.minorVersion << "." << v.patchVersion;
    EXPECT_EQ(NKGlobalUtils::isOSLessThan(v), !atLeast)
        << v.majorVersion << "." << v.minorVersion << "." << v.patchVersion;
  };
  // The running version itself: "greater" is an at-least test.
  check(own, true);
  // One step later in each part.
  check({own.majorVersion, own.minorVersion, own.patchVersion + 1}, false);
  check({own.majorVersion, own.minorVersion + 1, 0}, false);
  check({own.majorVersion + 1, 0, 0}, false);
  {  // earlier versions; the major part decides before the others
    check({own.majorVersion - 1, 999, 999}, true);
    check({0, 0, 0}, true);
    if (own.patchVersion > 0)
      check({own.majorVersion, own.minorVersion, own.patchVersion - 1}, true);
  }
}

TEST(NKGlobalUtils, DeviceNames) {
  TempDir dir;
  const std::string info = dir / "machine-info";
  ScopedEnv env("NK_MACHINE_INFO", info);
  auto expectName = [](const std::string& name) {
    EXPECT_EQ(NKGlobalUtils::getFriendlyDeviceName()->utf8(), name);
    EXPECT_EQ(NKGlobalUtils::getDeviceNameForRemote()->utf8(), name);
  };
  // A named computer, trimmed.
  writeFile(info, "PRETTY_HOSTNAME=\"  Studio \"\n");
  expectName("Studio (Velmont Files for Mac)");
  // A name that is blank once trimmed counts as no name. (The platform layer already
  // replaces a name of ASCII blanks by the host name, so the fixture uses an
  // ideographic space and an object-replacement character, which trimming removes.)
  for (const char* blank :
       {"PRETTY_HOSTNAME=\"  \xE3\x80\x80\"\n", "PRETTY_HOSTNAME=\" \xEF\xBF\xBC\"\n"}) {
    writeFile(info, blank);
    expectName("Unknown Device Name (Velmont Files for Mac)");
  }
  // The model is fixed.
  EXPECT_EQ(NKGlobalUtils::getFriendlyModel()->utf8(), "Mac");
}

TEST(NKGlobalUtils, BetaIdentifiers) {
  // "beta" counts at the end only, in any case.
  for (const char* id : {"com.example.App-BETA", "com.example.app.beta", "com.example.AppBeta"}) {
    EXPECT_TRUE(NKGlobalUtils::isBetaBundleIdentifier(S(id).get())) << id;
  }
  for (const char* id : {"com.example.beta.app", "com.example.betas", ""}) {
    EXPECT_FALSE(NKGlobalUtils::isBetaBundleIdentifier(S(id).get())) << id;
  }
  EXPECT_FALSE(NKGlobalUtils::isBetaBundleIdentifier(nullptr));
}

// Runs `f` on several threads released together and returns every answer.
template <class F>
std::vector<bool> concurrently(F f) {
  constexpr int kThreads = 8;
  std::atomic<bool> go{false};
  std::vector<char> results(kThreads, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
      results[static_cast<size_t>(i)] = f() ? 1 : 0;
    });
  }
  go.store(true, std::memory_order_release);
  for (auto& t : threads) t.join();
  return std::vector<bool>(results.begin(), results.end());
}

// The only test in this binary that calls isBetaApp, so its first call happens here.
TEST(NKGlobalUtils, BetaAppIsReadOnceFromTheMainBundle) {
  TempDir dir;
  for (const auto& [folder, id] :
       {std::pair{"beta", "com.example.App-BETA"}, std::pair{"release", "com.example.beta.app"}}) {
    writeFile(dir / (std::string(folder) + "/Info.plist"),
              std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
                          "<dict><key>CFBundleIdentifier</key><string>") +
                  id + "</string></dict></plist>\n");
  }
  {  // concurrent first calls all see the beta identifier
    ScopedEnv env("NK_MAIN_BUNDLE", dir / "beta");
    for (bool answer : concurrently([] { return NKGlobalUtils::isBetaApp(); })) {
      EXPECT_TRUE(answer);
    }
  }
  {  // a later change of bundle is not seen
    ScopedEnv env("NK_MAIN_BUNDLE", dir / "release");
    EXPECT_TRUE(NKGlobalUtils::isBetaApp());
  }
}

// The only test in this binary that calls areLeftToRightHacksNeeded.
TEST(NKGlobalUtils, RightToLeftFlagIsReadOnce) {
  ScopedEnv all("LC_ALL", std::nullopt);
  ScopedEnv messages("LC_MESSAGES", std::nullopt);
  bool expected = false;
  {  // an Arabic user: set when the host passes the version threshold
    ScopedEnv lang("LANG", "ar_EG.UTF-8");
    ASSERT_EQ(Locale::characterDirection(Locale::current()->languageCode().get()),
              LanguageDirection::kRightToLeft);
    expected = NKGlobalUtils::isOSGreaterThan({9, 0, 0});
    for (bool answer : concurrently([] { return NKGlobalUtils::areLeftToRightHacksNeeded(); })) {
      EXPECT_EQ(answer, expected);
    }
  }
  {  // switching to a left-to-right language later changes nothing
    ScopedEnv lang("LANG", "en_US.UTF-8");
    EXPECT_EQ(NKGlobalUtils::areLeftToRightHacksNeeded(), expected);
  }
}

bool zone(std::initializer_list<Id> names) {
  return NKGlobalUtils::isCloudNativeProtocolSupportedInZoneServices(Array::make(names).get());
}

TEST(NKGlobalUtils, CloudNativeProtocolFlag) {
  // Surrounding whitespace is trimmed; position in the list does not matter.
  EXPECT_TRUE(zone({S(" SupportCloudNativeProtocol\n")}));
  EXPECT_TRUE(zone({S("Other"), S("\tSupportCloudNativeProtocol")}));
  // Exact and case-sensitive; empty and nil lists.
  for (const char* name : {"supportcloudnativeprotocol", "Support CloudNativeProtocol",
                           "SupportCloudNativeProtocolV2"}) {
    EXPECT_FALSE(zone({S(name)})) << name;
  }
  EXPECT_FALSE(zone({}));
  EXPECT_FALSE(NKGlobalUtils::isCloudNativeProtocolSupportedInZoneServices(nullptr));
  // An element that is not a string is refused, even after a match.
  EXPECT_THROW(zone({S("SupportCloudNativeProtocol"), Array::make()}), ThrownObject);
}

TEST(NKGlobalUtils, ImageWithData) {
  // A 1×1 RGB PNG of colour (10, 20, 30).
  const uint8_t png[] = {0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d,
                         0x49, 0x48, 0x44, 0x52, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01,
                         0x08, 0x02, 0x00, 0x00, 0x00, 0x90, 0x77, 0x53, 0xde, 0x00, 0x00, 0x00,
                         0x0c, 0x49, 0x44, 0x41, 0x54, 0x78, 0x9c, 0x63, 0xe0, 0x12, 0x91, 0x03,
                         0x00, 0x00, 0x68, 0x00, 0x3d, 0x54, 0x08, 0xa3, 0xf7, 0x00, 0x00, 0x00,
                         0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};
  {  // a readable image
    Ref<Image> image = NKGlobalUtils::imageWithData(Data::fromBytes(png, sizeof png).get());
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width(), 1);
    EXPECT_EQ(image->height(), 1);
  }
  // Truncated, foreign and missing bytes give nil.
  EXPECT_FALSE(NKGlobalUtils::imageWithData(Data::fromBytes(png, 30).get()));
  EXPECT_FALSE(NKGlobalUtils::imageWithData(Data::fromBytes("not an image", 12).get()));
  EXPECT_FALSE(NKGlobalUtils::imageWithData(Data::empty().get()));
  EXPECT_FALSE(NKGlobalUtils::imageWithData(nullptr));
}

// Implementations for the method-exchange tests; each returns its own tag.
int baseOld(Object*) { return 1; }
int subOld(Object*) { return 2; }
int subNew(Object*) { return 3; }
int classOld(const Class&) { return 4; }
int classNew(const Class&) { return 5; }

Imp imp(int (*f)(Object*)) { return reinterpret_cast<Imp>(f); }
Imp imp(int (*f)(const Class&)) { return reinterpret_cast<Imp>(f); }

int call(const Class& cls, const char* name) {
  Method* m = cls.lookupMethod(name);
  return m ? reinterpret_cast<int (*)(Object*)>(m->implementation())(nullptr) : 0;
}

int callClass(Class& cls, const char* name) {
  Method* m = cls.metaclass().lookupMethod(name);
  return m ? reinterpret_cast<int (*)(const Class&)>(m->implementation())(cls) : 0;
}

// A new class each time, so the tests can be repeated in one process.
Class& newClass(const char* stem, const Class& superclass) {
  static std::atomic<int> serial{0};
  return Class::registerClass(std::string(stem) + std::to_string(++serial), &superclass);
}

TEST(NKGlobalUtils, SwizzleOfInstanceMethods) {
  {  // each name now runs the other's code; a second exchange undoes the first
    Class& cls = newClass("EnvSwizzleOwn", Object::staticClass());
    cls.addMethod("greet", imp(subOld), "i16@0:8");
    cls.addMethod("nk_greet", imp(subNew), "i16@0:8");
    NKGlobalUtils::swizzleWithClass("greet", "nk_greet", cls);
    EXPECT_EQ(call(cls, "greet"), 3);
    EXPECT_EQ(call(cls, "nk_greet"), 2);
    NKGlobalUtils::swizzleWithClass("greet", "nk_greet", cls);
    EXPECT_EQ(call(cls, "greet"), 2);
    EXPECT_EQ(call(cls, "nk_greet"), 3);
  }
  {  // an inherited method: the subclass gets its own copy, the superclass is left alone
    Class& base = newClass("EnvSwizzleBase", Object::staticClass());
    base.addMethod("greet", imp(baseOld), "i16@0:8");
    Class& sub = newClass("EnvSwizzleSub", base);
    sub.addMethod("nk_greet", imp(subNew), "i16@0:8");
    NKGlobalUtils::swizzleWithClass("greet", "nk_greet", sub);
    ASSERT_NE(sub.ownMethod("greet"), nullptr);
    EXPECT_EQ(sub.ownMethod("greet")->typeEncoding(), "i16@0:8");
    EXPECT_EQ(call(sub, "greet"), 3);
    EXPECT_EQ(call(sub, "nk_greet"), 1);
    EXPECT_EQ(call(base, "greet"), 1);
    EXPECT_EQ(base.ownMethod("nk_greet"), nullptr);
  }
}

TEST(NKGlobalUtils, SwizzleFallsBackToClassMethods) {
  {  // neither name is an instance method: the class methods are exchanged
    Class& cls = newClass("EnvSwizzleMeta", Object::staticClass());
    cls.metaclass().addMethod("make", imp(classOld), "@16@0:8");
    cls.metaclass().addMethod("nk_make", imp(classNew), "@16@0:8");
    NKGlobalUtils::swizzleWithClass("make", "nk_make", cls);
    EXPECT_EQ(callClass(cls, "make"), 5);
    EXPECT_EQ(callClass(cls, "nk_make"), 4);
    EXPECT_EQ(cls.ownMethod("make"), nullptr);
  }
  {  // an inherited class method is copied into the subclass's metaclass only
    Class& base = newClass("EnvSwizzleMetaBase", Object::staticClass());
    base.metaclass().addMethod("make", imp(classOld), "@16@0:8");
    Class& sub = newClass("EnvSwizzleMetaSub", base);
    sub.metaclass().addMethod("nk_make", imp(classNew), "@16@0:8");
    NKGlobalUtils::swizzleWithClass("make", "nk_make", sub);
    EXPECT_EQ(callClass(sub, "make"), 5);
    EXPECT_EQ(callClass(sub, "nk_make"), 4);
    EXPECT_EQ(callClass(base, "make"), 4);
  }
  {  // one instance method found is enough to keep to instance methods
    Class& cls = newClass("EnvSwizzleMixed", Object::staticClass());
    cls.addMethod("nk_greet", imp(subNew), "i16@0:8");
    cls.metaclass().addMethod("greet", imp(classOld), "@16@0:8");
    cls.metaclass().addMethod("nk_greet", imp(classNew), "@16@0:8");
    NKGlobalUtils::swizzleWithClass("greet", "nk_greet", cls);
    EXPECT_EQ(call(cls, "greet"), 3);
    EXPECT_EQ(callClass(cls, "greet"), 4);
    EXPECT_EQ(callClass(cls, "nk_greet"), 5);
  }
}

}  // namespace
}  // namespace nk
