// Writing JSON: one pass over the object graph into a raw byte buffer that is
// kept from one write to the next. Strings are copied a word at a time up to
// the next byte that needs work; numbers are written by number_text_internal.
#include "nk/foundation/json_writer.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/block_pool.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/collection_storage_internal.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/number_text_internal.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

namespace {

using collection_internal::StorageAccess;
using number_text_internal::kNumberRoom;
using number_text_internal::writeDouble;
using number_text_internal::writeInteger;

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

constexpr uint64_t kOnes = 0x0101010101010101;
constexpr uint64_t kHigh = 0x8080808080808080;

// Marks with its top bit each byte of `w` that cannot be copied as it is: at
// or above 0x80, below 0x20, '"', '\\', or the byte repeated in `extra` (the
// slash, or a quote again when slashes pass). Exact per byte: no carry crosses
// a byte because the sums start from 7-bit values.
constexpr uint64_t specialBytes(uint64_t w, uint64_t extra) noexcept {
  const uint64_t low = w & ~kHigh;
  const uint64_t control = ~(low + 0x60 * kOnes);
  const uint64_t quote = ~((low ^ ('"' * kOnes)) + 0x7F * kOnes);
  const uint64_t backslash = ~((low ^ ('\\' * kOnes)) + 0x7F * kOnes);
  const uint64_t other = ~((low ^ extra) + 0x7F * kOnes);
  return (w | control | quote | backslash | other) & kHigh;
}

// The same test on four UTF-16 units: non-zero unless every unit is ASCII
// that is copied as it is.
constexpr uint64_t specialUnits(uint64_t w, uint64_t extra) noexcept {
  constexpr uint64_t kUnitOnes = 0x0001000100010001;
  constexpr uint64_t kUnitHigh = 0x0080008000800080;
  if (w & 0xFF80FF80FF80FF80) return 1;
  // Each unit is now below 0x80, so the sums stay within their unit.
  const uint64_t control = ~(w + 0x60 * kUnitOnes);
  const uint64_t quote = ~((w ^ ('"' * kUnitOnes)) + 0x7F * kUnitOnes);
  const uint64_t backslash = ~((w ^ ('\\' * kUnitOnes)) + 0x7F * kUnitOnes);
  const uint64_t other = ~((w ^ ((extra & 0xFF) * kUnitOnes)) + 0x7F * kUnitOnes);
  return (control | quote | backslash | other) & kUnitHigh;
}

// Index of the first marked byte of a non-zero mask, in memory order.
inline size_t firstMarked(uint64_t mask) noexcept {
  if constexpr (std::endian::native == std::endian::little) {
    return static_cast<size_t>(std::countr_zero(mask)) / 8;
  } else {
    return static_cast<size_t>(std::countl_zero(mask)) / 8;
  }
}

enum class Kind : uint8_t { kString, kNumber, kDictionary, kArray, kNull, kOther };

// The kind of an object, found by comparing its type_info address with those of
// the classes the reader makes (a load from the vtable instead of a virtual
// call). Any other class is classified once per write by kind tests and
// remembered; a class whose type_info is duplicated across modules just takes
// that path.
class KindCache {
 public:
  [[gnu::always_inline]] Kind of(const Object* o) noexcept {
    const std::type_info* type = &typeid(*o);
    if (type == &typeid(String)) return Kind::kString;
    if (type == &typeid(Number)) return Kind::kNumber;
    if (type == &typeid(Dictionary)) return Kind::kDictionary;
    if (type == &typeid(Array)) return Kind::kArray;
    return remembered(o, type);
  }

 private:
  [[gnu::noinline]] Kind remembered(const Object* o, const std::type_info* type) noexcept {
    for (size_t i = 0; i < used_; ++i) {
      if (seen_[i].first == type) return seen_[i].second;
    }
    const Kind kind = classify(o);
    if (used_ < seen_.size()) seen_[used_++] = {type, kind};
    return kind;
  }

