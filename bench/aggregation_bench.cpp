// PRMPromise::all beside Boost.Thread's when_all in the same run, over 10k, 100k
// and 1M members, to show the cost per member and that it stays flat as the
// count grows.
//
//   All/Fulfilled/*  every member already fulfilled: from the call until the
//                    aggregate has its value (the members' handlers run on the
//                    main loop, which this thread runs)
//   All/Later/*      every member pending, settled one by one from a background
//                    queue after the call: from the call until the aggregate settles;
//                    nk's in_call_ns_per_member is the part spent inside `all`
//
// Members are made outside the timed region on both sides.
#define BOOST_THREAD_VERSION 4
#define BOOST_THREAD_PROVIDES_EXECUTORS
#define BOOST_THREAD_PROVIDES_FUTURE_WHEN_ALL_WHEN_ANY
#include <benchmark/benchmark.h>

#include <boost/thread/future.hpp>
#include <chrono>
#include <optional>
#include <thread>
#include <vector>

#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/run_loop.hpp"
#include "nk/dispatch/semaphore.hpp"
#include "nk/foundation/array.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/promise.hpp"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

void perMember(benchmark::State& s, double totalSeconds) {
  s.counters["ns_per_member"] = benchmark::Counter(
      totalSeconds * 1e9 / static_cast<double>(s.range(0)), benchmark::Counter::kAvgIterations);
}

// Runs the main loop until the aggregate settles; false on a stall.
bool waitOnMainLoop(const nk::Ref<nk::PRMPromise>& p) {
  return nk::RunLoop::main().runUntil([&] { return !p->pending(); }, std::chrono::minutes(5));
}

// Times `round(n)` (the seconds one aggregate of n members took) once per
// iteration, and reports the average per member.
template <class Round>
void timeRounds(benchmark::State& s, Round round) {
  const auto n = static_cast<size_t>(s.range(0));
  double total = 0;
  for (auto _ : s) {
    const double t = round(n);
    total += t;
    s.SetIterationTime(t);
  }
  perMember(s, total);
}

void BM_All_Fulfilled_Nk(benchmark::State& s) {
  timeRounds(s, [&](size_t n) {
    std::vector<nk::Id> members;
    members.reserve(n);
    for (size_t i = 0; i < n; ++i) {
      members.push_back(nk::PRMPromise::promiseWithValue(nk::Number::withInt(1)));
    }
    auto array = nk::Array::make(std::move(members));
    auto start = Clock::now();
    auto all = nk::PRMPromise::all(array);
    if (!waitOnMainLoop(all) || !all->fulfilled()) s.SkipWithError("all did not fulfil");
    return secondsSince(start);
  });
}

void BM_All_Fulfilled_Boost(benchmark::State& s) {
  timeRounds(s, [&](size_t n) {
    std::vector<boost::future<int>> members;
    members.reserve(n);
    for (size_t i = 0; i < n; ++i) members.push_back(boost::make_ready_future(1));
    auto start = Clock::now();
    auto all = boost::when_all(members.begin(), members.end());
    auto values = all.get();
    double t = secondsSince(start);
    if (values.size() != n) s.SkipWithError("when_all lost members");
    return t;
  });
}

void BM_All_Later_Nk(benchmark::State& s) {
  double inCall = 0;
  timeRounds(s, [&](size_t n) {
    std::vector<nk::Id> members;
    std::vector<nk::PRMResolver> resolvers;
    members.reserve(n);
    resolvers.reserve(n);
    for (size_t i = 0; i < n; ++i) {
      members.push_back(nk::PRMPromise::promiseWithResolver(
          [&](nk::PRMResolver r) { resolvers.push_back(std::move(r)); }));
    }
    auto array = nk::Array::make(std::move(members));
    nk::Semaphore settled;
    auto start = Clock::now();
    auto all = nk::PRMPromise::all(array);
    inCall += secondsSince(start);
    nk::Queue::global().async([&resolvers, &settled] {
      // Held as an Id, as resolvers take it: a Ref<Number> would be converted, and
      // counted up and down, once per call.
      const nk::Id one = nk::Number::withInt(1);
      for (auto& r : resolvers) r(one);
      settled.signal();
    });
    if (!waitOnMainLoop(all) || !all->fulfilled()) s.SkipWithError("all did not fulfil");
    double t = secondsSince(start);
    // As the peer joins its settling thread: the members are then freed here, not by
    // the background queue while the next iteration runs.
    settled.wait();
    return t;
  });
  s.counters["in_call_ns_per_member"] = benchmark::Counter(
      inCall * 1e9 / static_cast<double>(s.range(0)), benchmark::Counter::kAvgIterations);
}

void BM_All_Later_Boost(benchmark::State& s) {
  timeRounds(s, [&](size_t n) {
    std::vector<boost::promise<int>> promises(n);
    std::vector<boost::future<int>> members;
    members.reserve(n);
    for (auto& p : promises) members.push_back(p.get_future());
    auto start = Clock::now();
    auto all = boost::when_all(members.begin(), members.end());
    std::thread settler([&] {
      for (auto& p : promises) p.set_value(1);
    });
    auto values = all.get();
    double t = secondsSince(start);
    settler.join();
    if (values.size() != n) s.SkipWithError("when_all lost members");
    return t;
  });
}

void counts(benchmark::internal::Benchmark* b) {
  b->Arg(10'000)->Arg(100'000)->Arg(1'000'000)->UseManualTime()->Unit(benchmark::kMillisecond);
}

}  // namespace

BENCHMARK(BM_All_Fulfilled_Nk)->Apply(counts);
BENCHMARK(BM_All_Fulfilled_Boost)->Apply(counts);
BENCHMARK(BM_All_Later_Nk)->Apply(counts);
BENCHMARK(BM_All_Later_Boost)->Apply(counts);

BENCHMARK_MAIN();
