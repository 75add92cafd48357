// Tests for ByteCountFormatter: units, rounding and the English texts.
#include "nk/system/byte_count_formatter.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

namespace nk {
namespace {

std::string text(int64_t count, ByteCountStyle style, const char* locale = "en_US") {
  Ref<Locale> l = Locale::withIdentifier(locale);
  Ref<String> s = ByteCountFormatter::stringFromByteCount(count, style, l.get());
  return s ? s->utf8() : "(nil)";
}

TEST(ByteCountFormatter, FileStyleCountsInThousands) {
  // zero and plain bytes
  {
    EXPECT_EQ(text(0, ByteCountStyle::kFile), "Zero KB");
    EXPECT_EQ(text(1, ByteCountStyle::kFile), "1 byte");
    EXPECT_EQ(text(2, ByteCountStyle::kFile), "2 bytes");
    EXPECT_EQ(text(999, ByteCountStyle::kFile), "999 bytes");
  }
  // kilobytes without fraction, rounded half up
  {
    EXPECT_EQ(text(1000, ByteCountStyle::kFile), "1 KB");
    EXPECT_EQ(text(1499, ByteCountStyle::kFile), "1 KB");
    EXPECT_EQ(text(1500, ByteCountStyle::kFile), "2 KB");
    EXPECT_EQ(text(999'499, ByteCountStyle::kFile), "999 KB");
  }
  // rounding up into the next unit moves to that unit
  {
    EXPECT_EQ(text(999'500, ByteCountStyle::kFile), "1 MB");
    EXPECT_EQ(text(999'999'999, ByteCountStyle::kFile), "1 GB");
  }
  // megabytes with one digit, larger units with two, no trailing zeros
  {
    EXPECT_EQ(text(1'000'000, ByteCountStyle::kFile), "1 MB");
    EXPECT_EQ(text(1'500'000, ByteCountStyle::kFile), "1.5 MB");
    EXPECT_EQ(text(1'549'999, ByteCountStyle::kFile), "1.5 MB");
    EXPECT_EQ(text(1'020'000'000, ByteCountStyle::kFile), "1.02 GB");
    EXPECT_EQ(text(1'100'000'000, ByteCountStyle::kFile), "1.1 GB");
    EXPECT_EQ(text(2'345'000'000'000, ByteCountStyle::kFile), "2.35 TB");
    EXPECT_EQ(text(1'000'000'000'000'000, ByteCountStyle::kFile), "1 PB");
  }
  // the largest count and negative counts
  {
    EXPECT_EQ(text(std::numeric_limits<int64_t>::max(), ByteCountStyle::kFile), "9.22 EB");
    EXPECT_EQ(text(-1000, ByteCountStyle::kFile), "-1 KB");
    EXPECT_EQ(text(-1, ByteCountStyle::kFile), "-1 byte");
    EXPECT_EQ(text(std::numeric_limits<int64_t>::min(), ByteCountStyle::kFile), "-9.22 EB");
  }
}

TEST(ByteCountFormatter, BinaryStyleCountsIn1024s) {
  // bytes up to 1023, grouped
  {
    EXPECT_EQ(text(1000, ByteCountStyle::kBinary), "1,000 bytes");
    EXPECT_EQ(text(1023, ByteCountStyle::kBinary), "1,023 bytes");
  }
  // the same unit names as the file style
  {
    EXPECT_EQ(text(1024, ByteCountStyle::kBinary), "1 KB");
    EXPECT_EQ(text(1536 * 1024, ByteCountStyle::kBinary), "1.5 MB");
    EXPECT_EQ(text(int64_t{1} << 30, ByteCountStyle::kBinary), "1 GB");
    EXPECT_EQ(text(std::numeric_limits<int64_t>::max(), ByteCountStyle::kBinary), "8 EB");
  }
  // memory style is binary, decimal style is the file style
  {
    EXPECT_EQ(text(1024, ByteCountStyle::kMemory), text(1024, ByteCountStyle::kBinary));
    EXPECT_EQ(text(1'500'000, ByteCountStyle::kDecimal), text(1'500'000, ByteCountStyle::kFile));
    EXPECT_NE(text(1'500'000, ByteCountStyle::kMemory), text(1'500'000, ByteCountStyle::kFile));
  }
}

TEST(ByteCountFormatter, Localized) {
  // other languages: ICU's unit names and separators (French spaces are narrow)
  {
    EXPECT_EQ(text(1'500'000, ByteCountStyle::kFile, "fr_FR"), "1,5\u202FMo");
    EXPECT_EQ(text(2'500'000'000, ByteCountStyle::kFile, "de_DE"), "2,5\u00A0GB");
  }
  // English texts in every English region; grouping follows the region
  {
    EXPECT_EQ(text(0, ByteCountStyle::kFile, "en_GB"), "Zero KB");
    EXPECT_EQ(text(1023, ByteCountStyle::kBinary, "en_IN"), "1,023 bytes");
  }
  // without an explicit locale the environment decides
  {
    const char* old = std::getenv("LC_ALL");
    const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
    setenv("LC_ALL", "en_US.UTF-8", 1);
    EXPECT_EQ(ByteCountFormatter::stringFromByteCount(1000, ByteCountStyle::kFile)->utf8(), "1 KB");
    setenv("LC_ALL", "fr_FR.UTF-8", 1);
    EXPECT_EQ(ByteCountFormatter::stringFromByteCount(1000, ByteCountStyle::kFile)->utf8(),
              "1\u202Fko");
    if (saved) {
      setenv("LC_ALL", saved->c_str(), 1);
    } else {
      unsetenv("LC_ALL");
    }
  }
}

}  // namespace
}  // namespace nk
