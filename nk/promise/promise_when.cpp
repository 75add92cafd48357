// PRMAll and PRMWhen: one shared record per aggregate counts the members still out
// and holds their values; every member carries a catch and a then handler that
// report into it on the main queue.

#include "nk/promise/promise_when.hpp"

#include <memory>
#include <utility>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/enumeration.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

// Shared by every handler of one aggregate. Only the main queue touches `remaining`
// and the results, so they need no lock.
struct Aggregate {
  Aggregate(PRMResolver r, size_t count)
      : aggregate(r.promise()), fulfill(r), reject(r), remaining(count) {}
  Ref<PRMPromise> aggregate;
  PRMFulfiller fulfill;
  PRMRejecter reject;
  size_t remaining;
  std::vector<Id> values;             // list form
  Ref<MutableDictionary> dictionary;  // dictionary form
};

Ref<PRMPromise> asMember(const Id& member) {
  if (member && member->isKindOfClass(PRMPromise::staticClass())) {
    return Ref<PRMPromise>(static_cast<PRMPromise*>(member.get()));
  }
  return PRMPromise::promiseWithValue(member);
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

// Attaches the aggregate's handlers to one member: `key` for a dictionary's member,
// nil for a list's member at `index`.
void watchMember(const std::shared_ptr<Aggregate>& shared, const Id& member, Id key, size_t index) {
  Ref<PRMPromise> promise = asMember(member);
  promise->catch_([shared, key, index](const Ref<Error>& error) {
    if (shared->aggregate->resolved()) return;
    shared->reject(failingMemberError(*error, key ? key : Id(Number::withUnsignedInteger(index))));
  });
  promise->then([shared, key = std::move(key), index](const Id& value) {
    Aggregate& a = *shared;
    if (a.dictionary) {
      if (value) a.dictionary->setObjectForKey(value, key.get());
    } else {
      a.values[index] = value ? value : Id(Null::null());
    }
    if (--a.remaining != 0) return;
    if (a.dictionary) {
      a.fulfill(a.dictionary);
    } else {
      a.fulfill(Array::make(std::move(a.values)));
    }
  });
}

}  // namespace

Ref<PRMPromise> PRMAll(const Id& collection) {
  size_t count = collectionCount(collection.get());
  if (count == 0) return PRMPromise::promiseWithValue(collection);
  bool keyed = collection->isKindOfClass(Dictionary::staticClass());
  return PRMPromise::promiseWithResolver([&](PRMResolver resolver) {
    auto shared = std::make_shared<Aggregate>(std::move(resolver), count);
    if (keyed) {
      shared->dictionary = MutableDictionary::make();
      const auto* dictionary = static_cast<const Dictionary*>(collection.get());
      enumerate(dictionary,
                [&](const Id& key) { watchMember(shared, dictionary->objectForKey(key), key, 0); });
    } else {
      shared->values.resize(count);
      size_t index = 0;
      enumerate(collection.get(), [&](const Id& member) {
        // A collection that grew since it was counted must not write past the end;
        // the enumeration itself raises on the change.
        if (index >= count) return;
        watchMember(shared, member, nullptr, index++);
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
