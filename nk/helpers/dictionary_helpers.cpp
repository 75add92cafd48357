// Dictionary helpers.

#include "nk/helpers/dictionary_helpers.hpp"

#include <string_view>

#include "nk/foundation/data.hpp"
#include "nk/foundation/json_writer.hpp"
#include "nk/foundation/null.hpp"

namespace nk {

Id vnk_nonNSNullValueForKey(const Dictionary* dictionary, const Object* key) {
  if (!dictionary) return nullptr;
  const Id& value = dictionary->objectForKey(key);
  if (value && value->isKindOfClass(Null::staticClass())) return nullptr;
  return value;
}

Ref<String> vnk_JSONString(const Dictionary* dictionary) {
  if (!dictionary) return nullptr;
  const Ref<Data> bytes = writeJSON(dictionary, 0, nullptr);
  if (!bytes) return nullptr;
  const auto span = bytes->span();
  return String::fromUTF8(
      std::string_view(reinterpret_cast<const char*>(span.data()), span.size()));
}

}  // namespace nk
