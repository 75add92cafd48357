// Writing JSON: one pass over the object graph into a growing byte buffer.
// Strings are escaped in runs (plain bytes copied together), numbers go through
// std::to_chars, which gives the shortest text that reads back exactly.
#include "nk/foundation/json_writer.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

namespace {

struct WriteFailure {
  std::string message;
};

// For each byte below 0x80: 0 when it is written as it is, else the character
// after the backslash ('u' for \u00XX).
constexpr auto kEscapes = [] {
  std::array<char, 128> t{};
  for (int c = 0; c < 0x20; ++c) t[c] = 'u';
  t['\b'] = 'b';
  t['\f'] = 'f';
  t['\n'] = 'n';
  t['\r'] = 'r';
  t['\t'] = 't';
  t['"'] = '"';
  t['\\'] = '\\';
  t['/'] = '/';
  return t;
}();

// The classes the writer tells apart by address before trying kind tests.
struct ValueClasses {
  const Class* string = &String::staticClass();
  const Class* constantString = &ConstantString::staticClass();
  const Class* mutableString = &MutableString::staticClass();
  const Class* number = &Number::staticClass();
  const Class* boolean = &Boolean::staticClass();
  const Class* dictionary = &Dictionary::staticClass();
  const Class* mutableDictionary = &MutableDictionary::staticClass();
  const Class* array = &Array::staticClass();
  const Class* mutableArray = &MutableArray::staticClass();
};

const ValueClasses& valueClasses() {
  static const ValueClasses classes;
  return classes;
}

class Writer {
 public:
  explicit Writer(unsigned options)
      : pretty_(options & kJSONWritingPrettyPrinted),
        sorted_(options & kJSONWritingSortedKeys),
        escapeSlash_(!(options & kJSONWritingWithoutEscapingSlashes)) {}

  void value(const Object* o, size_t depth) {
    const Class* cls = &o->objectClass();
    if (cls == classes_.string || cls == classes_.constantString || cls == classes_.mutableString) {
      return string(*static_cast<const String*>(o));
    }
    if (cls == classes_.number || cls == classes_.boolean) {
      return number(*static_cast<const Number*>(o));
    }
    if (cls == classes_.dictionary || cls == classes_.mutableDictionary) {
      return dictionary(*static_cast<const Dictionary*>(o), depth + 1);
    }
    if (cls == classes_.array || cls == classes_.mutableArray) {
      return array(*static_cast<const Array*>(o), depth + 1);
    }
    if (o == Null::null()) return raw("null", 4);
    // Subclasses of the value classes (a host's own string class, say).
    if (const auto* s = cast<String>(o)) return string(*s);
    if (const auto* n = cast<Number>(o)) return number(*n);
    if (const auto* d = cast<Dictionary>(o)) return dictionary(*d, depth + 1);
    if (const auto* a = cast<Array>(o)) return array(*a, depth + 1);
    if (cast<Null>(o)) return raw("null", 4);
    throw WriteFailure{"Invalid type in JSON write (" + o->objectClass().name() + ")"};
  }

  std::vector<uint8_t> take() {
    buf_.resize(n_);
    return std::move(buf_);
  }

 private:
  uint8_t* reserve(size_t extra) {
    if (buf_.size() - n_ < extra) buf_.resize(std::max(buf_.size() * 2, n_ + extra + 256));
    return buf_.data() + n_;
  }
  void raw(const char* s, size_t k) {
    std::memcpy(reserve(k), s, k);
    n_ += k;
  }
  void byte(char c) {
    *reserve(1) = static_cast<uint8_t>(c);
    ++n_;
  }
  // A line break and the indentation of `depth`, written eight spaces at a
  // time (fixed-size stores beat a call to memset at these lengths).
  void newline(size_t depth) {
    const size_t width = 2 * depth;
    uint8_t* p = reserve(1 + width + 8);
    *p = '\n';
    for (size_t k = 0; k < width; k += 8) std::memcpy(p + 1 + k, "        ", 8);
    n_ += 1 + width;
  }

  static void checkDepth(size_t depth) {
    if (depth > kJSONMaxDepth) throw WriteFailure{"Too deeply nested for JSON write"};
  }

