// Tests of the formatter and the log line.
#include "nk/foundation/format.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cctype>
#include <climits>
#include <vector>

#include "nk/foundation/log.hpp"

namespace nk {
namespace {

TEST(Format, ObjectsAndText) {
  EXPECT_EQ(format("Promise: fulfilled: %@", NK_STR("PRMNull"))->utf8(),
            "Promise: fulfilled: PRMNull");
  EXPECT_EQ(format("%@", Ref<String>())->utf8(), "(null)");
  EXPECT_EQ(format("%s and %s", "c-text", std::string("std"))->utf8(), "c-text and std");
  EXPECT_EQ(format("%5s|%-5s|", "ab", "cd")->utf8(), "   ab|cd   |");
  EXPECT_EQ(format("100%% %@", NK_STR("done"))->utf8(), "100% done");
  // Text that is not UTF-8 costs its own bytes, not the whole line; a precision
  // cuts between characters.
  EXPECT_EQ(format("name: %s", "caf\xE9")->utf8(), "name: caf\xEF\xBF\xBD");
  EXPECT_EQ(format("%.3s|", "\xC3\xA9\xC3\xA9")->utf8(), "\xC3\xA9|");
}

TEST(Format, Integers) {
  EXPECT_EQ(format("%d %i %ld %lld", 1, -2, 3L, -4LL)->utf8(), "1 -2 3 -4");
  EXPECT_EQ(format("%lu %u", 18446744073709551615UL, 7u)->utf8(), "18446744073709551615 7");
  // Without a length modifier the argument is an int, as in C.
  EXPECT_EQ(format("%u", -1)->utf8(), "4294967295");
  EXPECT_EQ(format("%hhd", 300)->utf8(), "44");
  EXPECT_EQ(format("%x %X %o %05d", 255, 255, 8, 42)->utf8(), "ff FF 10 00042");
  EXPECT_EQ(format("%*d|%-*d|", 4, 7, 3, 1)->utf8(), "   7|1  |");
  EXPECT_EQ(format("%c%c", 'o', 'k')->utf8(), "ok");
}

TEST(Format, FloatingPoint) {
  EXPECT_EQ(format("%.2f %g %e", 3.14159, 0.5, 1000.0)->utf8(), "3.14 0.5 1.000000e+03");
}

TEST(Format, MissingAndUnknown) {
  // A directive without an argument prints nothing; unknown directives stay.
  EXPECT_EQ(format("a%db")->utf8(), "ab");
  EXPECT_EQ(format("%k %", 1)->utf8(), "%k %");
  // A hostile width or precision is bounded instead of allocating without limit,
  // given in the text or as an argument.
  EXPECT_LE(format("%999999999d", 1)->length(), 4097u);
  EXPECT_LE(format("%*d", INT_MIN, 1)->length(), 4097u);
  EXPECT_LE(format("%.*f", 2000000000, 1.0)->length(), 4100u);
}

TEST(Log, SinkReceivesTheMessage) {
  std::vector<std::string> lines;
  LogSink previous = setLogSink([&](std::string_view m) { lines.emplace_back(m); });
  Log("Migriornop: Unhandled error: %@", NK_STR("E"));
  setLogSink(previous);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "Migriornop: Unhandled error: E");
}

TEST(Log, StandardErrorLine) {
  testing::internal::CaptureStderr();
  Log("hello %d", 5);
  std::string line = testing::internal::GetCapturedStderr();
  // "2026-11-21 14:11:12.345 name[pid:tid] hello 5", digits where the shape has 9.
  const std::string shape = "9999-99-99 99:99:99.999 ";
  ASSERT_GT(line.size(), shape.size()) << line;
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == '9') {
      EXPECT_TRUE(isdigit(static_cast<unsigned char>(line[i]))) << line;
    } else {
      EXPECT_EQ(line[i], shape[i]) << line;
    }
  }
  std::string ids = "[" + std::to_string(getpid()) + ":";
  EXPECT_NE(line.find(ids), std::string::npos) << line;
  EXPECT_EQ(line.substr(line.size() - 10), "] hello 5\n") << line;
}

}  // namespace
}  // namespace nk
