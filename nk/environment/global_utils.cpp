// NKGlobalUtils on the platform layer: process information, the main bundle, the
// locale, ICU regular expressions, the image decoder and the runtime's method tables.

#include "nk/environment/global_utils.hpp"

#include <chrono>
#include <string>

#include "nk/dispatch/once.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/format.hpp"
#include "nk/helpers/string_helpers.hpp"
#include "nk/system/bundle.hpp"
#include "nk/system/locale.hpp"
#include "nk/system/regular_expression.hpp"

namespace nk {

namespace {

Ref<String> appDisplayName() { return String::fromUTF8(NKGlobalUtils::kAppDisplayName); }

bool computeRightToLeft() {
  // The client's 9.0.0 threshold is kept and compared with the host's version, which is
  // the kernel release here: kernels before 9 never get the flag.
  if (!ProcessInfo::processInfo()->isOperatingSystemAtLeastVersion({9, 0, 0})) return false;
  Ref<Locale> locale = Locale::current();
  if (!locale) return false;
  return Locale::characterDirection(locale->languageCode().get()) ==
         LanguageDirection::kRightToLeft;
}

bool computeBeta() {
  Ref<Bundle> bundle = Bundle::mainBundle();
  if (!bundle) return false;
  Id value = bundle->objectForInfoDictionaryKey(NK_STR("CFBundleIdentifier"));
  return NKGlobalUtils::isBetaBundleIdentifier(cast<String>(value).get());
}

}  // namespace

Ref<Image> NKGlobalUtils::imageWithData(const Data* data) { return Image::fromData(data); }

bool NKGlobalUtils::isValidEmailAddress(const String* address) {
  if (!address || address->length() == 0) return false;
  return RegularExpression::matchesWholeString(
      NK_STR("^[A-Za-z0-9._%+-]+@[A-Za-z0-9.-]+\\.[A-Za-z]{2,}$"), address);
}

int64_t NKGlobalUtils::getNowUnixTime() {
  const std::chrono::duration<double> seconds = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<int64_t>(seconds.count());
}

bool NKGlobalUtils::isOSGreaterThan(const OperatingSystemVersion& version) {
  return ProcessInfo::processInfo()->isOperatingSystemAtLeastVersion(version);
}

bool NKGlobalUtils::isOSLessThan(const OperatingSystemVersion& version) {
  return !isOSGreaterThan(version);
}

Ref<String> NKGlobalUtils::getDeviceNameForRemote() {
  Ref<String> name = getFriendlyDeviceName();
  if (!name || name->length() == 0) return getFriendlyModel();
  return name;
}

Ref<String> NKGlobalUtils::getFriendlyDeviceName() {
  Ref<String> computer = vnk_trim(ProcessInfo::processInfo()->computerName().get());
  Ref<String> app = appDisplayName();
  if (computer && computer->length() > 0) {
    return nk::format("%@ (%@)", computer.get(), app.get());
  }
  return nk::format("Unknown Device Name (%@)", app.get());
}

Ref<String> NKGlobalUtils::getFriendlyModel() { return vnk_trim(NK_STR("Mac")); }

void NKGlobalUtils::swizzleWithClass(const char* first, const char* second, Class& cls) {
  Class* target = &cls;
  Method* original = cls.lookupMethod(first);
  Method* replacement = cls.lookupMethod(second);
  if (!original && !replacement) {
    target = &cls.metaclass();
    original = target->lookupMethod(first);
    replacement = target->lookupMethod(second);
  }
  // Without the method that brings the new behaviour there is nothing to install, and
  // leaving both names as they are is safer than installing an empty implementation.
  if (!replacement) return;

  if (target->addMethod(first, replacement->implementation(), replacement->typeEncoding())) {
    // `first` was inherited or missing: the target now has its own copy running the
    // new code, and `second` takes over the old code (none if `first` was missing).
    if (original) {
      target->replaceMethod(second, original->implementation(), original->typeEncoding());
    }
  } else {
    // The target defines `first` itself: swap the two in place.
    Method::exchangeImplementations(*original, *replacement);
  }
}

bool NKGlobalUtils::areLeftToRightHacksNeeded() {
  static OnceFlag flag;
  static bool value = false;
  once(flag, [] { value = computeRightToLeft(); });
  return value;
}

bool NKGlobalUtils::isBetaApp() {
  static OnceFlag flag;
  static bool value = false;
  once(flag, [] { value = computeBeta(); });
  return value;
}

bool NKGlobalUtils::isBetaBundleIdentifier(const String* identifier) {
  if (!identifier) return false;
  std::string lower = identifier->utf8();
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower.size() >= 4 && lower.compare(lower.size() - 4, 4, "beta") == 0;
}

bool NKGlobalUtils::isCloudNativeProtocolSupportedInZoneServices(const Array* services) {
  if (!services) return false;
  Ref<String> wanted = String::fromUTF8(kCloudNativeProtocolService);
  bool found = false;
  // Every element is trimmed (and so checked to be a string) even after a match.
  for (const Id& element : *services) {
    Ref<String> name = cast<String>(element);
    if (!name) {
      Exception::raise(kInvalidArgumentException,
                       nk::format("zone service %@ is not a string", element.get())->utf8());
    }
    Ref<String> trimmed = vnk_trim(name.get());
    if (trimmed && trimmed->isEqualToString(wanted.get())) found = true;
  }
  return found;
}

}  // namespace nk
