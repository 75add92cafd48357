// Tests of PRMAll and PRMWhen: result shapes and order, the first rejection deciding
// with the failing position or key, and later rejections counted as handled.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/error.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/set.hpp"
#include "nk/promise/promise_test_support_internal.hpp"
#include "nk/promise/promise_when.hpp"

namespace nk {
namespace {

using namespace promise_test;

// Makes every member pending and returns PRMAll of their promises, in order.
Ref<PRMPromise> allOf(std::vector<Deferred>& members) {
  std::vector<Id> promises;
  for (auto& m : members) {
    m = deferred();
    promises.push_back(m.promise);
  }
  return PRMAll(Array::make(std::move(promises)));
}

// A dictionary key that, once given an action, runs it the next time it is hashed:
// host code that settles members, or changes the collection, while all() walks it.
class PromiseAllSettlingKey final : public Object {
  NK_DECLARE_CLASS(PromiseAllSettlingKey, Object)

 public:
  size_t hash() const noexcept override {
    if (action) std::exchange(action, nullptr)();
    return 12;
  }
  Id copy() const override { return Id(const_cast<PromiseAllSettlingKey*>(this)); }

  mutable std::function<void()> action;
};
NK_DEFINE_CLASS(PromiseAllSettlingKey, "PromiseAllSettlingKey", Class::kCopyable);

TEST(PromiseAll, ResultShapes) {
  UnhandledCapture quiet;
  {  // an empty collection fulfils with that very collection
    auto empty = Array::make();
    auto p = PRMPromise::all(empty);
    EXPECT_TRUE(p->fulfilled());
    EXPECT_EQ(p->value().get(), empty.get());
    auto emptyDict = Dictionary::make();
    EXPECT_EQ(PRMAll(emptyDict)->value().get(), emptyDict.get());
  }
  const std::pair<Id, Id> rows[] = {
      // a list keeps order, wraps plain values, and gives Null for nothing
      {Array::make({fulfilled(1), num(2), PRMPromise::promiseWithValue(nullptr)}),
       Array::make({num(1), num(2), Null::null()})},
      // a dictionary leaves out keys whose member fulfilled with nothing
      {Dictionary::make({{NK_STR("a"), fulfilled(1)},
                         {NK_STR("b"), PRMPromise::promiseWithValue(nullptr)},
                         {NK_STR("c"), num(3)}}),
       Dictionary::make({{NK_STR("a"), num(1)}, {NK_STR("c"), num(3)}})},
      // a set becomes an array of its members' values
      {Set::make({num(4)}), Array::make({num(4)})},
      // a member fulfilling with several values contributes the first
      {Array::make({PRMPromise::promiseWithValue(PRMArrayWithCount(2, num(8), num(9)))}),
       Array::make({num(8)})},
  };
  for (const auto& [input, expected] : rows) {
    auto p = PRMAll(input);
    EXPECT_TRUE(isEqual(settledValue(p), expected)) << expected->description()->utf8();
    if (cast<Dictionary>(input)) {
      EXPECT_TRUE(p->value()->isKindOfClass(MutableDictionary::staticClass()));
    }
  }
  EXPECT_TRUE(quiet.reports().empty());
}

TEST(PromiseAll, CalledOnAnotherThreadWhileTheMainLoopRunsHandlers) {
  std::vector<Id> members;
  for (int i = 0; i < 200; ++i) members.push_back(fulfilled(i));
  Ref<PRMPromise> p;
  std::atomic<bool> made{false};
  std::thread caller([&] {
    p = PRMAll(Array::make(members));
    made = true;
  });
  ASSERT_TRUE(runMainUntil([&] { return made.load(); }));
  caller.join();
  ASSERT_TRUE(settles(p));
  auto values = cast<Array>(p->value());
  ASSERT_TRUE(values);
  EXPECT_EQ(values->count(), 200u);
  EXPECT_TRUE(isEqual(values->lastObject(), num(199)));
}

TEST(PromiseAll, FirstRejectionDecides) {
  UnhandledCapture reports;
  LogCapture log;
  {  // the position, beside the member's own entries; a later rejection changes nothing
    auto m0 = deferred(), m1 = deferred(), m2 = deferred();
    auto p = PRMAll(Array::make({m0.promise, m1.promise, m2.promise}));
    (*m1.resolve)(failure(7, Dictionary::make({{NK_STR("extra"), num(5)}})));
    ASSERT_TRUE(settles(p));
    (*m2.resolve)(failure(8));
    (*m0.resolve)(num(0));
    idle();
    auto e = cast<Error>(p->value());
    ASSERT_TRUE(e);
    EXPECT_TRUE(isEqual(e->domain(), NK_STR("TestDomain")));
    EXPECT_EQ(e->code(), 7);
    EXPECT_TRUE(isEqual(failingIndex(e), Number::withUnsignedInteger(1)));
    EXPECT_TRUE(isEqual(e->userInfo()->objectForKey(NK_STR("extra")), num(5)));
    p->catch_([] {});  // the aggregate's own error is handled here
  }
  // A dictionary records the key itself; an error without user information still gets
  // the position.
  const std::pair<Id, Id> failing[] = {
      {Dictionary::make({{NK_STR("ok"), num(1)}, {NK_STR("bad"), failure(9)}}), NK_STR("bad")},
      {Array::make({num(1), failure(2)}), Number::withUnsignedInteger(1)}};
  for (const auto& [input, at] : failing) {
    auto p = PRMAll(input);
    EXPECT_TRUE(isEqual(failingIndex(settledValue(p)), at)) << at->description()->utf8();
    p->catch_([] {});
  }
  idle();
  // Member errors, dropped or not, count as handled; so do the caught aggregates.
  EXPECT_TRUE(reports.reports().empty()) << reports.reports().size();
  // Late rejections are dropped before they reach the settled aggregate.
  EXPECT_EQ(log.count(kAlreadyResolved), 0u);
}

// A member's catch mark is made on the main queue, after everything its settlement
// runs at once: a step chained behind the aggregate that passes the error on does not
// leave it reported.
TEST(PromiseAll, MemberErrorsPassedOnAfterwardsStayHandled) {
  UnhandledCapture reports;
  {
    auto member = deferred();
    auto pending = PRMAll(Array::make({member.promise}));
    auto skipped = member.promise->then([] {});
    (*member.resolve)(failure(7));
    auto early = rejected(8);
    auto settled = PRMAll(Array::make({early}));
    auto skippedEarly = early->then([] {});
    EXPECT_EQ(rejectionCode(pending), 7);
    EXPECT_EQ(rejectionCode(settled), 8);
    idle();
  }
  idle();
  EXPECT_TRUE(reports.reports().empty()) << reports.reports().size();
}

TEST(PromiseWhen, SingleValuesAndNil) {
  UnhandledCapture quiet;
  // A single promise or plain value gives its value, not an array; nothing gives Null;
  // collections go to PRMAll.
  const std::pair<Ref<PRMPromise>, Id> rows[] = {
      {PRMWhen(fulfilled(5)), num(5)},
      {PRMPromise::when(num(6)), num(6)},
      {PRMWhen(PRMPromise::promiseWithValue(nullptr)), Null::null()},
      {PRMWhen(Array::make({num(1), num(2)})), Array::make({num(1), num(2)})},
  };
  for (const auto& [p, expected] : rows) {
    EXPECT_TRUE(isEqual(settledValue(p), expected)) << expected->description()->utf8();
  }
  {  // nil fulfils at once with nothing
    auto p = PRMWhen(nullptr);
    EXPECT_TRUE(p->fulfilled());
    EXPECT_FALSE(p->value());
  }
  // A failing single member is at position 0.
  auto failed = PRMWhen(rejected(4));
  EXPECT_TRUE(isEqual(failingIndex(settledValue(failed)), Number::withUnsignedInteger(0)));
  failed->catch_([] {});
}

TEST(PromiseAll, CollectionMutatedWhileEnumerated) {
  // The mutation exception raised inside the resolver body rejects the aggregate
  // with the converted error; the members already watched settle harmlessly, a
  // rejected one included: it finds the aggregate settled and leaves it alone.
  UnhandledCapture quiet;
  LogCapture log;
  auto dictionary = MutableDictionary::make();
  auto key = make<PromiseAllSettlingKey>();
  dictionary->setObjectForKey(rejected(3), NK_STR("first"));
  dictionary->setObjectForKey(fulfilled(1), key);
  dictionary->setObjectForKey(num(2), NK_STR("second"));
  key->action = [target = dictionary.get()] {  // unretained: the dictionary owns the key
    // Enough entries to make the table grow under the enumeration.
    for (int i = 0; i < 64; ++i) target->setObjectForKey(NK_STR("late"), num(i));
  };

  auto p = PRMAll(dictionary);
  ASSERT_TRUE(p->rejected());
  auto error = cast<Error>(p->value());
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->domain()->isEqual(PRMErrorDomain()));
  EXPECT_EQ(error->code(), 1);
  auto thrown = cast<Exception>(error->userInfo()->objectForKey(PRMUnderlyingExceptionKey()));
  ASSERT_TRUE(thrown);
  EXPECT_TRUE(thrown->name()->isEqual(NK_STR("NSGenericException")));
  EXPECT_NE(thrown->reason()->utf8().find("was mutated while being enumerated"), std::string::npos);
  EXPECT_FALSE(key->action);  // it ran
  idle();
  EXPECT_EQ(p->value().get(), error.get());
  EXPECT_EQ(log.count(kAlreadyResolved), 0u);
  p->catch_([] {});
}

TEST(PromiseAll, MembersSettlingWhileTheWalkRuns) {
  LogCapture log;
  {  // one member settles after it was watched, another before it is reached
    auto first = deferred(), middle = deferred(), last = deferred();
    auto key = make<PromiseAllSettlingKey>();
    auto dictionary = MutableDictionary::make();
    dictionary->setObjectForKey(first.promise, NK_STR("first"));
    dictionary->setObjectForKey(middle.promise, key);
    dictionary->setObjectForKey(last.promise, NK_STR("last"));
    key->action = [&] {
      (*first.resolve)(num(1));
      (*last.resolve)(num(3));
    };
    auto p = PRMAll(dictionary);
    idle(20ms);
    EXPECT_TRUE(p->pending());  // the middle member is still out
    (*middle.resolve)(num(2));
    EXPECT_TRUE(isEqual(
        settledValue(p),
        Dictionary::make({{NK_STR("first"), num(1)}, {key, num(2)}, {NK_STR("last"), num(3)}})));
  }
  {  // every member settles during the walk: the walk's end fulfils, once
    auto before = deferred(), own = deferred();
    auto key = make<PromiseAllSettlingKey>();
    auto dictionary = MutableDictionary::make();
    dictionary->setObjectForKey(before.promise, NK_STR("before"));
    dictionary->setObjectForKey(own.promise, key);
    key->action = [&] {
      (*before.resolve)(num(1));
      (*own.resolve)(num(2));
    };
    EXPECT_TRUE(isEqual(settledValue(PRMAll(dictionary)),
                        Dictionary::make({{NK_STR("before"), num(1)}, {key, num(2)}})));
  }
  idle(20ms);
  EXPECT_EQ(log.count(kAlreadyResolved), 0u);
}

TEST(PromiseAll, ManyThreadsSettlingAtOnce) {
  UnhandledCapture reports;
  LogCapture log;
  constexpr size_t kThreads = 4;
  // Interleaved fulfilments from several threads land in input order. The sizes take
  // large aggregates through a fresh entry array, the one the first left behind, and
  // one too large for it.
  for (const size_t count : {size_t{5000}, size_t{4500}, size_t{9000}}) {
    std::vector<Deferred> members(count);
    auto p = allOf(members);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (size_t i = t; i < count; i += kThreads) {
          (*members[i].resolve)(num(static_cast<int>(i)));
        }
      });
    }
    ASSERT_TRUE(settles(p));
    for (auto& thread : threads) thread.join();
    auto values = cast<Array>(p->value());
    ASSERT_TRUE(values);
    ASSERT_EQ(values->count(), count);
    for (size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(isEqual(values->objectAtIndex(i), num(static_cast<int>(i)))) << i;
    }
  }
  {  // rejections racing each other: one decides, with its own position
    std::vector<Deferred> members(2 * kThreads);
    auto p = allOf(members);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        while (!go.load()) std::this_thread::yield();
        (*members[2 * t].resolve)(num(0));
        (*members[2 * t + 1].resolve)(failure(static_cast<long>(2 * t + 1)));
      });
    }
    go = true;
    ASSERT_TRUE(settles(p));
    for (auto& thread : threads) thread.join();
    auto e = cast<Error>(p->value());
    ASSERT_TRUE(e);
    EXPECT_EQ(e->code() % 2, 1);
    EXPECT_TRUE(isEqual(failingIndex(e), Number::withUnsignedInteger(e->code())));
    p->catch_([] {});
  }
  idle();
  EXPECT_TRUE(reports.reports().empty()) << reports.reports().size();
  EXPECT_EQ(log.count(kAlreadyResolved), 0u);
}

