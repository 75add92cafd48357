// Tests of PRMJoin: values and errors of mixed outcomes, the shifting failure
// positions, the absent errors element, and the caller's array left alone.
#include <gtest/gtest.h>

#include "nk/foundation/array.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/promise_join.hpp"
#include "nk/promise/promise_test_support_internal.hpp"

namespace nk {
namespace {

using promise_test::settles;
using promise_test::UnhandledCapture;

Id num(int v) { return Number::withInt(v); }
Ref<PRMPromise> fulfilled(int v) { return PRMPromise::promiseWithValue(num(v)); }
Ref<PRMPromise> rejected(long code) {
  return PRMPromise::promiseWithValue(Error::make(NK_STR("TestDomain"), code));
}
unsigned long positionOf(const Id& error) {
  return cast<Number>(cast<Error>(error)->userInfo()->objectForKey(PRMFailingPromiseIndexKey()))
      ->unsignedLongValue();
}

// The PRMArray a join fulfilled with.
Ref<PRMArray> outcome(const Ref<PRMPromise>& p) {
  // value() answers element 0 of a PRMArray; a then handler sees both elements.
  Ref<PRMArray> both;
  auto seen = p->then(
      [&](const Id& values, const Id& errors) { both = PRMArrayWithCount(2, values, errors); });
  settles(seen);
  return both;
}

TEST(PromiseJoin, ValuesAndErrors) {
  UnhandledCapture reports;
  {  // mixed outcomes: fulfilled values in order, the failure at its position
    auto input = Array::make({fulfilled(1), rejected(5), fulfilled(3)});
    auto before = input->copy();
    auto p = PRMPromise::join(input);
    ASSERT_TRUE(settles(p));
    auto both = outcome(p);
    ASSERT_TRUE(both);
    EXPECT_TRUE(isEqual(both->at(0), Array::make({num(1), num(3)})));
    auto errors = cast<Array>(both->at(1));
    ASSERT_TRUE(errors);
    ASSERT_EQ(errors->count(), 1u);
    auto e = cast<Error>(errors->objectAtIndex(0));
    EXPECT_EQ(e->code(), 5);
    EXPECT_EQ(positionOf(e), 1u);
    // the caller's array is untouched
    EXPECT_TRUE(isEqual(input, before));
    EXPECT_EQ(input->count(), 3u);
  }
  {  // all failing: the second failure is at position 0 once the first is gone
    auto input = Array::make({rejected(1), rejected(2)});
    auto p = PRMJoin(input);
    ASSERT_TRUE(settles(p));
    auto both = outcome(p);
    ASSERT_TRUE(both);
    EXPECT_TRUE(isEqual(both->at(0), Array::make()));
    auto errors = cast<Array>(both->at(1));
    ASSERT_TRUE(errors);
    ASSERT_EQ(errors->count(), 2u);
    EXPECT_EQ(cast<Error>(errors->objectAtIndex(0))->code(), 1);
    EXPECT_EQ(positionOf(errors->objectAtIndex(0)), 0u);
    EXPECT_EQ(cast<Error>(errors->objectAtIndex(1))->code(), 2);
    EXPECT_EQ(positionOf(errors->objectAtIndex(1)), 0u);
    EXPECT_EQ(input->count(), 2u);
  }
  {  // all fulfilling: the errors element is absent, not an empty list
    auto p = PRMJoin(Array::make({fulfilled(1), fulfilled(2)}));
    ASSERT_TRUE(settles(p));
    auto both = outcome(p);
    ASSERT_TRUE(both);
    EXPECT_EQ(both->count(), 2u);
    EXPECT_TRUE(isEqual(both->at(0), Array::make({num(1), num(2)})));
    EXPECT_FALSE(both->at(1));
  }
  {  // empty input
    auto p = PRMJoin(Array::make());
    ASSERT_TRUE(settles(p));
    auto both = outcome(p);
    ASSERT_TRUE(both);
    EXPECT_TRUE(isEqual(both->at(0), Array::make()));
    EXPECT_FALSE(both->at(1));
  }
  promise_test::runMainUntil([] { return false; }, std::chrono::milliseconds(30));
  EXPECT_TRUE(reports.reports().empty());
}

TEST(PromiseJoin, ReleasesMembersWhenDone) {
  auto ok = fulfilled(1);
  auto bad = rejected(2);
  {
    auto p = PRMJoin(Array::make({ok, bad}));
    ASSERT_TRUE(settles(p));
    promise_test::runMainUntil([] { return false; }, std::chrono::milliseconds(30));
  }
  promise_test::runMainUntil([] { return false; }, std::chrono::milliseconds(30));
  EXPECT_EQ(ok->retainCount(), 1u);
  EXPECT_EQ(bad->retainCount(), 1u);
}

}  // namespace
}  // namespace nk
