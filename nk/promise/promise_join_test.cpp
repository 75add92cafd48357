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
    auto at = cast<Number>(failingIndex(e));
    out.emplace_back(e ? e->code() : -1, at ? at->longValue() : -1);
  }
  return out;
}

TEST(PromiseJoin, ValuesAndErrors) {
  UnhandledCapture reports;
  const struct {
    Ref<Array> input, values;
    Failures failed;  // none: the errors element is absent, not an empty list
  } rows[] = {
      {Array::make({fulfilled(1), rejected(5), fulfilled(3)}),
       Array::make({num(1), num(3)}),
       {{5, 1}}},
      // the second failure is at position 0 once the first is gone
      {Array::make({rejected(1), rejected(2)}), Array::make(), {{1, 0}, {2, 0}}},
      {Array::make({fulfilled(1), fulfilled(2)}), Array::make({num(1), num(2)}), {}},
      {Array::make(), Array::make(), {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.input->description()->utf8());
    auto before = row.input->copy();
    size_t count = row.input->count();
    auto both = outcome(PRMPromise::join(row.input));
    ASSERT_TRUE(both);
    EXPECT_EQ(both->count(), 2u);
    EXPECT_TRUE(isEqual(both->at(0), row.values));
    if (row.failed.empty()) {
      EXPECT_FALSE(both->at(1));
    } else {
      EXPECT_EQ(failures(both->at(1)), row.failed);
    }
    // the caller's array is untouched
    EXPECT_TRUE(isEqual(row.input, before));
    EXPECT_EQ(row.input->count(), count);
  }
  {  // no array: nothing to wait on, so no values list either
    auto both = outcome(PRMJoin(nullptr));
    ASSERT_TRUE(both);
    EXPECT_EQ(both->count(), 2u);
    EXPECT_FALSE(both->at(0));
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
