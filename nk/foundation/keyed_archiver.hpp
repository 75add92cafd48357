// KeyedArchiver: writes an object graph in the original platform's keyed-archive
// format (a binary property list with "$archiver", "$version", "$objects" and
// "$top"), so archives move between this library and the client there.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "nk/foundation/data.hpp"
#include "nk/foundation/error.hpp"
#include "nk/foundation/object.hpp"

namespace nk {

// The code of archiving errors (kCocoaErrorDomain): an object that cannot be archived.
inline constexpr long kCoderInvalidValueError = 4866;

// Built-in value types are written under the platform's class names
// (Dictionary as "NSDictionary", MutableArray as "NSMutableArray", ...); strings,
// numbers, Booleans and data are stored inline as property-list scalars. Host
// classes write themselves through SecureCoding::encodeWithCoder. An object
// reached twice is stored once and referenced twice.
class KeyedArchiver {
 public:
  // The keyed archive of `root` (nil root allowed) as a binary property list; nil
  // with *error set when an object cannot be archived (a class that neither is a
  // built-in value type nor implements SecureCoding, or, with
  // requiringSecureCoding, does not support secure coding).
  static Ref<Data> archivedDataWithRootObject(const Object* root, bool requiringSecureCoding,
                                              Ref<Error>* error = nullptr);

  // Used by SecureCoding::encodeWithCoder. A key written twice keeps the last value.
  void encodeObject(const Object* object, std::string_view key);  // nil allowed
  void encodeBool(bool value, std::string_view key);
  void encodeInt64(int64_t value, std::string_view key);
  void encodeDouble(double value, std::string_view key);
  void encodeBytes(std::span<const uint8_t> bytes, std::string_view key);

  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;
  ~KeyedArchiver();

 private:
  struct State;
  explicit KeyedArchiver(bool requiringSecureCoding);

  std::unique_ptr<State> state_;
};

}  // namespace nk
