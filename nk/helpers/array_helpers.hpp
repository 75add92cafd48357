// Array helpers: mapping with a stop flag, the removing filter, reversing,
// one-level flattening, building dictionaries from elements, grouping by class,
// and class-membership tests.
//
// Every helper takes the array first and accepts nil there (yielding nil or
// false). Results are new immutable collections unless a comment says otherwise.
#pragma once

#include <cstddef>
#include <functional>

#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/dictionary.hpp"

namespace nk {

// An object that turns one value into another, as the platform's value
// transformers do. Subclass it and override transformedValue.
class ValueTransformer : public Object {
  NK_DECLARE_CLASS(ValueTransformer, Object)

 public:
  // The transformed value, or nil to leave the element out. The default returns
  // `value` unchanged.
  virtual Id transformedValue(const Id& value) const;

 protected:
  ValueTransformer() noexcept = default;
};

// (element, index, stop) -> mapped object, or nil to skip the element. Setting
// *stop ends the walk after this element.
using MapCallable = std::function<Id(const Id& element, size_t index, bool* stop)>;
// element -> true when the element is to be removed.
using FilterPredicate = std::function<bool(const Id& element)>;
// Fills *key and *value from the element; leaving either nil skips the element.
using KeyValueCallable = std::function<void(Id* key, Id* value, const Id& element)>;
// (dictionary being built, key, value) -> what to store under the key; nil
// removes the key.
using InternalMapCallable =
    std::function<Id(MutableDictionary* dictionary, const Id& key, const Id& value)>;

// The non-nil results of transformer->transformedValue for each element, in
// order. The array itself when the transformer is nil or the array is empty.
Ref<Array> vnk_transform(const Array* array, const ValueTransformer* transformer);

// The elements from last to first.
Ref<Array> vnk_reversedArray(const Array* array);

// Class name -> MutableArray of the elements of exactly that class, in order.
// Two subclasses of one class make two groups.
Ref<Dictionary> vnk_toDictionaryByClass(const Array* array);

// The elements of the elements that are arrays, one level deep; other elements
// are dropped: ((1, 2), 3, ((4))) gives (1, 2, (4)).
Ref<Array> vnk_combineArrayChildren(const Array* array);

// The non-nil results of `map` for each element in order, stopping after the
// element for which it sets the flag. An empty callable gives a copy of the array.
Ref<Array> vnk_map(const Array* array, const MapCallable& map);

// Key -> MutableArray of every value given for it, in element order. The result
// is mutable.
Ref<MutableDictionary> vnk_multiMap(const Array* array, const KeyValueCallable& keyValue);

// Key -> value for each element; a later element with the same key wins. An
// element whose key is nil or not copyable, or whose value is nil, contributes
// nothing.
Ref<Dictionary> vnk_mapToDict(const Array* array, const KeyValueCallable& keyValue);

// As vnk_mapToDict, storing what `internalMap` returns for each key and value.
// An empty `keyValue` gives an empty dictionary; an empty `internalMap` raises
// "NSInvalidArgumentException".
Ref<Dictionary> vnk_mapToDictInternalMap(const Array* array, const KeyValueCallable& keyValue,
                                         const InternalMapCallable& internalMap);

// The elements for which `remove` yields false, in order: the predicate names
// what goes, not what stays. An empty predicate raises "NSInvalidArgumentException".
Ref<Array> vnk_filter(const Array* array, const FilterPredicate& remove);

// True when there are fewer than two elements or all are of exactly the first
// element's class.
bool vnk_areAllObjectsAreOfSameClass(const Array* array);

// True when every element's class is exactly `cls` (subclasses fail); true when empty.
bool vnk_areAllObjectsOfThisClass(const Array* array, const Class& cls);

// True when every element is of `cls` or a subclass; true when empty.
bool vnk_areAllObjectsOfThisKind(const Array* array, const Class& cls);

// True when some element is of `cls` or a subclass.
bool vnk_isAnyObjectOfThisKind(const Array* array, const Class& cls);

}  // namespace nk
