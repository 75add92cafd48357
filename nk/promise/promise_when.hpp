// Waiting on many promises at once: PRMWhen and PRMAll turn a collection of
// promises and plain values into one promise for all their values, rejected by the
// first member that fails.
#pragma once

#include "nk/foundation/object.hpp"
#include "nk/promise/promise.hpp"

namespace nk {

// One promise for every member of `collection` (array, set, dictionary):
//  - an empty collection fulfils at once with the collection itself;
//  - a dictionary fulfils with a mutable dictionary key -> value, keys whose member
//    fulfilled with nothing left out;
//  - any other collection fulfils with an array of the members' values in
//    enumeration order, Null for a member fulfilled with nothing.
// Members that are not promises count as fulfilled with themselves (an Error as
// rejected). The first member to reject rejects the aggregate with a new error of
// its domain and code whose user information is the member's plus
// PRMFailingPromiseIndexKey: the position (unsigned number) or the dictionary key.
// The key is always present, even when the member's error had no user information.
// Later rejections are dropped, and count as handled. A member fulfilling with a
// PRMArray contributes its element 0. Members are counted on the threads that settle
// them; the aggregate itself is always settled on the main queue.
// The collection is not copied: it must not change while it is enumerated (a change
// rejects the aggregate with the mutation exception's error). Anything that is not a
// collection counts as an empty one.
Ref<PRMPromise> PRMAll(const Id& collection);

// PRMAll for a collection; for a single promise or value, a promise of that member's
// value (Null when it fulfils with nothing, position 0 when it fails); for nil, a
// promise fulfilled with nothing.
Ref<PRMPromise> PRMWhen(const Id& value);

}  // namespace nk
