// Reading JSON: simdjson's DOM parser for the common case, and a careful
// parser of our own for what simdjson refuses or reads differently (integers
// beyond 64 bits, "-0", numbers beyond the double range) and for errors, whose
// descriptions must name the offset where reading stopped.
#include "nk/foundation/json_reader.hpp"

#include <simdjson.h>

#include <charconv>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/collection_storage_internal.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"

namespace nk {

namespace {

using collection_internal::OrderedTable;
using collection_internal::StorageAccess;

struct ParseFailure {
  size_t offset;
  const char* message;
};

Ref<Error> makeError(size_t offset, std::string_view message) {
  std::string text(message);
  text += " around character ";
  text += std::to_string(offset);
  text += '.';
  Ref<String> description = String::fromUTF8(text);
  auto info = Dictionary::make(
      {{Id(kDebugDescriptionKey()), description}, {Id(kLocalizedDescriptionKey()), description}});
  return Error::make(Ref<String>(kCocoaErrorDomain()), kJSONReadingCorruptError, info);
}

// ---- building objects -------------------------------------------------------

struct KeyEntry {
  Ref<String> key;
  size_t hash;
};

// Makes the objects of one document. Most of the time of reading goes to
// allocating and freeing objects, so a large document shares what it can:
// equal keys are one string object (hashed once), and equal numbers and short
// strings (unless strings must be mutable) are one immutable object each. The
// caches are direct-mapped: a collision simply replaces the older entry.
class Builder {
 public:
  Builder(unsigned options, size_t textSize)
      : mutableContainers_(options & kJSONReadingMutableContainers),
        mutableLeaves_(options & kJSONReadingMutableLeaves) {
    // Keys repeat even in small texts; the other tables pay off in large ones.
    keys_.resize(textSize >= kCacheThreshold ? kKeySlots : kSmallKeySlots);
    if (textSize >= kCacheThreshold) {
      numbers_.resize(kNumberSlots);
      if (!mutableLeaves_) strings_.resize(kStringSlots);
    }
  }

  // Nil when `utf8` is not well-formed (an escaped lone surrogate, say).
  Id string(std::string_view utf8) {
    if (utf8.empty() && !mutableLeaves_) return Id(String::empty());
    if (!strings_.empty() && utf8.size() <= kMaxSharedString) {
      StringSlot& slot = strings_[std::hash<std::string_view>()(utf8) & (kStringSlots - 1)];
      if (slot.value && slot.text == utf8) return slot.value;
      Ref<String> s = String::fromUTF8(utf8);
      if (!s) return nullptr;
      slot.text.assign(utf8);
      slot.value = s;
      return s;
    }
    Ref<String> s = String::fromUTF8(utf8);
    if (!s || !mutableLeaves_) return s;
    return make<MutableString>(s.get());
  }

  // Nil when `utf8` is not well-formed.
  const KeyEntry* key(std::string_view utf8) {
    KeySlot* slot = nullptr;
    if (utf8.size() <= kMaxSharedKey) {
      slot = &keys_[std::hash<std::string_view>()(utf8) & (keys_.size() - 1)];
      if (slot->entry.key && slot->text == utf8) return &slot->entry;
    }
    Ref<String> s = utf8.empty() ? Ref<String>(String::empty()) : String::fromUTF8(utf8);
    if (!s) return nullptr;
    const size_t h = s->hash();
    if (slot) {
      slot->text.assign(utf8);
      slot->entry = KeyEntry{std::move(s), h};
      return &slot->entry;
    }
    scratch_ = KeyEntry{std::move(s), h};
    return &scratch_;
  }

  Id integer(int64_t v) {
    return number(static_cast<uint64_t>(v), 'q', [v] { return Number::withLongLong(v); });
  }
  Id unsignedInteger(uint64_t v) {
    return number(v, 'Q', [v] { return Number::withUnsignedLongLong(v); });
  }
  Id real(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return number(bits, 'd', [v] { return Number::withDouble(v); });
  }
  static Id boolean(bool v) { return Id(v ? static_cast<Object*>(Number::yes()) : Number::no()); }
  static Id null() { return Id(Null::null()); }

