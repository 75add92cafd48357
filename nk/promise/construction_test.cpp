// Tests of the constructors: the resolver's guard, the fulfiller and rejecter, bodies
// that raise, the adapters, dispatch_promise and the shared operation queue.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "nk/dispatch/main_thread.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/promise.hpp"
#include "nk/promise/promise_test_support_internal.hpp"

namespace nk {
namespace {

using namespace promise_test;

const Error* errorOf(const Ref<PRMPromise>& p) { return cast<Error>(PRMGetResult(p.get()).get()); }

TEST(PromiseConstruction, ResolverSettlesOnce) {
  LogCapture log;
  {  // twice: the second call warns and changes nothing
    Ref<String> first = NK_STR("first");
    auto p = PRMPromise::new_([&](PRMFulfiller fulfil, PRMRejecter) {
      fulfil(first);
      fulfil(NK_STR("second"));
    });
    EXPECT_EQ(p->value(), first);
    EXPECT_EQ(log.count(kAlreadyResolved), 1u);
  }
  {  // a resolver kept and called later, from another thread
    auto d = deferred();
    std::thread([&] { (*d.resolve)(Number::withInt(1)); }).join();
    EXPECT_TRUE(isEqual(d.promise->value(), Number::withInt(1)));
  }
}

Ref<PRMPromise> rejectedBy(const Id& reason) {
  return PRMPromise::new_([&](PRMFulfiller, PRMRejecter j) { j(reason); });
}

TEST(PromiseConstruction, FulfillerAndRejecter) {
  UnhandledCapture quiet;
  LogCapture log;
  auto e = failure();
  {  // fulfilling with an error rejects, after a warning
    auto p = PRMPromise::new_([&](PRMFulfiller f, PRMRejecter) { f(e); });
    EXPECT_EQ(PRMGetResult(p.get()), e);
    EXPECT_EQ(log.count("Migriornop: Warning: PRMFulfiller called with NSError."), 1u);
  }
  {  // rejecting with nil: code 3 without user information, and a warning
    auto p = rejectedBy(nullptr);
    ASSERT_NE(errorOf(p), nullptr);
    EXPECT_EQ(errorOf(p)->code(), 3);
    EXPECT_TRUE(errorOf(p)->domain()->isEqual(PRMErrorDomain()));
    EXPECT_EQ(errorOf(p)->userInfo(), nullptr);
    EXPECT_EQ(log.count("Migriornop: Warning: Promise rejected with nil"), 1u);
  }
  // Rejecting with a string or a fulfilled promise: code 3 describing and holding it.
  const std::pair<Id, std::string> reasons[] = {
      {String::fromUTF8("no disk"), "no disk"},
      {PRMPromise::promiseWithValue(num(2)), "Promise: fulfilled: 2"}};
  for (const auto& [reason, text] : reasons) {
    auto p = rejectedBy(reason);
    ASSERT_NE(errorOf(p), nullptr) << text;
    EXPECT_EQ(errorOf(p)->code(), 3);
    EXPECT_EQ(errorOf(p)->localizedDescription()->utf8(), text);
    EXPECT_EQ(errorOf(p)->userInfo()->objectForKey(PRMUnderlyingExceptionKey()), reason);
  }
  // Rejecting with a rejected promise adopts its very error.
  EXPECT_EQ(PRMGetResult(rejectedBy(PRMPromise::promiseWithValue(e)).get()), e);
  // Rejecting with an error rejects with it, without any warning.
  size_t before = log.lines().size();
  EXPECT_EQ(PRMGetResult(rejectedBy(e).get()), e);
  EXPECT_EQ(log.lines().size(), before);
}

TEST(PromiseConstruction, BodiesThatRaise) {
  UnhandledCapture quiet;
  {  // raising after fulfilling: the converted error replaces the value
    auto p = PRMPromise::promiseWithResolver([](PRMResolver r) {
      r(NK_STR("done"));
      Exception::raise("Boom", "after the fact");
    });
    ASSERT_TRUE(p->rejected());
    EXPECT_EQ(errorOf(p)->code(), 1);
    EXPECT_EQ(errorOf(p)->localizedDescription()->utf8(), "after the fact");
  }
  {  // waiting entries are dropped, not run, when the body raises
    std::optional<PRMResolver> keep;
    bool ran = false;
    Ref<PRMPromise> next;
    auto p = PRMPromise::promiseWithResolver([&](PRMResolver r) {
      keep.emplace(r);
      next = r.promise()->thenOn(Queue::main(), [&] { ran = true; });
      raise(NK_STR("thrown string"));
    });
    EXPECT_TRUE(p->rejected());
    idle(20ms);
    EXPECT_FALSE(ran);
    EXPECT_TRUE(next->pending());
  }
  // Other exceptions reach the caller.
  EXPECT_THROW(PRMPromise::promiseWithResolver([](PRMResolver) { throw std::logic_error("x"); }),
               std::logic_error);
}

TEST(PromiseConstruction, Adapters) {
  UnhandledCapture quiet;
  LogCapture log;
  auto e = failure();
  auto v = Number::withInt(1);
  // The error wins, whatever the adapter.
  for (const auto& bad :
       {PRMPromise::promiseWithAdapter([&](PRMAdapter a) { a(v, e); }),
        PRMPromise::promiseWithIntegerAdapter([&](PRMIntegerAdapter a) { a(42, e); }),
        PRMPromise::promiseWithBooleanAdapter([&](PRMBooleanAdapter a) { a(true, e); })}) {
    EXPECT_EQ(PRMGetResult(bad.get()), e);
  }
  // Else the value: the object (nil fulfils with nil), a 64-bit number, the shared Boolean.
  EXPECT_EQ(PRMPromise::promiseWithAdapter([&](PRMAdapter a) { a(v, nullptr); })->value(), v);
  auto none = PRMPromise::promiseWithAdapter([&](PRMAdapter a) { a(nullptr, nullptr); });
  EXPECT_TRUE(none->fulfilled());
  EXPECT_EQ(none->value(), nullptr);
  auto integer = PRMPromise::promiseWithIntegerAdapter([](PRMIntegerAdapter a) { a(42, nullptr); });
  auto* n = cast<Number>(integer->value().get());
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(n->longLongValue(), 42);
  EXPECT_EQ(n->objCType(), 'q');
  auto yes = PRMPromise::promiseWithBooleanAdapter([](PRMBooleanAdapter a) { a(true, nullptr); });
  EXPECT_EQ(yes->value().get(), Number::yes());
  // Adapters never warn about fulfilling or rejecting; a second call does.
  EXPECT_TRUE(log.lines().empty());
  PRMPromise::promiseWithAdapter([&](PRMAdapter a) {
    a(nullptr, nullptr);
    a(nullptr, e);
  });
  EXPECT_EQ(log.count(kAlreadyResolved), 1u);
}

TEST(PromiseConstruction, DispatchPromise) {
  UnhandledCapture quiet;
  {  // runs on the given queue, returns at once
    std::atomic<bool> onMain{true};
    auto p = dispatch_promise([&] {
      onMain = isMainThread();
      return 3;
    });
    EXPECT_TRUE(isEqual(settledValue(p), Number::withInt(3)));
    EXPECT_FALSE(onMain.load());
  }
  {  // a handler with a parameter receives nil
    Id seen = NK_STR("x");
    auto p = dispatch_promise_on(Queue::main(), [&](Id x) { seen = x; });
    EXPECT_TRUE(p->pending());
    ASSERT_TRUE(settles(p));
    EXPECT_EQ(seen, nullptr);
  }
  {  // a returned pending promise is followed until it settles
    auto inner = deferred();
    auto p = dispatch_promise([&] { return inner.promise; });
    idle(20ms);
    EXPECT_TRUE(p->pending());
    auto e = failure();
    (*inner.resolve)(e);
    EXPECT_EQ(settledValue(p), e);
  }
}

TEST(PromiseConstruction, SharedOperationQueue) {
  std::vector<OperationQueue*> seen(8);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back([&, i] { seen[i] = &PRMOperationQueue(); });
  for (auto& t : threads) t.join();
  EXPECT_EQ(std::set<OperationQueue*>(seen.begin(), seen.end()).size(), 1u);
  EXPECT_EQ(seen[0], &PRMOperationQueue());
}

}  // namespace
}  // namespace nk
