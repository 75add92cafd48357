// Dictionary and MutableDictionary: key-value maps of the object model.
//
// Keys are compared with isEqual/hash (so @1 and @1.0 are one key), copied on
// insert, and enumerated in insertion order, which keeps every output built
// from a dictionary deterministic.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/block_pool.hpp"
#include "nk/foundation/enumeration.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

namespace collection_internal {

// One entry of an ordered table. A removed entry keeps its place with a nil key
// until the table is compacted.
struct TableEntry {
  Id key;
  Id value;  // nil in sets
  size_t hash;
};

// Entries in insertion order, found by a linear scan while there are few and
// through an open-addressing index once there are more. Shared by Dictionary
// and Set; not thread-safe.
//
// Removing never moves an entry (it leaves a hole), so a loop can tell exactly
// which entries follow its position after a removal. Holes are squeezed out by
// the next insertion that finds them to be half the table, or when the last
// entry goes; either bumps layoutEpoch().
class OrderedTable {
 public:
  static constexpr size_t kNone = static_cast<size_t>(-1);
  // Up to this many entries are found by a scan, without an index.
  static constexpr size_t kLinearLimit = 8;
  using Entries = std::vector<TableEntry, block_pool::Allocator<TableEntry>>;

  OrderedTable() noexcept = default;
  // Copies the live entries only.
  OrderedTable(const OrderedTable& other);
  // Leaves `other` empty, in a new layout.
  OrderedTable(OrderedTable&& other) noexcept
      : entries_(std::move(other.entries_)),
        slots_(std::move(other.slots_)),
        slotShift_(std::exchange(other.slotShift_, 64)),
        layout_(other.layout_),
        live_(std::exchange(other.live_, 0)) {
    other.entries_.clear();
    other.slots_.clear();
    ++other.layout_;
  }
  // Takes the entries of `other` in a new layout of this table; the previous
  // entries are released after the new ones are in place.
  OrderedTable& operator=(OrderedTable&& other) noexcept {
    OrderedTable old(std::move(*this));
    entries_ = std::move(other.entries_);
    other.entries_.clear();
    ++other.layout_;
    slots_ = std::move(other.slots_);
    other.slots_.clear();
    slotShift_ = std::exchange(other.slotShift_, 64);
    live_ = std::exchange(other.live_, 0);
    layout_ = old.layout_;
    return *this;
  }
  OrderedTable& operator=(const OrderedTable&) = delete;

  size_t count() const noexcept { return live_; }
  // Position of the entry whose key isEqual `key` (which has hash `hash`), or kNone.
  size_t find(const Object* key, size_t hash) const noexcept;
  // Appends an entry whose key is not present yet.
  void append(Id key, Id value, size_t hash);
  // Leaves a hole; the caller has moved the entry's key and value out first
  // when their release must wait.
  void removeAt(size_t position) noexcept;
  void clear() noexcept;
  void reserve(size_t count);

  // All positions, removed ones included (their key is nil).
  const Entries& entries() const noexcept { return entries_; }
  TableEntry& entryAt(size_t position) noexcept { return entries_[position]; }
  // The first live position at or after `position`, or entries().size().
  size_t nextLive(size_t position) const noexcept {
    while (position < entries_.size() && !entries_[position].key) ++position;
    return position;
  }
  // Changes whenever entries move to other positions.
  uint32_t layoutEpoch() const noexcept { return layout_; }

 private:
  struct Slot {
    uint32_t position1;  // entry position + 1; 0 = empty
    uint32_t tag;        // low bits of the entry's hash
  };
  void rebuild(size_t minimumEntries);
  void insertSlot(uint32_t position, size_t hash) noexcept;
  void compact();

  Entries entries_;
  std::vector<Slot, block_pool::Allocator<Slot>> slots_;  // empty while scanning suffices
  uint32_t slotShift_ = 64;                               // 64 - log2(slot count)
  uint32_t layout_ = 0;
  size_t live_ = 0;
};

// The position of a loop over an ordered table, with the mutation check: after
// its owner changed, stepping on raises when live entries follow the current
// one (any entry at all, if the table was laid out anew), else ends the loop.
class TableCursor {
 public:
  static constexpr size_t kEnd = static_cast<size_t>(-1);

  TableCursor() noexcept = default;
  TableCursor(const OrderedTable& table, uint32_t mutations, bool atEnd) noexcept
      : mutations_(mutations), layout_(table.layoutEpoch()) {
    if (!atEnd) settle(table, table.nextLive(0));
  }
  size_t position() const noexcept { return position_; }
  void advance(const OrderedTable& table, uint32_t mutations, const Object* owner) {
    if (mutations != mutations_) {
      const bool more = table.layoutEpoch() != layout_
                            ? table.count() > 0
                            : table.nextLive(position_ + 1) < table.entries().size();
      if (more) raiseMutatedWhileEnumerating(owner);
      position_ = kEnd;
      return;
    }
    settle(table, table.nextLive(position_ + 1));
  }
  friend bool operator==(const TableCursor& a, const TableCursor& b) noexcept {
    return a.position_ == b.position_;
  }