  // Array of the values from `start` to the top of the value stack.
  Id array(size_t start) {
    Ref<Array> a = mutableContainers_ ? Ref<Array>(MutableArray::make()) : Array::make();
    const auto first = values_.begin() + static_cast<std::ptrdiff_t>(start);
    StorageAccess::items(*a).assign(std::make_move_iterator(first),
                                    std::make_move_iterator(values_.end()));
    values_.erase(first, values_.end());
    return a;
  }

  // Dictionary of the entries from `start` to the top of the entry stack.
  Id dictionary(size_t start) {
    Ref<Dictionary> d =
        mutableContainers_ ? Ref<Dictionary>(MutableDictionary::make()) : Dictionary::make();
    OrderedTable& table = StorageAccess::table(*d);
    table.reserve(entries_.size() - start);
    for (size_t i = start; i < entries_.size(); ++i) {
      Entry& e = entries_[i];
      const size_t position = table.find(e.key.get(), e.hash);
      if (position == OrderedTable::kNone) {
        table.append(std::move(e.key), std::move(e.value), e.hash);
      } else {
        table.entryAt(position).value = std::move(e.value);
      }
    }
    entries_.resize(start);
    return d;
  }

  struct Entry {
    Id key;
    Id value;
    size_t hash;
  };
  std::vector<Id> values_;
  std::vector<Entry> entries_;

 private:
  static constexpr size_t kCacheThreshold = 4096;
  static constexpr size_t kKeySlots = 1024;
  static constexpr size_t kSmallKeySlots = 16;
  static constexpr size_t kMaxSharedKey = 64;
  static constexpr size_t kNumberSlots = 1024;
  static constexpr size_t kStringSlots = 1024;
  static constexpr size_t kMaxSharedString = 24;

  struct KeySlot {
    std::string text;
    KeyEntry entry;
  };
  struct NumberSlot {
    uint64_t bits = 0;
    char type = 0;
    Id value;
  };
  struct StringSlot {
    std::string text;
    Id value;
  };

  template <class Make>
  Id number(uint64_t bits, char type, Make&& makeNumber) {
    if (numbers_.empty()) return makeNumber();
    NumberSlot& slot = numbers_[(bits * 0x9E3779B97F4A7C15ull) >> 54];
    if (slot.value && slot.bits == bits && slot.type == type) return slot.value;
    slot.bits = bits;
    slot.type = type;
    slot.value = makeNumber();
    return slot.value;
  }

  bool mutableContainers_;
  bool mutableLeaves_;
  std::vector<KeySlot> keys_;
  std::vector<NumberSlot> numbers_;
  std::vector<StringSlot> strings_;
  KeyEntry scratch_;
};

// ---- the fast path over simdjson --------------------------------------------

// True when the document needs the careful parser: simdjson cannot tell "-0"
// from "0", so any "-0" that is neither an exponent's sign nor followed by a
// fraction, an exponent or a digit sends the document there (one inside a
// string only costs time; "-01" is malformed and fails there too).
bool hasNegativeZero(std::string_view text) {
  size_t i = 0;
  while ((i = text.find("-0", i)) != std::string_view::npos) {
    const bool exponent = i > 0 && (text[i - 1] == 'e' || text[i - 1] == 'E');
    i += 2;
    if (exponent) continue;
    if (i >= text.size()) return true;
    const char c = text[i];
    if (c != '.' && c != 'e' && c != 'E' && (c < '0' || c > '9')) return true;
  }
  return false;
}

class FastReader {
 public:
  explicit FastReader(Builder& b) : b_(b) {}

