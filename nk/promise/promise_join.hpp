// Waiting on every promise of an array whatever its outcome: PRMJoin yields the
// values of those that fulfilled and the errors of those that rejected.
#pragma once

#include "nk/foundation/array.hpp"
#include "nk/promise/promise.hpp"

namespace nk {

// A promise that fulfils with a two-element PRMArray: the values of the members that
// fulfilled, in input order (Null for nothing), and the list of errors in the order
// the failures were handled, or nil when there was none. A two-parameter then
// handler receives both.
//
// Each error is the aggregate error PRMAll makes: the member's domain and code, its
// user information plus PRMFailingPromiseIndexKey, the member's position in the
// list still waited on at that time. Failed members are dropped one at a time, so
// later positions are shifted down by earlier failures. `promises` is not changed;
// nil gives nil values and no errors.
Ref<PRMPromise> PRMJoin(const Ref<Array>& promises);

}  // namespace nk
