// Tests for ByteCountFormatter: units, rounding and the English texts.
#include "nk/system/byte_count_formatter.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

std::string text(int64_t count, ByteCountStyle style, const char* locale = "en_US") {
  Ref<Locale> l = Locale::withIdentifier(locale);
  Ref<String> s = ByteCountFormatter::stringFromByteCount(count, style, l.get());
  return s ? s->utf8() : "(nil)";
}

struct Row {
  int64_t count;
  ByteCountStyle style;
  const char* locale;
  const char* expected;
};

TEST(ByteCountFormatter, Texts) {
  using enum ByteCountStyle;
  const Row rows[] = {
      // file style: thousands; zero and plain bytes
      {0, kFile, "en_US", "Zero KB"},
      {1, kFile, "en_US", "1 byte"},
      {2, kFile, "en_US", "2 bytes"},
      // kilobytes without fraction, rounded half up, into the next unit when it rounds up
      {1000, kFile, "en_US", "1 KB"},
      {1499, kFile, "en_US", "1 KB"},
      {1500, kFile, "en_US", "2 KB"},
      {999'500, kFile, "en_US", "1 MB"},
      // megabytes with one digit, larger units with two, no trailing zeros
      {1'000'000, kFile, "en_US", "1 MB"},
      {1'500'000, kFile, "en_US", "1.5 MB"},
      {1'549'999, kFile, "en_US", "1.5 MB"},
      {1'020'000'000, kFile, "en_US", "1.02 GB"},
      {1'100'000'000, kFile, "en_US", "1.1 GB"},
      {2'345'000'000'000, kFile, "en_US", "2.35 TB"},
      // the extremes and negative counts
      {kMax, kFile, "en_US", "9.22 EB"},
      {-1000, kFile, "en_US", "-1 KB"},
      {-1, kFile, "en_US", "-1 byte"},
      {kMin, kFile, "en_US", "-9.22 EB"},
      // binary style: 1024s, bytes up to 1023 grouped, the same unit names
      {1023, kBinary, "en_US", "1,023 bytes"},
      {1024, kBinary, "en_US", "1 KB"},
      {1536 * 1024, kBinary, "en_US", "1.5 MB"},
      {kMax, kBinary, "en_US", "8 EB"},
      // other languages: ICU's unit names and separators (French spaces are narrow)
      {1'500'000, kFile, "fr_FR", "1,5\u202FMo"},
      {2'500'000'000, kFile, "de_DE", "2,5\u00A0GB"},
      // English texts in every English region
      {0, kFile, "en_GB", "Zero KB"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message()
                 << r.count << " " << static_cast<int>(r.style) << " " << r.locale);
    EXPECT_EQ(text(r.count, r.style, r.locale), r.expected);
  }
  // memory style is binary, decimal style is the file style
  EXPECT_EQ(text(1024, kMemory), text(1024, kBinary));
  EXPECT_EQ(text(1'500'000, kDecimal), text(1'500'000, kFile));
  EXPECT_NE(text(1'500'000, kMemory), text(1'500'000, kFile));
}

TEST(ByteCountFormatter, EnvironmentLocaleWithoutAnExplicitOne) {
  test::ScopedEnv all("LC_ALL", std::string("en_US.UTF-8"));
  EXPECT_EQ(ByteCountFormatter::stringFromByteCount(1000, ByteCountStyle::kFile)->utf8(), "1 KB");
  test::ScopedEnv french("LC_ALL", std::string("fr_FR.UTF-8"));
  EXPECT_EQ(ByteCountFormatter::stringFromByteCount(1000, ByteCountStyle::kFile)->utf8(),
            "1\u202Fko");
}

}  // namespace
}  // namespace nk
