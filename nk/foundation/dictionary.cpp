// Dictionary and MutableDictionary, and the ordered table behind them and Set:
// entries in insertion order plus an open-addressing index of (position, hash
// tag) slots, so a probe rarely touches an entry that does not match.
#include "nk/foundation/dictionary.hpp"

#include <stdexcept>
#include <string>

#include "nk/foundation/class.hpp"
#include "nk/foundation/description_internal.hpp"
#include "nk/foundation/exception.hpp"

namespace nk {

NK_DEFINE_CLASS(Dictionary, "Dictionary", Class::kCopyable);
NK_DEFINE_CLASS(MutableDictionary, "MutableDictionary");

namespace collection_internal {
namespace {

// A value that differs between processes: the address of this object, which the
// loader places at random. Known from the start, so every index ever built uses it.
const char kIndexSeed = 0;

// Fibonacci hashing spreads weak hashes (numbers hash to their value, arrays to
// their count) over the whole index. The seed keeps the slots out of reach of
// input crafted to pile its keys into one run of the index, which would make
// reading it quadratic: hashes themselves are fixed and easy to invert.
inline size_t slotFor(size_t hash, uint32_t shift) noexcept {
  static_assert(sizeof(uintptr_t) == sizeof(uint64_t));
  const uint64_t seed = reinterpret_cast<uintptr_t>(&kIndexSeed) * 0xD6E8FEB86659FD93ull;
  return static_cast<size_t>(((static_cast<uint64_t>(hash) ^ seed) * 0x9E3779B97F4A7C15ull) >>
                             shift);
}
inline uint32_t tagFor(size_t hash) noexcept {
  const uint64_t h = hash;
  return static_cast<uint32_t>(h ^ (h >> 32));
}
inline bool matches(const TableEntry& e, const Object* key, size_t hash) noexcept {
  return e.hash == hash && e.key && (e.key.get() == key || e.key->isEqual(key));
}

}  // namespace

OrderedTable::OrderedTable(const OrderedTable& other) {
  entries_.reserve(other.live_);
  for (const TableEntry& e : other.entries_) {
    if (e.key) entries_.push_back(e);
  }
  live_ = other.live_;
  if (live_ > kLinearLimit) rebuild(live_);
}

size_t OrderedTable::find(const Object* key, size_t hash) const noexcept {
  if (slots_.empty()) {
    for (size_t i = 0; i < entries_.size(); ++i) {
      if (matches(entries_[i], key, hash)) return i;
    }
    return kNone;
  }
  const size_t mask = (size_t{1} << (64 - slotShift_)) - 1;
  const uint32_t tag = tagFor(hash);
  for (size_t i = slotFor(hash, slotShift_);; i = (i + 1) & mask) {
    const Slot& s = slots_[i];
    if (s.position1 == 0) return kNone;
    if (s.tag == tag) {
      const size_t position = s.position1 - 1;
      if (matches(entries_[position], key, hash)) return position;
    }
  }
}

void OrderedTable::insertSlot(uint32_t position, size_t hash) noexcept {
  const size_t mask = (size_t{1} << (64 - slotShift_)) - 1;
  size_t i = slotFor(hash, slotShift_);
  while (slots_[i].position1 != 0) i = (i + 1) & mask;
  slots_[i] = Slot{position + 1, tagFor(hash)};
}

void OrderedTable::rebuild(size_t minimumEntries) {
  if (minimumEntries <= kLinearLimit) {
    decltype(slots_)().swap(slots_);
    slotShift_ = 64;
    return;
  }
  // At most half full after a rebuild; append() rebuilds past three quarters.
  uint32_t bits = 4;
  while ((size_t{1} << bits) < minimumEntries * 2) ++bits;
  slots_.assign(size_t{1} << bits, Slot{0, 0});
  slotShift_ = 64 - bits;
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].key) insertSlot(static_cast<uint32_t>(i), entries_[i].hash);
  }
}

void OrderedTable::append(Id key, Id value, size_t hash) {
  if (live_ != entries_.size() && (entries_.size() - live_) * 2 >= entries_.size()) compact();
  if (entries_.size() >= UINT32_MAX - 1) throw std::length_error("collection too large");
  entries_.push_back(TableEntry{std::move(key), std::move(value), hash});
  ++live_;
  const size_t n = entries_.size();
  if (!slots_.empty()) {
    const size_t capacity = size_t{1} << (64 - slotShift_);
    if (n * 4 > capacity * 3)
      rebuild(n);
    else
      insertSlot(static_cast<uint32_t>(n - 1), hash);
  } else if (n > kLinearLimit) {
    rebuild(n);
  }
}