  static Kind classify(const Object* o) noexcept {
    if (cast<String>(o)) return Kind::kString;
    if (cast<Number>(o)) return Kind::kNumber;
    if (cast<Dictionary>(o)) return Kind::kDictionary;
    if (cast<Array>(o)) return Kind::kArray;
    if (cast<Null>(o)) return Kind::kNull;
    return Kind::kOther;
  }

  std::array<std::pair<const std::type_info*, Kind>, 16> seen_{};
  size_t used_ = 0;
};

// The output buffer of the last write on this thread, kept for the next one:
// fresh pages of a large buffer cost more to fault in than to fill. Between
// writes a thread holds at most 64 MB, and above 1 MB no more than about four
// times its last document; above 1 MB it goes back when the thread goes idle.
class SpareBuffer {
 public:
  SpareBuffer() noexcept = default;
  SpareBuffer(const SpareBuffer&) = delete;
  SpareBuffer& operator=(const SpareBuffer&) = delete;
  ~SpareBuffer() { std::free(data_); }

  // Hands the buffer over (null and 0 when there is none).
  std::pair<uint8_t*, size_t> take() noexcept {
    return {std::exchange(data_, nullptr), std::exchange(capacity_, 0)};
  }
  // Keeps `data` (which has `capacity` bytes, `used` of them written) or frees it.
  void giveBack(uint8_t* data, size_t capacity, size_t used) noexcept {
    constexpr size_t kLargestKept = size_t{64} << 20;
    if (data_ || capacity > kLargestKept || (capacity > kAlwaysKept && capacity / 4 > used)) {
      std::free(data);
      return;
    }
    data_ = data;
    capacity_ = capacity;
  }

  // Frees a buffer of more than a megabyte: for a thread going idle.
  void releaseLarge() noexcept {
    if (capacity_ > kAlwaysKept) {
      std::free(std::exchange(data_, nullptr));
      capacity_ = 0;
    }
  }

 private:
  static constexpr size_t kAlwaysKept = size_t{1} << 20;

