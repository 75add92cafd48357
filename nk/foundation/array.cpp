// Array and MutableArray: construction checks, lookups, changes and the
// platform's exception texts for misuse.
#include "nk/foundation/array.hpp"

#include <algorithm>
#include <string>

#include "nk/foundation/class.hpp"
#include "nk/foundation/description_internal.hpp"
#include "nk/foundation/exception.hpp"

namespace nk {

NK_DEFINE_CLASS(Array, "Array", Class::kCopyable);
NK_DEFINE_CLASS(MutableArray, "MutableArray");

namespace {

std::string methodPrefix(const Object* self, const char* method) {
  return "*** -[" + self->objectClass().name() + " " + method + "]: ";
}

// "index 3 beyond bounds [0 .. 1]", or "... for empty array".
std::string boundsText(size_t index, size_t count) {
  std::string text = "index " + std::to_string(index) + " beyond bounds ";
  if (count == 0) return text + "for empty array";
  return text + "[0 .. " + std::to_string(count - 1) + "]";
}

void checkNoNil(std::span<const Id> objects, const Object* self) {
  for (size_t i = 0; i < objects.size(); ++i) {
    if (!objects[i]) {
      Exception::raise(kInvalidArgumentException, methodPrefix(self, "initWithObjects:count:") +
                                                      "attempt to insert nil object from objects[" +
                                                      std::to_string(i) + "]");
    }
  }
}

// An element's part of its array's hash: an array inside adds only its count, so that
// hashing stays O(1) however deep arrays nest or share elements.
size_t elementHash(const Object* element) noexcept {
  const auto* array = cast<Array>(element);
  return array ? array->count() : element->hash();
}

}  // namespace

// ---- Array -------------------------------------------------------------------

Array::Array(std::vector<Id> objects)
    : items_(std::make_move_iterator(objects.begin()), std::make_move_iterator(objects.end())) {
  checkNoNil(items_, this);
}

Ref<Array> Array::make() { return Ref<Array>::adopt(new Array()); }
Ref<Array> Array::make(std::initializer_list<Id> objects) {
  return Ref<Array>::adopt(new Array(std::vector<Id>(objects)));
}
Ref<Array> Array::make(std::vector<Id> objects) {
  return Ref<Array>::adopt(new Array(std::move(objects)));
}
Ref<Array> Array::make(std::span<const Id> objects) {
  return Ref<Array>::adopt(new Array(std::vector<Id>(objects.begin(), objects.end())));
}

void Array::requireObject(const Object* object, const char* method, const Object* self) {
  if (!object) {
    Exception::raise(kInvalidArgumentException,
                     methodPrefix(self, method) + "object cannot be nil");
  }
}

const Id& Array::objectAtIndex(size_t index) const {
  if (index >= items_.size()) {
    Exception::raise(kRangeException,
                     methodPrefix(this, "objectAtIndex:") + boundsText(index, items_.size()));
  }
  return items_[index];
}

Id Array::firstObject() const noexcept { return items_.empty() ? Id() : items_.front(); }
Id Array::lastObject() const noexcept { return items_.empty() ? Id() : items_.back(); }

bool Array::containsObject(const Object* object) const noexcept {
  return indexOfObject(object) != kNotFound;
}

size_t Array::indexOfObject(const Object* object) const noexcept {
  if (!object) return kNotFound;
  for (size_t i = 0; i < items_.size(); ++i) {
    if (items_[i].get() == object || items_[i]->isEqual(object)) return i;
  }
  return kNotFound;
}

size_t Array::indexOfObjectIdenticalTo(const Object* object) const noexcept {
  for (size_t i = 0; i < items_.size(); ++i) {
    if (items_[i].get() == object) return i;
  }
  return kNotFound;
}

Ref<Array> Array::subarray(size_t start, size_t count) const {
  if (start > items_.size() || count > items_.size() - start) {
    std::string range = "range {" + std::to_string(start) + ", " + std::to_string(count) +
                        "} extends beyond bounds ";
    range += items_.empty() ? std::string("for empty array")
                            : "[0 .. " + std::to_string(items_.size() - 1) + "]";
    Exception::raise(kRangeException, methodPrefix(this, "subarrayWithRange:") + range);
  }
  const auto first = items_.begin() + static_cast<std::ptrdiff_t>(start);
  return make(std::vector<Id>(first, first + static_cast<std::ptrdiff_t>(count)));
}

Ref<Array> Array::arrayByAddingObject(Id object) const {
  requireObject(object.get(), "arrayByAddingObject:", this);
  std::vector<Id> items;
  items.reserve(items_.size() + 1);
  items.assign(items_.begin(), items_.end());
  items.push_back(std::move(object));
  return make(std::move(items));
}

Ref<Array> Array::arrayByAddingObjectsFromArray(const Array* other) const {
  std::vector<Id> items;
  items.reserve(items_.size() + (other ? other->items_.size() : 0));
  items.assign(items_.begin(), items_.end());
  if (other) items.insert(items.end(), other->items_.begin(), other->items_.end());
  return make(std::move(items));
}

bool Array::isEqualToArray(const Array* other) const noexcept {
  if (other == this) return true;
  if (!other || other->items_.size() != items_.size()) return false;
  for (size_t i = 0; i < items_.size(); ++i) {
    if (!nk::isEqual(items_[i], other->items_[i])) return false;
  }
  return true;
}

bool Array::isEqual(const Object* other) const noexcept {
  return isEqualToArray(cast<Array>(other));
}

// The count alone would make every set of same-length arrays (pairs read from a
// property list, say) compare its members pair by pair; the end elements spread them.
size_t Array::hash() const noexcept {
  size_t h = items_.size();
  if (!items_.empty()) {
    h = (h ^ elementHash(items_.front().get())) * 0x9e3779b97f4a7c15u;
    h = (h ^ elementHash(items_.back().get())) * 0x9e3779b97f4a7c15u;
  }
  return h;
}

Ref<String> Array::description() const { return description_internal::describeCollection(this); }

Id Array::copy() const { return Id(const_cast<Array*>(this)); }

Id Array::mutableCopy() const {
  return MutableArray::make(std::vector<Id>(items_.begin(), items_.end()));
}

// ---- MutableArray --------------------------------------------------------------

Ref<MutableArray> MutableArray::make() { return Ref<MutableArray>::adopt(new MutableArray()); }
Ref<MutableArray> MutableArray::make(std::initializer_list<Id> objects) {
  return Ref<MutableArray>::adopt(new MutableArray(std::vector<Id>(objects)));
}
Ref<MutableArray> MutableArray::make(std::vector<Id> objects) {
  return Ref<MutableArray>::adopt(new MutableArray(std::move(objects)));
}
Ref<MutableArray> MutableArray::withCapacity(size_t capacity) {
  auto array = make();
  array->items_.reserve(capacity);
  return array;
}

void MutableArray::raiseIndex(const char* method, size_t index) const {
  Exception::raise(kRangeException, methodPrefix(this, method) + boundsText(index, items_.size()));
}

void MutableArray::addObject(Id object) {
  // The platform reports additions through the insertion method.
  requireObject(object.get(), "insertObject:atIndex:", this);
  items_.push_back(std::move(object));
  noteMutation();
}

void MutableArray::addObjectsFromArray(const Array* other) {
  if (!other) return;
  if (other == this) {
    items_.reserve(items_.size() * 2);
    const size_t n = items_.size();
    for (size_t i = 0; i < n; ++i) items_.push_back(items_[i]);
  } else {
    items_.insert(items_.end(), other->objects().begin(), other->objects().end());
  }
  noteMutation();
}

void MutableArray::insertObjectAtIndex(Id object, size_t index) {
  requireObject(object.get(), "insertObject:atIndex:", this);
  if (index > items_.size()) raiseIndex("insertObject:atIndex:", index);
  items_.insert(items_.begin() + static_cast<std::ptrdiff_t>(index), std::move(object));
  noteMutation();
}

void MutableArray::replaceObjectAtIndexWithObject(size_t index, Id object) {
  requireObject(object.get(), "replaceObjectAtIndex:withObject:", this);
  if (index >= items_.size()) raiseIndex("replaceObjectAtIndex:withObject:", index);
  // Release the old element only after the array is consistent again.
  Id old = std::exchange(items_[index], std::move(object));
  noteMutation();
}

void MutableArray::exchangeObjectAtIndexWithObjectAtIndex(size_t a, size_t b) {
  if (a >= items_.size()) raiseIndex("exchangeObjectAtIndex:withObjectAtIndex:", a);
  if (b >= items_.size()) raiseIndex("exchangeObjectAtIndex:withObjectAtIndex:", b);
  items_[a].swap(items_[b]);
  noteMutation();
}

void MutableArray::removeObjectAtIndex(size_t index) {
  if (index >= items_.size()) raiseIndex("removeObjectAtIndex:", index);
  Id old = std::move(items_[index]);
  items_.erase(items_.begin() + static_cast<std::ptrdiff_t>(index));
  noteMutation();
}

void MutableArray::removeLastObject() {
  if (items_.empty()) {
    Exception::raise(kRangeException, methodPrefix(this, "removeLastObject") +
                                          "cannot remove an object from an empty array");
  }
  Id old = std::move(items_.back());
  items_.pop_back();
  noteMutation();
}

void MutableArray::removeObject(const Object* object) {
  if (!object) return;
  Id keep(const_cast<Object*>(object));  // it may be held only by this array
  // Removed elements die after the array is consistent again.
  std::vector<Id> removed;
  size_t kept = 0;
  for (size_t i = 0; i < items_.size(); ++i) {
    if (items_[i].get() == object || items_[i]->isEqual(object)) {
      removed.push_back(std::move(items_[i]));
    } else {
      if (kept != i) items_[kept] = std::move(items_[i]);
      ++kept;
    }
  }
  if (removed.empty()) return;
  items_.resize(kept);
  noteMutation();
}

void MutableArray::removeObjectIdenticalTo(const Object* object) {
  if (!object) return;
  Id keep(const_cast<Object*>(object));
  auto it =
      std::remove_if(items_.begin(), items_.end(), [&](const Id& x) { return x.get() == object; });
  if (it == items_.end()) return;
  items_.erase(it, items_.end());
  noteMutation();
}

void MutableArray::removeAllObjects() {
  Items old;
  old.swap(items_);
  noteMutation();
}

void MutableArray::setArray(const Array* other) {
  if (other == this) return;
  Items items = other ? Items(other->objects().begin(), other->objects().end()) : Items();
  items.swap(items_);
  noteMutation();
}

Id MutableArray::copy() const { return Array::make(objects()); }

}  // namespace nk
