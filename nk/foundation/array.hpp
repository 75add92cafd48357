// Array and MutableArray: ordered lists of objects.
//
// Elements are never nil (Null stands for "no value"); equality is elementwise
// isEqual. A loop over a mutable array raises when the array changes under it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <span>
#include <vector>

#include "nk/foundation/block_pool.hpp"
#include "nk/foundation/enumeration.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

namespace collection_internal {
struct StorageAccess;
}  // namespace collection_internal

class Array : public Object {
  NK_DECLARE_CLASS(Array, Object)

 public:
  class Iterator;

  // Makes an array of the given objects. Raises "NSInvalidArgumentException"
  // when one of them is nil.
  //   auto a = Array::make({NK_STR("a"), NK_STR("b")});   // ( a, b )
  static Ref<Array> make();
  static Ref<Array> make(std::initializer_list<Id> objects);
  static Ref<Array> make(std::vector<Id> objects);
  static Ref<Array> make(std::span<const Id> objects);

  // Raises "NSInvalidArgumentException" when an object is nil.
  explicit Array(std::vector<Id> objects);

  size_t count() const noexcept { return items_.size(); }
  size_t size() const noexcept { return items_.size(); }
  bool isEmpty() const noexcept { return items_.empty(); }

  // The element at `index`; raises "NSRangeException" past the end:
  //   "*** -[Array objectAtIndex:]: index 3 beyond bounds [0 .. 1]".
  // The reference lives until the array changes or dies.
  const Id& objectAtIndex(size_t index) const;
  const Id& operator[](size_t index) const { return objectAtIndex(index); }
  // Nil when the array is empty.
  Id firstObject() const noexcept;
  Id lastObject() const noexcept;

  // Membership and position by isEqual; nil is never found.
  bool containsObject(const Object* object) const noexcept;
  template <class T>
  bool containsObject(const Ref<T>& object) const noexcept {
    return containsObject(static_cast<const Object*>(object.get()));
  }
  // Index of the first element isEqual to `object`, or kNotFound.
  size_t indexOfObject(const Object* object) const noexcept;
  template <class T>
  size_t indexOfObject(const Ref<T>& object) const noexcept {
    return indexOfObject(static_cast<const Object*>(object.get()));
  }
  // Index of the first element that is `object` itself, or kNotFound.
  size_t indexOfObjectIdenticalTo(const Object* object) const noexcept;

  // The elements [start, start + count) as a new immutable array; raises
  // "NSRangeException" when the range goes past the end.
  Ref<Array> subarray(size_t start, size_t count) const;
  // A new immutable array with `object` appended (raises on nil).
  Ref<Array> arrayByAddingObject(Id object) const;
  Ref<Array> arrayByAddingObjectsFromArray(const Array* other) const;

  // The elements as a contiguous view; valid until the array changes or dies.
  std::span<const Id> objects() const noexcept { return items_; }

  // Same count and pairwise isEqual elements; nil is unequal.
  bool isEqualToArray(const Array* other) const noexcept;

  bool isEqual(const Object* other) const noexcept override;
  // The count mixed with the hashes of the first and last elements (of an array
  // element, its count), so that hashing is O(1).
  size_t hash() const noexcept override;
  // Old-style property-list text: "(\n    1,\n    2\n)", "(\n)" when empty.
  Ref<String> description() const override;
  // An immutable array returns itself; a mutable one an immutable snapshot
  // holding the same element objects.
  Id copy() const override;
  // A new MutableArray holding the same element objects.
  Id mutableCopy() const override;

  // Range-for over the elements: `for (const Id& x : *array)`. When the array
  // is changed inside the loop, stepping on raises "NSGenericException"
  // ("*** Collection <MutableArray: 0x…> was mutated while being enumerated.")
  // if the array still has an element at the next index; otherwise the loop
  // ends. Leaving the loop right after the change never raises.
  Iterator begin() const noexcept;
  Iterator end() const noexcept;

