// Tests of PRMJoin: values and errors of mixed outcomes, the shifting failure
// positions, the absent errors element, and the caller's array left alone.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/promise_join.hpp"
#include "nk/promise/promise_test_support_internal.hpp"

namespace nk {
namespace {

using namespace promise_test;

Ref<PRMPromise> fulfilled(int v) { return PRMPromise::promiseWithValue(num(v)); }
Ref<PRMPromise> rejected(long code) { return PRMPromise::promiseWithValue(failure(code)); }

// The PRMArray a join fulfilled with: value() answers element 0 only, a then handler
// sees both elements.
Ref<PRMArray> outcome(const Ref<PRMPromise>& p) {
  Ref<PRMArray> both;
  if (!settles(p)) return nullptr;
  settles(p->then(
      [&](const Id& values, const Id& errors) { both = PRMArrayWithCount(2, values, errors); }));
  return both;
}

// The code and failing position of each error in a join's error list.
using Failures = std::vector<std::pair<long, long>>;
Failures failures(const Id& errors) {
  Failures out;
  auto list = cast<Array>(errors);
  for (size_t i = 0; list && i < list->count(); ++i) {
    auto e = cast<Error>(list->objectAtIndex(i));
    auto at = e && e->userInfo()
                  ? cast<Number>(e->userInfo()->objectForKey(PRMFailingPromiseIndexKey()))
                  : nullptr;
    out.emplace_back(e ? e->code() : -1, at ? at->longValue() : -1);
  }
  return out;
}

TEST(PromiseJoin, ValuesAndErrors) {
  UnhandledCapture reports;
  {  // mixed outcomes: fulfilled values in order, the failure at its position
    auto input = Array::make({fulfilled(1), rejected(5), fulfilled(3)});
    auto before = input->copy();
    auto both = outcome(PRMPromise::join(input));
    ASSERT_TRUE(both);
    EXPECT_TRUE(isEqual(both->at(0), Array::make({num(1), num(3)})));
    EXPECT_EQ(failures(both->at(1)), (Failures{{5, 1}}));
    // the caller's array is untouched
    EXPECT_TRUE(isEqual(input, before));
    EXPECT_EQ(input->count(), 3u);
  }
  {  // all failing: the second failure is at position 0 once the first is gone
    auto input = Array::make({rejected(1), rejected(2)});
    auto both = outcome(PRMJoin(input));
    ASSERT_TRUE(both);
    EXPECT_TRUE(isEqual(both->at(0), Array::make()));
    EXPECT_EQ(failures(both->at(1)), (Failures{{1, 0}, {2, 0}}));
    EXPECT_EQ(input->count(), 2u);
  }
  // All fulfilling, and empty input: the errors element is absent, not an empty list.
  for (const auto& [input, values] :
       {std::pair{Array::make({fulfilled(1), fulfilled(2)}), Array::make({num(1), num(2)})},
        std::pair{Array::make(), Array::make()}}) {
    auto both = outcome(PRMJoin(input));
    ASSERT_TRUE(both);
    EXPECT_EQ(both->count(), 2u);
    EXPECT_TRUE(isEqual(both->at(0), values));
    EXPECT_FALSE(both->at(1));
  }
  idle();
  EXPECT_TRUE(reports.reports().empty());
}

TEST(PromiseJoin, ReleasesMembersWhenDone) {
  auto ok = fulfilled(1);
  auto bad = rejected(2);
  {
    auto p = PRMJoin(Array::make({ok, bad}));
    ASSERT_TRUE(settles(p));
    idle();
  }
  idle();
  EXPECT_EQ(ok->retainCount(), 1u);
  EXPECT_EQ(bad->retainCount(), 1u);
}

}  // namespace
}  // namespace nk
