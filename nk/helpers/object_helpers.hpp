// Object helpers: converting between nil and the Null marker that collections
// hold in its place.
#pragma once

#include "nk/foundation/object.hpp"

namespace nk {

// `object`, or the shared Null for nil. Never nil.
Id vnk_objectForPointer(const Id& object);

// nil for Null (any object of its kind), otherwise `object` unchanged.
Id vnk_pointerForObject(const Id& object);

}  // namespace nk
