// Array helpers. Each walk builds into a mutable array or dictionary and returns
// an immutable copy, so callers never share mutable state with the result.

#include "nk/helpers/array_helpers.hpp"

#include <vector>

#include "nk/foundation/exception.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

NK_DEFINE_CLASS(ValueTransformer, "ValueTransformer");

Id ValueTransformer::transformedValue(const Id& value) const { return value; }

namespace {

Ref<Array> immutable(const Ref<MutableArray>& array) { return cast<Array>(array->copy()); }

Ref<Array> self(const Array* array) { return cast<Array>(array->copy()); }

}  // namespace

Ref<Array> vnk_transform(const Array* array, const ValueTransformer* transformer) {
  if (!array) return nullptr;
  if (!transformer || array->isEmpty()) return Ref<Array>(const_cast<Array*>(array));
  auto out = MutableArray::withCapacity(array->count());
  for (const Id& element : *array) {
    if (Id mapped = transformer->transformedValue(element)) out->addObject(std::move(mapped));
  }
  return immutable(out);
}

Ref<Array> vnk_reversedArray(const Array* array) {
  if (!array) return nullptr;
  const auto items = array->objects();
  return Array::make(std::vector<Id>(items.rbegin(), items.rend()));
}

Ref<Dictionary> vnk_toDictionaryByClass(const Array* array) {
  if (!array) return nullptr;
  const Ref<MutableDictionary> groups =
      vnk_multiMap(array, [](Id* key, Id* value, const Id& element) {
        *key = String::fromUTF8(element->objectClass().name());
        *value = element;
      });
  return cast<Dictionary>(groups->copy());
}

Ref<Array> vnk_combineArrayChildren(const Array* array) {
  if (!array) return nullptr;
  auto out = MutableArray::make();
  for (const Id& element : *array) {
    if (const Array* child = cast<Array>(element.get())) out->addObjectsFromArray(child);
  }
  return immutable(out);
}

Ref<Array> vnk_map(const Array* array, const MapCallable& map) {
  if (!array) return nullptr;
  if (!map) return self(array);
  auto out = MutableArray::withCapacity(array->count());
  size_t index = 0;
  for (const Id& element : *array) {
    bool stop = false;
    if (Id mapped = map(element, index++, &stop)) out->addObject(std::move(mapped));
    if (stop) break;
  }
  return immutable(out);
}

Ref<Array> vnk_filter(const Array* array, const FilterPredicate& remove) {
  if (!array) return nullptr;
  // The predicate is missed only once there is an element to test.
  if (!remove && array->count() != 0) {
    Exception::raise(kInvalidArgumentException, "vnk_filter: the predicate cannot be nil");
  }
  return vnk_map(array, [&remove](const Id& element, size_t, bool*) -> Id {
    return remove(element) ? Id() : element;
  });
}

Ref<Dictionary> vnk_mapToDictInternalMap(const Array* array, const KeyValueCallable& keyValue,
                                         const InternalMapCallable& internalMap) {
  if (!array) return nullptr;
  if (!keyValue) return Dictionary::make();
  if (!internalMap) {
    Exception::raise(kInvalidArgumentException,
                     "vnk_mapToDictInternalMap: the internal map cannot be nil");
  }
  auto out = MutableDictionary::make();
  for (const Id& element : *array) {
    Id key;
    Id value;
    keyValue(&key, &value, element);
    if (!key || !key->conformsToCopying() || !value) continue;
    if (Id stored = internalMap(out.get(), key, value)) {
      out->setObjectForKey(std::move(stored), key.get());
    } else {
      out->removeObjectForKey(key.get());
    }
  }
  return cast<Dictionary>(out->copy());
}

Ref<Dictionary> vnk_mapToDict(const Array* array, const KeyValueCallable& keyValue) {
  return vnk_mapToDictInternalMap(
      array, keyValue, [](MutableDictionary*, const Id&, const Id& value) { return value; });
}

Ref<MutableDictionary> vnk_multiMap(const Array* array, const KeyValueCallable& keyValue) {
  const Ref<Dictionary> grouped = vnk_mapToDictInternalMap(
      array, keyValue, [](MutableDictionary* dictionary, const Id& key, const Id& value) -> Id {
        Ref<MutableArray> list = cast<MutableArray>(dictionary->objectForKey(key));
        if (!list) list = MutableArray::make();
        list->addObject(value);
        return list;
      });
  if (!grouped) return nullptr;
  return cast<MutableDictionary>(grouped->mutableCopy());
}

bool vnk_areAllObjectsOfThisClass(const Array* array, const Class& cls) {
  if (!array) return false;
  for (const Id& element : *array) {
    if (!element->isMemberOfClass(cls)) return false;
  }
  return true;
}

bool vnk_areAllObjectsOfThisKind(const Array* array, const Class& cls) {
  if (!array) return false;
  for (const Id& element : *array) {
    if (!element->isKindOfClass(cls)) return false;
  }
  return true;
}

bool vnk_areAllObjectsAreOfSameClass(const Array* array) {
  if (!array) return false;
  if (array->count() < 2) return true;
  return vnk_areAllObjectsOfThisClass(array, array->objectAtIndex(0)->objectClass());
}

bool vnk_isAnyObjectOfThisKind(const Array* array, const Class& cls) {
  if (!array) return false;
  for (const Id& element : *array) {
    if (element->isKindOfClass(cls)) return true;
  }
  return false;
}

}  // namespace nk
