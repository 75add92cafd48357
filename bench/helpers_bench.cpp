// Benchmarks of the string and URL helpers beside straightforward ICU
// UnicodeString versions of the same operations, on 1 KB and 1 MB inputs.
//
// Sizes count UTF-16 code units (query texts: ASCII bytes); rates are units per
// second. The ICU peers do the same work: remove U+FFFC and trim the same classes; split,
// trim spaces and tabs and drop empty pieces; split a query, percent-decode and
// store pairs with the same quirks. Compare per-byte rates between the two sizes
// for linearity.

#include <benchmark/benchmark.h>
#include <unicode/uniset.h>
#include <unicode/unistr.h>

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/string.hpp"
#include "nk/foundation/url.hpp"
#include "nk/helpers/string_helpers.hpp"
#include "nk/helpers/url_helpers.hpp"

namespace {

// ---- Inputs ----------------------------------------------------------------------

std::u16string trimInput(size_t size) {
  std::u16string s = u" \t\uFFFC\n";
  const std::u16string word = u"r\u00E9sum\u00E9 \uFFFC\u65E5\u672C ";
  while (s.size() + word.size() + 4 < size) s += word;
  s += u"\uFFFC \n ";
  return s;
}

std::u16string splitInput(size_t size) {
  std::u16string s;
  const std::u16string piece = u" alpha\t,, beta ,\u00E9t\u00E9, \t ,";
  while (s.size() + piece.size() < size) s += piece;
  return s;
}

std::string queryText(size_t size) {
  std::string s;
  for (size_t i = 0; s.size() < size; ++i) {
    s += "key" + std::to_string(i % 97) + "=value%20" + std::to_string(i) + "&flag&";
  }
  return s;
}

// ---- ICU peers ---------------------------------------------------------------------

const icu::UnicodeSet& icuSet(const char16_t* pattern) {
  // Leaked on purpose: built once, read by every iteration.
  UErrorCode status = U_ZERO_ERROR;
  auto* set = new icu::UnicodeSet(icu::UnicodeString(pattern), status);
  set->freeze();
  return *set;
}

const icu::UnicodeSet& icuBlanksAndNewlines() {
  static const icu::UnicodeSet& set = icuSet(u"[[:Zs:][\\u0009-\\u000D\\u0085\\u2028\\u2029]]");
  return set;
}

const icu::UnicodeSet& icuBlanks() {
  static const icu::UnicodeSet& set = icuSet(u"[[:Zs:][\\u0009]]");
  return set;
}

icu::UnicodeString icuTrim(const icu::UnicodeString& in, const icu::UnicodeSet& set) {
  const int32_t begin = set.span(in, 0, USET_SPAN_SIMPLE);
  const int32_t end = set.spanBack(in, in.length(), USET_SPAN_SIMPLE);
  if (end <= begin) return icu::UnicodeString();
  return in.tempSubString(begin, end - begin);
}

// UnicodeString::findAndReplace with an empty replacement moves the tail at every
// hit (quadratic on 1 MB), so the peer copies the kept units instead.
icu::UnicodeString icuVnkTrim(const icu::UnicodeString& in) {
  icu::UnicodeString s(in.length(), 0, 0);  // capacity only
  for (int32_t i = 0; i < in.length(); ++i) {
    const UChar c = in.charAt(i);
    if (c != 0xFFFC) s.append(c);
  }
  return icuTrim(s, icuBlanksAndNewlines());
}

std::vector<icu::UnicodeString> icuSplit(const icu::UnicodeString& in,
                                         const icu::UnicodeString& sep, bool removeEmpty) {
  std::vector<icu::UnicodeString> out;
  int32_t start = 0;
  for (;;) {
    const int32_t hit = in.indexOf(sep, start);
    const int32_t end = hit < 0 ? in.length() : hit;
    icu::UnicodeString piece = in.tempSubString(start, end - start);
    if (removeEmpty) piece = icuTrim(piece, icuBlanks());
    if (!removeEmpty || !piece.isEmpty()) out.push_back(piece);
    if (hit < 0) break;
    start = hit + sep.length();
  }
  return out;
}

int hexValue(UChar c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<icu::UnicodeString> icuPercentDecode(const icu::UnicodeString& in) {
  std::string bytes;
  for (int32_t i = 0; i < in.length(); ++i) {
    const UChar c = in.charAt(i);
    if (c != '%') {
      bytes.push_back(static_cast<char>(c));
      continue;
    }
    if (i + 2 >= in.length()) return std::nullopt;
    const int hi = hexValue(in.charAt(i + 1));
    const int lo = hexValue(in.charAt(i + 2));
    if (hi < 0 || lo < 0) return std::nullopt;
    bytes.push_back(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  return icu::UnicodeString::fromUTF8(bytes);
}

struct UnicodeStringHash {
  size_t operator()(const icu::UnicodeString& s) const { return static_cast<size_t>(s.hashCode()); }
};

std::unordered_map<icu::UnicodeString, icu::UnicodeString, UnicodeStringHash> icuQuery(
    const icu::UnicodeString& query) {
  std::unordered_map<icu::UnicodeString, icu::UnicodeString, UnicodeStringHash> out;
  for (const icu::UnicodeString& piece : icuSplit(query, u"&", true)) {
    const std::vector<icu::UnicodeString> parts = icuSplit(piece, u"=", false);
    std::optional<icu::UnicodeString> key = icuPercentDecode(parts[0]);
    if (!key) continue;
    if (parts.size() == 1) {
      out[*key] = icu::UnicodeString();
    } else if (parts.size() == 2) {
      if (auto value = icuPercentDecode(parts[1])) out[*key] = *value;
    } else {
      out[*key] = piece.tempSubString(key->length() + 1);
    }
  }
  return out;
}

// ---- Benchmarks --------------------------------------------------------------------

void BM_Trim(benchmark::State& state) {
  const nk::Ref<nk::String> s = nk::String::withCharacters(trimInput(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(nk::vnk_trim(s.get()));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_Trim_ICU(benchmark::State& state) {
  const icu::UnicodeString s(trimInput(state.range(0)).c_str());
  for (auto _ : state) benchmark::DoNotOptimize(icuVnkTrim(s));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_Split(benchmark::State& state) {
  const nk::Ref<nk::String> s = nk::String::withCharacters(splitInput(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        nk::vnk_getComponentsSeparatedByStringRemoveEmptyEntries(s.get(), NK_STR(","), true));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_Split_ICU(benchmark::State& state) {
  const icu::UnicodeString s(splitInput(state.range(0)).c_str());
  const icu::UnicodeString sep(u",");
  for (auto _ : state) benchmark::DoNotOptimize(icuSplit(s, sep, true));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_QueryParameters(benchmark::State& state) {
  const nk::Ref<nk::URL> url = nk::URL::fromString("http://h/?" + queryText(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(nk::vnk_queryParameters(url.get()));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_QueryParameters_ICU(benchmark::State& state) {
  const icu::UnicodeString query = icu::UnicodeString::fromUTF8(queryText(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(icuQuery(query));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

constexpr int64_t kKB = 1024;
constexpr int64_t kMB = 1024 * 1024;

BENCHMARK(BM_Trim)->Arg(kKB)->Arg(kMB);
BENCHMARK(BM_Trim_ICU)->Arg(kKB)->Arg(kMB);
BENCHMARK(BM_Split)->Arg(kKB)->Arg(kMB);
BENCHMARK(BM_Split_ICU)->Arg(kKB)->Arg(kMB);
BENCHMARK(BM_QueryParameters)->Arg(kKB)->Arg(kMB);
BENCHMARK(BM_QueryParameters_ICU)->Arg(kKB)->Arg(kMB);

}  // namespace

BENCHMARK_MAIN();
