// PRMAll and PRMWhen: one record per aggregate holds the members' values by position
// and an array of waiting entries, one per pending member, allocated once. Members are
// counted out on the threads that settle them; the main queue hears of the last
// fulfilment or of each rejection, marks the errors handled and settles the aggregate
// there.

#include "nk/promise/promise_when.hpp"

#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "nk/dispatch/queue.hpp"
#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/collection_storage_internal.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/enumeration.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

using promise_internal::Access;
using promise_internal::Settlement;
using promise_internal::Waiter;

class Aggregate;

// The operations of an aggregate's waiting entries, kept in the aggregate so that an
// entry's operations pointer also leads to its aggregate: an entry is then no more
// than the two words every waiting entry has. Entries live in their aggregate's
// array, so an entry's position is where it sits there.
struct EntryOps : Waiter::Ops {
  Aggregate* aggregate;
};

// Entries are never destroyed one by one, only freed with their array.
static_assert(std::is_trivially_destructible_v<Waiter>);

// The entry array of a large aggregate is fresh memory from the system, and writing
// it faults once per page: about as long as the rest of the walk. The last array
// freed, if worth keeping and not too large to keep around, waits for the next large
// aggregate; while it waits, it holds its own size.
class SpareEntries {
 public:
  static Waiter* take(size_t count) {
    const size_t bytes = count * sizeof(Waiter);
    if (bytes >= kMinBytes) {
      if (void* spare = spare_.exchange(nullptr, std::memory_order_acquire)) {
        size_t spareBytes;
        std::memcpy(&spareBytes, spare, sizeof spareBytes);
        if (spareBytes >= bytes) return static_cast<Waiter*>(spare);
        ::operator delete(spare);
      }
    }
    return static_cast<Waiter*>(::operator new(bytes));
  }

  static void give(Waiter* block, size_t count) noexcept {
    void* freed = block;
    const size_t bytes = count * sizeof(Waiter);
    if (block && bytes >= kMinBytes && bytes <= kMaxBytes) {
      std::memcpy(freed, &bytes, sizeof bytes);
      freed = spare_.exchange(freed, std::memory_order_acq_rel);
    }
    ::operator delete(freed);
  }

 private:
  static constexpr size_t kMinBytes = 64 * 1024;
  static constexpr size_t kMaxBytes = 2 * 1024 * 1024;
  static inline std::atomic<void*> spare_{nullptr};
};

Aggregate& aggregateOf(const Waiter* entry) noexcept {
  return *static_cast<const EntryOps*>(entry->ops)->aggregate;
}

// The member's error again, with the failing position or key added. Starting from an
// empty dictionary when the member had no user information keeps the key readable.
Ref<Error> failingMemberError(const Error& error, Id where) {
  Ref<MutableDictionary> info;
  if (error.userInfo()) {
    info = cast<MutableDictionary>(error.userInfo()->mutableCopy());
  }
  if (!info) info = MutableDictionary::make();
  info->setObjectForKey(std::move(where), PRMFailingPromiseIndexKey());
  return Error::make(error.domain(), error.code(), info);
}

// Shared by the walk over the collection and every pending member. `out_` counts the
// entries that have not run yet plus the walk's own hold; whoever brings it to zero
// either hands the record to the main queue to fulfil the aggregate or, when that can
// no longer happen, frees it. Each member's value is written by the thread that saw it
// settle, into an element of its own, before that thread counts it out, so the one
// that counts out last sees them all.
class Aggregate {
 public:
  Aggregate(PRMResolver resolver, size_t count, bool keyed)
      : resolve_(std::move(resolver)),
        count_(count),
        keyed_(keyed),
        values_(count),
        entryOps_{{&runEntry, &dropEntry, /*keepsValue=*/true}, this} {
    if (keyed) keys_.resize(count);
  }
  ~Aggregate() { SpareEntries::give(entries_, count_); }

  // The walk: one call per member in enumeration order (for a dictionary, after
  // its key), then endWalk().
  void key(size_t index, Id key) { keys_[index] = std::move(key); }
  void member(size_t index, const Id& member) {
    const Class* cls = member ? &member->objectClass() : nullptr;
    if (cls == promiseClass_ && waitOn(index, static_cast<const PRMPromise*>(member.get()))) {
      return;
    }
    notWaiting(index, member, cls);
  }

  // Gives back the walk's hold and the share of the members that never got an entry.
  // `complete`: every member was visited. A walk cut short by a raise leaves the
  // aggregate to the body's rejection; one that found fewer members than it counted
  // never fulfils, as positions would be missing.
  void endWalk(bool complete, bool raised) {
    if (raised) {
      flags_.fetch_or(kDecided, std::memory_order_relaxed);
    } else if (!complete) {
      flags_.fetch_or(kAbandoned, std::memory_order_relaxed);
    }
    countOut(count_ + 1 - registered_);
  }

