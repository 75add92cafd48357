// Tests of unhandled-error tracking: when an error nobody caught is reported, and
// when it is not.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "nk/promise/promise.hpp"
#include "nk/promise/promise_test_support_internal.hpp"

namespace nk {
namespace {

using namespace promise_test;

TEST(UnhandledErrors, ReportedOnceWhenTheLastHolderGoes) {
  UnhandledCapture capture;
  {
    auto e = failure(21);
    auto p = PRMPromise::promiseWithValue(e);
    auto skipped = p->then([] {});
    e = nullptr;
    p = nullptr;
    EXPECT_TRUE(capture.reports().empty());  // `skipped` still holds it
  }
  auto reports = capture.reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0]->code(), 21);
}

TEST(UnhandledErrors, NotReportedOnceCaught) {
  UnhandledCapture capture;
  {  // caught with a handler returning nothing
    auto d = deferred();
    auto end = d.promise->then([] {})->then([] {})->catch_([](Id) {});
    (*d.resolve)(failure());
    ASSERT_TRUE(settles(end));
  }
  {  // caught through one of two promises holding the same error
    auto e = failure();
    auto a = PRMPromise::promiseWithValue(e);
    auto b = PRMPromise::promiseWithValue(e);
    auto end = a->catch_([](Id) {});
    e = nullptr;
    ASSERT_TRUE(settles(end));
  }
  EXPECT_TRUE(capture.reports().empty());
}

TEST(UnhandledErrors, RearmedWhenStoredAgain) {
  UnhandledCapture capture;
  {  // a catch returning the error: uncaught downstream, so reported
    auto end = PRMPromise::promiseWithValue(failure(31))->catch_([](Ref<Error> x) { return x; });
    ASSERT_TRUE(settles(end));
    EXPECT_TRUE(end->rejected());
  }
  {  // caught first, stored again afterwards: reported
    auto e = failure(32);
    auto end = PRMPromise::promiseWithValue(e)->catch_([](Id) {});
    ASSERT_TRUE(settles(end));
    ASSERT_TRUE(PRMError::trackerOf(e.get())->consumed());
    auto again = PRMPromise::promiseWithValue(e);
    EXPECT_FALSE(PRMError::trackerOf(e.get())->consumed());
  }
  auto reports = capture.reports();
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0]->code() + reports[1]->code(), 63);
}

TEST(UnhandledErrors, ReportIsACopyThatDoesNotKeepTheErrorAlive) {
  UnhandledCapture capture;
  const Error* original;
  {
    auto e = failure(40);
    original = e.get();
    auto p = PRMPromise::promiseWithValue(e);
    auto tracker = PRMError::trackerOf(e.get());
    ASSERT_NE(tracker, nullptr);
    EXPECT_NE(tracker->error().get(), original);
    EXPECT_TRUE(tracker->error()->isEqual(original));
  }
  auto reports = capture.reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0]->code(), 40);
  EXPECT_EQ(reports[0]->retainCount(), 2u);  // the capture's and this copy's: nothing else
}

TEST(UnhandledErrors, ConcurrentFirstStoresShareOneTracker) {
  UnhandledCapture capture;
  for (int round = 0; round < 50; ++round) {
    auto e = failure(50);
    std::vector<Ref<PRMPromise>> held(8);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        while (!go.load()) std::this_thread::yield();
        held[t] = PRMPromise::promiseWithValue(e);
      });
    }
    go = true;
    for (auto& t : threads) t.join();
    PRMError::consume(e.get());  // as a catch handler would
  }
  // A second tracker replacing the first would have reported a live error.
  EXPECT_TRUE(capture.reports().empty());
}

TEST(UnhandledErrors, TheDefaultHandlerLogsANilOneReportsNothing) {
  LogCapture log;
  ASSERT_TRUE(static_cast<bool>(PRMUnhandledErrorHandler.get()));
  std::string text;
  {
    auto e = failure(5);
    text = e->description()->utf8();
    auto p = PRMPromise::promiseWithValue(e);
  }
  EXPECT_EQ(log.count("Migriornop: Unhandled error: " + text), 1u);
  auto previous = PRMUnhandledErrorHandler.exchange(nullptr);
  { auto p = PRMPromise::promiseWithValue(failure()); }
  PRMUnhandledErrorHandler = previous;
  EXPECT_EQ(log.lines().size(), 1u);
}

}  // namespace
}  // namespace nk
