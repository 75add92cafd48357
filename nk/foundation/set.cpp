// Set and MutableSet over the ordered table that dictionaries use, with members
// as keys and no values.
#include "nk/foundation/set.hpp"

#include <string>

#include "nk/foundation/class.hpp"
#include "nk/foundation/description_internal.hpp"
#include "nk/foundation/exception.hpp"

namespace nk {

NK_DEFINE_CLASS(Set, "Set", Class::kCopyable);
NK_DEFINE_CLASS(MutableSet, "MutableSet");

namespace {

using collection_internal::OrderedTable;
using collection_internal::TableEntry;

const Id kNil;

}  // namespace

// ---- Set --------------------------------------------------------------------------

Ref<Set> Set::make() { return Ref<Set>::adopt(new Set()); }

Ref<Set> Set::make(std::initializer_list<Id> objects) {
  auto set = Ref<Set>::adopt(new Set());
  set->table_.reserve(objects.size());
  for (const Id& object : objects) set->add(object, "initWithObjects:count:");
  return set;
}

Ref<Set> Set::make(const std::vector<Id>& objects) {
  auto set = Ref<Set>::adopt(new Set());
  set->table_.reserve(objects.size());
  for (const Id& object : objects) set->add(object, "initWithObjects:count:");
  return set;
}

Ref<Set> Set::withArray(const Array* array) {
  auto set = Ref<Set>::adopt(new Set());
  if (!array) return set;
  set->table_.reserve(array->count());
  for (const Id& object : array->objects()) set->add(object, "initWithArray:");
  return set;
}

bool Set::add(Id object, const char* method) {
  if (!object) {
    Exception::raise(kInvalidArgumentException,
                     "*** -[" + objectClass().name() + " " + method + "]: object cannot be nil");
  }
  const size_t hash = object->hash();
  if (table_.find(object.get(), hash) != OrderedTable::kNone) return false;
  table_.append(std::move(object), nullptr, hash);
  noteMutation();
  return true;
}

bool Set::containsObject(const Object* object) const noexcept {
  return object && table_.find(object, object->hash()) != OrderedTable::kNone;
}

const Id& Set::member(const Object* object) const noexcept {
  if (!object) return kNil;
  const size_t position = table_.find(object, object->hash());
  return position == OrderedTable::kNone ? kNil : table_.entries()[position].key;
}

Id Set::anyObject() const noexcept {
  const size_t position = table_.nextLive(0);
  return position < table_.entries().size() ? table_.entries()[position].key : Id();
}

Ref<Array> Set::allObjects() const {
  std::vector<Id> objects;
  objects.reserve(count());
  for (const TableEntry& e : table_.entries()) {
    if (e.key) objects.push_back(e.key);
  }
  return Array::make(std::move(objects));
}

bool Set::isSubsetOfSet(const Set* other) const noexcept {
  if (other == this) return true;
  if (!other || count() > other->count()) return false;
  for (const TableEntry& e : table_.entries()) {
    if (e.key && other->table_.find(e.key.get(), e.hash) == OrderedTable::kNone) return false;
  }
  return true;
}

bool Set::intersectsSet(const Set* other) const noexcept {
  if (!other) return false;
  for (const TableEntry& e : table_.entries()) {
    if (e.key && other->table_.find(e.key.get(), e.hash) != OrderedTable::kNone) return true;
  }
  return false;
}

bool Set::isEqualToSet(const Set* other) const noexcept {
  return other && other->count() == count() && isSubsetOfSet(other);
}

bool Set::isEqual(const Object* other) const noexcept { return isEqualToSet(cast<Set>(other)); }

size_t Set::hash() const noexcept { return count(); }

Ref<String> Set::description() const { return description_internal::describeCollection(this); }

Ref<Set> Set::snapshot(const Set& other) { return Ref<Set>::adopt(new Set(other)); }

Id Set::copy() const { return Id(const_cast<Set*>(this)); }

Id Set::mutableCopy() const { return MutableSet::withSet(this); }

// ---- MutableSet --------------------------------------------------------------------

Ref<MutableSet> MutableSet::make() { return Ref<MutableSet>::adopt(new MutableSet()); }

Ref<MutableSet> MutableSet::make(std::initializer_list<Id> objects) {
  auto set = make();
  set->table_.reserve(objects.size());
  for (const Id& object : objects) set->add(object, "initWithObjects:count:");
  return set;
}

Ref<MutableSet> MutableSet::withCapacity(size_t capacity) {
  auto set = make();
  set->table_.reserve(capacity);
  return set;
}

Ref<MutableSet> MutableSet::withSet(const Set* other) {
  if (!other) return make();
  return Ref<MutableSet>::adopt(new MutableSet(*other));
}

void MutableSet::addObject(Id object) { add(std::move(object), "addObject:"); }

void MutableSet::addObjectsFromArray(const Array* array) {
  if (!array) return;
  Id keep(const_cast<Array*>(array));
  table_.reserve(count() + array->count());
  for (const Id& object : array->objects()) add(object, "addObject:");
}

void MutableSet::removeObject(const Object* object) {
  if (!object) return;
  const size_t position = table_.find(object, object->hash());
  if (position == OrderedTable::kNone) return;
  // The member dies after the table is consistent again.
  TableEntry old = std::move(table_.entryAt(position));
  table_.removeAt(position);
  noteMutation();
}

void MutableSet::removeAllObjects() {
  OrderedTable old(std::move(table_));
  noteMutation();
}

void MutableSet::unionSet(const Set* other) {
  if (!other || other == this) return;
  Id keep(const_cast<Set*>(other));
  for (const TableEntry& e : tableOf(*other).entries()) {
    if (e.key && table_.find(e.key.get(), e.hash) == OrderedTable::kNone) {
      table_.append(e.key, nullptr, e.hash);
      noteMutation();
    }
  }
}

void MutableSet::minusSet(const Set* other) {
  if (!other) return;
  if (other == this) {
    removeAllObjects();
    return;
  }
  Id keep(const_cast<Set*>(other));
  for (const TableEntry& e : tableOf(*other).entries()) {
    if (!e.key) continue;
    const size_t position = table_.find(e.key.get(), e.hash);
    if (position == OrderedTable::kNone) continue;
    TableEntry old = std::move(table_.entryAt(position));
    table_.removeAt(position);
    noteMutation();
  }
}

void MutableSet::intersectSet(const Set* other) {
  if (other == this) return;
  Id keep(const_cast<Set*>(other));
  OrderedTable kept;
  for (const TableEntry& e : table_.entries()) {
    if (e.key && other && tableOf(*other).find(e.key.get(), e.hash) != OrderedTable::kNone) {
      kept.append(e.key, nullptr, e.hash);
    }
  }
  if (kept.count() == count()) return;
  OrderedTable old(std::move(table_));
  table_ = std::move(kept);
  noteMutation();
}

void MutableSet::setSet(const Set* other) {
  if (other == this) return;
  Id keep(const_cast<Set*>(other));
  removeAllObjects();
  unionSet(other);
}

Id MutableSet::copy() const { return snapshot(*this); }

}  // namespace nk