  void array(const Array& a, size_t depth) {
    checkDepth(depth);
    const auto items = a.objects();
    byte('[');
    if (pretty_ && !items.empty()) newline(depth);
    for (size_t i = 0; i < items.size(); ++i) {
      if (i) {
        byte(',');
        if (pretty_) newline(depth);
      }
      value(items[i].get(), depth);
    }
    if (pretty_) {
      if (items.empty()) byte('\n');
      newline(depth - 1);
    }
    byte(']');
  }

  const String* asString(const Object* key) const noexcept {
    const Class* cls = &key->objectClass();
    if (cls == classes_.string || cls == classes_.constantString) {
      return static_cast<const String*>(key);
    }
    return cast<String>(key);
  }

  void member(const Object* key, const Object* value, size_t depth) {
    const String* k = asString(key);
    if (!k) throw WriteFailure{"Invalid (non-string) key in JSON dictionary"};
    string(*k);
    if (pretty_) {
      raw(" : ", 3);
    } else {
      byte(':');
    }
    this->value(value, depth);
  }

  void dictionary(const Dictionary& d, size_t depth) {
    checkDepth(depth);
    byte('{');
    if (pretty_ && d.count() != 0) newline(depth);
    bool first = true;
    auto separate = [&] {
      if (!first) {
        byte(',');
        if (pretty_) newline(depth);
      }
      first = false;
    };
    if (sorted_ && d.count() > 1) {
      std::vector<std::pair<const Object*, const Object*>> entries;
      entries.reserve(d.count());
      for (const auto& [key, value] : d.entries()) {
        if (!asString(key.get())) {
          throw WriteFailure{"Invalid (non-string) key in JSON dictionary"};
        }
        entries.emplace_back(key.get(), value.get());
      }
      std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
        return static_cast<const String*>(a.first)->compare(*static_cast<const String*>(b.first)) <
               0;
      });
      for (const auto& [key, value] : entries) {
        separate();
        member(key, value, depth);
      }
    } else {
      for (const auto& [key, value] : d.entries()) {
        separate();
        member(key.get(), value.get(), depth);
      }
    }
    if (pretty_) {
      if (first) byte('\n');
      newline(depth - 1);
    }
    byte('}');
  }

  void number(const Number& n) {
    char* p = reinterpret_cast<char*>(reserve(32));
    char* end = p + 32;
    std::to_chars_result r{};
    switch (n.objCType()) {
      case 'B':
        if (n.boolValue()) {
          return raw("true", 4);
        }
        return raw("false", 5);
      case 'f': {
        const float f = n.floatValue();
        if (!std::isfinite(f)) throw WriteFailure{nonFinite(f)};
        r = std::to_chars(p, end, f);
        break;
      }
      case 'd': {
        const double d = n.doubleValue();
        if (!std::isfinite(d)) throw WriteFailure{nonFinite(d)};
        r = std::to_chars(p, end, d);
        break;
      }
      case 'C':
      case 'S':
      case 'I':
      case 'L':
      case 'Q':
        r = std::to_chars(p, end, n.unsignedLongLongValue());
        break;
      default:
        r = std::to_chars(p, end, n.longLongValue());
        break;
    }
    n_ += static_cast<size_t>(r.ptr - p);
  }

  static std::string nonFinite(double d) {
    return std::isnan(d) ? "Invalid number value (NaN) in JSON write"
                         : "Invalid number value (infinite) in JSON write";
  }

  static constexpr char kHex[] = "0123456789abcdef";

  // Writes the escape of ASCII `c` at `p`; returns the bytes written.
  size_t escape(uint8_t c, uint8_t* p) const {
    const char e = kEscapes[c];
    if (e == 'u') {
      std::memcpy(p, "\\u00", 4);
      p[4] = kHex[c >> 4];
      p[5] = kHex[c & 15];
      return 6;
    }
    if (e == '/' && !escapeSlash_) {
      *p = '/';
      return 1;
    }
    p[0] = '\\';
    p[1] = static_cast<uint8_t>(e);
    return 2;
  }

  void string(const String& s) {
    const size_t len = s.length();
    byte('"');
    // Six bytes per unit covers the longest escape and any UTF-8 sequence;
    // long strings go in slices so that this reservation stays small.
    constexpr size_t kSlice = 16384;
    size_t i = 0;
    while (i < len) {
      const size_t end = std::min(len, i + kSlice);
      // A surrogate pair may end one unit past the slice.
      uint8_t* const start = reserve(6 * (end - i) + 6);
      uint8_t* p = start;
      if (s.isLatin1()) {
        const uint8_t* in = s.latin1Data();
        while (i < end) {
          size_t run = i;
          while (run < end && in[run] < 0x80 && !kEscapes[in[run]]) ++run;
          std::memcpy(p, in + i, run - i);
          p += run - i;
          i = run;
          if (i == end) break;
          const uint8_t c = in[i++];
          if (c >= 0x80) {
            *p++ = static_cast<uint8_t>(0xC0 | (c >> 6));
            *p++ = static_cast<uint8_t>(0x80 | (c & 0x3F));
          } else {
            p += escape(c, p);
          }
        }
      } else {
        const char16_t* in = s.utf16Data();
        for (; i < end; ++i) {
          uint32_t c = in[i];
          if (c < 0x80) {
            if (kEscapes[c]) {
              p += escape(static_cast<uint8_t>(c), p);
            } else {
              *p++ = static_cast<uint8_t>(c);
            }
          } else if (c < 0x800) {
            *p++ = static_cast<uint8_t>(0xC0 | (c >> 6));
            *p++ = static_cast<uint8_t>(0x80 | (c & 0x3F));
          } else if (c < 0xD800 || c > 0xDFFF) {
            *p++ = static_cast<uint8_t>(0xE0 | (c >> 12));
            *p++ = static_cast<uint8_t>(0x80 | ((c >> 6) & 0x3F));
            *p++ = static_cast<uint8_t>(0x80 | (c & 0x3F));
          } else {
            if (c > 0xDBFF || i + 1 == len || in[i + 1] < 0xDC00 || in[i + 1] > 0xDFFF) {
              throw WriteFailure{"Unpaired surrogate in JSON string"};
            }
            c = 0x10000 + ((c - 0xD800) << 10) + (in[++i] - 0xDC00);
            *p++ = static_cast<uint8_t>(0xF0 | (c >> 18));
            *p++ = static_cast<uint8_t>(0x80 | ((c >> 12) & 0x3F));
            *p++ = static_cast<uint8_t>(0x80 | ((c >> 6) & 0x3F));
            *p++ = static_cast<uint8_t>(0x80 | (c & 0x3F));
          }
        }
      }
      n_ += static_cast<size_t>(p - start);
    }
    byte('"');
  }

  const ValueClasses& classes_ = valueClasses();
  bool pretty_;
  bool sorted_;
  bool escapeSlash_;
  std::vector<uint8_t> buf_;
  size_t n_ = 0;
};

