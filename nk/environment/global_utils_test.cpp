// Tests of NKGlobalUtils: e-mail syntax, time, version tests, device names from a
// machine-info fixture, the cached flags, the zone-service flag and method exchange.

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

TEST(NKGlobalUtils, SmallAnswers) {
  // E-mail syntax: leading and consecutive dots pass; the match covers the whole string,
  // a trailing line end included; ASCII only.
  for (const char* text : {"a.b+c@host.example", "a..b@c..de"}) {
    EXPECT_TRUE(NKGlobalUtils::isValidEmailAddress(S(text).get())) << text;
  }
  for (const char* text :
       {"", "a@b.c", "a@b.c1", "a@@b.cd", "x@y.co\n", " x@y.co", "jos\xC3\xA9@example.com"}) {
    EXPECT_FALSE(NKGlobalUtils::isValidEmailAddress(S(text).get())) << text;
  }
  EXPECT_FALSE(NKGlobalUtils::isValidEmailAddress(nullptr));
  // "beta" counts at the end only, in any case.
  for (const char* id : {"com.example.App-BETA", "com.example.AppBeta"}) {
    EXPECT_TRUE(NKGlobalUtils::isBetaBundleIdentifier(S(id).get())) << id;
  }
  for (const char* id : {"com.example.beta.app", "com.example.betas", ""}) {
    EXPECT_FALSE(NKGlobalUtils::isBetaBundleIdentifier(S(id).get())) << id;
  }
  EXPECT_FALSE(NKGlobalUtils::isBetaBundleIdentifier(nullptr));
  {  // whole seconds of the wall clock
    const time_t before = ::time(nullptr);
    const int64_t now = NKGlobalUtils::getNowUnixTime();
    EXPECT_GE(now, static_cast<int64_t>(before));
    EXPECT_LE(now, static_cast<int64_t>(::time(nullptr)));
  }
  {  // the version tests: "greater" is an at-least test, "less" its negation
    const OperatingSystemVersion own = ProcessInfo::processInfo()->operatingSystemVersion();
    const OperatingSystemVersion later{own.majorVersion, own.minorVersion, own.patchVersion + 1};
    EXPECT_TRUE(NKGlobalUtils::isOSGreaterThan(own));
    EXPECT_FALSE(NKGlobalUtils::isOSLessThan(own));
    EXPECT_FALSE(NKGlobalUtils::isOSGreaterThan(later));
    EXPECT_TRUE(NKGlobalUtils::isOSLessThan(later));
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
  writeFile(info, "PRETTY_HOSTNAME=\"  Studio \"\n");
  expectName("Studio (Velmont Files for Mac)");
  // A name that is blank once trimmed counts as no name. (The platform layer already
  // replaces a name of ASCII blanks by the host name, so the fixture uses an
  // ideographic space, which trimming removes.)
  writeFile(info, "PRETTY_HOSTNAME=\"  \xE3\x80\x80\"\n");
  expectName("Unknown Device Name (Velmont Files for Mac)");
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
  ScopedEnv env("NK_MAIN_BUNDLE", dir / "release");
  EXPECT_TRUE(NKGlobalUtils::isBetaApp()) << "a later change of bundle must not be seen";
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
  ScopedEnv lang("LANG", "en_US.UTF-8");
  EXPECT_EQ(NKGlobalUtils::areLeftToRightHacksNeeded(), expected) << "changed after the first call";
}

bool zone(std::initializer_list<Id> names) {
  return NKGlobalUtils::isCloudNativeProtocolSupportedInZoneServices(Array::make(names).get());
}

TEST(NKGlobalUtils, CloudNativeProtocolFlag) {
  // Surrounding whitespace is trimmed; position in the list does not matter.
  EXPECT_TRUE(zone({S("Other"), S("\tSupportCloudNativeProtocol\n")}));
  // Exact and case-sensitive.
  EXPECT_FALSE(zone({S("supportcloudnativeprotocol")}));
  EXPECT_FALSE(zone({S("SupportCloudNativeProtocolV2")}));
  EXPECT_FALSE(NKGlobalUtils::isCloudNativeProtocolSupportedInZoneServices(nullptr));
  // An element that is not a string is refused, even after a match.
  EXPECT_THROW(zone({S("SupportCloudNativeProtocol"), Array::make()}), ThrownObject);
}

// Implementations for the method-exchange test; each returns its own tag.
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

// A new class each time, so the test can be repeated in one process.
Class& newClass(const char* stem, const Class& superclass) {
  static std::atomic<int> serial{0};
  return Class::registerClass(std::string(stem) + std::to_string(++serial), &superclass);
}

TEST(NKGlobalUtils, Swizzle) {
  {  // own instance methods: each name now runs the other's code
    Class& cls = newClass("EnvSwizzleOwn", Object::staticClass());
    cls.addMethod("greet", imp(subOld), "i16@0:8");
    cls.addMethod("nk_greet", imp(subNew), "i16@0:8");
    NKGlobalUtils::swizzleWithClass("greet", "nk_greet", cls);
    EXPECT_EQ(call(cls, "greet"), 3);
    EXPECT_EQ(call(cls, "nk_greet"), 2);
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
  {  // neither name is an instance method: the class methods are exchanged
    Class& cls = newClass("EnvSwizzleMeta", Object::staticClass());
    cls.metaclass().addMethod("make", imp(classOld), "@16@0:8");
    cls.metaclass().addMethod("nk_make", imp(classNew), "@16@0:8");
    NKGlobalUtils::swizzleWithClass("make", "nk_make", cls);
    EXPECT_EQ(callClass(cls, "make"), 5);
    EXPECT_EQ(callClass(cls, "nk_make"), 4);
    EXPECT_EQ(cls.ownMethod("make"), nullptr);
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