 private:
  void settle(const OrderedTable& table, size_t position) noexcept {
    position_ = position < table.entries().size() ? position : kEnd;
  }
  size_t position_ = kEnd;
  uint32_t mutations_ = 0;
  uint32_t layout_ = 0;
};

}  // namespace collection_internal

class Dictionary : public Object {
  NK_DECLARE_CLASS(Dictionary, Object)

 public:
  class KeyIterator;
  class EntryIterator;
  class EntryRange;

  // Makes a dictionary of {key, value} pairs, keys copied. A later pair with an
  // equal key replaces the value in the earlier pair's place. Raises
  // "NSInvalidArgumentException" for a nil key or value.
  //   auto d = Dictionary::make({{NK_STR("a"), one}, {NK_STR("b"), two}});
  static Ref<Dictionary> make();
  static Ref<Dictionary> make(std::initializer_list<std::pair<Id, Id>> entries);
  static Ref<Dictionary> make(const std::vector<std::pair<Id, Id>>& entries);
  // objects[i] under keys[i]; raises "NSInvalidArgumentException" when the
  // counts differ or an element is nil.
  static Ref<Dictionary> withObjectsForKeys(const Array* objects, const Array* keys);

  size_t count() const noexcept { return table_.count(); }
  size_t size() const noexcept { return table_.count(); }
  bool isEmpty() const noexcept { return table_.count() == 0; }

  // The value under `key`, or nil when absent (or when `key` is nil). The
  // reference lives until the dictionary changes or dies.
  const Id& objectForKey(const Object* key) const noexcept;
  template <class T>
  const Id& objectForKey(const Ref<T>& key) const noexcept {
    return objectForKey(static_cast<const Object*>(key.get()));
  }
  // The value under `key` when it is of kind T, else nil.
  template <class T, class K>
  Ref<T> objectForKeyOfClass(const K& key) const noexcept {
    return cast<T>(objectForKey(key));
  }

  // Keys and values in insertion order.
  Ref<Array> allKeys() const;
  Ref<Array> allValues() const;
  // Keys whose value isEqual `object`, in insertion order.
  Ref<Array> allKeysForObject(const Object* object) const;

  // Same count, and every key maps to an isEqual value in both.
  bool isEqualToDictionary(const Dictionary* other) const noexcept;

  bool isEqual(const Object* other) const noexcept override;
  // The count, as the platform hashes dictionaries.
  size_t hash() const noexcept override;
  // Old-style property-list text: "{\n    a = 1;\n    b = 2;\n}", "{\n}" when
  // empty. When every key is a string the lines are sorted by key, as the
  // platform prints them; otherwise they follow insertion order.
  Ref<String> description() const override;
  // An immutable dictionary returns itself; a mutable one an immutable
  // snapshot holding the same key and value objects.
  Id copy() const override;
  Id mutableCopy() const override;

  // Range-for over the keys: `for (const Id& key : *dict)`. Changing a mutable
  // dictionary inside the loop raises "NSGenericException" when the loop steps
  // on while keys follow the current one (a removal leaves later keys where they
  // were; an insertion adds one at the end); otherwise the loop just ends.
  KeyIterator begin() const noexcept;
  KeyIterator end() const noexcept;
  // Range-for over (key, value) pairs, with the same check:
  //   for (const auto& [key, value] : dict->entries()) ...
  EntryRange entries() const noexcept;

  // Bumped by every change of a mutable dictionary.
  uint32_t mutationCount() const noexcept { return spare_; }

  // Dictionaries and their entries come from the per-thread block pool.
  static void* operator new(size_t size) { return block_pool::allocate(size); }
  static void operator delete(void* p, size_t size) noexcept { block_pool::deallocate(p, size); }

 protected:
  Dictionary() noexcept = default;
  Dictionary(const Dictionary& other) : Object(), table_(other.table_) {}
  // A new immutable dictionary with the entries of `other`.
  static Ref<Dictionary> snapshot(const Dictionary& other);
  void noteMutation() noexcept { ++spare_; }
  // Inserts or replaces; the key is copied only when it is new.
  void set(Id object, const Object* key, const char* method);

  collection_internal::OrderedTable table_;

 private:
  template <class Derived, class Value>
  friend class DictionaryIteratorBase;
  friend struct collection_internal::StorageAccess;
};

