// Tests of PRMUntilCatch: retrying after a recovered failure, rejecting with the
// attempt's own error, and releasing every closure and promise once it ends.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "nk/foundation/array.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/promise_test_support_internal.hpp"
#include "nk/promise/promise_until.hpp"

namespace nk {
namespace {

using namespace promise_test;

// Counts its own destruction, to show that the closures holding it were freed.
struct Counted {
  explicit Counted(std::atomic<int>* n) : destroyed(n) {}
  ~Counted() { ++*destroyed; }
  std::atomic<int>* destroyed;
};

TEST(PromiseUntilCatch, Retries) {
  UnhandledCapture reports;
  {  // work that fulfils at once: one attempt, the handler never called
    int attempts = 0, caught = 0;
    auto p = PRMPromise::untilCatch(
        [&]() -> Id {
          ++attempts;
          return Array::make({PRMPromise::promiseWithValue(num(1)), num(2)});
        },
        [&](const Ref<Error>&) { ++caught; });
    ASSERT_TRUE(settles(p));
    EXPECT_TRUE(isEqual(p->value(), Array::make({num(1), num(2)})));
    EXPECT_EQ(attempts, 1);
    EXPECT_EQ(caught, 0);
  }
  {  // a failure the handler recovers from: a second attempt, whose value is the result
    int attempts = 0;
    Ref<Error> seen;
    auto p = PRMUntilCatch(
        [&]() -> Id {
          return ++attempts == 1 ? Id(PRMPromise::promiseWithValue(failure(3)))
                                 : Id(PRMPromise::promiseWithValue(num(42)));
        },
        [&](const Ref<Error>& e) { seen = e; });
    ASSERT_TRUE(settles(p));
    EXPECT_EQ(attempts, 2);
    EXPECT_TRUE(isEqual(p->value(), num(42)));
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->code(), 3);
    EXPECT_TRUE(seen->userInfo()->objectForKey(PRMFailingPromiseIndexKey()));
  }
  idle();
  EXPECT_TRUE(reports.reports().empty());
}

TEST(PromiseUntilCatch, RejectsWithTheAttemptsError) {
  UnhandledCapture reports;
  {  // the handler's own error does not replace the attempt's
    int attempts = 0;
    auto p = PRMUntilCatch(
        [&]() -> Id {
          ++attempts;
          return PRMPromise::promiseWithValue(failure(1));
        },
        [](const Ref<Error>&) { return failure(2); });
    ASSERT_TRUE(settles(p));
    ASSERT_TRUE(p->rejected());
    EXPECT_EQ(cast<Error>(p->value())->code(), 1);
    EXPECT_EQ(attempts, 1);
    p->catch_([] {});
  }
  {  // a handler that throws ends it the same way
    auto p = PRMUntilCatch([]() -> Id { return PRMPromise::promiseWithValue(failure(5)); },
                           []() -> Id { Exception::raise("Boom", "no"); });
    ASSERT_TRUE(settles(p));
    EXPECT_EQ(cast<Error>(p->value())->code(), 5);
    p->catch_([] {});
  }
  {  // a later attempt's producer throwing rejects with the previous attempt's error
    int attempts = 0;
    auto p = PRMUntilCatch(
        [&]() -> Id {
          if (++attempts == 2) Exception::raise("Boom", "second");
          return PRMPromise::promiseWithValue(failure(6));
        },
        [] {});
    ASSERT_TRUE(settles(p));
    EXPECT_EQ(cast<Error>(p->value())->code(), 6);
    p->catch_([] {});
  }
  {  // the first producer throwing rejects the result
    auto p = PRMUntilCatch([]() -> Id { Exception::raise("Boom", "first"); }, [] {});
    ASSERT_TRUE(p->rejected());
    p->catch_([] {});
  }
  idle();
  EXPECT_TRUE(reports.reports().empty());
}

TEST(PromiseUntilCatch, ReleasesEverythingWhenDone) {
  UnhandledCapture quiet;
  {  // fulfilled after a retry
    std::atomic<int> destroyed{0};
    auto work = PRMPromise::promiseWithValue(num(1));
    {
      auto producerToken = std::make_shared<Counted>(&destroyed);
      auto handlerToken = std::make_shared<Counted>(&destroyed);
      int attempts = 0;
      auto p = PRMUntilCatch(
          [producerToken, &attempts, work]() -> Id {
            return ++attempts == 1 ? Id(PRMPromise::promiseWithValue(failure(1))) : Id(work);
          },
          [handlerToken](const Ref<Error>&) {});
      producerToken.reset();
      handlerToken.reset();
      ASSERT_TRUE(settles(p));
      idle();
      EXPECT_EQ(p->retainCount(), 1u);
    }
    EXPECT_EQ(destroyed.load(), 2);
    EXPECT_EQ(work->retainCount(), 1u);
  }
  {  // rejected
    std::atomic<int> destroyed{0};
    {
      auto token = std::make_shared<Counted>(&destroyed);
      auto p = PRMUntilCatch([token]() -> Id { return PRMPromise::promiseWithValue(failure(1)); },
                             [token](const Ref<Error>& e) { return e; });
      token.reset();
      ASSERT_TRUE(settles(p));
      idle();
      p->catch_([] {});
      idle();
    }
    EXPECT_EQ(destroyed.load(), 1);
  }
  {  // the first producer throwing
    std::atomic<int> destroyed{0};
    {
      auto token = std::make_shared<Counted>(&destroyed);
      auto p = PRMUntilCatch([token]() -> Id { Exception::raise("Boom", "first"); }, [] {});
      token.reset();
      p->catch_([] {});
      idle();
    }
    EXPECT_EQ(destroyed.load(), 1);
  }
}

}  // namespace
}  // namespace nk
