// Property lists: trees of strings, numbers, Booleans, dates, data, arrays and
// dictionaries, read from the XML, binary and OpenStep text forms and written in
// the first two.
//
// Input is untrusted: malformed bytes give nil and an Error saying what is wrong,
// never a crash, unbounded recursion or memory out of proportion to the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "nk/foundation/error.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// The platform's format numbers.
enum class PropertyListFormat {
  kOpenStep = 1,  // the old text form: read, never written
  kXML = 100,
  kBinary = 200,
};

// Errors are in kCocoaErrorDomain() with one of these codes, and carry the
// reason (one sentence, such as "Value missing for key inside <dict> on line 4")
// under kDebugDescriptionKey() in their user information, which the error's
// description quotes.
inline constexpr long kPropertyListReadCorruptError = 3840;         // malformed input
inline constexpr long kPropertyListReadUnknownVersionError = 3841;  // "bplist" other than 00
inline constexpr long kPropertyListWriteInvalidError = 3852;        // object not writable

// Containers nested deeper than this are refused when reading and writing.
inline constexpr size_t kPropertyListMaxDepth = 512;

// A reference into a keyed archive's object table: the binary form's UID
// objects, written in XML as a dictionary {CF$UID = n}.
class PlistUID final : public Object {
  NK_DECLARE_CLASS(PlistUID, Object)

 public:
  static Ref<PlistUID> make(uint64_t value);

  uint64_t value() const noexcept { return value_; }

  // Equal when the values are.
  bool isEqual(const Object* other) const noexcept override;
  size_t hash() const noexcept override;
  // "<PlistUID: 0x…>{value = 5}".
  Ref<String> description() const override;
  // Immutable: copy returns the UID itself.
  Id copy() const override;

 private:
  explicit PlistUID(uint64_t value) noexcept : value_(value) {}
  uint64_t value_;
};

// Reads a property list, XML or binary ("bplist00" at the start), immutable
// throughout: Dictionary (string keys, in the file's order; a repeated key keeps
// its first place and its last value), Array, Set (binary only), String, Number
// ('q' for integers, 'Q' above INT64_MAX, 'd' for reals, 'f' for the binary
// form's 4-byte reals), Boolean, Date, Data and PlistUID. An XML dictionary
// holding only the key "CF$UID" with a non-negative integer is read as a
// PlistUID. Objects the binary form shares are shared in the result.
//
// XML must be UTF-8 (a byte-order mark is allowed) or UTF-16 with a byte-order
// mark. Nothing but white space, comments and processing instructions may follow
// the root element. Text that is neither XML nor binary is read in the OpenStep
// form, where every scalar is a String (or Data for <0fbd77>) and a file of
// `"key" = "value";` lines is a dictionary; octal escapes above \177 (a legacy
// 8-bit encoding) are refused.
//
// Returns nil on failure and, when `error` is given, sets it (code 3840 or
// 3841). `format`, when given, receives the form read.
//   Ref<Error> error;
//   Id plist = readPropertyList(bytes, &error);
//   if (auto info = cast<Dictionary>(plist)) ...
[[nodiscard]] Id readPropertyList(std::span<const uint8_t> bytes, Ref<Error>* error = nullptr,
                                  PropertyListFormat* format = nullptr);

// Writes `root` in `format` (kXML or kBinary). Writable objects: String,
// Number (integers, reals, Booleans), Date, Data, Array, Dictionary with string
// keys, PlistUID, and in the binary form Set. Anything else, a nil root, a
// cycle, nesting deeper than kPropertyListMaxDepth, a graph whose shared
// objects, counted once per path, come to more than 16 million elements, sets
// whose members could take more than 16 million element comparisons to tell
// apart (arrays of one count and end elements hash alike, as do dictionaries
// and sets of one count; the readers refuse such input), or an unpaired surrogate in XML text gives
// nullopt and, when `error` is given, an Error of code 3852.
//
// The binary form stores equal scalars and repeated containers once. The XML
// form writes dates in whole seconds (as the platform does) and reals in their
// shortest round-trip form.
[[nodiscard]] std::optional<std::vector<uint8_t>> writePropertyList(const Object* root,
                                                                    PropertyListFormat format,
                                                                    Ref<Error>* error = nullptr);

// True when writePropertyList would accept `root` in `format`.
[[nodiscard]] bool isValidPropertyList(const Object* root, PropertyListFormat format);

}  // namespace nk
