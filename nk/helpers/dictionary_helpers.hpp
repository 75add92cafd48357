// Dictionary helpers: a lookup that treats the Null marker as absence, and the
// dictionary as compact JSON text.
#pragma once

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// The value under `key`; nil when the key is missing or its value is Null (or
// nil dictionary).
Id vnk_nonNSNullValueForKey(const Dictionary* dictionary, const Object* key);
template <class T>
Id vnk_nonNSNullValueForKey(const Dictionary* dictionary, const Ref<T>& key) {
  return vnk_nonNSNullValueForKey(dictionary, static_cast<const Object*>(key.get()));
}

// The dictionary as compact JSON text (no options: insertion order, "/" written
// as "\/"). nil when the JSON writer refuses the content (a value that is not a
// string, number, Null, array or dictionary; a key that is not a string; NaN).
Ref<String> vnk_JSONString(const Dictionary* dictionary);

}  // namespace nk
