// Tests of the URL helpers: authority, equality, ports, host normalisation, the
// HTML wrappers, query parsing with its quirks, appending and subdomains.

#include "nk/helpers/url_helpers.hpp"

#include <gtest/gtest.h>

#include <string>

#include "nk/foundation/exception.hpp"
#include "nk/foundation/null.hpp"

namespace nk {
namespace {

Ref<URL> U(std::string_view text) {
  Ref<URL> url = URL::fromString(text);
  EXPECT_TRUE(url) << text;
  return url;
}

std::string utf8(const Ref<String>& s) { return s ? s->utf8() : "<nil>"; }

std::string valueText(const Ref<Dictionary>& d, std::string_view key) {
  const Id& v = d->objectForKey(String::fromUTF8(key));
  if (!v) return "<absent>";
  if (v == Id(Null::null())) return "<null>";
  return cast<String>(v)->utf8();
}

TEST(URLAuthority, SchemeHostPort) {
  const std::pair<const char*, const char*> rows[] = {
      {"https://u:p@Host.example:8443/a?b", "https://Host.example:8443"},
      {"https://h:443/", "https://h:443"},   // a default port written out stays
      {"//host.example/p", "host.example"},  // no scheme: the host alone, or host:port
      {"//host.example:81/p", "host.example:81"},
      {"http://[::1]:8080/", "http://::1:8080"},  // IPv6 without brackets, as the host part
      {"http://h:4294967297/", "http://h:1"},     // the port as a signed 32-bit value
      {"file:///tmp/a", "file://"},
  };
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(utf8(vnk_authorityStringRepresentation(U(text).get())), expected) << text;
  }
  EXPECT_EQ(vnk_authorityStringRepresentation(nullptr), nullptr);
}

TEST(URLEquality, FileURLsByPath) {
  const Ref<URL> a = URL::fileURLWithPath("/tmp/a", false);
  const Ref<URL> aDir = URL::fileURLWithPath("/tmp/a/", true);
  EXPECT_TRUE(vnk_isEqualToURL(a.get(), aDir.get()));
  EXPECT_TRUE(vnk_isEqualToURL(U("file:///tmp/a").get(), U("FILE://localhost/tmp/a").get()));
  EXPECT_FALSE(vnk_isEqualToURL(U("file:///tmp/a").get(), U("file:///tmp/A").get()));
  // A file URL against a web URL of the same path compares absolute forms.
  EXPECT_FALSE(vnk_isEqualToURL(a.get(), U("http://h/tmp/a").get()));
  // Other URLs compare by absolute form, so a relative URL equals its resolution.
  const Ref<URL> base = U("http://a/b/c");
  const Ref<URL> rel = URL::fromStringRelativeTo("d?q", base.get());
  EXPECT_TRUE(vnk_isEqualToURL(rel.get(), U("http://a/b/d?q").get()));
  EXPECT_FALSE(vnk_isEqualToURL(U("http://a/").get(), U("http://A/").get()));
  EXPECT_FALSE(vnk_isEqualToURL(a.get(), nullptr));
}

TEST(URLPort, SchemeDefaults) {
  // "http://h:/": an empty port is no port
  const std::pair<const char*, long> rows[] = {{"HTTPS://h/", 443}, {"Ftp://h/", 21},
                                               {"sftp://h/", 0},    {"https://h:80/", 80},
                                               {"http://h:/", 80},  {"//h/", 0}};
  for (const auto& [text, port] : rows) {
    EXPECT_EQ(vnk_portWithHTTPSchemeDefaults(U(text).get())->longValue(), port) << text;
  }
  EXPECT_EQ(vnk_portWithHTTPSchemeDefaults(nullptr), nullptr);
}

TEST(URLNormalizedHost, FirstOccurrenceLowerCased) {
  EXPECT_EQ(
      utf8(
          vnk_normalizedHostURL(U("https://Files.Example.COM/Path?Q=A#F").get())->absoluteString()),
      "https://files.example.com/Path?Q=A#F");
  EXPECT_EQ(utf8(vnk_normalizedHostURL(U("http://[FE80::AB]:8/X").get())->absoluteString()),
            "http://[fe80::ab]:8/X");
  // The first literal occurrence wins, even inside the user information.
  EXPECT_EQ(utf8(vnk_normalizedHostURL(U("http://Ab@Ab/Ab").get())->absoluteString()),
            "http://ab@Ab/Ab");
  // A host written with escapes does not occur literally: the URL itself comes back.
  for (const Ref<URL>& same : {U("http://%41b.com/"), U("file:///A")}) {
    EXPECT_EQ(vnk_normalizedHostURL(same.get()), same);
  }
  EXPECT_EQ(vnk_normalizedHostURL(nullptr), nullptr);
}

TEST(URLHtmlWrappers, TemplatesExactly) {
  const Ref<URL> url = U("https://h/media/clip%20one.mp4");
  const std::u16string image = vnk_htmlWrapperFromImagePath(url.get())->toUTF16();
  const std::u16string source = u"https://h/media/clip%20one.mp4";
  // 352 units of template, less four "%%" halves and the "%@" directive.
  EXPECT_EQ(image.size(), 352u - 4 - 2 + source.size());
  EXPECT_EQ(image.rfind(u"<html><head><style type=\"text/css\"> html,body {margin: 0;", 0), 0u);
  EXPECT_NE(image.find(u"<body><img src=\"" + source + u"\"</img></body></html>\u200B"),
            std::u16string::npos);

  const std::u16string video = vnk_htmlWrapperFromPlayableMediaPath(url.get())->toUTF16();
  const std::u16string title = u"clip one.mp4";
  EXPECT_EQ(video.size(), 330u - 2 - 4 + title.size() + source.size());
  EXPECT_NE(video.find(u"<video controls title=\"" + title + u"\" src=\"" + source +
                       u"\"></video></body></html>\u200B"),
            std::u16string::npos);
  // Nothing is escaped.
  const Ref<URL> quoted = U("http://h/a%22b?x=%3Cy%3E");
  EXPECT_NE(vnk_htmlWrapperFromPlayableMediaPath(quoted.get())->toUTF16().find(u"title=\"a\"b\""),
            std::u16string::npos);
  EXPECT_EQ(vnk_htmlWrapperFromImagePath(nullptr), nullptr);
}

TEST(URLQueryParameters, PiecesAndQuirks) {
  const Ref<Dictionary> d = vnk_queryParameters(U("http://h/?a=1&b&c=x%20y&a=2&d=e=f&%20&").get());
  EXPECT_EQ(valueText(d, "a"), "2");
  EXPECT_EQ(valueText(d, "b"), "<null>");
  EXPECT_EQ(valueText(d, "c"), "x y");
  EXPECT_EQ(valueText(d, "d"), "e=f");
  EXPECT_EQ(valueText(d, " "), "<null>");  // escapes are decoded after the trim
  EXPECT_EQ(d->count(), 5u);
  EXPECT_FALSE(d->isKindOfClass(MutableDictionary::staticClass()));
  // Last one wins, keeping the first one's place.
  EXPECT_EQ(utf8(cast<String>(d->allKeys()->objectAtIndex(0))), "a");

  // Empty parts: 'a=' gives '', '=b' gives the key ''.
  const Ref<Dictionary> e = vnk_queryParameters(U("http://h/?a=&=b").get());
  EXPECT_EQ(valueText(e, "a"), "");
  EXPECT_EQ(valueText(e, ""), "b");
  // Three parts: the raw piece from index (decoded key length + 1), so escapes in
  // the key pull the cut forward: "a%20b" decodes to three units, the cut is at 4.
  const Ref<Dictionary> q =
      vnk_queryParameters(U("http://h/?a%20b=c=d&k%C3%A9=1=2&plain=x=y").get());
  EXPECT_EQ(valueText(q, "a b"), "b=c=d");
  EXPECT_EQ(valueText(q, "k\xC3\xA9"), "3%A9=1=2");
  EXPECT_EQ(valueText(q, "plain"), "x=y");
  EXPECT_EQ(valueText(vnk_queryParameters(U("http://h/?==").get()), ""), "=");
  // "+" is not a space; the fragment is not the query.
  const Ref<Dictionary> p = vnk_queryParameters(U("http://h/?q=a+b#x=1").get());
  EXPECT_EQ(valueText(p, "q"), "a+b");
  EXPECT_EQ(p->count(), 1u);
}

TEST(URLQueryParameters, AbsentAndBadQueries) {
  EXPECT_EQ(vnk_queryParameters(U("http://h/p").get())->count(), 0u);
  EXPECT_EQ(vnk_queryParameters(U("http://h/p?&&&").get())->count(), 0u);
  EXPECT_EQ(vnk_queryParameters(nullptr), nullptr);
  // A value that does not decode (not UTF-8) removes the earlier entry.
  const Ref<Dictionary> v = vnk_queryParameters(U("http://h/?a=1&b=2&a=%FF").get());
  EXPECT_EQ(valueText(v, "a"), "<absent>");
  EXPECT_EQ(valueText(v, "b"), "2");
  // A key that does not decode cannot be stored.
  for (const char* text : {"http://h/?%FF=1", "http://h/?%C3", "http://h/?%ED%A0%80=1=2"}) {
    try {
      vnk_queryParameters(U(text).get());
      ADD_FAILURE() << text << " did not raise";
    } catch (const ThrownObject& thrown) {
      const Ref<Exception> ex = cast<Exception>(thrown.object());
      ASSERT_TRUE(ex) << text;
      EXPECT_EQ(ex->name()->utf8(), kInvalidArgumentException) << text;
    }
  }
  // The query of a relative URL is that of its resolved form.
  const Ref<URL> rel = URL::fromStringRelativeTo("?k=v", U("http://h/p?old=1").get());
  EXPECT_EQ(valueText(vnk_queryParameters(rel.get()), "k"), "v");
}

TEST(URLAppendQuery, PlainTextPairs) {
  const Ref<Dictionary> one = Dictionary::make({{NK_STR("k"), NK_STR("v")}});
  auto appended = [&](std::string_view text, const Dictionary* params) {
    const Ref<URL> url = vnk_URLByAppendingQueryParameters(U(text).get(), params);
    return url ? url->absoluteString()->utf8() : std::string("<nil>");
  };
  EXPECT_EQ(appended("https://h/p", one.get()), "https://h/p?k=v");
  EXPECT_EQ(appended("https://h/p?x=1", one.get()), "https://h/p?x=1&k=v");
  EXPECT_EQ(appended("https://h/p?", one.get()), "https://h/p?&k=v");
  // Pairs follow the dictionary's order; numbers print as their description.
  const Ref<Dictionary> two =
      Dictionary::make({{NK_STR("b"), Number::withInt(2)}, {NK_STR("a"), NK_STR("x")}});
  EXPECT_EQ(appended("https://h/", two.get()), "https://h/?b=2&a=x");
  // Appended after the fragment: the text is taken as it is.
  EXPECT_EQ(appended("https://h/#f", one.get()), "https://h/#f?k=v");
  // Nothing is encoded, so a space or non-ASCII text makes the URL invalid.
  EXPECT_EQ(appended("https://h/", Dictionary::make({{NK_STR("k"), NK_STR("a b")}}).get()),
            "<nil>");
  // An empty dictionary on a URL with a query appends nothing; without one it raises.
  EXPECT_EQ(appended("https://h/?x", Dictionary::make().get()), "https://h/?x");
  EXPECT_THROW(vnk_URLByAppendingQueryParameters(U("https://h/").get(), Dictionary::make().get()),
               ThrownObject);
  EXPECT_EQ(vnk_URLByAppendingQueryParameters(nullptr, one.get()), nullptr);
}

TEST(URLSubdomain, FirstLabel) {
  const std::pair<const char*, const char*> rows[] = {
      {"https://files.example.com/", "files"}, {"https://localhost/", "localhost"},
      {"https://.example.com/", ""},           {"http://[::1]/", "::1"},
      {"http://192.168.0.1/", "192"},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(utf8(vnk_subdomain(U(text).get())), expected);
  EXPECT_EQ(vnk_subdomain(U("file:///a").get()), nullptr);
  EXPECT_EQ(vnk_subdomain(nullptr), nullptr);
}

TEST(URLQueryParameters, LargeQueryIsLinear) {
  std::string text = "http://h/?";
  constexpr size_t kPairs = 1'000'000;
  text.reserve(10 + kPairs * 10);
  for (size_t i = 0; i < kPairs; ++i) text += "k" + std::to_string(i % 1000) + "=v%20" + "&";
  const Ref<Dictionary> d = vnk_queryParameters(U(text).get());
  EXPECT_EQ(d->count(), 1000u);
  EXPECT_EQ(valueText(d, "k999"), "v ");
}

}  // namespace
}  // namespace nk