TEST(PromiseAll, PendingMembersSettlingWithNothingOrAPromise) {
  {  // nothing: Null in a list, the key left out of a dictionary
    auto a = deferred(), b = deferred();
    auto list = PRMAll(Array::make({a.promise}));
    auto keyed = PRMAll(Dictionary::make({{NK_STR("b"), b.promise}, {NK_STR("c"), num(3)}}));
    (*a.resolve)(nullptr);
    (*b.resolve)(nullptr);
    EXPECT_TRUE(isEqual(settledValue(list), Array::make({Null::null()})));
    EXPECT_TRUE(isEqual(settledValue(keyed), Dictionary::make({{NK_STR("c"), num(3)}})));
  }
  {  // a promise that holds a pending one: a member holding it when the walk reaches
     // it is followed to the inner promise, as chaining on it would be; a member that
     // settles with it later hands its handlers the inner promise as its value
    auto inner = deferred(), member = deferred();
    auto holder = PRMPromise::promiseWithValue(inner.promise);
    auto p = PRMAll(Array::make({member.promise, num(1)}));
    auto early = PRMAll(Array::make({num(0), holder}));
    (*member.resolve)(holder);
    EXPECT_TRUE(isEqual(settledValue(p), Array::make({inner.promise, num(1)})));
    idle(20ms);
    EXPECT_TRUE(early->pending());
    (*inner.resolve)(num(7));
    EXPECT_TRUE(isEqual(settledValue(early), Array::make({num(0), num(7)})));
  }
}