  // False when the careful parser must decide (any error, too deep).
  bool value(simdjson::dom::element e, Id& out, size_t depth) {
    using simdjson::dom::element_type;
    switch (e.type()) {
      case element_type::ARRAY: {
        if (depth >= kJSONMaxDepth) return false;
        const size_t start = b_.values_.size();
        for (simdjson::dom::element child : simdjson::dom::array(e)) {
          Id v;
          if (!value(child, v, depth + 1)) return false;
          b_.values_.push_back(std::move(v));
        }
        out = b_.array(start);
        return true;
      }
      case element_type::OBJECT: {
        if (depth >= kJSONMaxDepth) return false;
        const size_t start = b_.entries_.size();
        for (simdjson::dom::key_value_pair field : simdjson::dom::object(e)) {
          const KeyEntry* k = b_.key(field.key);
          if (!k) return false;
          Builder::Entry entry{k->key, nullptr, k->hash};
          if (!value(field.value, entry.value, depth + 1)) return false;
          b_.entries_.push_back(std::move(entry));
        }
        out = b_.dictionary(start);
        return true;
      }
      case element_type::STRING:
        out = b_.string(std::string_view(e));
        return static_cast<bool>(out);
      case element_type::INT64:
        out = b_.integer(int64_t(e));
        return true;
      case element_type::UINT64:
        out = b_.unsignedInteger(uint64_t(e));
        return true;
      case element_type::DOUBLE:
        out = b_.real(double(e));
        return true;
      case element_type::BOOL:
        out = Builder::boolean(bool(e));
        return true;
      case element_type::NULL_VALUE:
        out = Builder::null();
        return true;
    }
    return false;
  }

 private:
  Builder& b_;
};

simdjson::dom::parser& threadParser() {
  thread_local simdjson::dom::parser parser;
  return parser;
}

// Appends code point `cp` to `out` in UTF-8.
void appendUTF8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// ---- the careful parser -----------------------------------------------------

class CarefulReader {
 public:
  CarefulReader(std::string_view text, Builder& b) : s_(text), b_(b) {}

  Id document(bool fragments, ParseFailure& failure) {
    try {
      skipSpace();
      if (i_ >= s_.size()) fail("Unexpected end of file");
      if (!fragments && s_[i_] != '[' && s_[i_] != '{') {
        fail(
            "JSON text did not start with array or object and option to allow fragments not "
            "set.");
      }
      Id v = value(0);
      skipSpace();
      if (i_ != s_.size()) fail("Garbage at end");
      return v;
    } catch (const ParseFailure& f) {
      failure = f;
      return nullptr;
    }
  }

 private:
  [[noreturn]] void fail(const char* message) { failAt(i_, message); }
  [[noreturn]] static void failAt(size_t at, const char* message) {
    throw ParseFailure{at, message};
  }

  void skipSpace() noexcept {
    while (i_ < s_.size()) {
      const char c = s_[i_];
      if (c != ' ' && c != '\n' && c != '\r' && c != '\t') break;
      ++i_;
    }
  }

  bool literal(std::string_view word) noexcept {
    if (s_.substr(i_, word.size()) != word) return false;
    i_ += word.size();
    return true;
  }

  Id value(size_t depth) {
    if (i_ >= s_.size()) fail("Unexpected end of file");
    switch (s_[i_]) {
      case '[':
        return array(depth + 1);
      case '{':
        return dictionary(depth + 1);
      case '"': {
        const size_t at = i_;
        std::string text;
        readString(text);
        Id s = b_.string(text);
        if (!s) failAt(at, "Invalid UTF-8 or unpaired surrogate in string");
        return s;
      }
      case 't':
        if (literal("true")) return Builder::boolean(true);
        break;
      case 'f':
        if (literal("false")) return Builder::boolean(false);
        break;
      case 'n':
        if (literal("null")) return Builder::null();
        break;
      default:
        if (s_[i_] == '-' || (s_[i_] >= '0' && s_[i_] <= '9')) return number();
        break;
    }
    fail("Invalid value");
  }

