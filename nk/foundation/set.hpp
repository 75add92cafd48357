// Set and MutableSet: unordered collections of distinct objects.
//
// Membership is by isEqual/hash. Members are kept (not copied) and enumerated in
// the order they were first added, so output built from a set is deterministic.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/enumeration.hpp"
#include "nk/foundation/object.hpp"

namespace nk {

class Set : public Object {
  NK_DECLARE_CLASS(Set, Object)

 public:
  class Iterator;

  // Makes a set of the given objects; duplicates collapse into the first.
  // Raises "NSInvalidArgumentException" for a nil object.
  static Ref<Set> make();
  static Ref<Set> make(std::initializer_list<Id> objects);
  static Ref<Set> make(const std::vector<Id>& objects);
  // The distinct elements of `array` (nil gives an empty set).
  static Ref<Set> withArray(const Array* array);

  size_t count() const noexcept { return table_.count(); }
  size_t size() const noexcept { return table_.count(); }
  bool isEmpty() const noexcept { return table_.count() == 0; }

  // False for nil.
  bool containsObject(const Object* object) const noexcept;
  template <class T>
  bool containsObject(const Ref<T>& object) const noexcept {
    return containsObject(static_cast<const Object*>(object.get()));
  }
  // The member isEqual to `object`, or nil. The reference lives until the set
  // changes or dies.
  const Id& member(const Object* object) const noexcept;
  template <class T>
  const Id& member(const Ref<T>& object) const noexcept {
    return member(static_cast<const Object*>(object.get()));
  }
  // Some member (the earliest added), or nil when empty.
  Id anyObject() const noexcept;
  // The members in enumeration order.
  Ref<Array> allObjects() const;

  bool isSubsetOfSet(const Set* other) const noexcept;
  bool intersectsSet(const Set* other) const noexcept;
  // Same count and every member of one is a member of the other.
  bool isEqualToSet(const Set* other) const noexcept;

  bool isEqual(const Object* other) const noexcept override;
  // The count, as the platform hashes sets.
  size_t hash() const noexcept override;
  // Old-style property-list text: "{(\n    a,\n    b\n)}", "{(\n)}" when empty.
  Ref<String> description() const override;
  // An immutable set returns itself; a mutable one an immutable snapshot.
  Id copy() const override;
  Id mutableCopy() const override;

  // Range-for over the members: `for (const Id& x : *set)`, with the mutation
  // check of the other collections.
  Iterator begin() const noexcept;
  Iterator end() const noexcept;

  // Bumped by every change of a mutable set.
  uint32_t mutationCount() const noexcept { return spare_; }

 protected:
  Set() noexcept = default;
  Set(const Set& other) : Object(), table_(other.table_) {}
  // A new immutable set with the members of `other`.
  static Ref<Set> snapshot(const Set& other);
  static const collection_internal::OrderedTable& tableOf(const Set& set) noexcept {
    return set.table_;
  }
  void noteMutation() noexcept { ++spare_; }
  // Adds `object` unless an equal member exists; true when added.
  bool add(Id object, const char* method);

  collection_internal::OrderedTable table_;
};

class Set::Iterator {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = Id;
  using difference_type = std::ptrdiff_t;
  using pointer = const Id*;
  using reference = const Id&;

  Iterator() noexcept = default;
  const Id& operator*() const noexcept { return set_->table_.entries()[cursor_.position()].key; }
  const Id* operator->() const noexcept { return &**this; }
  Iterator& operator++() {
    cursor_.advance(set_->table_, set_->mutationCount(), set_);
    return *this;
  }
  Iterator operator++(int) {
    Iterator old = *this;
    ++*this;
    return old;
  }
  friend bool operator==(const Iterator& a, const Iterator& b) noexcept {
    return a.cursor_ == b.cursor_;
  }

 private:
  friend class Set;
  Iterator(const Set* set, bool atEnd) noexcept
      : set_(set), cursor_(set->table_, set->mutationCount(), atEnd) {}

  const Set* set_ = nullptr;
  collection_internal::TableCursor cursor_;
};

inline Set::Iterator Set::begin() const noexcept { return Iterator(this, false); }
inline Set::Iterator Set::end() const noexcept { return Iterator(this, true); }

// A mutable set. Not safe to change from two threads at once, nor to read while
// another thread changes it.
class MutableSet final : public Set {
  NK_DECLARE_CLASS(MutableSet, Set)

 public:
  static Ref<MutableSet> make();
  static Ref<MutableSet> make(std::initializer_list<Id> objects);
  static Ref<MutableSet> withCapacity(size_t capacity);
  // A new mutable set with the members of `other` (nil gives an empty one).
  static Ref<MutableSet> withSet(const Set* other);

  MutableSet() noexcept = default;

  // Adds unless an equal member exists (the existing member stays). Raises
  // "NSInvalidArgumentException" for nil.
  void addObject(Id object);
  void addObjectsFromArray(const Array* array);  // nil adds nothing
  // Removes the member isEqual to `object`; nothing happens when absent.
  void removeObject(const Object* object);
  template <class T>
  void removeObject(const Ref<T>& object) {
    removeObject(static_cast<const Object*>(object.get()));
  }
  void removeAllObjects();
  void unionSet(const Set* other);      // adds every member of `other`
  void minusSet(const Set* other);      // removes every member of `other`
  void intersectSet(const Set* other);  // keeps only members of `other` (nil empties)
  void setSet(const Set* other);        // replaces the content (nil empties)

  Id copy() const override;

 private:
  explicit MutableSet(const Set& other) : Set(other) {}
};

}  // namespace nk
