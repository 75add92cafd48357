// Tests of the version symbols: their values and the exact identification text.

#include "nk/environment/version.hpp"

#include <gtest/gtest.h>

#include <string>

namespace nk {
namespace {

TEST(VersionSymbols, ValuesAndText) {
  {  // the number
    EXPECT_EQ(NKOSXUtilsVersionNumber, 1.0);
  }
  {  // the text, byte for byte: two blanks before PROJECT and a final newline
    const char* text = reinterpret_cast<const char*>(NKOSXUtilsVersionString);
    EXPECT_EQ(std::string(text), "@(#)PROGRAM:NKOSXUtils  PROJECT:NKUtils-1\n");
  }
}

}  // namespace
}  // namespace nk
