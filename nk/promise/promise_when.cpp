// PRMAll and PRMWhen: one shared record per aggregate counts the members still out
// and holds their values. Members already settled when the aggregate is made are
// reported together in one batch (a fulfilled list member stores its value first);
// each pending member carries one waiting entry that becomes its report when it
// settles. Reports reach the main queue through a lock-free inbox, and only the main
// queue reads them, counts and resolves.

#include "nk/promise/promise_when.hpp"

#include <atomic>
#include <memory>
#include <utility>
#include <vector>

#include "nk/dispatch/queue.hpp"
#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/enumeration.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

using promise_internal::Access;
using promise_internal::Waiter;

struct Aggregate;

// How one member settled: its dictionary key (nil for a list's member), its
// position, and either its error or its value as a one-parameter then handler
// receives it (nothing as nil, a spread list's first).
struct Outcome {
  Id key;
  size_t index;
  Id value;
  bool error = false;
};

// Fills in `o` from the member's slot, on the thread that has just read the slot,
// which leaves the main queue less to do per member.
void record(Outcome& o, Id slot, bool error) {
  o.error = error;
  if (!error) {
    if (slot.get() == PRMNull()) {
      slot = nullptr;
    } else if (slot->isMemberOfClass(PRMArray::staticClass())) {
      Id first = promise_internal::argumentAt(slot, 0);
      slot = std::move(first);
    }
  }
  o.value = std::move(slot);
}

// A pending member's waiting entry and, once the member has settled, its report.
// Owned by the member's handler list until it runs, then by the aggregate's inbox.
struct MemberReport final : Waiter {
  MemberReport(std::shared_ptr<Aggregate> a, Id key, size_t index)
      : Waiter(&kOps), aggregate(std::move(a)), outcome{std::move(key), index, nullptr} {}

  static void run(Waiter* self, promise_internal::Settlement& settlement);
  static void destroy(Waiter* self) noexcept { delete static_cast<MemberReport*>(self); }
  static constexpr Ops kOps = {&run, &destroy};

  std::shared_ptr<Aggregate> aggregate;
  Outcome outcome;
};

// The members that had settled before the aggregate looked at them: the outcomes
// to look at, in enumeration order, and how many fulfilled list members already
// stored their values. Only ever posted to an inbox, never registered on a promise.
struct BatchReport final : Waiter {
  BatchReport(std::vector<Outcome> o, size_t stored)
      : Waiter(&kOps), outcomes(std::move(o)), storedCount(stored) {}

  static void run(Waiter*, promise_internal::Settlement&) {}
  static void destroy(Waiter* self) noexcept { delete static_cast<BatchReport*>(self); }
  static constexpr Ops kOps = {&run, &destroy};

  std::vector<Outcome> outcomes;
  size_t storedCount;
};

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

// Shared by every member of one aggregate. Reports arrive from any thread through a
// lock-free inbox; the count and the results belong to the main queue, so they need
// no lock. The one exception, the values the batch stores before it is posted, are
// each in an element of their own, published by the post.
struct Aggregate : std::enable_shared_from_this<Aggregate> {
  Aggregate(const PRMResolver& r, size_t count) : fulfill(r), reject(r), remaining(count) {}

  // Any thread. The report that finds the inbox empty sends the batch on its way.
  void post(Waiter* report) {
    Waiter* head = inbox.load(std::memory_order_relaxed);
    do {
      report->next = head;
    } while (!inbox.compare_exchange_weak(head, report, std::memory_order_release,
                                          std::memory_order_relaxed));
    if (!head) Queue::main().async([self = shared_from_this()] { self->drain(); });
  }

  // Main queue: every report posted so far, oldest first.
  void drain() {
    Waiter* oldest = promise_internal::reversed(inbox.exchange(nullptr, std::memory_order_acquire));
    while (oldest) {
      Waiter* report = oldest;
      oldest = oldest->next;
      if (report->ops == &MemberReport::kOps) {
        std::unique_ptr<MemberReport> member(static_cast<MemberReport*>(report));
        settle(member->outcome);
      } else {
        std::unique_ptr<BatchReport> batch(static_cast<BatchReport*>(report));
        for (Outcome& o : batch->outcomes) settle(o);
        count(batch->storedCount);
      }
    }
  }

  // What the member's catch and then handlers do with its outcome, which it uses up.
  void settle(Outcome& o) {
    if (o.error) {
      const auto& error = static_cast<const Error&>(*o.value);
      PRMError::consume(&error);  // a later rejection counts as handled too
      if (decided) return;
      decided = true;
      reject(failingMemberError(error, o.key ? o.key : Id(Number::withUnsignedInteger(o.index))));
      return;
    }
    if (decided) return;
    if (dictionary) {
      if (o.value) dictionary->setObjectForKey(std::move(o.value), o.key.get());
    } else {
      store(o.index, std::move(o.value));
    }
    count(1);
  }

