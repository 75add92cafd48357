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
          return Array::make({fulfilled(1), num(2)});
        },
        [&](const Ref<Error>&) { ++caught; });
    EXPECT_TRUE(isEqual(settledValue(p), Array::make({num(1), num(2)})));
    EXPECT_EQ(attempts, 1);
    EXPECT_EQ(caught, 0);
  }
  {  // a failure the handler recovers from: a second attempt, whose value is the result
    int attempts = 0;
    Ref<Error> seen;
    auto p = PRMUntilCatch([&]() -> Id { return ++attempts == 1 ? rejected(3) : fulfilled(42); },
                           [&](const Ref<Error>& e) { seen = e; });
    EXPECT_TRUE(isEqual(settledValue(p), num(42)));
    EXPECT_EQ(attempts, 2);
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->code(), 3);
    EXPECT_TRUE(failingIndex(seen));
  }
  idle();
  EXPECT_TRUE(reports.reports().empty());
}

TEST(PromiseUntilCatch, RejectsWithTheAttemptsError) {
  UnhandledCapture reports;
  int attempts = 0;
  // The handler's own error does not replace the attempt's.
  EXPECT_EQ(rejectionCode(PRMUntilCatch([&]() -> Id { return ++attempts, rejected(1); },
                                        [](const Ref<Error>&) { return failure(2); })),
            1);
  EXPECT_EQ(attempts, 1);
  // A handler that throws ends it the same way.
  EXPECT_EQ(rejectionCode(PRMUntilCatch([]() -> Id { return rejected(5); },
                                        []() -> Id { Exception::raise("Boom", "no"); })),
            5);
  // A later attempt's producer throwing rejects with the previous attempt's error.
  attempts = 0;
  EXPECT_EQ(rejectionCode(PRMUntilCatch(
                [&]() -> Id {
                  if (++attempts == 2) Exception::raise("Boom", "second");
                  return rejected(6);
                },
                [] {})),
            6);
  // The first producer throwing rejects the result at once.
  auto p = PRMUntilCatch([]() -> Id { Exception::raise("Boom", "first"); }, [] {});
  EXPECT_TRUE(p->rejected());
  EXPECT_EQ(rejectionCode(p), 1);
  idle();
  EXPECT_TRUE(reports.reports().empty());
}

TEST(PromiseUntilCatch, ReleasesEverythingWhenDone) {
  // Each run's closures share one token: it dies only when all of them are freed.
  UnhandledCapture quiet;
  std::atomic<int> destroyed{0};
  auto work = fulfilled(1);
  {  // fulfilled after a retry
    auto token = std::make_shared<Counted>(&destroyed);
    int attempts = 0;
    auto p = PRMUntilCatch(
        [token, &attempts, work]() -> Id { return ++attempts == 1 ? rejected(1) : work; },
        [token](const Ref<Error>&) {});
    token.reset();
    ASSERT_TRUE(settles(p));
    idle();
    EXPECT_EQ(p->retainCount(), 1u);
  }
  EXPECT_EQ(destroyed.load(), 1);
  EXPECT_EQ(work->retainCount(), 1u);
  {  // rejected
    auto token = std::make_shared<Counted>(&destroyed);
    auto p = PRMUntilCatch([token]() -> Id { return rejected(1); },
                           [token](const Ref<Error>& e) { return e; });
    token.reset();
    EXPECT_EQ(rejectionCode(p), 1);
    idle();
  }
  EXPECT_EQ(destroyed.load(), 2);
  {  // the first producer throwing
    auto token = std::make_shared<Counted>(&destroyed);
    auto p = PRMUntilCatch([token]() -> Id { Exception::raise("Boom", "first"); }, [] {});
    token.reset();
    p->catch_([] {});
    idle();
  }
  EXPECT_EQ(destroyed.load(), 3);
}

}  // namespace
}  // namespace nk
