// Enumeration over any collection of the object model, and the mutation check
// shared by the collections' loops.
//
// Code that takes "an array, a set, a dictionary or other enumerable object"
// (promise aggregation, helpers) goes through enumerate() and collectionCount().
#pragma once

#include <cstddef>
#include <functional>

#include "nk/foundation/object.hpp"

namespace nk {

// Calls `f` once per element of `collection`: the elements of an array in
// order, the members of a set, the keys of a dictionary (insertion order).
// Returns false, without calling `f`, when `collection` is nil or not one of
// these. Changing a mutable collection from inside `f` raises as a loop would.
bool enumerate(const Object* collection, const std::function<void(const Id& element)>& f);

// The number of elements enumerate() would yield; 0 for nil and for objects
// that are not collections.
size_t collectionCount(const Object* collection) noexcept;

// True for arrays, sets and dictionaries (mutable or not).
bool isCollection(const Object* collection) noexcept;

// Raises "NSGenericException" with the reason
// "*** Collection <ClassName: 0x…> was mutated while being enumerated.".
[[noreturn]] void raiseMutatedWhileEnumerating(const Object* collection);

}  // namespace nk
