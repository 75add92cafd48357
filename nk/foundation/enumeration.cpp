// Generic enumeration over the collections and the mutation exception.
#include "nk/foundation/enumeration.hpp"

#include <cstdio>
#include <string>

#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/set.hpp"

namespace nk {

bool enumerate(const Object* collection, const std::function<void(const Id& element)>& f) {
  if (const auto* array = cast<Array>(collection)) {
    for (const Id& x : *array) f(x);
  } else if (const auto* dict = cast<Dictionary>(collection)) {
    for (const Id& key : *dict) f(key);
  } else if (const auto* set = cast<Set>(collection)) {
    for (const Id& x : *set) f(x);
  } else {
    return false;
  }
  return true;
}

size_t collectionCount(const Object* collection) noexcept {
  if (const auto* array = cast<Array>(collection)) return array->count();
  if (const auto* dict = cast<Dictionary>(collection)) return dict->count();
  if (const auto* set = cast<Set>(collection)) return set->count();
  return 0;
}

bool isCollection(const Object* collection) noexcept {
  return cast<Array>(collection) || cast<Dictionary>(collection) || cast<Set>(collection);
}

void raiseMutatedWhileEnumerating(const Object* collection) {
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(collection));
  Exception::raise(kGenericException, "*** Collection <" + collection->objectClass().name() + ": " +
                                          address + "> was mutated while being enumerated.");
}

}  // namespace nk