void OrderedTable::removeAt(size_t position) noexcept {
  entries_[position].key = nullptr;
  entries_[position].value = nullptr;
  if (--live_ == 0) clear();
}

void OrderedTable::compact() {
  size_t kept = 0;
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (!entries_[i].key) continue;
    if (kept != i) entries_[kept] = std::move(entries_[i]);
    ++kept;
  }
  entries_.resize(kept);
  ++layout_;
  rebuild(kept);
}

void OrderedTable::clear() noexcept {
  entries_.clear();
  decltype(slots_)().swap(slots_);
  slotShift_ = 64;
  live_ = 0;
  ++layout_;
}

void OrderedTable::reserve(size_t count) {
  entries_.reserve(count);
  if (count > kLinearLimit) {
    const size_t capacity = slots_.empty() ? 0 : size_t{1} << (64 - slotShift_);
    if (count * 4 > capacity * 3) rebuild(count);
  }
}

}  // namespace collection_internal

namespace {

using collection_internal::OrderedTable;
using collection_internal::TableEntry;

const Id kNil;

std::string methodPrefix(const Object* self, const char* method) {
  return "*** -[" + self->objectClass().name() + " " + method + "]: ";
}

}  // namespace

// ---- Dictionary -----------------------------------------------------------------

Ref<Dictionary> Dictionary::make() { return Ref<Dictionary>::adopt(new Dictionary()); }

Ref<Dictionary> Dictionary::make(std::initializer_list<std::pair<Id, Id>> entries) {
  return make(std::vector<std::pair<Id, Id>>(entries));
}

Ref<Dictionary> Dictionary::make(const std::vector<std::pair<Id, Id>>& entries) {
  auto dict = Ref<Dictionary>::adopt(new Dictionary());
  dict->table_.reserve(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) {
    const auto& [key, value] = entries[i];
    if (!key || !value) {
      Exception::raise(kInvalidArgumentException,
                       methodPrefix(dict.get(), "initWithObjects:forKeys:count:") +
                           "attempt to insert nil " + (value ? "key" : "object") + " from " +
                           (value ? "keys[" : "objects[") + std::to_string(i) + "]");
    }
    dict->set(value, key.get(), "initWithObjects:forKeys:count:");
  }
  return dict;
}

Ref<Dictionary> Dictionary::withObjectsForKeys(const Array* objects, const Array* keys) {
  const size_t nObjects = objects ? objects->count() : 0;
  const size_t nKeys = keys ? keys->count() : 0;
  auto dict = Ref<Dictionary>::adopt(new Dictionary());
  if (nObjects != nKeys) {
    Exception::raise(kInvalidArgumentException,
                     methodPrefix(dict.get(), "initWithObjects:forKeys:") + "count of objects (" +
                         std::to_string(nObjects) + ") differs from count of keys (" +
                         std::to_string(nKeys) + ")");
  }
  dict->table_.reserve(nKeys);
  for (size_t i = 0; i < nKeys; ++i) {
    dict->set((*objects)[i], (*keys)[i].get(), "initWithObjects:forKeys:");
  }
  return dict;
}

void Dictionary::set(Id object, const Object* key, const char* method) {
  if (!object) {
    std::string keyText = key ? key->description()->utf8() : "(null)";
    Exception::raise(kInvalidArgumentException,
                     methodPrefix(this, method) + "object cannot be nil (key: " + keyText + ")");
  }
  if (!key) {
    Exception::raise(kInvalidArgumentException, methodPrefix(this, method) + "key cannot be nil");
  }
  const size_t hash = key->hash();
  const size_t position = table_.find(key, hash);
  if (position != OrderedTable::kNone) {
    // The old value dies after the table is consistent again.
    Id old = std::exchange(table_.entryAt(position).value, std::move(object));
    noteMutation();
    return;
  }
  // A copy isEqual its original, so it has the hash computed above. copy()
  // raises for classes that cannot be copied, before anything changed.
  Id copied = key->copy();
  table_.append(std::move(copied), std::move(object), hash);
  noteMutation();
}