  Id array(size_t depth) {
    if (depth > kJSONMaxDepth) fail("Too many nested arrays or dictionaries");
    ++i_;
    const size_t start = b_.values_.size();
    skipSpace();
    if (i_ < s_.size() && s_[i_] == ']') {
      ++i_;
      return b_.array(start);
    }
    for (;;) {
      skipSpace();
      b_.values_.push_back(value(depth));
      skipSpace();
      if (i_ >= s_.size()) fail("Unexpected end of file");
      if (s_[i_] == ']') break;
      if (s_[i_] != ',') fail("Badly formed array");
      ++i_;
    }
    ++i_;
    return b_.array(start);
  }

  Id dictionary(size_t depth) {
    if (depth > kJSONMaxDepth) fail("Too many nested arrays or dictionaries");
    ++i_;
    const size_t start = b_.entries_.size();
    skipSpace();
    if (i_ < s_.size() && s_[i_] == '}') {
      ++i_;
      return b_.dictionary(start);
    }
    for (;;) {
      skipSpace();
      if (i_ >= s_.size()) fail("Unexpected end of file");
      if (s_[i_] != '"') fail("No string key for value in object");
      const size_t at = i_;
      std::string text;
      readString(text);
      const KeyEntry* k = b_.key(text);
      if (!k) failAt(at, "Invalid UTF-8 or unpaired surrogate in string");
      Builder::Entry entry{k->key, nullptr, k->hash};
      skipSpace();
      if (i_ >= s_.size()) fail("Unexpected end of file");
      if (s_[i_] != ':') fail("No value for key in object");
      ++i_;
      skipSpace();
      entry.value = value(depth);
      b_.entries_.push_back(std::move(entry));
      skipSpace();
      if (i_ >= s_.size()) fail("Unexpected end of file");
      if (s_[i_] == '}') break;
      if (s_[i_] != ',') fail("Badly formed object");
      ++i_;
    }
    ++i_;
    return b_.dictionary(start);
  }

  static int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  uint32_t hex4() {
    if (s_.size() - i_ < 4) fail("Invalid escape sequence");
    uint32_t v = 0;
    for (int k = 0; k < 4; ++k) {
      const int h = hexValue(s_[i_ + k]);
      if (h < 0) fail("Invalid escape sequence");
      v = v * 16 + static_cast<uint32_t>(h);
    }
    i_ += 4;
    return v;
  }

  // Reads a string at s_[i_] == '"' into `out` (UTF-8, not yet validated:
  // the builder rejects malformed text).
  void readString(std::string& out) {
    const size_t open = i_++;
    for (;;) {
      if (i_ >= s_.size()) failAt(open, "Unterminated string");
      const char c = s_[i_];
      if (c == '"') {
        ++i_;
        return;
      }
      if (static_cast<unsigned char>(c) < 0x20) fail("Unescaped control character");
      if (c != '\\') {
        out += c;
        ++i_;
        continue;
      }
      if (++i_ >= s_.size()) failAt(open, "Unterminated string");
      const char e = s_[i_++];
      switch (e) {
        case '"':
          out += '"';
          break;
        case '\\':
          out += '\\';
          break;
        case '/':
          out += '/';
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          const size_t at = i_ - 2;
          uint32_t cp = hex4();
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (s_.substr(i_, 2) != "\\u") failAt(at, "Unpaired surrogate in escape sequence");
            i_ += 2;
            const uint32_t low = hex4();
            if (low < 0xDC00 || low > 0xDFFF) failAt(at, "Unpaired surrogate in escape sequence");
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            failAt(at, "Unpaired surrogate in escape sequence");
          }
          appendUTF8(out, cp);
          break;
        }
        default:
          failAt(i_ - 2, "Invalid escape sequence");
      }
    }
  }

  size_t digits() noexcept {
    const size_t from = i_;
    while (i_ < s_.size() && s_[i_] >= '0' && s_[i_] <= '9') ++i_;
    return i_ - from;
  }