TEST(PromiseAll, EveryReferenceToAMemberValueIsGivenBack) {
  // Settling takes the references the waiting aggregates keep together with the
  // slot's own: each must be used once or given back, whatever the outcome.
  const Id values[] = {num(5), failure(3)};
  for (const Id& value : values) {
    {
      auto member = deferred();
      auto first = PRMAll(Array::make({member.promise}));
      auto second = PRMAll(Dictionary::make({{NK_STR("k"), member.promise}}));
      (*member.resolve)(value);
      for (const auto& p : {first, second}) {
        if (cast<Error>(value)) {
          EXPECT_EQ(rejectionCode(p), 3);
        } else {
          EXPECT_TRUE(settles(p) && p->fulfilled());
        }
      }
    }
    idle(20ms);
    EXPECT_EQ(value->retainCount(), 1u) << value->description()->utf8();
  }
  {  // settled with a pending promise first: the references go to that promise's value
    Id value = num(6);
    {
      auto inner = deferred(), member = deferred();
      auto p = PRMAll(Array::make({member.promise}));
      (*member.resolve)(inner.promise);
      (*inner.resolve)(value);
      EXPECT_TRUE(isEqual(settledValue(p), Array::make({value})));
    }
    idle(20ms);
    EXPECT_EQ(value->retainCount(), 1u);
  }
}

TEST(PromiseAll, MemberDyingPendingReleasesTheAggregate) {
  // The aggregate can then never fulfil; what it kept for its members is freed.
  Ref<PRMPromise> p;
  {
    auto member = deferred();
    p = PRMAll(Array::make({member.promise, num(1)}));
    EXPECT_GT(p->retainCount(), 1u);
  }
  idle(20ms);
  EXPECT_TRUE(p->pending());
  EXPECT_EQ(p->retainCount(), 1u);
}

}  // namespace
}  // namespace nk