// Shared stepping of the key and entry iterators.
template <class Derived, class Value>
class DictionaryIteratorBase {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = Value;
  using difference_type = std::ptrdiff_t;

  DictionaryIteratorBase() noexcept = default;
  Derived& operator++() {
    cursor_.advance(dict_->table_, dict_->mutationCount(), dict_);
    return static_cast<Derived&>(*this);
  }
  Derived operator++(int) {
    Derived old = static_cast<Derived&>(*this);
    ++*this;
    return old;
  }
  friend bool operator==(const Derived& a, const Derived& b) noexcept {
    return a.cursor_ == b.cursor_;
  }

 protected:
  DictionaryIteratorBase(const Dictionary* dict, bool atEnd) noexcept
      : dict_(dict), cursor_(dict->table_, dict->mutationCount(), atEnd) {}
  const collection_internal::TableEntry& entry() const noexcept {
    return dict_->table_.entries()[cursor_.position()];
  }

  const Dictionary* dict_ = nullptr;
  collection_internal::TableCursor cursor_;
};

class Dictionary::KeyIterator : public DictionaryIteratorBase<KeyIterator, Id> {
 public:
  using pointer = const Id*;
  using reference = const Id&;
  KeyIterator() noexcept = default;
  const Id& operator*() const noexcept { return entry().key; }
  const Id* operator->() const noexcept { return &entry().key; }

 private:
  friend class Dictionary;
  KeyIterator(const Dictionary* dict, bool atEnd) noexcept : DictionaryIteratorBase(dict, atEnd) {}
};

class Dictionary::EntryIterator
    : public DictionaryIteratorBase<EntryIterator, std::pair<const Id&, const Id&>> {
 public:
  // Yields pairs by value, so it is an input iterator only.
  using iterator_category = std::input_iterator_tag;
  using pointer = void;
  using reference = std::pair<const Id&, const Id&>;
  EntryIterator() noexcept = default;
  std::pair<const Id&, const Id&> operator*() const noexcept {
    const auto& e = entry();
    return {e.key, e.value};
  }

 private:
  friend class Dictionary;
  EntryIterator(const Dictionary* dict, bool atEnd) noexcept
      : DictionaryIteratorBase(dict, atEnd) {}
};

class Dictionary::EntryRange {
 public:
  EntryIterator begin() const noexcept { return EntryIterator(dict_, false); }
  EntryIterator end() const noexcept { return EntryIterator(dict_, true); }

 private:
  friend class Dictionary;
  explicit EntryRange(const Dictionary* dict) noexcept : dict_(dict) {}
  const Dictionary* dict_;
};

inline Dictionary::KeyIterator Dictionary::begin() const noexcept {
  return KeyIterator(this, false);
}
inline Dictionary::KeyIterator Dictionary::end() const noexcept { return KeyIterator(this, true); }
inline Dictionary::EntryRange Dictionary::entries() const noexcept { return EntryRange(this); }

// A mutable dictionary. Not safe to change from two threads at once, nor to
// read while another thread changes it.
class MutableDictionary final : public Dictionary {
  NK_DECLARE_CLASS(MutableDictionary, Dictionary)

 public:
  static Ref<MutableDictionary> make();
  static Ref<MutableDictionary> make(std::initializer_list<std::pair<Id, Id>> entries);
  // An empty dictionary with room for `capacity` entries.
  static Ref<MutableDictionary> withCapacity(size_t capacity);
  // A new mutable dictionary with the entries of `other` (nil gives an empty one).
  static Ref<MutableDictionary> withDictionary(const Dictionary* other);

  MutableDictionary() noexcept = default;

  // Stores `object` under a copy of `key` (`key->copy()`); an existing equal key
  // keeps its place and its key object, and only the value changes. Raises
  // "NSInvalidArgumentException" for a nil object or key, and when the key's
  // class is not copyable.
  void setObjectForKey(Id object, const Object* key);
  template <class T>
  void setObjectForKey(Id object, const Ref<T>& key) {
    setObjectForKey(std::move(object), static_cast<const Object*>(key.get()));
  }
  // Removes the entry for `key`; nothing happens when absent. A key inserted
  // again later goes to the end of the order.
  void removeObjectForKey(const Object* key);
  template <class T>
  void removeObjectForKey(const Ref<T>& key) {
    removeObjectForKey(static_cast<const Object*>(key.get()));
  }
  void removeObjectsForKeys(const Array* keys);
  void removeAllObjects();
  // Sets every entry of `other` in its order (nil adds nothing).
  void addEntriesFromDictionary(const Dictionary* other);
  // Replaces the content with the entries of `other` (nil empties).
  void setDictionary(const Dictionary* other);

  Id copy() const override;

 private:
  explicit MutableDictionary(const Dictionary& other) : Dictionary(other) {}
};

}  // namespace nk
