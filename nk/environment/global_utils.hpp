// NKGlobalUtils: class-level answers about this process and machine (time, OS version,
// device names, beta build, text direction, a server capability) and a few tools
// (e-mail syntax test, image decoding, method exchange).
#pragma once

#include <cstdint>

#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/data.hpp"
#include "nk/foundation/string.hpp"
#include "nk/system/image.hpp"
#include "nk/system/process_info.hpp"

namespace nk {

class NKGlobalUtils {
 public:
  // The application name shown in the device-name texts.
  static constexpr const char* kAppDisplayName = "Velmont Files for Mac";
  // The service a storage zone lists when it speaks the cloud-native protocol.
  static constexpr const char* kCloudNativeProtocolService = "SupportCloudNativeProtocol";

  // The decoded image, nil when the bytes are not an image the decoder reads.
  static Ref<Image> imageWithData(const Data* data);

  // A purely syntactic, ASCII-only test: local part, "@", domain, "." and a top-level
  // label of two or more letters, covering the whole string. Nil and "" give false.
  static bool isValidEmailAddress(const String* address);

  // Whole seconds since 1970-01-01 00:00:00 UTC, truncated toward zero.
  static int64_t getNowUnixTime();

  // isOSGreaterThan is an at-least test (an equal version gives true); isOSLessThan is
  // always its negation.
  static bool isOSLessThan(const OperatingSystemVersion& version);
  static bool isOSGreaterThan(const OperatingSystemVersion& version);

  // The name the device is presented by to remote parties: getFriendlyDeviceName, or
  // getFriendlyModel if that were empty.
  static Ref<String> getDeviceNameForRemote();
  // "<computer name> (<app name>)", or "Unknown Device Name (<app name>)" when the
  // computer name is missing or blank.
  static Ref<String> getFriendlyDeviceName();
  // "Mac".
  static Ref<String> getFriendlyModel();

  // Makes calls of `first` run `second`'s implementation and calls of `second` run
  // what `first` ran before. Instance methods are used unless neither name is an
  // instance method of `cls`, in which case its class methods are. When `cls` inherits
  // `first`, it gets its own method under that name, so the superclass is untouched.
  static void swizzleWithClass(const char* first, const char* second, Class& cls);

  // True when the user's language is written right to left, so the layout corrections
  // such languages need are to be applied. Worked out on the first call only.
  static bool areLeftToRightHacksNeeded();

  // True when the main bundle's identifier ends in "beta", in any case. Worked out on
  // the first call only.
  static bool isBetaApp();
  // The test isBetaApp caches, for one identifier (nil gives false).
  static bool isBetaBundleIdentifier(const String* identifier);

  // True when one of the service names, trimmed, is exactly "SupportCloudNativeProtocol".
  // Every element must be a string.
  static bool isCloudNativeProtocolSupportedInZoneServices(const Array* services);

  NKGlobalUtils() = delete;
};

}  // namespace nk
