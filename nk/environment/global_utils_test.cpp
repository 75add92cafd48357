// Tests of NKGlobalUtils: e-mail syntax, time, version tests, device names from a
// machine-info fixture, the cached flags, the zone-service flag and method exchange.

#include "nk/environment/global_utils.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "nk/foundation/exception.hpp"
#include "nk/system/locale.hpp"
#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using namespace test;

Ref<String> S(std::string_view utf8) { return String::fromUTF8(utf8); }

TEST(NKGlobalUtils, SmallAnswers) {
  // Leading and consecutive dots pass; the match covers the whole string; ASCII only.
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
  // Bracketed by the same clock: time() reads a coarse clock that may still show the last
  // second just after the fine one has moved on.
  const auto unixSeconds = [] {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  const int64_t before = unixSeconds();
  const int64_t now = NKGlobalUtils::getNowUnixTime();
  EXPECT_GE(now, before);
  EXPECT_LE(now, unixSeconds());
  // "greater" is an at-least test, "less" its negation.
  const OperatingSystemVersion own = ProcessInfo::processInfo()->operatingSystemVersion();
  const OperatingSystemVersion later{own.majorVersion, own.minorVersion, own.patchVersion + 1};
  EXPECT_TRUE(NKGlobalUtils::isOSGreaterThan(own));
  EXPECT_FALSE(NKGlobalUtils::isOSLessThan(own));
  EXPECT_FALSE(NKGlobalUtils::isOSGreaterThan(later));
  EXPECT_TRUE(NKGlobalUtils::isOSLessThan(later));
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
  // A name that is blank once trimmed counts as no name; the host name does not stand in.
  for (const char* blank : {"\"  \xE3\x80\x80\"", "\"   \""}) {
    writeFile(info, std::string("PRETTY_HOSTNAME=") + blank + "\n");
    expectName("Unknown Device Name (Velmont Files for Mac)");
  }
}

// How many of 8 threads released together got a true answer from `f`.
template <class F>
int concurrentlyTrue(F f) {
  std::atomic<bool> go{false};
  std::atomic<int> yes{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      while (!go.load()) std::this_thread::yield();
      if (f()) ++yes;
    });
  }
  go = true;
  for (auto& t : threads) t.join();
  return yes.load();
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
  {
    ScopedEnv env("NK_MAIN_BUNDLE", dir / "beta");
    EXPECT_EQ(concurrentlyTrue([] { return NKGlobalUtils::isBetaApp(); }), 8);
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
    EXPECT_EQ(concurrentlyTrue([] { return NKGlobalUtils::areLeftToRightHacksNeeded(); }),
              expected ? 8 : 0);
  }
  ScopedEnv lang("LANG", "en_US.UTF-8");
  EXPECT_EQ(NKGlobalUtils::areLeftToRightHacksNeeded(), expected) << "changed after the first call";
}

bool zone(std::initializer_list<Id> names) {
  return NKGlobalUtils::isCloudNativeProtocolSupportedInZoneServices(Array::make(names).get());
}

TEST(NKGlobalUtils, CloudNativeProtocolFlag) {
  // Trimmed, anywhere in the list, exact and case-sensitive.
  EXPECT_TRUE(zone({S("Other"), S("\tSupportCloudNativeProtocol\n")}));
  EXPECT_FALSE(zone({S("supportcloudnativeprotocol")}));
  EXPECT_FALSE(zone({S("SupportCloudNativeProtocolV2")}));
  EXPECT_FALSE(NKGlobalUtils::isCloudNativeProtocolSupportedInZoneServices(nullptr));
  // An element that is not a string is refused, even after a match.
  EXPECT_THROW(zone({S("SupportCloudNativeProtocol"), Array::make()}), ThrownObject);
}

// Each returns its own tag.
int baseOld(Object*) { return 1; }
int subOld(Object*) { return 2; }
int subNew(Object*) { return 3; }
int classOld(const Class&) { return 4; }
int classNew(const Class&) { return 5; }

// The tag that `name` runs on the class (instance side) or on its metaclass; 0 if none.
int call(Class& cls, const char* name, bool onClass = false) {
  Method* m = (onClass ? cls.metaclass() : cls).lookupMethod(name);
  if (!m) return 0;
  return onClass ? reinterpret_cast<int (*)(const Class&)>(m->implementation())(cls)
                 : reinterpret_cast<int (*)(Object*)>(m->implementation())(nullptr);
}

std::atomic<int> classSerial{0};

// A new class each time, so the test can be repeated, with the given methods.
template <class... F>
Class& newClass(const Class& superclass, bool onClass, std::pair<const char*, F>... methods) {
  Class& cls = Class::registerClass("EnvSwizzle" + std::to_string(++classSerial), &superclass);
  ((onClass ? cls.metaclass() : cls)
       .addMethod(methods.first, reinterpret_cast<Imp>(methods.second), "i16@0:8"),
   ...);
  return cls;
}

TEST(NKGlobalUtils, Swizzle) {
  using P = std::pair<const char*, int (*)(Object*)>;
  using C = std::pair<const char*, int (*)(const Class&)>;
  {  // own instance methods: each name now runs the other's code
    Class& cls = newClass(Object::staticClass(), false, P{"greet", subOld}, P{"nk_greet", subNew});
    NKGlobalUtils::swizzleWithClass("greet", "nk_greet", cls);
    EXPECT_EQ(call(cls, "greet"), 3);
    EXPECT_EQ(call(cls, "nk_greet"), 2);
  }
  {  // an inherited method: the subclass gets its own copy, the superclass is left alone
    Class& base = newClass(Object::staticClass(), false, P{"greet", baseOld});
    Class& sub = newClass(base, false, P{"nk_greet", subNew});
    NKGlobalUtils::swizzleWithClass("greet", "nk_greet", sub);
    ASSERT_NE(sub.ownMethod("greet"), nullptr);
    EXPECT_EQ(sub.ownMethod("greet")->typeEncoding(), "i16@0:8");
    EXPECT_EQ(call(sub, "greet"), 3);
    EXPECT_EQ(call(sub, "nk_greet"), 1);
    EXPECT_EQ(call(base, "greet"), 1);
    EXPECT_EQ(base.ownMethod("nk_greet"), nullptr);
  }
  {  // neither name is an instance method: the class methods are exchanged
    Class& cls = newClass(Object::staticClass(), true, C{"make", classOld}, C{"nk_make", classNew});
    NKGlobalUtils::swizzleWithClass("make", "nk_make", cls);
    EXPECT_EQ(call(cls, "make", true), 5);
    EXPECT_EQ(call(cls, "nk_make", true), 4);
    EXPECT_EQ(cls.ownMethod("make"), nullptr);
  }
  {  // one instance method found is enough to keep to instance methods
    Class& cls =
        newClass(Object::staticClass(), true, C{"greet", classOld}, C{"nk_greet", classNew});
    cls.addMethod("nk_greet", reinterpret_cast<Imp>(subNew), "i16@0:8");
    NKGlobalUtils::swizzleWithClass("greet", "nk_greet", cls);
    EXPECT_EQ(call(cls, "greet"), 3);
    EXPECT_EQ(call(cls, "greet", true), 4);
    EXPECT_EQ(call(cls, "nk_greet", true), 5);
  }
}

}  // namespace
}  // namespace nk