 private:
  static void runEntry(Waiter* entry, Settlement& settlement) {
    settlement.flush();
    aggregateOf(entry).entrySettled(entry, settlement.takeValue(), settlement.valueClass,
                                    settlement.error);
  }
  // An entry dropped unrun (its member died pending): the aggregate can no longer
  // fulfil, though another member may still reject it.
  static void dropEntry(Waiter* entry) noexcept {
    Aggregate& self = aggregateOf(entry);
    self.flags_.fetch_or(kAbandoned, std::memory_order_relaxed);
    self.countOut(1);
  }

  // The member of `entry` has settled with `value`, of class `cls` (nil for nothing);
  // `error` tells whether it is an error.
  void entrySettled(Waiter* entry, Id value, const Class* cls, bool error);

  // Gives `promise` the entry at `index` if it is still pending.
  bool waitOn(size_t index, const PRMPromise* promise) {
    if (Access::settledNow(promise)) return false;
    if (!entries_) {
      // Entries are made only for members found pending.
      entries_ = SpareEntries::take(count_);
    }
    auto* entry = ::new (static_cast<void*>(entries_ + index)) Waiter(&entryOps_);
    if (Access::tryRegister(promise, entry)) return false;  // settled meanwhile
    ++registered_;
    return true;
  }

  // A member that is not a pending promise: its value now, or the promise its slot
  // follows to wait on. `cls` is the member's class (nil for nil).
  [[gnu::noinline]] void notWaiting(size_t index, const Id& member, const Class* cls) {
    if (cls != promiseClass_) return settled(index, member, cls, isErrorClass(cls));
    // Settled, as waitOn() found: a settled promise stays settled.
    Id slot = PRMGetResult(static_cast<const PRMPromise*>(member.get()));
    for (;;) {
      cls = &slot->objectClass();
      if (cls != promiseClass_) return settled(index, std::move(slot), cls, isErrorClass(cls));
      // A slot's content lives as long as its promise, so `promise` stays valid.
      const auto* promise = static_cast<const PRMPromise*>(slot.get());
      Id next = PRMGetResult(promise);
      if (!next) {
        if (waitOn(index, promise)) return;
        next = PRMGetResult(promise);
      }
      slot = std::move(next);
    }
  }

  static constexpr unsigned kDecided = 1;    // rejected, or left to the body's rejection
  static constexpr unsigned kAbandoned = 2;  // a member will never settle

  bool isErrorClass(const Class* cls) const noexcept {
    return cls && cls->isSubclassOf(*errorClass_);
  }

  // What a member's catch and then handlers do with its outcome `slot`, on any
  // thread. `cls` is the slot's class, looked up once by the caller (nil for nil).
  void settled(size_t index, Id slot, const Class* cls, bool error) {
    if (error) return rejected(index, Ref<Error>::adopt(static_cast<Error*>(slot.leak())));
    // Nothing and several values arrive as a one-parameter handler receives them.
    if (slot.get() == nothing_) {
      slot = nullptr;
    } else if (cls == spreadClass_) {
      Id first = static_cast<const PRMArray*>(slot.get())->at(0);
      slot = std::move(first);
    }
    if (!slot && !keyed_) slot = Id(Null::null());
    values_[index] = std::move(slot);
  }

  // The member's error is marked handled on the main queue, as a catch handler would
  // mark it: after whatever else its settlement runs at once, which may store it
  // again. A later rejection counts as handled too.
  void rejected(size_t index, Ref<Error> error) {
    if (flags_.fetch_or(kDecided, std::memory_order_relaxed) & kDecided) {
      Queue::main().async([error = std::move(error)] { PRMError::consume(error.get()); });
      return;
    }
    Id where = keyed_ ? keys_[index] : Id(Number::withUnsignedInteger(index));
    Ref<Error> failing = failingMemberError(*error, std::move(where));
    Queue::main().async(
        [resolve = resolve_, error = std::move(error), failing = std::move(failing)] {
          PRMError::consume(error.get());
          // A body cut short by a raise may have rejected the aggregate meanwhile.
          if (!resolve.promise()->resolved()) resolve(failing);
        });
  }

