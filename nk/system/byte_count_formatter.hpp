// ByteCountFormatter: byte counts as the short texts people read ("1.5 MB"),
// with the platform's count styles and its English texts.
//
// English ("en" locales) gives the platform's own words: "Zero KB", "1 byte",
// "999 bytes", "1 KB", "1.5 MB", "1.02 GB", and "KB" for both the decimal and the
// binary styles. Other languages take ICU's short unit names ("1,5 Mo" in
// French) and ICU's digits and separators in every language.
#pragma once

#include <cstdint>

#include "nk/foundation/string.hpp"
#include "nk/system/locale.hpp"

namespace nk {

// The platform's count styles and their values.
enum class ByteCountStyle : int {
  kFile = 0,     // the desktop's convention for file sizes: 1 KB = 1000 bytes
  kMemory = 1,   // the convention for memory: 1 KB = 1024 bytes
  kDecimal = 2,  // 1 KB = 1000 bytes
  kBinary = 3,   // 1 KB = 1024 bytes
};

class ByteCountFormatter {
 public:
  // The one-shot text of `count` in the user's current locale, every other
  // setting at the platform's defaults (all units, adaptive precision):
  //  - 0 is "Zero KB"; 1 is "1 byte"; below one kilobyte the count in bytes,
  //    grouped ("1,023 bytes");
  //  - otherwise the largest unit (KB, MB, GB, TB, PB, EB) not larger than the
  //    count, with no fraction digits for KB, one for MB and two from GB up,
  //    rounded half up, trailing zeros dropped ("1 MB", "1.1 MB", "1.02 GB");
  //  - a value that rounds up to a whole next unit is shown in that unit
  //    (999,999 bytes in the file style is "1 MB", not "1,000 KB");
  //  - a negative count is its magnitude's text with a minus sign ("-1 KB").
  static Ref<String> stringFromByteCount(int64_t count, ByteCountStyle style);
  // The same in an explicit locale (nil: the user's current one).
  static Ref<String> stringFromByteCount(int64_t count, ByteCountStyle style, const Locale* locale);
};

}  // namespace nk