Ref<Error> makeError(const std::string& message) {
  Ref<String> description = String::fromUTF8(message);
  auto info = Dictionary::make(
      {{Id(kDebugDescriptionKey()), description}, {Id(kLocalizedDescriptionKey()), description}});
  return Error::make(Ref<String>(kCocoaErrorDomain()), kJSONWritingInvalidError, info);
}

bool isContainer(const Object* o) { return cast<Array>(o) || cast<Dictionary>(o); }

}  // namespace

Ref<Data> writeJSON(const Object* object, unsigned options, Ref<Error>* error) {
  try {
    if (!object) throw WriteFailure{"Invalid (nil) object in JSON write"};
    if (!(options & kJSONWritingFragmentsAllowed) && !isContainer(object)) {
      throw WriteFailure{"Invalid top-level type in JSON write"};
    }
    Writer writer(options);
    writer.value(object, 0);
    return Data::fromVector(writer.take());
  } catch (const WriteFailure& f) {
    if (error) *error = makeError(f.message);
    return nullptr;
  }
}

bool isValidJSONObject(const Object* object, unsigned options) {
  // Writing is the only complete check; its output is small next to the cost
  // of a second walk that must agree with it in every detail.
  return static_cast<bool>(writeJSON(object, options & kJSONWritingFragmentsAllowed, nullptr));
}

}  // namespace nk