  // The last one out fulfils on the main queue, or frees the record.
  void countOut(size_t n) {
    if (out_.fetch_sub(n, std::memory_order_acq_rel) != n) return;
    if (flags_.load(std::memory_order_relaxed) != 0) {
      delete this;
      return;
    }
    // No entry is looked at any more: they are freed here rather than on the main
    // queue, which has the aggregate to settle.
    Waiter* entries = std::exchange(entries_, nullptr);
    const size_t count = count_;  // the record is the main queue's once handed over
    Queue::main().async([self = std::unique_ptr<Aggregate>(this)] { self->fulfill(); });
    SpareEntries::give(entries, count);
  }

  // Main queue, once every member has fulfilled.
  void fulfill() {
    if (!keyed_) {
      // The values become the array's storage as they are, without a copy.
      Ref<Array> array = Array::make();
      collection_internal::StorageAccess::items(*array) = std::move(values_);
      resolve_(array);
      return;
    }
    auto dictionary = MutableDictionary::make();
    for (size_t i = 0; i < count_; ++i) {
      if (values_[i]) dictionary->setObjectForKey(std::move(values_[i]), keys_[i].get());
    }
    resolve_(dictionary);
  }

  PRMResolver resolve_;
  const size_t count_;
  const bool keyed_;
  size_t registered_ = 0;                                  // the walk's: entries made
  collection_internal::StorageAccess::ArrayItems values_;  // becomes the result's storage
  std::vector<Id> keys_;       // dictionary form: the key at each position
  Waiter* entries_ = nullptr;  // raw storage for `count_`, built where needed
  std::atomic<size_t> out_{count_ + 1};
  std::atomic<unsigned> flags_{0};
  // What slots are told apart by, looked up once rather than per member.
  const Class* const promiseClass_ = &PRMPromise::staticClass();
  const Class* const spreadClass_ = &PRMArray::staticClass();
  const Class* const errorClass_ = &Error::staticClass();
  const Object* const nothing_ = PRMNull();
  const EntryOps entryOps_;
};

void Aggregate::entrySettled(Waiter* entry, Id value, const Class* cls, bool error) {
  // A promise handed to the entries is a value like any other: a then handler is given
  // it as it is. Only a slot found holding one is followed (notWaiting).
  settled(static_cast<size_t>(entry - entries_), std::move(value), cls, error);
  countOut(1);
}

}  // namespace

Ref<PRMPromise> PRMAll(const Id& collection) {
  size_t count = collectionCount(collection.get());
  if (count == 0) return PRMPromise::promiseWithValue(collection);
  bool keyed = collection->isKindOfClass(Dictionary::staticClass());
  return PRMPromise::promiseWithResolver([&](PRMResolver resolver) {
    auto* aggregate = new Aggregate(std::move(resolver), count, keyed);
    size_t index = 0;
    try {
      if (keyed) {
        const auto* dictionary = static_cast<const Dictionary*>(collection.get());
        enumerate(dictionary, [&](const Id& entryKey) {
          // Held apart from the table: a key's hash may change the dictionary under us.
          Id key = entryKey;
          const Id& member = dictionary->objectForKey(key.get());
          if (index < count) {
            aggregate->key(index, std::move(key));
            aggregate->member(index++, member);
          }
        });
      } else {
        // A collection that grew since it was counted must not write past the end;
        // the enumeration itself raises on the change.
        auto visit = [&](const Id& member) {
          if (index < count) aggregate->member(index++, member);
        };
        // Arrays through their own iterator, which the compiler sees through.
        if (const auto* array = cast<Array>(collection.get())) {
          for (const Id& member : *array) {
            // Registering writes each member, and its locked instruction waits for the
            // member's lines: asking for them a few members ahead overlaps the misses.
            constexpr size_t kAhead = 8;
            if (index + kAhead < array->count()) {
              const auto* ahead = reinterpret_cast<const char*>((&member)[kAhead].get());
              __builtin_prefetch(ahead, 1);
              __builtin_prefetch(ahead + sizeof(PRMPromise) - 1, 1);
            }
            visit(member);
          }
        } else {
          enumerate(collection.get(), visit);
        }
      }
    } catch (...) {
      aggregate->endWalk(false, true);
      throw;
    }
    aggregate->endWalk(index == count, false);
  });
}

Ref<PRMPromise> PRMWhen(const Id& value) {
  if (isCollection(value.get())) return PRMAll(value);
  if (!value) return PRMPromise::promiseWithValue(nullptr);
  return PRMAll(Array::make({value}))->then([](const Ref<Array>& values) -> Id {
    return values->objectAtIndex(0);
  });
}

Ref<PRMPromise> PRMPromise::when(const Id& value) { return PRMWhen(value); }
Ref<PRMPromise> PRMPromise::all(const Id& collection) { return PRMAll(collection); }

}  // namespace nk