const Id& Dictionary::objectForKey(const Object* key) const noexcept {
  if (!key) return kNil;
  const size_t position = table_.find(key, key->hash());
  return position == OrderedTable::kNone ? kNil : table_.entries()[position].value;
}

Ref<Array> Dictionary::allKeys() const {
  std::vector<Id> keys;
  keys.reserve(table_.count());
  for (const TableEntry& e : table_.entries()) {
    if (e.key) keys.push_back(e.key);
  }
  return Array::make(std::move(keys));
}

Ref<Array> Dictionary::allValues() const {
  std::vector<Id> values;
  values.reserve(table_.count());
  for (const TableEntry& e : table_.entries()) {
    if (e.key) values.push_back(e.value);
  }
  return Array::make(std::move(values));
}

Ref<Array> Dictionary::allKeysForObject(const Object* object) const {
  std::vector<Id> keys;
  for (const TableEntry& e : table_.entries()) {
    if (e.key && nk::isEqual(e.value.get(), object)) keys.push_back(e.key);
  }
  return Array::make(std::move(keys));
}

bool Dictionary::isEqualToDictionary(const Dictionary* other) const noexcept {
  if (other == this) return true;
  if (!other || other->count() != count()) return false;
  for (const TableEntry& e : table_.entries()) {
    if (!e.key) continue;
    const size_t position = other->table_.find(e.key.get(), e.hash);
    if (position == OrderedTable::kNone) return false;
    if (!nk::isEqual(e.value, other->table_.entries()[position].value)) return false;
  }
  return true;
}

bool Dictionary::isEqual(const Object* other) const noexcept {
  return isEqualToDictionary(cast<Dictionary>(other));
}

size_t Dictionary::hash() const noexcept { return count(); }

Ref<String> Dictionary::description() const {
  return description_internal::describeCollection(this);
}

Ref<Dictionary> Dictionary::snapshot(const Dictionary& other) {
  return Ref<Dictionary>::adopt(new Dictionary(other));
}

Id Dictionary::copy() const { return Id(const_cast<Dictionary*>(this)); }

Id Dictionary::mutableCopy() const { return MutableDictionary::withDictionary(this); }

// ---- MutableDictionary ----------------------------------------------------------

Ref<MutableDictionary> MutableDictionary::make() {
  return Ref<MutableDictionary>::adopt(new MutableDictionary());
}

Ref<MutableDictionary> MutableDictionary::make(std::initializer_list<std::pair<Id, Id>> entries) {
  return withDictionary(Dictionary::make(entries).get());
}

Ref<MutableDictionary> MutableDictionary::withCapacity(size_t capacity) {
  auto dict = make();
  dict->table_.reserve(capacity);
  return dict;
}

Ref<MutableDictionary> MutableDictionary::withDictionary(const Dictionary* other) {
  if (!other) return make();
  return Ref<MutableDictionary>::adopt(new MutableDictionary(*other));
}

void MutableDictionary::setObjectForKey(Id object, const Object* key) {
  set(std::move(object), key, "setObject:forKey:");
}

void MutableDictionary::removeObjectForKey(const Object* key) {
  if (!key) {
    Exception::raise(kInvalidArgumentException,
                     methodPrefix(this, "removeObjectForKey:") + "key cannot be nil");
  }
  const size_t position = table_.find(key, key->hash());
  if (position == OrderedTable::kNone) return;
  // Key and value die after the table is consistent again.
  TableEntry old = std::move(table_.entryAt(position));
  table_.removeAt(position);
  noteMutation();
}

void MutableDictionary::removeObjectsForKeys(const Array* keys) {
  if (!keys) return;
  for (const Id& key : keys->objects()) removeObjectForKey(key.get());
}

void MutableDictionary::removeAllObjects() {
  OrderedTable old(std::move(table_));
  noteMutation();
}

void MutableDictionary::addEntriesFromDictionary(const Dictionary* other) {
  if (!other || other == this) return;
  Id keep(const_cast<Dictionary*>(other));
  table_.reserve(table_.count() + other->count());
  for (const auto& [key, value] : other->entries()) set(value, key.get(), "setObject:forKey:");
}

void MutableDictionary::setDictionary(const Dictionary* other) {
  if (other == this) return;
  Id keep(const_cast<Dictionary*>(other));  // it may be a value of this dictionary
  removeAllObjects();
  addEntriesFromDictionary(other);
}

Id MutableDictionary::copy() const { return snapshot(*this); }

}  // namespace nk
