// Number helpers over the system formatters.

#include "nk/helpers/number_helpers.hpp"

#include <limits>

#include "nk/system/byte_count_formatter.hpp"
#include "nk/system/duration_formatter.hpp"

namespace nk {
namespace {

// The formatter takes a signed count; larger counts saturate rather than wrap
// negative.
int64_t clampedByteCount(uint64_t bytes) {
  constexpr uint64_t kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  return static_cast<int64_t>(bytes > kMax ? kMax : bytes);
}

}  // namespace

Ref<String> vnk_userFriendlyFileSizeFromUnsignedLongLong(uint64_t bytes) {
  return ByteCountFormatter::stringFromByteCount(clampedByteCount(bytes), ByteCountStyle::kBinary);
}

Ref<String> vnk_userFriendlyPlatformSpecificFileSizeFromUnsignedLongLong(uint64_t bytes) {
  return ByteCountFormatter::stringFromByteCount(clampedByteCount(bytes), ByteCountStyle::kFile);
}

Ref<String> vnk_userFriendlyTime(const Number* seconds) {
  if (!seconds) return nullptr;
  return DurationFormatter::stringFromTimeInterval(seconds->doubleValue());
}

}  // namespace nk