  Id number() {
    const size_t start = i_;
    const bool negative = s_[i_] == '-';
    if (negative) ++i_;
    const size_t intStart = i_;
    const size_t intDigits = digits();
    if (intDigits == 0) fail("Invalid number");
    if (intDigits > 1 && s_[intStart] == '0') failAt(intStart, "Leading zero in number");
    bool integral = true;
    int64_t exponent = 0;  // of the last integer digit, roughly: for range checks only
    if (i_ < s_.size() && s_[i_] == '.') {
      ++i_;
      integral = false;
      if (digits() == 0) fail("Invalid number");
    }
    const size_t fractionEnd = i_;
    if (i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E')) {
      ++i_;
      integral = false;
      bool negativeExponent = false;
      if (i_ < s_.size() && (s_[i_] == '+' || s_[i_] == '-')) negativeExponent = s_[i_++] == '-';
      const size_t expStart = i_;
      if (digits() == 0) fail("Invalid number");
      for (size_t k = expStart; k < i_ && exponent < 100000; ++k)
        exponent = exponent * 10 + (s_[k] - '0');
      if (negativeExponent) exponent = -exponent;
    }
    const char* first = s_.data() + start;
    const char* last = s_.data() + i_;
    if (integral) {
      if (negative && intDigits == 1 && s_[intStart] == '0') return b_.real(-0.0);
      int64_t v;
      if (std::from_chars(first, last, v).ec == std::errc()) return b_.integer(v);
      uint64_t u;
      if (!negative && std::from_chars(first, last, u).ec == std::errc()) {
        return b_.unsignedInteger(u);
      }
    }
    double d;
    const auto r = std::from_chars(first, last, d);
    if (r.ec == std::errc()) return b_.real(d);
    if (r.ec != std::errc::result_out_of_range) failAt(start, "Invalid number");
    // Out of range: too large, or too small for a subnormal. Which one
    // follows from the position of the first significant digit.
    int64_t magnitude = exponent;
    size_t k = intStart;
    while (k < fractionEnd && (s_[k] == '0' || s_[k] == '.')) {
      if (s_[k] == '0' && k > intStart + intDigits) --magnitude;
      ++k;
    }
    if (k < intStart + intDigits) magnitude += static_cast<int64_t>(intStart + intDigits - k);
    if (magnitude > 0) failAt(start, "Number out of range");
    return b_.real(negative ? -0.0 : 0.0);
  }

  std::string_view s_;
  size_t i_ = 0;
  Builder& b_;
};

// ---- encodings --------------------------------------------------------------

enum class Encoding { kUTF8, kUTF16BE, kUTF16LE, kUTF32BE, kUTF32LE };

// Detects the encoding and returns how many bytes of byte-order mark to skip.
Encoding detect(std::span<const uint8_t> b, size_t& skip) {
  skip = 0;
  const size_t n = b.size();
  if (n >= 4 && b[0] == 0 && b[1] == 0 && b[2] == 0xFE && b[3] == 0xFF) {
    skip = 4;
    return Encoding::kUTF32BE;
  }
  if (n >= 4 && b[0] == 0xFF && b[1] == 0xFE && b[2] == 0 && b[3] == 0) {
    skip = 4;
    return Encoding::kUTF32LE;
  }
  if (n >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) {
    skip = 3;
    return Encoding::kUTF8;
  }
  if (n >= 2 && b[0] == 0xFE && b[1] == 0xFF) {
    skip = 2;
    return Encoding::kUTF16BE;
  }
  if (n >= 2 && b[0] == 0xFF && b[1] == 0xFE) {
    skip = 2;
    return Encoding::kUTF16LE;
  }
  // Without a mark, JSON text starts with an ASCII character, so the zero bytes
  // around it tell the encoding.
  if (n >= 4) {
    if (b[0] == 0 && b[1] == 0 && b[2] == 0 && b[3] != 0) return Encoding::kUTF32BE;
    if (b[0] != 0 && b[1] == 0 && b[2] == 0 && b[3] == 0) return Encoding::kUTF32LE;
    if (b[0] == 0 && b[1] != 0 && b[2] == 0 && b[3] != 0) return Encoding::kUTF16BE;
    if (b[0] != 0 && b[1] == 0 && b[2] != 0 && b[3] == 0) return Encoding::kUTF16LE;
  }
  if (n == 2 || n == 3) {
    if (b[0] == 0 && b[1] != 0) return Encoding::kUTF16BE;
    if (b[0] != 0 && b[1] == 0) return Encoding::kUTF16LE;
  }
  return Encoding::kUTF8;
}

