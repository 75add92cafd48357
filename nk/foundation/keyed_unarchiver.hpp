// KeyedUnarchiver: reads the original platform's keyed archives with secure
// decoding: every class met is checked against an allow-list, and class names may
// be translated to the classes that now decode them.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "nk/foundation/class.hpp"
#include "nk/foundation/data.hpp"
#include "nk/foundation/error.hpp"
#include "nk/foundation/object.hpp"

namespace nk {

// Archives are untrusted: truncated or corrupt input, references out of range or
// in a cycle, wrong types, classes outside the allow-list, absurd counts, deep
// nesting, and sets or dictionary keys that would take more than 16 million
// element comparisons to tell apart give nil and an Error (kCocoaErrorDomain,
// code 4864), never a crash, memory out of proportion to the input or work
// without bound.
inline constexpr long kCoderReadCorruptError = 4864;

class KeyedUnarchiver {
 public:
  // The root object when the archive is well formed and every decoded class (after
  // name translation) is in `classes` or is a built-in the archive format needs
  // for them; else nil with *error set. Never throws for bad data.
  static Id unarchivedObjectOfClasses(std::span<const Class* const> classes, const Data* data,
                                      Ref<Error>* error = nullptr);

  // Process-wide translation used by every later decode: an archive's class name
  // `codedName` decodes as `cls` (nullptr removes the translation). Thread-safe;
  // registering again is harmless.
  static void setClassForClassName(const Class* cls, std::string_view codedName);
  static const Class* classForClassName(std::string_view codedName);

  // Used by a class's initWithCoder. Absent keys decode as nil, 0, false or empty;
  // a value of the wrong type fails the whole decode.
  Id decodeObjectOfClasses(std::span<const Class* const> classes, std::string_view key);
  Id decodeObjectOfClass(const Class& cls, std::string_view key);
  bool containsValueForKey(std::string_view key) const;
  bool decodeBool(std::string_view key);
  int64_t decodeInt64(std::string_view key);
  double decodeDouble(std::string_view key);
  std::vector<uint8_t> decodeBytes(std::string_view key);

  KeyedUnarchiver(const KeyedUnarchiver&) = delete;
  KeyedUnarchiver& operator=(const KeyedUnarchiver&) = delete;
  ~KeyedUnarchiver();

 private:
  struct State;
  explicit KeyedUnarchiver(State& state);

  State& state_;
};

}  // namespace nk