  // Bumped by every change of a mutable array; constant for immutable ones.
  uint32_t mutationCount() const noexcept { return spare_; }

  // Arrays and their elements come from the per-thread block pool.
  static void* operator new(size_t size) { return block_pool::allocate(size); }
  static void operator delete(void* p, size_t size) noexcept { block_pool::deallocate(p, size); }

 protected:
  friend struct collection_internal::StorageAccess;
  using Items = std::vector<Id, block_pool::Allocator<Id>>;

  Array() noexcept = default;
  void noteMutation() noexcept { ++spare_; }
  // Raises "NSInvalidArgumentException" naming `method` when `object` is nil.
  static void requireObject(const Object* object, const char* method, const Object* self);

  Items items_;
};

class Array::Iterator {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = Id;
  using difference_type = std::ptrdiff_t;
  using pointer = const Id*;
  using reference = const Id&;

  Iterator() noexcept = default;
  const Id& operator*() const noexcept { return array_->items_[index_]; }
  const Id* operator->() const noexcept { return &array_->items_[index_]; }
  Iterator& operator++() {
    ++index_;
    if (array_->mutationCount() != mutations_) {
      if (index_ < array_->items_.size()) raiseMutatedWhileEnumerating(array_);
      index_ = kEnd;
    } else if (index_ >= array_->items_.size()) {
      index_ = kEnd;
    }
    return *this;
  }
  Iterator operator++(int) {
    Iterator old = *this;
    ++*this;
    return old;
  }
  friend bool operator==(const Iterator& a, const Iterator& b) noexcept {
    return a.index_ == b.index_;
  }

 private:
  friend class Array;
  static constexpr size_t kEnd = static_cast<size_t>(-1);
  Iterator(const Array* array, size_t index) noexcept
      : array_(array), index_(index), mutations_(array->mutationCount()) {}

  const Array* array_ = nullptr;
  size_t index_ = kEnd;
  uint32_t mutations_ = 0;
};

inline Array::Iterator Array::begin() const noexcept {
  return Iterator(this, items_.empty() ? Iterator::kEnd : 0);
}
inline Array::Iterator Array::end() const noexcept { return Iterator(this, Iterator::kEnd); }

// A mutable array. Not safe to change from two threads at once, nor to read
// while another thread changes it.
class MutableArray final : public Array {
  NK_DECLARE_CLASS(MutableArray, Array)

 public:
  static Ref<MutableArray> make();
  static Ref<MutableArray> make(std::initializer_list<Id> objects);
  static Ref<MutableArray> make(std::vector<Id> objects);
  // An empty array with room for `capacity` elements.
  static Ref<MutableArray> withCapacity(size_t capacity);

  MutableArray() noexcept = default;
  explicit MutableArray(std::vector<Id> objects) : Array(std::move(objects)) {}

  // Each raises "NSInvalidArgumentException" for a nil object and
  // "NSRangeException" for an index past the end (insertion allows count()).
  void addObject(Id object);
  void addObjectsFromArray(const Array* other);  // nil adds nothing
  void insertObjectAtIndex(Id object, size_t index);
  void replaceObjectAtIndexWithObject(size_t index, Id object);
  void exchangeObjectAtIndexWithObjectAtIndex(size_t a, size_t b);
  void removeObjectAtIndex(size_t index);
  // Raises "NSRangeException" when empty.
  void removeLastObject();
  // Removes every element isEqual to `object`.
  void removeObject(const Object* object);
  template <class T>
  void removeObject(const Ref<T>& object) {
    removeObject(static_cast<const Object*>(object.get()));
  }
  // Removes every element that is `object` itself.
  void removeObjectIdenticalTo(const Object* object);
  void removeAllObjects();
  // Replaces the content with the elements of `other` (nil empties).
  void setArray(const Array* other);

  Id copy() const override;

 private:
  [[noreturn]] void raiseIndex(const char* method, size_t index) const;
};

}  // namespace nk
