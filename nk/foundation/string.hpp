// String, MutableString and constant literals: text of the object model.
//
// Length and indices count UTF-16 code units, as on the platform. Text that fits
// Latin-1 is stored one byte per unit. Strings are immutable; MutableString is
// the mutable subclass. NK_STR("...") gives a constant literal that is never freed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>

#include "nk/foundation/object.hpp"

namespace nk {

// Returned by searches that find nothing.
inline constexpr size_t kNotFound = static_cast<size_t>(-1);

class String : public Object {
  NK_DECLARE_CLASS(String, Object)

 public:
  // Decodes UTF-8; nil when the bytes are not well-formed UTF-8 (overlong forms,
  // surrogates, truncated sequences and code points above U+10FFFF included).
  static Ref<String> fromUTF8(std::string_view utf8);
  // Decodes UTF-16; nil when a surrogate is unpaired.
  static Ref<String> fromUTF16(std::u16string_view utf16);
  // Takes any code units as they are, unpaired surrogates included.
  static Ref<String> withCharacters(std::u16string_view units);
  // Each byte is one code unit U+0000..U+00FF.
  static Ref<String> fromLatin1(std::string_view latin1);
  // The shared empty string.
  static String* empty() noexcept;

  size_t length() const noexcept { return length_; }
  bool isEmpty() const noexcept { return length_ == 0; }
  // The code unit at `index`; raises "NSRangeException" past the end.
  char16_t characterAt(size_t index) const;
  // Copies `count` units from `start` into `out`; the range must be valid.
  void getCharacters(char16_t* out, size_t start, size_t count) const noexcept;

  // Representation: Latin-1 bytes, or UTF-16 units.
  bool isLatin1() const noexcept { return spare_ & kLatin1Flag; }
  const uint8_t* latin1Data() const noexcept { return static_cast<const uint8_t*>(chars_); }
  const char16_t* utf16Data() const noexcept { return static_cast<const char16_t*>(chars_); }

  std::u16string toUTF16() const;
  // UTF-8 text; an unpaired surrogate becomes U+FFFD.
  std::string utf8() const;
  // Strict UTF-8: false (and `out` unspecified) when a surrogate is unpaired.
  bool toUTF8(std::string& out) const;

  bool isEqualToString(const String* other) const noexcept;
  // Orders by code units: negative, zero or positive.
  int compare(const String& other) const noexcept;
  bool hasPrefix(const String* prefix) const noexcept;
  bool hasSuffix(const String* suffix) const noexcept;
  // Index of the first occurrence of `needle` at or after `from`, or kNotFound.
  // An empty needle is never found.
  size_t find(const String* needle, size_t from = 0) const noexcept;
  bool contains(const String* needle) const noexcept { return find(needle) != kNotFound; }

  // The units in [start, start + count); raises "NSRangeException" when the
  // range goes past the end.
  Ref<String> substring(size_t start, size_t count) const;
  Ref<String> substringFrom(size_t start) const { return substring(start, length_ - start); }
  Ref<String> appending(const String* other) const;
  // Full Unicode case mapping, independent of the user's locale.
  Ref<String> lowercase() const;
  Ref<String> uppercase() const;

  bool isEqual(const Object* other) const noexcept override;
  size_t hash() const noexcept override;
  Ref<String> description() const override;
  Id copy() const override;
  Id mutableCopy() const override;

  // Calls f(char16_t) for each code unit.
  template <class F>
  void forEachUnit(F&& f) const {
    if (isLatin1()) {
      for (size_t i = 0; i < length_; ++i) f(static_cast<char16_t>(latin1Data()[i]));
    } else {
      for (size_t i = 0; i < length_; ++i) f(utf16Data()[i]);
    }
  }

  // An immutable string keeps its units in the same block, taken from the
  // per-thread block pool (block_pool.hpp); deletion learns the block's size from
  // the string before destroying it. Other strings are plain heap objects.
  static void* operator new(size_t size) { return ::operator new(size); }
  static void* operator new(size_t, void* place) noexcept { return place; }
  static void operator delete(String* s, std::destroying_delete_t) noexcept;
  // For a constructor that throws.
  static void operator delete(void* p) noexcept { ::operator delete(p); }

 protected:
  static constexpr uint32_t kLatin1Flag = 1;
  String() noexcept = default;
  void setStorage(const void* chars, size_t length, bool latin1) noexcept {
    chars_ = chars;
    length_ = length;
    spare_ = (spare_ & ~kLatin1Flag) | (latin1 ? kLatin1Flag : 0);
  }

 private:
  friend class StringBuilder;
  // Allocates an immutable string with room for `length` units inline.
  static String* allocate(size_t length, bool latin1);
  static Ref<String> fromUnits(const char16_t* units, size_t count);
  // `latin1` must tell whether every unit is at most U+00FF.
  static Ref<String> fromUnits(const char16_t* units, size_t count, bool latin1);
  void* inlineStorage() noexcept { return this + 1; }
  // Marks a string whose units follow it in its block (made by allocate()).
  static constexpr uint32_t kInlineFlag = 2;

  const void* chars_ = nullptr;
  size_t length_ = 0;
};

class MutableString final : public String {
  NK_DECLARE_CLASS(MutableString, String)

 public:
  MutableString() noexcept;
  explicit MutableString(const String* initial);

  void append(const String* other);
  void appendUTF8(std::string_view utf8);  // malformed bytes become U+FFFD
  void appendCharacters(std::u16string_view units);
  void appendCharacter(char16_t unit);
  void insert(const String* other, size_t at);  // raises "NSRangeException"
  // Removes [start, start + count); raises "NSRangeException".
  void deleteCharacters(size_t start, size_t count);
  void replaceCharacters(size_t start, size_t count, const String* with);
  void setString(const String* other);

  Id copy() const override;

 private:
  void sync() noexcept { setStorage(buffer_.data(), buffer_.size(), false); }
  std::u16string buffer_;
};

// A string literal made once and never freed. Equal to any string with the
// same units; distinct in identity from every other string object.
class ConstantString final : public String {
  NK_DECLARE_CLASS(ConstantString, String)

 public:
  // `utf8` must stay valid for ever (a literal) and be well-formed UTF-8.
  static ConstantString* make(std::string_view utf8);

 private:
  ConstantString() noexcept = default;
  std::u16string decoded_;  // for non-ASCII literals
};

}  // namespace nk

// A constant string of a literal: one object per use site, made on first use.
#define NK_STR(literal)                                                 \
  ([]() noexcept -> ::nk::String* {                                     \
    static ::nk::String* const s = ::nk::ConstantString::make(literal); \
    return s;                                                           \
  }())
