// Number helpers: byte counts and durations as the texts people read, in the
// user's current locale.
#pragma once

#include <cstdint>

#include "nk/foundation/number.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// `bytes` in binary units (1 KB = 1024 bytes): "1 KB" for 1024 in English.
// Counts of 2^63 and above read as 2^63 - 1.
Ref<String> vnk_userFriendlyFileSizeFromUnsignedLongLong(uint64_t bytes);

// `bytes` in the desktop's file-size units (1 KB = 1000 bytes): "1 KB" for 1000.
// Counts of 2^63 and above read as 2^63 - 1.
Ref<String> vnk_userFriendlyPlatformSpecificFileSizeFromUnsignedLongLong(uint64_t bytes);

// The number, as seconds, in spelled-out units ("1 hour, 5 minutes"); nil for a
// nil number or an interval the duration formatter cannot show.
Ref<String> vnk_userFriendlyTime(const Number* seconds);

}  // namespace nk
