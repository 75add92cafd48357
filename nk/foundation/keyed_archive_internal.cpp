// The built-in class names and key escaping shared by both directions of keyed
// archiving.
#include "nk/foundation/keyed_archive_internal.hpp"

#include <array>
#include <utility>

#include "nk/foundation/array.hpp"
#include "nk/foundation/data.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/set.hpp"
#include "nk/foundation/url.hpp"

namespace nk::keyed_archive_internal {
namespace {

using Entry = std::pair<const Class*, const char*>;

// Function-local so that it is built after the class records it points at.
const std::array<Entry, 16>& builtinNames() {
  static const std::array<Entry, 16> names = {{
      {&Dictionary::staticClass(), "NSDictionary"},
      {&MutableDictionary::staticClass(), "NSMutableDictionary"},
      {&Array::staticClass(), "NSArray"},
      {&MutableArray::staticClass(), "NSMutableArray"},
      {&Set::staticClass(), "NSSet"},
      {&MutableSet::staticClass(), "NSMutableSet"},
      {&String::staticClass(), "NSString"},
      {&MutableString::staticClass(), "NSMutableString"},
      {&Data::staticClass(), "NSData"},
      {&MutableData::staticClass(), "NSMutableData"},
      {&Date::staticClass(), "NSDate"},
      {&URL::staticClass(), "NSURL"},
      {&Null::staticClass(), "NSNull"},
      {&Number::staticClass(), "NSNumber"},
      {&Boolean::staticClass(), "NSNumber"},
      {&Object::staticClass(), "NSObject"},
  }};
  return names;
}

}  // namespace

const char* platformNameOfClass(const Class& cls) noexcept {
  for (const auto& [c, name] : builtinNames()) {
    if (c == &cls) return name;
  }
  return nullptr;
}

const Class* builtinClassNamed(std::string_view name) noexcept {
  // Number and Object never arrive as archived dictionaries: numbers are stored
  // inline and a bare NSObject carries nothing to decode.
  for (const auto& [c, n] : builtinNames()) {
    if (n == name && c != &Number::staticClass() && c != &Boolean::staticClass() &&
        c != &Object::staticClass()) {
      return c;
    }
  }
  return nullptr;
}

Ref<String> storedKey(std::string_view key) {
  if (!key.empty() && key.front() == '$') return String::fromUTF8(std::string("$") += key);
  return String::fromUTF8(key);
}

Ref<Error> makeError(long code, const std::string& reason, const Ref<Error>& underlying) {
  Ref<String> text = String::fromUTF8(reason);
  if (!text) text = String::fromLatin1(reason);
  auto info = MutableDictionary::make({{Id(kDebugDescriptionKey()), Id(text)}});
  if (underlying) info->setObjectForKey(underlying, kUnderlyingErrorKey());
  return Error::make(Ref<String>(kCocoaErrorDomain()), code, info);
}

}  // namespace nk::keyed_archive_internal