  uint8_t* data_ = nullptr;
  size_t capacity_ = 0;
};

thread_local SpareBuffer spareBuffer;

// A large buffer goes back with the value blocks when the thread goes idle.
[[maybe_unused]] const bool spareBufferReleased = [] {
  block_pool::addIdleRelease([]() noexcept { spareBuffer.releaseLarge(); });
  return true;
}();

class Writer {
 public:
  explicit Writer(unsigned options)
      : pretty_(options & kJSONWritingPrettyPrinted),
        sorted_(options & kJSONWritingSortedKeys),
        escapeSlash_(!(options & kJSONWritingWithoutEscapingSlashes)),
        extraSpecial_((escapeSlash_ ? '/' : '"') * kOnes) {
    const auto [data, capacity] = spareBuffer.take();
    begin_ = pos_ = data;
    end_ = data + capacity;
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  ~Writer() {
    spareBuffer.giveBack(begin_, static_cast<size_t>(end_ - begin_),
                         static_cast<size_t>(pos_ - begin_));
  }

  void value(const Object* o, size_t depth) { valueOfKind(kinds_.of(o), o, depth); }

  // The bytes written, in storage of their exact size.
  std::vector<uint8_t> take() const { return std::vector<uint8_t>(begin_, pos_); }

 private:
  // An element of a container. Strings and numbers, most of a document, are
  // written without a call: a call per value costs more than writing many of them.
  [[gnu::always_inline]] void element(const Object* o, size_t depth) {
    const Kind kind = kinds_.of(o);
    if (kind == Kind::kString) return string(*static_cast<const String*>(o));
    if (kind == Kind::kNumber) return number(*static_cast<const Number*>(o));
    valueOfKind(kind, o, depth);
  }

  void valueOfKind(Kind kind, const Object* o, size_t depth) {
    switch (kind) {
      case Kind::kString:
        return string(*static_cast<const String*>(o));
      case Kind::kNumber:
        return number(*static_cast<const Number*>(o));
      case Kind::kDictionary:
        return dictionary(*static_cast<const Dictionary*>(o), depth + 1);
      case Kind::kArray:
        return array(*static_cast<const Array*>(o), depth + 1);
      case Kind::kNull:
        return raw("null", 4);
      case Kind::kOther:
        break;
    }
    throw WriteFailure{"Invalid type in JSON write (" + o->objectClass().name() + ")"};
  }

  // Room for `extra` more bytes at pos_. The buffer grows by realloc, which
  // does not zero-fill and often extends in place.
  uint8_t* room(size_t extra) {
    if (static_cast<size_t>(end_ - pos_) < extra) grow(extra);
    return pos_;
  }
  void grow(size_t extra) {
    const size_t used = static_cast<size_t>(pos_ - begin_);
    const size_t capacity =
        std::max({2 * static_cast<size_t>(end_ - begin_), used + extra, size_t{4096}});
    auto* p = static_cast<uint8_t*>(std::realloc(begin_, capacity));
    if (!p) throw std::bad_alloc();
    begin_ = p;
    pos_ = p + used;
    end_ = p + capacity;
  }
  void raw(const char* s, size_t k) {
    std::memcpy(room(k), s, k);
    pos_ += k;
  }
  void byte(char c) {
    *room(1) = static_cast<uint8_t>(c);
    ++pos_;
  }
  // `lead` bytes of `text`, a line break and the indentation of `depth`, the
  // spaces written eight at a time (fixed-size stores beat a call to memset at
  // these lengths).
  void lineBreak(const char* text, size_t lead, size_t depth) {
    const size_t width = 2 * depth;
    uint8_t* p = room(lead + 1 + width + 8);
    std::memcpy(p, text, lead);
    p[lead] = '\n';
    for (size_t k = 0; k < width; k += 8) std::memcpy(p + lead + 1 + k, "        ", 8);
    pos_ += lead + 1 + width;
  }
  void newline(size_t depth) { lineBreak("", 0, depth); }
  // "," between members, with the line break when pretty.
  void separator(size_t depth) {
    if (pretty_) return lineBreak(",", 1, depth);
    byte(',');
  }

  // Objects are scattered over the heap: fetching the next one while this one
  // is written hides much of the wait for memory.
  static void prefetch(const Object* o) noexcept { __builtin_prefetch(o); }
  static constexpr size_t kPrefetchAhead = 8;
  // The entries of a container a few elements ahead in an array too, once its
  // header has had time to arrive.
  static constexpr size_t kContentsAhead = kPrefetchAhead / 2;
  static void prefetchContents(const Object* o) noexcept {
    if (!o) return;  // a removed dictionary entry's hole
    const std::type_info* type = &typeid(*o);
    const void* start;
    size_t bytes;
    if (type == &typeid(Dictionary)) {
      const auto& entries = StorageAccess::table(*static_cast<const Dictionary*>(o)).entries();
      start = entries.data();
      bytes = entries.size() * sizeof(entries[0]);
    } else if (type == &typeid(Array)) {
      const auto items = static_cast<const Array*>(o)->objects();
      start = items.data();
      bytes = items.size_bytes();
    } else if (type == &typeid(String)) {
      const auto* string = static_cast<const String*>(o);
      start = string->isLatin1() ? static_cast<const void*>(string->latin1Data())
                                 : static_cast<const void*>(string->utf16Data());
      bytes = string->length() * (string->isLatin1() ? 1 : 2);
    } else {
      return;
    }
    for (size_t k = 0; k < std::min(bytes, size_t{256}); k += 64) {
      __builtin_prefetch(static_cast<const char*>(start) + k);
    }
  }

  // The elements of a container a little ahead in an array, whose entries have
  // had time to arrive: a record's values are then on their way before it is
  // written. With `deeper`, the elements' own contents too (a nested array's
  // items, a long string's later lines), their headers having been fetched
  // by the call one element earlier.
  template <bool deeper>
  static void prefetchElements(const Object* o) noexcept {
    if (!o) return;
    const std::type_info* type = &typeid(*o);
    auto each = [](const Object* e) {
      if constexpr (deeper) {
        prefetchContents(e);
      } else {
        prefetch(e);
      }
    };
    if (type == &typeid(Dictionary)) {
      const auto& entries = StorageAccess::table(*static_cast<const Dictionary*>(o)).entries();
      const size_t n = std::min(entries.size(), size_t{16});
      for (size_t k = 0; k < n; ++k) each(entries[k].value.get());
    } else if (type == &typeid(Array)) {
      const auto items = static_cast<const Array*>(o)->objects();
      const size_t n = std::min(items.size(), size_t{16});
      for (size_t k = 0; k < n; ++k) each(items[k].get());
    }
  }

  // The fetches ahead made at element `i` of `n`, `at(k)` giving element k:
  // each stage reads only what an earlier one fetched.
  template <class At>
  static void prefetchAhead(size_t i, size_t n, At at) noexcept {
    if (i + kPrefetchAhead < n) prefetch(at(i + kPrefetchAhead));
    if (i >= kContentsAhead && i + kContentsAhead < n) prefetchContents(at(i + kContentsAhead));
    // Only elements whose contents were fetched earlier: reading entries that
    // are not in the cache yet would wait instead of fetching ahead.
    constexpr size_t kFirstFetched = 2 * kContentsAhead;
    if (i + 2 >= kFirstFetched && i + 2 < n) prefetchElements<false>(at(i + 2));
    if (i + 1 >= kFirstFetched && i + 1 < n) prefetchElements<true>(at(i + 1));
  }

  static void checkDepth(size_t depth) {
    if (depth > kJSONMaxDepth) throw WriteFailure{"Too deeply nested for JSON write"};
  }

  void array(const Array& a, size_t depth) {
    checkDepth(depth);
    const auto items = a.objects();
    byte('[');
    if (items.empty()) {
      if (pretty_) {
        byte('\n');
        newline(depth - 1);
      }
      return byte(']');
    }
    if (pretty_) newline(depth);
    const auto at = [&](size_t k) { return items[k].get(); };
    for (size_t i = 0; i < std::min(items.size(), kPrefetchAhead); ++i) prefetch(at(i));
    for (size_t i = 0; i < items.size(); ++i) {
      prefetchAhead(i, items.size(), at);
      if (i != 0) separator(depth);
      element(items[i].get(), depth);
    }
    if (pretty_) newline(depth - 1);
    byte(']');
  }

  bool isString(const Object* o) noexcept { return kinds_.of(o) == Kind::kString; }
  const String& asKey(const Object* k) {
    if (!isString(k)) throw WriteFailure{"Invalid (non-string) key in JSON dictionary"};
    return *static_cast<const String*>(k);
  }

  void member(const String& k, const Object* v, size_t depth) {
    writeKey(k);
    element(v, depth);
  }

  // A key and the separator after it. Documents repeat the same key objects
  // (the reader shares them), so a short key's text is copied from where it
  // was last written: key objects neither change nor go while a write runs.
  void writeKey(const String& k) {
    KeyText& slot = keyTexts_[(reinterpret_cast<uintptr_t>(&k) >> 4) % keyTexts_.size()];
    if (slot.key == &k) {
      uint8_t* p = room(KeyText::kLongest + 16);
      // Sixteen-byte moves (the text may end just before `p`); the room
      // takes the excess.
      for (size_t k16 = 0; k16 < slot.length; k16 += 16) {
        std::memmove(p + k16, begin_ + slot.offset + k16, 16);
      }
      pos_ = p + slot.length;
      return;
    }
    const auto start = static_cast<size_t>(pos_ - begin_);
    string(k);
    if (pretty_) {
      raw(" : ", 3);
    } else {
      byte(':');
    }
    const auto length = static_cast<size_t>(pos_ - begin_) - start;
    if (length <= KeyText::kLongest && start <= UINT32_MAX) {
      slot = {&k, static_cast<uint32_t>(start), static_cast<uint32_t>(length)};
    }
  }

  void dictionary(const Dictionary& d, size_t depth) {
    checkDepth(depth);
    byte('{');
    if (d.count() == 0) {
      if (pretty_) {
        byte('\n');
        newline(depth - 1);
      }
      return byte('}');
    }
    if (pretty_) newline(depth);
    bool first = true;
    if (sorted_ && d.count() > 1) {
      std::vector<std::pair<const String*, const Object*>> entries;
      entries.reserve(d.count());
      for (const auto& [k, v] : d.entries()) entries.emplace_back(&asKey(k.get()), v.get());
      std::sort(entries.begin(), entries.end(),
                [](const auto& a, const auto& b) { return a.first->compare(*b.first) < 0; });
      for (const auto& [k, v] : entries) {
        if (!first) separator(depth);
        first = false;
        member(*k, v, depth);
      }
    } else {
      const auto& entries = StorageAccess::table(d).entries();
      const size_t n = entries.size();
      const auto at = [&](size_t k) { return entries[k].value.get(); };
      for (size_t i = 0; i < std::min(n, kPrefetchAhead); ++i) prefetch(at(i));
      for (size_t i = 0; i < n; ++i) {
        const collection_internal::TableEntry& e = entries[i];
        prefetchAhead(i, n, at);
        if (!e.key) continue;  // a removed entry's hole
        if (!first) separator(depth);
        first = false;
        member(asKey(e.key.get()), e.value.get(), depth);
      }
    }
    if (pretty_) newline(depth - 1);
    byte('}');
  }

  void number(const Number& n) {
    char* p = reinterpret_cast<char*>(room(kNumberRoom));
    switch (n.objCType()) {
      case 'B':
        if (n.boolValue()) return raw("true", 4);
        return raw("false", 5);
      case 'f': {
        const float f = n.floatValue();
        if (!std::isfinite(f)) throw WriteFailure{nonFinite(f)};
        p = std::to_chars(p, p + kNumberRoom, f).ptr;
        break;
      }
      case 'd': {
        const double d = n.doubleValue();
        if (!std::isfinite(d)) throw WriteFailure{nonFinite(d)};
        p = writeDouble(d, p);
        break;
      }
      case 'C':
      case 'S':
      case 'I':
      case 'L':
      case 'Q':
        p = writeInteger(n.unsignedLongLongValue(), false, p);
        break;
      default: {
        const long long v = n.longLongValue();
        // The magnitude of the most negative value wraps to itself, unsigned.
        const auto magnitude = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
        p = writeInteger(magnitude, v < 0, p);
        break;
      }
    }
    pos_ = reinterpret_cast<uint8_t*>(p);
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

  bool isPlain(uint8_t c) const noexcept {
    return c < 0x80 && (!kEscapes[c] || (c == '/' && !escapeSlash_));
  }

  // Copies the bytes of `in` from `i` on that are written as they are, up to
  // `end` or the first that is not; returns how many. Words are stored before
  // they are checked (the room allows it). A short remainder is read as the
  // last word of the string, or as two overlapping halves of a short one.
  size_t plainRun(const uint8_t* in, size_t i, size_t end, uint8_t* p) const {
    size_t done = 0;
    while (end - i - done >= 8) {
      uint64_t w;
      std::memcpy(&w, in + i + done, 8);
      std::memcpy(p + done, &w, 8);
      const uint64_t marked = specialBytes(w, extraSpecial_);
      if (marked) return done + firstMarked(marked);
      done += 8;
    }
    const size_t left = end - i - done;
    if (left == 0) return done;
    if constexpr (std::endian::native == std::endian::little) {
      if (end >= 8) {
        // The bytes before `i + done` in this word were handled already.
        const auto skip = static_cast<unsigned>(8 * (8 - left));
        uint64_t w;
        std::memcpy(&w, in + end - 8, 8);
        const uint64_t marked = specialBytes(w, extraSpecial_) >> skip;
        w >>= skip;
        std::memcpy(p + done, &w, 8);
        return done + (marked ? firstMarked(marked) : left);
      }
      if (left >= 4) {
        uint32_t head;
        uint32_t tail;
        std::memcpy(&head, in + i + done, 4);
        std::memcpy(&tail, in + end - 4, 4);
        if (!specialBytes(head | uint64_t{tail} << 32, extraSpecial_)) {
          std::memcpy(p + done, &head, 4);
          std::memcpy(p + done + left - 4, &tail, 4);
          return done + left;
        }
      }
    }
    while (done < end - i && isPlain(in[i + done])) {
      p[done] = in[i + done];
      ++done;
    }
    return done;
  }

  // Writes Latin-1 units [i, end) at `p`, which has room for six bytes a unit.
  uint8_t* latin1(const uint8_t* in, size_t i, size_t end, uint8_t* p) const {
    while (i < end) {
      const size_t run = plainRun(in, i, end, p);
      p += run;
      i += run;
      if (i == end) break;
      const uint8_t c = in[i++];
      if (c >= 0x80) {
        *p++ = static_cast<uint8_t>(0xC0 | (c >> 6));
        *p++ = static_cast<uint8_t>(0x80 | (c & 0x3F));
      } else {
        p += escape(c, p);
      }
    }
    return p;
  }

  // Writes UTF-16 units [i, end) at `p` (six bytes of room a unit, and a unit
  // past `end` may complete a pair); `i` ends past the last unit written.
  uint8_t* utf16(const char16_t* in, size_t& i, size_t end, size_t len, uint8_t* p) const {
    for (; i < end; ++i) {
      uint32_t c = in[i];
      if (c < 0x80 && std::endian::native == std::endian::little) {
        // From an ASCII unit on, four units at a time while they are plain.
        while (end - i >= 4) {
          uint64_t w;
          std::memcpy(&w, in + i, 8);
          if (specialUnits(w, extraSpecial_)) break;
          const auto packed = static_cast<uint32_t>(
              (w & 0xFF) | ((w >> 8) & 0xFF00) | ((w >> 16) & 0xFF0000) | ((w >> 24) & 0xFF000000));
          std::memcpy(p, &packed, 4);
          p += 4;
          i += 4;
        }
        if (i == end) break;
        c = in[i];
      }
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
    return p;
  }

  void string(const String& s) {
    const size_t len = s.length();
    // Six bytes per unit covers the longest escape and any UTF-8 sequence;
    // long strings go in slices so that this reservation stays small.
    constexpr size_t kSlice = 16384;
    // The quotes, and a pair completed one unit past the slice.
    uint8_t* p = room(6 * std::min(len, kSlice) + 8);
    *p++ = '"';
    size_t i = 0;
    while (i < len) {
      const size_t end = std::min(len, i + kSlice);
      if (i != 0) {
        pos_ = p;
        p = room(6 * (end - i) + 8);
      }
      if (s.isLatin1()) {
        p = latin1(s.latin1Data(), i, end, p);
        i = end;
      } else {
        p = utf16(s.utf16Data(), i, end, len, p);
      }
    }
    *p++ = '"';
    pos_ = p;
  }

  struct KeyText {
    static constexpr size_t kLongest = 48;
    const String* key = nullptr;
    uint32_t offset = 0;  // in the output
    uint32_t length = 0;
  };

  KindCache kinds_;
  std::array<KeyText, 64> keyTexts_{};
  bool pretty_;
  bool sorted_;
  bool escapeSlash_;
  uint64_t extraSpecial_;
  uint8_t* begin_ = nullptr;
  uint8_t* pos_ = nullptr;
  uint8_t* end_ = nullptr;
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
