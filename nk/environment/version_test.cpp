// Tests of the version symbols: their values and the exact identification text.

#include "nk/environment/version.hpp"

#include <gtest/gtest.h>

#include <string>

namespace nk {
namespace {

TEST(VersionSymbols, ValuesAndText) {
  EXPECT_EQ(NKOSXUtilsVersionNumber, 1.0);
  // Byte for byte: two blanks before PROJECT and a final newline.
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(NKOSXUtilsVersionString)),
            "@(#)PROGRAM:NKOSXUtils  PROJECT:NKUtils-1\n");
}

}  // namespace
}  // namespace nk
