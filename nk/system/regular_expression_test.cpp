// Tests for RegularExpression: whole-string matching, bad patterns, the cache.
#include "nk/system/regular_expression.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace nk {
namespace {

// The address test of the environment utilities.
constexpr std::string_view kEmail = "^[A-Za-z0-9._%+-]+@[A-Za-z0-9.-]+\\.[A-Za-z]{2,}$";

TEST(RegularExpression, WholeStringMatch) {
  // addresses the environment utilities accept, and those they refuse
  // (internationalised ones included)
  for (std::string_view s : {"a.b+c@host.example", "x@y.co", "..a@b..c.de", "A_1%@X-Y.ORG"}) {
    EXPECT_TRUE(RegularExpression::matchesWholeString(kEmail, s)) << s;
  }
  for (std::string_view s : {"", "a@b", "a@b.c", "a b@c.de", "a@b.c1", "é@x.de", "a@b.de\n"}) {
    EXPECT_FALSE(RegularExpression::matchesWholeString(kEmail, s)) << s;
  }
  // without anchors the match must still cover the whole text
  EXPECT_TRUE(RegularExpression::matchesWholeString("[a-z]+", "abc"));
  EXPECT_FALSE(RegularExpression::matchesWholeString("[a-z]+", "abc1"));
  EXPECT_FALSE(RegularExpression::matchesWholeString("b", "abc"));
  // String arguments, ICU's Unicode classes
  EXPECT_TRUE(RegularExpression::matchesWholeString(NK_STR("\\p{Nd}+"), NK_STR("١٢٣")));
  EXPECT_FALSE(RegularExpression::matchesWholeString(NK_STR("\\p{Nd}+"), NK_STR("١٢x")));
}

TEST(RegularExpression, BadInput) {
  // invalid patterns are false, every time (the failure is cached too)
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(RegularExpression::matchesWholeString("(", "("));
    EXPECT_FALSE(RegularExpression::isValidPattern(NK_STR("[a-")));
  }
  EXPECT_TRUE(RegularExpression::isValidPattern(NK_STR("[a-z]")));
  // nil and malformed UTF-8
  EXPECT_FALSE(RegularExpression::matchesWholeString(nullptr, NK_STR("a")));
  EXPECT_FALSE(RegularExpression::matchesWholeString(NK_STR("a"), nullptr));
  EXPECT_FALSE(RegularExpression::matchesWholeString(".*", "\xFF"));
  // runaway backtracking stops at the time limit with false
  EXPECT_FALSE(RegularExpression::matchesWholeString("(a+)+$", std::string(40, 'a') + "!"));
}

TEST(RegularExpression, CacheUnderLoad) {
  // more distinct patterns than the cache keeps, each still right
  for (int i = 0; i < 200; ++i) {
    const std::string pattern = "x{" + std::to_string(i % 7) + "}" + std::to_string(i);
    const std::string hit = std::string(i % 7, 'x') + std::to_string(i);
    ASSERT_TRUE(RegularExpression::matchesWholeString(pattern, hit)) << pattern;
    ASSERT_FALSE(RegularExpression::matchesWholeString(pattern, hit + "x")) << pattern;
  }
  // one compiled pattern shared by many threads
  std::vector<std::thread> threads;
  std::vector<int> wrong(8, 0);
  for (size_t t = 0; t < wrong.size(); ++t) {
    threads.emplace_back([&wrong, t] {
      for (int i = 0; i < 200; ++i) {
        if (!RegularExpression::matchesWholeString(kEmail, "x@y.co")) ++wrong[t];
        if (RegularExpression::matchesWholeString(kEmail, "x@y.c")) ++wrong[t];
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int w : wrong) EXPECT_EQ(w, 0);
}

}  // namespace
}  // namespace nk