// Converts UTF-16 or UTF-32 to UTF-8; false (with the offending input offset)
// on a truncated unit, an unpaired surrogate or a code point out of range.
bool toUTF8(std::span<const uint8_t> b, Encoding enc, std::string& out, size_t& badOffset) {
  const bool wide = enc == Encoding::kUTF32BE || enc == Encoding::kUTF32LE;
  const bool big = enc == Encoding::kUTF16BE || enc == Encoding::kUTF32BE;
  const size_t unit = wide ? 4 : 2;
  auto read = [&](size_t at) -> uint32_t {
    uint32_t v = 0;
    for (size_t k = 0; k < unit; ++k) {
      const uint32_t byte = b[big ? at + k : at + unit - 1 - k];
      v = (v << 8) | byte;
    }
    return v;
  };
  out.reserve(b.size());
  for (size_t at = 0; at < b.size(); at += unit) {
    badOffset = at;
    if (b.size() - at < unit) return false;
    uint32_t cp = read(at);
    if (!wide && cp >= 0xD800 && cp <= 0xDBFF) {
      if (b.size() - at < 4) return false;
      const uint32_t low = read(at + 2);
      if (low < 0xDC00 || low > 0xDFFF) return false;
      cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
      at += 2;
    } else if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
      return false;
    }
    appendUTF8(out, cp);
  }
  return true;
}

Id readUTF8(std::string_view text, unsigned options, Ref<Error>* error) {
  const bool fragments = options & kJSONReadingFragmentsAllowed;
  if (!hasNegativeZero(text)) {
    simdjson::dom::parser& parser = threadParser();
    simdjson::dom::element root;
    if (!parser.parse(text.data(), text.size(), true).get(root)) {
      const auto type = root.type();
      const bool container =
          type == simdjson::dom::element_type::ARRAY || type == simdjson::dom::element_type::OBJECT;
      if (container || fragments) {
        Builder builder(options, text.size());
        Id result;
        if (FastReader(builder).value(root, result, 0)) {
          // Keep a parser that read something huge from holding its memory.
          if (parser.capacity() > (size_t{64} << 20)) parser = simdjson::dom::parser();
          return result;
        }
      }
    }
    if (parser.capacity() > (size_t{64} << 20)) parser = simdjson::dom::parser();
  }
  // simdjson refused it, or it needs reading our own way: decide carefully.
  Builder builder(options, text.size());
  ParseFailure failure{0, ""};
  Id result = CarefulReader(text, builder).document(fragments, failure);
  if (!result && error) *error = makeError(failure.offset, failure.message);
  return result;
}

}  // namespace

Id readJSON(std::span<const uint8_t> bytes, unsigned options, Ref<Error>* error) {
  size_t skip = 0;
  const Encoding enc = detect(bytes, skip);
  bytes = bytes.subspan(skip);
  if (enc == Encoding::kUTF8) {
    return readUTF8(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                    options, error);
  }
  std::string utf8;
  size_t bad = 0;
  if (!toUTF8(bytes, enc, utf8, bad)) {
    if (error) *error = makeError(bad + skip, "Invalid text encoding");
    return nullptr;
  }
  return readUTF8(utf8, options, error);
}

}  // namespace nk
