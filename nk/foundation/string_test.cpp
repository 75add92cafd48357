// Tests of String: decoding, representation, equality, searching, mutation.
#include "nk/foundation/string.hpp"

#include <gtest/gtest.h>

#include "nk/foundation/exception.hpp"

namespace nk {
namespace {

TEST(String, DecodesUTF8) {
  // ASCII and Latin-1 text is stored compactly; other text as UTF-16.
  auto ascii = String::fromUTF8("hello");
  ASSERT_TRUE(ascii);
  EXPECT_TRUE(ascii->isLatin1());
  EXPECT_EQ(ascii->length(), 5u);

  auto latin = String::fromUTF8("caf\xC3\xA9");
  ASSERT_TRUE(latin);
  EXPECT_TRUE(latin->isLatin1());
  EXPECT_EQ(latin->length(), 4u);
  EXPECT_EQ(latin->characterAt(3), u'\u00e9');

  // A character outside the BMP counts two code units.
  auto emoji = String::fromUTF8("a\U0001F600b");
  ASSERT_TRUE(emoji);
  EXPECT_FALSE(emoji->isLatin1());
  EXPECT_EQ(emoji->length(), 4u);
  EXPECT_EQ(emoji->characterAt(1), 0xD83D);
  EXPECT_EQ(emoji->characterAt(2), 0xDE00);
  EXPECT_EQ(emoji->utf8(), "a\xF0\x9F\x98\x80\x62");

  // Embedded NULs are text like any other.
  auto nul = String::fromUTF8(std::string_view("a\0b", 3));
  ASSERT_TRUE(nul);
  EXPECT_EQ(nul->length(), 3u);
  EXPECT_EQ(nul->utf8(), std::string("a\0b", 3));
}

TEST(String, RejectsMalformedUTF8) {
  const char* bad[] = {
      "\x80",              // lone continuation
      "\xC0\xAF",          // overlong slash
      "\xE0\x80\xAF",      // overlong
      "\xED\xA0\x80",      // encoded surrogate
      "\xF4\x90\x80\x80",  // above U+10FFFF
      "\xF5\x80\x80\x80",  // invalid lead byte
      "abc\xE2\x82",       // truncated at the end
      "\xC3(",             // bad continuation
  };
  for (const char* text : bad) EXPECT_FALSE(String::fromUTF8(text)) << text;
}

TEST(String, UTF16AndUnpairedSurrogates) {
  EXPECT_FALSE(String::fromUTF16(u"a\xD800"));
  EXPECT_FALSE(String::fromUTF16(std::u16string(1, char16_t(0xDC00)) + u"x"));
  auto pair = String::fromUTF16(u"\xD83D\xDE00");
  ASSERT_TRUE(pair);
  EXPECT_EQ(pair->length(), 2u);

  // withCharacters keeps any units; UTF-8 output then substitutes U+FFFD, and
  // the strict conversion refuses.
  auto lone = String::withCharacters(std::u16string(1, char16_t(0xD800)));
  ASSERT_TRUE(lone);
  EXPECT_EQ(lone->utf8(), "\xEF\xBF\xBD");
  std::string out;
  EXPECT_FALSE(lone->toUTF8(out));
}

TEST(String, EqualityAndHashAcrossRepresentations) {
  auto compact = String::fromUTF8("caf\xC3\xA9");
  auto wide = make<MutableString>();
  wide->appendCharacters(u"caf\u00e9");
  ASSERT_TRUE(compact->isLatin1());
  ASSERT_FALSE(wide->isLatin1());
  EXPECT_TRUE(compact->isEqual(wide.get()));
  EXPECT_TRUE(wide->isEqual(compact.get()));
  EXPECT_EQ(compact->hash(), wide->hash());
  EXPECT_TRUE(NK_STR("caf\xC3\xA9")->isEqual(compact.get()));
  EXPECT_EQ(NK_STR("caf\xC3\xA9")->hash(), compact->hash());
  EXPECT_FALSE(compact->isEqual(String::fromUTF8("cafe").get()));
  EXPECT_FALSE(compact->isEqual(nullptr));
}

TEST(String, Ordering) {
  EXPECT_LT(NK_STR("abc")->compare(*NK_STR("abd")), 0);
  EXPECT_GT(NK_STR("abc")->compare(*NK_STR("ab")), 0);
  EXPECT_EQ(NK_STR("")->compare(*String::empty()), 0);
  // Code-unit order: U+FFFF sorts after a surrogate pair.
  EXPECT_LT(String::fromUTF8("\xF0\x9F\x98\x80")->compare(*String::fromUTF8("\xEF\xBF\xBF")), 0);
}

TEST(String, Searching) {
  auto s = String::fromUTF8("one two one");
  EXPECT_EQ(s->find(NK_STR("one")), 0u);
  EXPECT_EQ(s->find(NK_STR("one"), 1), 8u);
  EXPECT_EQ(s->find(NK_STR("three")), kNotFound);
  EXPECT_EQ(s->find(NK_STR("")), kNotFound);
  EXPECT_EQ(s->find(nullptr), kNotFound);
  EXPECT_TRUE(s->hasPrefix(NK_STR("one ")));
  EXPECT_TRUE(s->hasSuffix(NK_STR(" one")));
  EXPECT_FALSE(s->hasPrefix(NK_STR("")));

  // Mixed representations meet in the same search.
  auto wide = String::fromUTF8("\xCE\xB1\xCE\xB2 caf\xC3\xA9 x");
  EXPECT_EQ(wide->find(String::fromUTF8("caf\xC3\xA9").get()), 3u);
  EXPECT_EQ(String::fromUTF8("abc")->find(String::fromUTF8("\xCE\xB1").get()), kNotFound);

  // A long adversarial search stays fast enough to finish (linear algorithm).
  std::string hay(1 << 20, 'a');
  std::string pat(1 << 10, 'a');
  pat.back() = 'b';
  EXPECT_EQ(String::fromUTF8(hay)->find(String::fromUTF8(pat).get()), kNotFound);
}

TEST(String, SubstringsAndRanges) {
  auto s = String::fromUTF8("h\xC3\xA9llo \xE2\x82\xAC");
  EXPECT_EQ(s->substring(1, 4)->utf8(), "\xC3\xA9llo");
  EXPECT_TRUE(s->substring(1, 4)->isLatin1());  // narrowed again
  EXPECT_EQ(s->substringFrom(6)->utf8(), "\xE2\x82\xAC");
  EXPECT_EQ(s->substring(7, 0)->length(), 0u);
  EXPECT_THROW(s->substring(3, 5), ThrownObject);
  EXPECT_THROW(s->characterAt(7), ThrownObject);
  EXPECT_EQ(s->appending(NK_STR("!"))->utf8(), "h\xC3\xA9llo \xE2\x82\xAC!");
}

TEST(String, CaseMapping) {
  EXPECT_EQ(String::fromUTF8("R\xC3\xA9sum\xC3\xA9")->lowercase()->utf8(), "r\xC3\xA9sum\xC3\xA9");
  EXPECT_EQ(String::fromUTF8("stra\u00DFe")->uppercase()->utf8(), "STRASSE");
  // Independent of the user's locale: dotted I stays as the root locale maps it.
  EXPECT_EQ(NK_STR("I")->lowercase()->utf8(), "i");
}

TEST(String, CopySemantics) {
  auto s = String::fromUTF8("abc");
  EXPECT_EQ(s->copy().get(), s.get());  // immutable: copy is itself
  Id m = s->mutableCopy();
  auto ms = cast<MutableString>(m);
  ASSERT_TRUE(ms);
  ms->append(NK_STR("d"));
  EXPECT_EQ(s->utf8(), "abc");

  // A copy of a mutable string is an immutable snapshot.
  Id snap = ms->copy();
  ASSERT_NE(snap.get(), ms.get());
  EXPECT_FALSE(snap->isKindOfClass(MutableString::staticClass()));
  ms->deleteCharacters(0, 1);
  EXPECT_EQ(cast<String>(snap)->utf8(), "abcd");
  EXPECT_EQ(ms->utf8(), "bcd");
}

TEST(String, ConstantsAreDistinctAndImmortal) {
  String* a = NK_STR("PRMNull");
  String* b = NK_STR("PRMNull");
  EXPECT_NE(a, b);  // one object per use site
  EXPECT_TRUE(a->isEqual(b));
  EXPECT_TRUE(a->isMemberOfClass(ConstantString::staticClass()));
  EXPECT_TRUE(a->isImmortal());
  { Ref<String> r(a); }
  EXPECT_EQ(a->utf8(), "PRMNull");
  EXPECT_FALSE(a->isEqual(String::fromUTF8("PRMNul").get()));
}

TEST(MutableString, Editing) {
  auto m = make<MutableString>();
  m->appendUTF8("ab\xFF");  // malformed bytes become U+FFFD
  EXPECT_EQ(m->length(), 3u);
  EXPECT_EQ(m->characterAt(2), 0xFFFD);
  m->insert(NK_STR("X"), 1);
  m->replaceCharacters(2, 2, NK_STR("yz"));
  EXPECT_EQ(m->utf8(), "aXyz");
  EXPECT_THROW(m->insert(NK_STR("q"), 9), ThrownObject);
  EXPECT_THROW(m->deleteCharacters(3, 2), ThrownObject);
  m->setString(nullptr);
  EXPECT_TRUE(m->isEmpty());
  // Appending itself, short and long enough to move its storage.
  m->appendUTF8("ab");
  m->append(m.get());
  EXPECT_EQ(m->utf8(), "abab");
  m->setString(String::fromUTF8(std::string(100, 'x')).get());
  m->append(m.get());
  EXPECT_EQ(m->utf8(), std::string(200, 'x'));
}

}  // namespace
}  // namespace nk
