// Tests of chaining: which handlers run or are skipped, how outcomes settle the
// next promise, and which queue and thread handlers run on.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "nk/dispatch/main_thread.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/promise.hpp"
#include "nk/promise/promise_test_support_internal.hpp"

namespace nk {
namespace {

using namespace promise_test;

// Applies `step` to a promise already settled with `value` and to one settled with it
// only after `step` registered: the two paths through every chaining call.
template <class Step>
std::vector<Ref<PRMPromise>> onBothPaths(const Id& value, Step step) {
  auto d = deferred();
  std::vector<Ref<PRMPromise>> nexts{step(PRMPromise::promiseWithValue(value)), step(d.promise)};
  (*d.resolve)(value);
  return nexts;
}

TEST(PromiseChain, ThenRunsOnFulfilmentAndSettlesTheNext) {
  UnhandledCapture quiet;
  {  // settled path: the handler's object fulfils the next promise
    auto p = PRMPromise::promiseWithValue(Number::withInt(2));
    auto next = p->then([](Ref<Number> n) { return Number::withInt(n->intValue() * 10); });
    EXPECT_TRUE(isEqual(settledValue(next), Number::withInt(20)));
  }
  {  // pending path, through the chain callable
    auto d = deferred();
    auto next = d.promise->then()([](Id) { return 5L; });
    EXPECT_TRUE(next->pending());
    (*d.resolve)(NK_STR("go"));
    EXPECT_TRUE(isEqual(settledValue(next), Number::withLong(5)));
  }
  // Returning nothing fulfils with nil; a returned error rejects with it.
  auto e = failure();
  auto p = PRMPromise::promiseWithValue(nullptr);
  auto none = p->then([] {});
  auto failed = p->then([&] { return e; });
  ASSERT_TRUE(settles(none) && settles(failed));
  EXPECT_EQ(PRMGetResult(none.get()).get(), PRMNull());
  EXPECT_EQ(failed->value(), e);
}

TEST(PromiseChain, ErrorsSkipThenAsTheIdenticalObject) {
  UnhandledCapture quiet;
  auto e = failure();
  std::atomic<int> ran{0};
  {  // settled path: the skip is made at once, nothing is queued
    auto next = PRMPromise::promiseWithValue(e)->then([&](Id) { ++ran; });
    EXPECT_TRUE(next->rejected());
    EXPECT_EQ(next->value(), e);
  }
  {  // pending path: the skip happens on the settling thread, without the main loop
    auto d = deferred();
    auto a = d.promise->then([&](Id) { ++ran; });
    auto b = a->thenOn(Queue::global(), [&](Id) { ++ran; });
    std::thread([&] { (*d.resolve)(e); }).join();
    EXPECT_TRUE(a->rejected());
    EXPECT_TRUE(b->rejected());
    EXPECT_EQ(a->value(), e);
    EXPECT_EQ(b->value(), e);
  }
  {  // several skips, then a catch receives the very same object
    auto d = deferred();
    Id caught;
    auto end = d.promise->then([&] { ++ran; })->then([&] { ++ran; })->catch_([&](Id x) {
      caught = x;
      return NK_STR("recovered");
    });
    (*d.resolve)(e);
    ASSERT_TRUE(settles(end));
    EXPECT_EQ(caught, e);
    EXPECT_TRUE(end->fulfilled());
  }
  idle(20ms);
  EXPECT_EQ(ran.load(), 0);
}

TEST(PromiseChain, CatchRecoversOrPassesOn) {
  UnhandledCapture quiet;
  auto e = failure();
  {  // fulfilled values skip catch: the same value, nil staying nil
    auto n = Number::withInt(4);
    bool ran = false;
    auto next = PRMPromise::promiseWithValue(n)->catch_([&](Id) { ran = true; });
    EXPECT_EQ(next->value(), n);
    auto none = PRMPromise::promiseWithValue(nullptr)->catch_([&](Id) { ran = true; });
    EXPECT_TRUE(none->fulfilled());
    EXPECT_EQ(PRMGetResult(none.get()).get(), PRMNull());
    auto array = PRMArrayWithCount(2, n, n);
    EXPECT_EQ(
        PRMGetResult(PRMPromise::promiseWithValue(array)->catch_([&](Id) { ran = true; }).get()),
        array);
    EXPECT_FALSE(ran);
  }
  // A catch returning nothing fulfils with nil, in both paths.
  for (const auto& p : onBothPaths(e, [](auto p) { return p->catch_([](Ref<Error>) {}); })) {
    ASSERT_TRUE(settles(p));
    EXPECT_TRUE(p->fulfilled());
    EXPECT_EQ(PRMGetResult(p.get()).get(), PRMNull());
  }
  // A catch returning the error leaves the next promise rejected with it.
  auto next = PRMPromise::promiseWithValue(e)->catch_([](Ref<Error> x) { return x; });
  EXPECT_EQ(settledValue(next), e);
}

TEST(PromiseChain, FinallyRunsInBothOutcomes) {
  UnhandledCapture quiet;
  auto n = Number::withInt(8);
  int runs = 0;
  auto counting = [&](auto p) { return p->finally([&] { ++runs; }); };
  auto raising = [](auto p) {
    return p->finally([] { Exception::raise("Boom", "finally broke"); });
  };
  for (const Id& value : {Id(failure()), Id(n)}) {
    // The outcome passes on unchanged.
    for (const auto& p : onBothPaths(value, counting)) EXPECT_EQ(settledValue(p), value);
    // A raising finally rejects with the converted error.
    for (const auto& p : onBothPaths(value, raising)) {
      Ref<Error> err = cast<Error>(settledValue(p));
      ASSERT_TRUE(err);
      EXPECT_EQ(err->code(), 1);
      EXPECT_EQ(err->localizedDescription()->utf8(), "finally broke");
    }
  }
  auto viaCallable = PRMPromise::promiseWithValue(n)->finally()([&] { ++runs; });
  EXPECT_EQ(settledValue(viaCallable), n);
  EXPECT_EQ(runs, 5);
}

TEST(PromiseChain, ReturnedAndHeldPromisesAreFollowed) {
  UnhandledCapture quiet;
  {  // a handler returning a pending promise: the next waits for it
    auto inner = deferred();
    auto next = PRMPromise::promiseWithValue(nullptr)->then([&] { return inner.promise; });
    idle(20ms);
    EXPECT_TRUE(next->pending());
    (*inner.resolve)(NK_STR("late"));
    EXPECT_EQ(settledValue(next)->description()->utf8(), "late");
  }
  // then on a promise whose slot holds a promise registers on the inner one.
  auto inner = deferred();
  auto holder = PRMPromise::promiseWithValue(inner.promise);
  Id seen;
  auto next = holder->then([&](Id x) { seen = x; });
  EXPECT_EQ(inner.promise->description()->utf8(), "Promise: 1 pending handlers");
  auto v = Number::withInt(6);
  (*inner.resolve)(v);
  ASSERT_TRUE(settles(next));
  EXPECT_EQ(seen, v);
}

TEST(PromiseQueues, ThenOnTheMainLoopThenInBackgroundOnAPoolThread) {
  {  // then: on the main thread, once the main loop runs
    std::atomic<int> runs{0};
    std::atomic<bool> onMain{false};
    auto next = PRMPromise::promiseWithValue(nullptr)->then([&] {
      onMain = isMainThread();
      ++runs;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(runs.load(), 0);  // the main loop has not run yet
    ASSERT_TRUE(settles(next));
    EXPECT_EQ(runs.load(), 1);
    EXPECT_TRUE(onMain.load());
  }
  // thenInBackground: no main loop needed, so wait from this thread.
  std::atomic<bool> onMain{true};
  auto d = deferred();
  auto next = d.promise->thenInBackground([&] { onMain = isMainThread(); });
  (*d.resolve)(nullptr);
  ASSERT_TRUE(settlesOffMain(next));
  EXPECT_FALSE(onMain.load());
}

TEST(PromiseQueues, ClientCodeRunWhileAStepSettlesMayWaitForGlobalWork) {
  // A background step settles its promise as it ends, which runs this client callback
  // on the step's thread; work it queues must still reach another thread.
  auto d = deferred();
  auto step = d.promise->thenInBackground([](Id v) { return v; });
  std::promise<void> reached;
  std::future<void> reachedDone = reached.get_future();
  std::atomic<bool> waited{false};
  auto watch = step->resolvedPending(
      [](const Id&) { return [](const Queue&, auto) -> Ref<PRMPromise> { return nullptr; }; },
      [&](const Id&, const Ref<PRMPromise>&, const Queue&, auto, PRMResolver resolveNext) {
        Queue::global().async([&] { reached.set_value(); });
        waited = reachedDone.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
        resolveNext(nullptr);
      });
  auto watched = watch(Queue::global(), 0);
  (*d.resolve)(nullptr);
  ASSERT_TRUE(settlesOffMain(watched, std::chrono::seconds(25)));
  EXPECT_TRUE(waited.load());
}

TEST(PromiseQueues, HandlersOnOneSerialQueueRunInRegistrationOrder) {
  auto d = deferred();
  std::vector<int> order;
  std::vector<Ref<PRMPromise>> nexts;
  for (int i = 0; i < 5; ++i) nexts.push_back(d.promise->then([&order, i] { order.push_back(i); }));
  // More handlers than one batch of queued tasks holds, alternating between two serial
  // queues, with skipped catch steps among them: those settle during the settle call,
  // and the handler after each queues its task then, behind the ones before it.
  auto a = Queue::serial("prm.test.order.a");
  auto b = Queue::serial("prm.test.order.b");
  constexpr int kHandlers = 40;
  std::vector<int> orderA, orderB;
  std::vector<Ref<PRMPromise>> passed, skipped;
  std::mutex lock;
  for (int i = 0; i < kHandlers; ++i) {
    bool onA = (i / 3) % 2 == 0;
    passed.push_back(d.promise->thenOn()(onA ? a : b, [&, i, onA](Id value) {
      std::lock_guard<std::mutex> g(lock);
      (onA ? orderA : orderB).push_back(i);
      return value;
    }));
    if (i % 7 == 0) {
      auto caught = d.promise->catchOn()(a, [](Id) { return Id(); });
      skipped.push_back(caught);
      nexts.push_back(caught->thenOn()(a, [&, i] {
        std::lock_guard<std::mutex> g(lock);
        orderA.push_back(-1 - i);
      }));
    }
  }
  Ref<String> v = NK_STR("v");
  (*d.resolve)(v);
  for (auto& p : skipped) EXPECT_EQ(PRMGetResult(p.get()), v);
  for (auto& p : nexts) ASSERT_TRUE(settles(p));
  for (auto& p : passed) EXPECT_EQ(settledValue(p), v);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  std::vector<int> expectA, expectB;
  for (int i = 0; i < kHandlers; ++i) {
    ((i / 3) % 2 == 0 ? expectA : expectB).push_back(i);
    if (i % 7 == 0) expectA.push_back(-1 - i);
  }
  EXPECT_EQ(orderA, expectA);
  EXPECT_EQ(orderB, expectB);
}

TEST(PromiseChain, LongPendingChainsSettleWithoutDeepRecursion) {
  // Every link settles the next one inside its own settlement.
  constexpr int kLinks = 200000;
  {  // a rejection skipping every then step, a value skipping every catch step
    auto errorRoot = deferred(), valueRoot = deferred();
    Ref<PRMPromise> errorTail = errorRoot.promise, valueTail = valueRoot.promise;
    for (int i = 0; i < kLinks; ++i) {
      errorTail = errorTail->then([] { ADD_FAILURE(); });
      valueTail = valueTail->catch_([] { ADD_FAILURE(); });
    }
    (*errorRoot.resolve)(failure(5));
    (*valueRoot.resolve)(num(6));
    EXPECT_EQ(rejectionCode(errorTail), 5);
    EXPECT_TRUE(isEqual(settledValue(valueTail), num(6)));
  }
  {  // each promise resolved with the pending one made before it
    auto root = deferred();
    Ref<PRMPromise> tail = root.promise;
    for (int i = 0; i < kLinks; ++i) {
      tail = PRMPromise::promiseWithResolver([&](PRMResolver r) { r(tail); });
    }
    (*root.resolve)(num(7));
    EXPECT_TRUE(isEqual(settledValue(tail), num(7)));
  }
  {  // far down a chain, handlers still reach their queue in registration order, a
     // long branch between two of them included
    auto root = deferred();
    Ref<PRMPromise> p = root.promise;
    for (int i = 0; i < 100; ++i) p = p->then([] {});
    auto q = Queue::serial("prm.test.deep");
    std::vector<char> order;  // one task at a time on q
    auto a = p->catchOn(q, [&] { order.push_back('a'); });
    Ref<PRMPromise> b = p;
    for (int i = 0; i < 100; ++i) b = b->then([] {});
    b = b->catchOn(q, [&] { order.push_back('b'); });
    auto c = p->catchOn(q, [&] { order.push_back('c'); });
    (*root.resolve)(failure(8));
    ASSERT_TRUE(settles(a) && settles(b) && settles(c));
    EXPECT_EQ(order, (std::vector<char>{'a', 'b', 'c'}));
  }
}

}  // namespace
}  // namespace nk
