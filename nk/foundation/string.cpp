// String storage, UTF-8/UTF-16 conversion, comparison and searching.
#include "nk/foundation/string.hpp"

#include <unicode/ustring.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>
#include <vector>

#include "nk/foundation/block_pool.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/exception.hpp"

namespace nk {

NK_DEFINE_CLASS(String, "String", Class::kCopyable);
NK_DEFINE_CLASS(MutableString, "MutableString");
NK_DEFINE_CLASS(ConstantString, "ConstantString");

namespace {

constexpr char16_t kReplacement = 0xFFFD;

bool isHighSurrogate(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool isLowSurrogate(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

// Length of the ASCII prefix of `s`, eight bytes at a time.
size_t asciiPrefix(const uint8_t* s, size_t n) {
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t w;
    std::memcpy(&w, s + i, 8);
    if (w & 0x8080808080808080ull) break;
  }
  while (i < n && s[i] < 0x80) ++i;
  return i;
}

// Decodes one UTF-8 sequence at s[i]; returns the code point and advances i, or
// returns -1 (leaving i at the first byte not part of a valid prefix) when the
// sequence is malformed.
int32_t decodeOne(const uint8_t* s, size_t n, size_t& i) {
  uint8_t b = s[i];
  if (b < 0x80) {
    ++i;
    return b;
  }
  int len;
  int32_t cp;
  uint8_t lo = 0x80, hi = 0xBF;
  if (b >= 0xC2 && b <= 0xDF) {
    len = 2;
    cp = b & 0x1F;
  } else if (b >= 0xE0 && b <= 0xEF) {
    len = 3;
    cp = b & 0x0F;
    if (b == 0xE0) lo = 0xA0;  // overlong
    if (b == 0xED) hi = 0x9F;  // surrogates
  } else if (b >= 0xF0 && b <= 0xF4) {
    len = 4;
    cp = b & 0x07;
    if (b == 0xF0) lo = 0x90;  // overlong
    if (b == 0xF4) hi = 0x8F;  // above U+10FFFF
  } else {
    ++i;
    return -1;
  }
  size_t j = i + 1;
  for (int k = 1; k < len; ++k, ++j) {
    if (j >= n) {
      i = j;
      return -1;
    }
    uint8_t c = s[j];
    if (k == 1 ? (c < lo || c > hi) : (c < 0x80 || c > 0xBF)) {
      i = j;
      return -1;
    }
    cp = (cp << 6) | (c & 0x3F);
  }
  i = j;
  return cp;
}

// Scans UTF-8 in which each malformed sequence stands for one U+FFFD: the number
// of UTF-16 units and whether all of them fit Latin-1.
void measureUTF8(const uint8_t* s, size_t n, size_t& units, bool& latin1) {
  units = 0;
  latin1 = true;
  size_t i = 0;
  while (i < n) {
    size_t ascii = asciiPrefix(s + i, n - i);
    units += ascii;
    i += ascii;
    if (i >= n) break;
    int32_t cp = decodeOne(s, n, i);
    if (cp < 0) cp = kReplacement;
    units += cp >= 0x10000 ? 2 : 1;
    if (cp > 0xFF) latin1 = false;
  }
}

// Decodes well-formed UTF-8 into UTF-16; false at the first malformed sequence.
// `seen` collects the bits of every unit written, so `seen <= 0xFF` tells that
// all of them fit Latin-1.
bool decodeUTF8Strict(const uint8_t* s, size_t n, char16_t* out, size_t& units, uint32_t& seen) {
  size_t i = 0;
  size_t k = 0;
  uint32_t bits = 0;
  while (i < n) {
    if (i + 8 <= n) {
      uint64_t w;
      std::memcpy(&w, s + i, 8);
      if (!(w & 0x8080808080808080ull)) {
        for (int j = 0; j < 8; ++j) out[k + j] = s[i + j];
        i += 8;
        k += 8;
        continue;
      }
    }
    uint32_t b = s[i];
    if (b < 0x80) {
      out[k++] = static_cast<char16_t>(b);
      ++i;
      continue;
    }
    if (b >= 0xC2 && b <= 0xDF) {
      if (i + 1 >= n || (s[i + 1] & 0xC0) != 0x80) return false;
      uint32_t cp = ((b & 0x1F) << 6) | (s[i + 1] & 0x3F);
      out[k++] = static_cast<char16_t>(cp);
      bits |= cp;
      i += 2;
      continue;
    }
    if (b >= 0xE0 && b <= 0xEF) {
      if (i + 2 >= n) return false;
      uint32_t c1 = s[i + 1], c2 = s[i + 2];
      uint32_t lo = b == 0xE0 ? 0xA0 : 0x80;  // overlong
      uint32_t hi = b == 0xED ? 0x9F : 0xBF;  // surrogates
      if (c1 < lo || c1 > hi || (c2 & 0xC0) != 0x80) return false;
      uint32_t cp = ((b & 0x0F) << 12) | ((c1 & 0x3F) << 6) | (c2 & 0x3F);
      out[k++] = static_cast<char16_t>(cp);
      bits |= cp;
      i += 3;
      continue;
    }
    if (b >= 0xF0 && b <= 0xF4) {
      if (i + 3 >= n) return false;
      uint32_t c1 = s[i + 1], c2 = s[i + 2], c3 = s[i + 3];
      uint32_t lo = b == 0xF0 ? 0x90 : 0x80;  // overlong
      uint32_t hi = b == 0xF4 ? 0x8F : 0xBF;  // above U+10FFFF
      if (c1 < lo || c1 > hi || (c2 & 0xC0) != 0x80 || (c3 & 0xC0) != 0x80) return false;
      uint32_t cp = ((b & 0x07) << 18) | ((c1 & 0x3F) << 12) | ((c2 & 0x3F) << 6) | (c3 & 0x3F);
      cp -= 0x10000;
      out[k++] = static_cast<char16_t>(0xD800 + (cp >> 10));
      out[k++] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
      bits |= 0xD800;
      i += 4;
      continue;
    }
    return false;
  }
  units = k;
  seen = bits;
  return true;
}

template <class Unit>
void decodeUTF8Into(const uint8_t* s, size_t n, Unit* out) {
  size_t i = 0;
  while (i < n) {
    if (s[i] < 0x80) {
      *out++ = s[i++];
      continue;
    }
    int32_t cp = decodeOne(s, n, i);
    if (cp < 0) cp = kReplacement;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      *out++ = static_cast<Unit>(0xD800 + (cp >> 10));
      *out++ = static_cast<Unit>(0xDC00 + (cp & 0x3FF));
    } else {
      *out++ = static_cast<Unit>(cp);
    }
  }
}

bool fitsLatin1(const char16_t* u, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (u[i] > 0xFF) return false;
  }
  return true;
}

void appendUTF8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

// Writes UTF-16 units as UTF-8; returns false on the first unpaired surrogate
// when `strict`, else writes U+FFFD for it.
bool encodeUTF8(const char16_t* u, size_t n, std::string& out, bool strict) {
  out.reserve(out.size() + n);
  for (size_t i = 0; i < n; ++i) {
    uint32_t c = u[i];
    if (isHighSurrogate(static_cast<char16_t>(c)) && i + 1 < n && isLowSurrogate(u[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (u[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      if (strict) return false;
      c = kReplacement;
    }
    appendUTF8(out, c);
  }
  return true;
}

void encodeLatin1AsUTF8(const uint8_t* s, size_t n, std::string& out) {
  size_t ascii = asciiPrefix(s, n);
  out.reserve(out.size() + n + (n - ascii));
  out.append(reinterpret_cast<const char*>(s), ascii);
  for (size_t i = ascii; i < n; ++i) appendUTF8(out, s[i]);
}

[[noreturn]] void raiseRange(const char* operation, size_t start, size_t count, size_t length) {
  Exception::raise(kRangeException, "-[String " + std::string(operation) + "]: Range {" +
                                        std::to_string(start) + ", " + std::to_string(count) +
                                        "} out of bounds; string length " + std::to_string(length));
}

// Units of a string as UTF-16, borrowing when it already is UTF-16.
class Units {
 public:
  explicit Units(const String& s) {
    if (s.isLatin1()) {
      copy_.resize(s.length());
      s.getCharacters(copy_.data(), 0, s.length());
      data_ = copy_.data();
    } else {
      data_ = s.utf16Data();
    }
    size_ = s.length();
  }
  const char16_t* begin() const { return data_; }
  const char16_t* end() const { return data_ + size_; }

 private:
  std::u16string copy_;
  const char16_t* data_;
  size_t size_;
};

}  // namespace

String* String::allocate(size_t length, bool latin1) {
  size_t bytes = sizeof(String) + length * (latin1 ? 1 : 2);
  void* mem = block_pool::allocate(bytes);
  String* s = new (mem) String();
  s->spare_ |= kInlineFlag;
  s->setStorage(s->inlineStorage(), length, latin1);
  return s;
}

void String::operator delete(String* s, std::destroying_delete_t) noexcept {
  const bool inlineUnits = s->spare_ & kInlineFlag;
  const size_t bytes = sizeof(String) + s->length_ * (s->isLatin1() ? 1 : 2);
  s->~String();
  if (inlineUnits) {
    block_pool::deallocate(s, bytes);
  } else {
    ::operator delete(s);
  }
}

// Makes an immutable string of any units, compact when they all fit Latin-1.
Ref<String> String::fromUnits(const char16_t* u, size_t n) {
  return fromUnits(u, n, fitsLatin1(u, n));
}

Ref<String> String::fromUnits(const char16_t* u, size_t n, bool latin1) {
  String* s = allocate(n, latin1);
  if (latin1) {
    auto* out = static_cast<uint8_t*>(s->inlineStorage());
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(u[i]);
  } else {
    std::memcpy(s->inlineStorage(), u, n * sizeof(char16_t));
  }
  return Ref<String>::adopt(s);
}

Ref<String> String::fromUTF8(std::string_view utf8) {
  const auto* s = reinterpret_cast<const uint8_t*>(utf8.data());
  size_t n = utf8.size();
  size_t ascii = asciiPrefix(s, n);
  if (ascii == n) return fromLatin1(utf8);
  // One decoding pass into scratch space (never more units than bytes), then
  // one exact allocation in the narrowest form.
  char16_t local[256];
  std::unique_ptr<char16_t[]> heap;
  char16_t* scratch = local;
  if (n > std::size(local)) {
    heap.reset(new char16_t[n]);
    scratch = heap.get();
  }
  for (size_t i = 0; i < ascii; ++i) scratch[i] = s[i];
  size_t units;
  uint32_t seen;
  if (!decodeUTF8Strict(s + ascii, n - ascii, scratch + ascii, units, seen)) return nullptr;
  return fromUnits(scratch, ascii + units, seen <= 0xFF);
}

Ref<String> String::fromUTF16(std::u16string_view utf16) {
  for (size_t i = 0; i < utf16.size(); ++i) {
    char16_t c = utf16[i];
    if (isHighSurrogate(c)) {
      if (i + 1 >= utf16.size() || !isLowSurrogate(utf16[i + 1])) return nullptr;
      ++i;
    } else if (isLowSurrogate(c)) {
      return nullptr;
    }
  }
  return withCharacters(utf16);
}

Ref<String> String::withCharacters(std::u16string_view units) {
  return fromUnits(units.data(), units.size());
}

Ref<String> String::fromLatin1(std::string_view latin1) {
  String* s = allocate(latin1.size(), true);
  if (!latin1.empty()) std::memcpy(s->inlineStorage(), latin1.data(), latin1.size());
  return Ref<String>::adopt(s);
}

String* String::empty() noexcept { return NK_STR(""); }

char16_t String::characterAt(size_t index) const {
  if (index >= length_) raiseRange("characterAtIndex:", index, 1, length_);
  return isLatin1() ? latin1Data()[index] : utf16Data()[index];
}

void String::getCharacters(char16_t* out, size_t start, size_t count) const noexcept {
  if (isLatin1()) {
    const uint8_t* p = latin1Data() + start;
    for (size_t i = 0; i < count; ++i) out[i] = p[i];
  } else if (count) {
    std::memcpy(out, utf16Data() + start, count * sizeof(char16_t));
  }
}

std::u16string String::toUTF16() const {
  std::u16string out(length_, u'\0');
  getCharacters(out.data(), 0, length_);
  return out;
}

std::string String::utf8() const {
  std::string out;
  if (isLatin1()) {
    encodeLatin1AsUTF8(latin1Data(), length_, out);
  } else {
    encodeUTF8(utf16Data(), length_, out, false);
  }
  return out;
}

bool String::toUTF8(std::string& out) const {
  out.clear();
  if (isLatin1()) {
    encodeLatin1AsUTF8(latin1Data(), length_, out);
    return true;
  }
  return encodeUTF8(utf16Data(), length_, out, true);
}

bool String::isEqualToString(const String* other) const noexcept {
  if (!other) return false;
  if (other == this) return true;
  if (other->length_ != length_) return false;
  if (isLatin1() == other->isLatin1()) {
    return length_ == 0 || std::memcmp(chars_, other->chars_, length_ * (isLatin1() ? 1 : 2)) == 0;
  }
  const String& l = isLatin1() ? *this : *other;
  const String& w = isLatin1() ? *other : *this;
  const uint8_t* a = l.latin1Data();
  const char16_t* b = w.utf16Data();
  for (size_t i = 0; i < length_; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

int String::compare(const String& other) const noexcept {
  size_t n = std::min(length_, other.length_);
  for (size_t i = 0; i < n; ++i) {
    char16_t a = isLatin1() ? latin1Data()[i] : utf16Data()[i];
    char16_t b = other.isLatin1() ? other.latin1Data()[i] : other.utf16Data()[i];
    if (a != b) return a < b ? -1 : 1;
  }
  return length_ == other.length_ ? 0 : (length_ < other.length_ ? -1 : 1);
}

bool String::hasPrefix(const String* prefix) const noexcept {
  if (!prefix || prefix->length_ == 0 || prefix->length_ > length_) return false;
  for (size_t i = 0; i < prefix->length_; ++i) {
    char16_t a = isLatin1() ? latin1Data()[i] : utf16Data()[i];
    char16_t b = prefix->isLatin1() ? prefix->latin1Data()[i] : prefix->utf16Data()[i];
    if (a != b) return false;
  }
  return true;
}

bool String::hasSuffix(const String* suffix) const noexcept {
  if (!suffix || suffix->length_ == 0 || suffix->length_ > length_) return false;
  size_t off = length_ - suffix->length_;
  for (size_t i = 0; i < suffix->length_; ++i) {
    char16_t a = isLatin1() ? latin1Data()[off + i] : utf16Data()[off + i];
    char16_t b = suffix->isLatin1() ? suffix->latin1Data()[i] : suffix->utf16Data()[i];
    if (a != b) return false;
  }
  return true;
}

size_t String::find(const String* needle, size_t from) const noexcept {
  if (!needle || needle->length_ == 0 || from >= length_ || needle->length_ > length_ - from) {
    return kNotFound;
  }
  if (isLatin1() && needle->isLatin1()) {
    std::string_view hay(reinterpret_cast<const char*>(latin1Data()), length_);
    std::string_view pat(reinterpret_cast<const char*>(needle->latin1Data()), needle->length_);
    size_t at = hay.find(pat, from);  // linear in practice: glibc's two-way memmem
    return at == std::string_view::npos ? kNotFound : at;
  }
  Units hay(*this);
  Units pat(*needle);
  // Boyer-Moore keeps the search linear on adversarial inputs.
  std::boyer_moore_searcher searcher(pat.begin(), pat.end());
  auto it = std::search(hay.begin() + from, hay.end(), searcher);
  return it == hay.end() ? kNotFound : static_cast<size_t>(it - hay.begin());
}

Ref<String> String::substring(size_t start, size_t count) const {
  if (start > length_ || count > length_ - start)
    raiseRange("substringWithRange:", start, count, length_);
  if (start == 0 && count == length_ && !isMemberOfClass(MutableString::staticClass())) {
    return Ref<String>(const_cast<String*>(this));
  }
  if (isLatin1()) {
    return fromLatin1(std::string_view(reinterpret_cast<const char*>(latin1Data()) + start, count));
  }
  return fromUnits(utf16Data() + start, count);
}

Ref<String> String::appending(const String* other) const {
  if (!other || other->length_ == 0) return substring(0, length_);
  if (isLatin1() && other->isLatin1()) {
    String* s = allocate(length_ + other->length_, true);
    auto* out = static_cast<uint8_t*>(s->inlineStorage());
    if (length_) std::memcpy(out, latin1Data(), length_);
    std::memcpy(out + length_, other->latin1Data(), other->length_);
    return Ref<String>::adopt(s);
  }
  String* s = allocate(length_ + other->length_, false);
  auto* out = static_cast<char16_t*>(s->inlineStorage());
  getCharacters(out, 0, length_);
  other->getCharacters(out + length_, 0, other->length_);
  return Ref<String>::adopt(s);
}

namespace {
template <class F>
Ref<String> caseMap(const String& s, F mapper) {
  std::u16string src = s.toUTF16();
  std::u16string dst(src.size() + 8, u'\0');
  for (int attempt = 0; attempt < 2; ++attempt) {
    UErrorCode status = U_ZERO_ERROR;
    int32_t n = mapper(reinterpret_cast<UChar*>(dst.data()), static_cast<int32_t>(dst.size()),
                       reinterpret_cast<const UChar*>(src.data()), static_cast<int32_t>(src.size()),
                       "", &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
      dst.assign(static_cast<size_t>(n), u'\0');
      continue;
    }
    if (U_FAILURE(status)) return s.substring(0, s.length());
    return String::withCharacters(std::u16string_view(dst.data(), static_cast<size_t>(n)));
  }
  return s.substring(0, s.length());
}
}  // namespace

Ref<String> String::lowercase() const { return caseMap(*this, u_strToLower); }
Ref<String> String::uppercase() const { return caseMap(*this, u_strToUpper); }

bool String::isEqual(const Object* other) const noexcept {
  const String* s = cast<String>(other);
  return s && isEqualToString(s);
}

size_t String::hash() const noexcept {
  // FNV-1a over code units, so both representations hash alike.
  uint64_t h = 1469598103934665603ull;
  forEachUnit([&](char16_t u) {
    h ^= u;
    h *= 1099511628211ull;
  });
  return static_cast<size_t>(h ^ (h >> 32));
}

Ref<String> String::description() const {
  Id snapshot = copy();
  return Ref<String>(static_cast<String*>(snapshot.get()));
}

Id String::copy() const { return Id(const_cast<String*>(this)); }

Id String::mutableCopy() const { return make<MutableString>(this); }

// MutableString

MutableString::MutableString() noexcept { sync(); }

MutableString::MutableString(const String* initial) {
  if (initial) buffer_ = initial->toUTF16();
  sync();
}

void MutableString::append(const String* other) {
  if (!other) return;
  if (other == this) {
    // Resizing would free the units being read.
    buffer_.reserve(2 * buffer_.size());
    buffer_.insert(buffer_.end(), buffer_.begin(), buffer_.end());
    sync();
    return;
  }
  size_t old = buffer_.size();
  buffer_.resize(old + other->length());
  other->getCharacters(buffer_.data() + old, 0, other->length());
  sync();
}

void MutableString::appendUTF8(std::string_view utf8) {
  const auto* s = reinterpret_cast<const uint8_t*>(utf8.data());
  size_t units;
  bool latin1;
  measureUTF8(s, utf8.size(), units, latin1);
  size_t old = buffer_.size();
  buffer_.resize(old + units);
  decodeUTF8Into(s, utf8.size(), buffer_.data() + old);
  sync();
}

void MutableString::appendCharacters(std::u16string_view units) {
  buffer_.append(units);
  sync();
}

void MutableString::appendCharacter(char16_t unit) {
  buffer_.push_back(unit);
  sync();
}

void MutableString::insert(const String* other, size_t at) {
  if (at > buffer_.size()) raiseRange("insertString:atIndex:", at, 0, buffer_.size());
  if (!other) return;
  buffer_.insert(at, other->toUTF16());
  sync();
}

void MutableString::deleteCharacters(size_t start, size_t count) {
  if (start > buffer_.size() || count > buffer_.size() - start) {
    raiseRange("deleteCharactersInRange:", start, count, buffer_.size());
  }
  buffer_.erase(start, count);
  sync();
}

void MutableString::replaceCharacters(size_t start, size_t count, const String* with) {
  if (start > buffer_.size() || count > buffer_.size() - start) {
    raiseRange("replaceCharactersInRange:withString:", start, count, buffer_.size());
  }
  buffer_.replace(start, count, with ? with->toUTF16() : std::u16string());
  sync();
}

void MutableString::setString(const String* other) {
  buffer_ = other ? other->toUTF16() : std::u16string();
  sync();
}

Id MutableString::copy() const { return withCharacters(buffer_); }

// ConstantString

ConstantString* ConstantString::make(std::string_view utf8) {
  auto* s = new ConstantString();
  const auto* bytes = reinterpret_cast<const uint8_t*>(utf8.data());
  if (asciiPrefix(bytes, utf8.size()) == utf8.size()) {
    s->setStorage(utf8.data(), utf8.size(), true);
  } else {
    size_t units;
    bool latin1;
    measureUTF8(bytes, utf8.size(), units, latin1);
    s->decoded_.resize(units);
    decodeUTF8Into(bytes, utf8.size(), s->decoded_.data());
    s->setStorage(s->decoded_.data(), units, false);
  }
  s->makeImmortal();
  return s;
}

}  // namespace nk
