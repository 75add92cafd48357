// Object helpers.

#include "nk/helpers/object_helpers.hpp"

#include "nk/foundation/null.hpp"

namespace nk {

Id vnk_objectForPointer(const Id& object) { return object ? object : Id(Null::null()); }

Id vnk_pointerForObject(const Id& object) {
  if (object && object->isKindOfClass(Null::staticClass())) return nullptr;
  return object;
}

}  // namespace nk