  // A list member's value in the result. Fulfilled members already settled when the
  // aggregate is made store theirs from the calling thread, each in its own element.
  void store(size_t index, Id value) {
    values[index] = value ? std::move(value) : Id(Null::null());
  }

  // `n` more members fulfilled, their values stored.
  void count(size_t n) {
    if (decided || n == 0) return;
    remaining -= n;
    if (remaining != 0) return;
    decided = true;
    if (dictionary) {
      fulfill(dictionary);
    } else {
      fulfill(Array::make(std::move(values)));
    }
  }

  PRMFulfiller fulfill;
  PRMRejecter reject;
  size_t remaining;
  bool decided = false;
  std::vector<Id> values;             // list form
  Ref<MutableDictionary> dictionary;  // dictionary form
  std::atomic<Waiter*> inbox{nullptr};
};

// The slot of `promise`, following promises settled with promises; nil while pending,
// in which case `*pending` is the promise to wait on.
Id settledSlot(const PRMPromise* promise, const PRMPromise** pending) {
  for (;;) {
    Id slot = PRMGetResult(promise);
    const PRMPromise* inner = promise_internal::asPromise(slot);
    if (!inner) {
      *pending = promise;
      return slot;
    }
    promise = inner;
  }
}

// Leaves `report` on `promise` or, when the promise has settled by now, posts it.
void watch(const PRMPromise* promise, MemberReport* report) {
  for (;;) {
    Id slot = Access::tryRegister(promise, report);
    if (!slot) return;
    const PRMPromise* inner = promise_internal::asPromise(slot);
    if (!inner) {
      bool error = promise_internal::isError(slot);
      record(report->outcome, std::move(slot), error);
      report->aggregate->post(report);
      return;
    }
    promise = inner;
  }
}

void MemberReport::run(Waiter* self, promise_internal::Settlement& settlement) {
  auto* report = static_cast<MemberReport*>(self);
  settlement.flush();
  const Id& value = settlement.value;
  if (const PRMPromise* inner = promise_internal::asPromise(value)) return watch(inner, report);
  record(report->outcome, value, settlement.error);
  report->aggregate->post(report);
}

// Walks the collection once, leaving an entry on every pending member and collecting
// the outcomes of the settled ones, which go to the main queue in one batch (also when
// the walk raises, so that their errors still count as handled).
class Watcher {
 public:
  // `expected`: how many members there are, so that the batch grows once.
  Watcher(std::shared_ptr<Aggregate> a, size_t expected)
      : aggregate_(std::move(a)), expected_(expected) {}

  void member(const Id& member, Id key, size_t index) {
    const PRMPromise* promise = promise_internal::asPromise(member);
    if (!promise) return add(std::move(key), index, member);
    const PRMPromise* pending = nullptr;
    Id slot = settledSlot(promise, &pending);
    if (!slot) {
      watch(pending, new MemberReport(aggregate_, std::move(key), index));
      return;
    }
    add(std::move(key), index, std::move(slot));
  }

  ~Watcher() {
    if (!settled_.empty() || stored_ != 0) {
      aggregate_->post(new BatchReport(std::move(settled_), stored_));
    }
  }

 private:
  void add(Id key, size_t index, Id slot) {
    Outcome o{std::move(key), index, nullptr};
    bool error = promise_internal::isError(slot);
    record(o, std::move(slot), error);
    if (!o.key && !o.error) {
      aggregate_->store(index, std::move(o.value));
      ++stored_;
      return;
    }
    if (o.key && settled_.empty()) settled_.reserve(expected_);
    settled_.push_back(std::move(o));
  }

  std::shared_ptr<Aggregate> aggregate_;
  size_t expected_;
  std::vector<Outcome> settled_;
  size_t stored_ = 0;
};

}  // namespace

Ref<PRMPromise> PRMAll(const Id& collection) {
  size_t count = collectionCount(collection.get());
  if (count == 0) return PRMPromise::promiseWithValue(collection);
  bool keyed = collection->isKindOfClass(Dictionary::staticClass());
  return PRMPromise::promiseWithResolver([&](PRMResolver resolver) {
    auto shared = std::make_shared<Aggregate>(resolver, count);
    if (keyed) {
      shared->dictionary = MutableDictionary::make();
    } else {
      shared->values.resize(count);
    }
    Watcher watcher(shared, count);
    if (keyed) {
      const auto* dictionary = static_cast<const Dictionary*>(collection.get());
      enumerate(dictionary, [&](const Id& entryKey) {
        // Held apart from the table: a key's hash may change the dictionary under us.
        Id key = entryKey;
        const Id& member = dictionary->objectForKey(key.get());
        watcher.member(member, std::move(key), 0);
      });
    } else {
      size_t index = 0;
      enumerate(collection.get(), [&](const Id& member) {
        // A collection that grew since it was counted must not write past the end;
        // the enumeration itself raises on the change.
        if (index < count) watcher.member(member, nullptr, index++);
      });
    }
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
