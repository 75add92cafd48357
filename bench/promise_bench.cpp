// Promise engine benchmarks, each beside its peers in the same run: Boost.Thread
// futures with `.then` on a basic_thread_pool, std::promise/std::future, and bare
// executor hops of Asio and of GLib's thread pool.
//
//   Chain/*     a chain of kChain continuations built on a pending root, then the root
//               settled: time per link until the tail settles (registration untimed)
//   FanOut/*    kFan continuations on one pending promise: Register = time per
//               registration; Settle = the settle call per waiting handler; Run = from
//               the settle until every handler has run, per handler
//   RoundTrip/* one settled value, one continuation on a pool thread, waited for
//   Memory/*    bytes and allocations per pending promise, per waiting entry and per
//               chained link, counted by a global operator new hook
#define BOOST_THREAD_VERSION 4
#define BOOST_THREAD_PROVIDES_EXECUTORS
#include <benchmark/benchmark.h>
#include <glib.h>
#include <linux/futex.h>
#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <asio.hpp>
#include <atomic>
#include <boost/thread/executors/basic_thread_pool.hpp>
#include <boost/thread/future.hpp>
#include <chrono>
#include <cstdlib>
#include <future>
#include <new>
#include <optional>
#include <thread>
#include <vector>

#include "nk/dispatch/queue.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/promise.hpp"

// ---- Allocation counting, on the measuring thread only.

// GCC pairs the replaced operator new with free() after inlining and warns.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

namespace {
thread_local bool tCounting = false;
thread_local size_t tAllocations = 0;
thread_local size_t tBytes = 0;
}  // namespace

void* operator new(size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  if (tCounting) {
    ++tAllocations;
    tBytes += malloc_usable_size(p) + sizeof(void*);  // the chunk header included
  }
  return p;
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kChain = 100000;
constexpr int kFan = 100000;

unsigned poolThreads() { return std::max(2u, std::thread::hardware_concurrency()); }

struct Event {
  std::atomic<uint32_t> word{0};
  void set() {
    word.store(1, std::memory_order_release);
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr,
            0);
  }
  void wait() {
    while (word.load(std::memory_order_acquire) == 0) {
      syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), FUTEX_WAIT_PRIVATE, 0, nullptr,
              nullptr, 0);
    }
    word.store(0, std::memory_order_relaxed);
  }
};

boost::executors::basic_thread_pool& boostPool() {
  static auto* pool = new boost::executors::basic_thread_pool(poolThreads());
  return *pool;
}

asio::thread_pool& asioPool() {
  static auto* pool = new asio::thread_pool(poolThreads());
  return *pool;
}

double nsSince(Clock::time_point t) {
  return std::chrono::duration<double, std::nano>(Clock::now() - t).count();
}

void perItem(benchmark::State& s, const char* name, double totalNs, int items) {
  s.counters[name] = benchmark::Counter(totalNs / items, benchmark::Counter::kAvgIterations);
}

// ---- (a) chains.

void chainBench(benchmark::State& s, const nk::Queue& q) {
  double total = 0;
  for (auto _ : s) {
    std::optional<nk::PRMResolver> resolve;
    auto root = nk::PRMPromise::promiseWithResolver([&](nk::PRMResolver r) { resolve.emplace(r); });
    Event done;
    {
      nk::Ref<nk::PRMPromise> tail = root;
      for (int i = 0; i < kChain; ++i) tail = tail->thenOn(q, [](nk::Id v) { return v; });
      tail->thenOn(q, [&] { done.set(); });
    }
    auto start = Clock::now();
    (*resolve)(nk::Number::withInt(1));
    done.wait();
    double ns = nsSince(start);
    total += ns;
    s.SetIterationTime(ns / 1e9);
    resolve.reset();
    root = nullptr;  // frees the settled chain, untimed
  }
  perItem(s, "ns_per_link", total, kChain);
}

void BM_Chain_NkThenOnGlobal(benchmark::State& s) { chainBench(s, nk::Queue::global()); }
void BM_Chain_NkThenOnSerial(benchmark::State& s) {
  static const nk::Queue queue = nk::Queue::serial("bench.promise.chain");
  chainBench(s, queue);
}

void BM_Chain_BoostThen(benchmark::State& s) {
  auto& pool = boostPool();
  double total = 0;
  for (auto _ : s) {
    boost::promise<int> root;
    std::optional<boost::future<int>> tail(root.get_future());
    for (int i = 0; i < kChain; ++i) {
      tail.emplace(tail->then(pool, [](boost::future<int> f) { return f.get(); }));
    }
    auto start = Clock::now();
    root.set_value(1);
    benchmark::DoNotOptimize(tail->get());
    double ns = nsSince(start);
    total += ns;
    s.SetIterationTime(ns / 1e9);
  }
  perItem(s, "ns_per_link", total, kChain);
}

// The floor: each task posts the next to the pool, no promise involved.
void BM_Chain_AsioBareHop(benchmark::State& s) {
  auto& pool = asioPool();
  double total = 0;
  for (auto _ : s) {
    Event done;
    std::atomic<int> left{kChain};
    struct Step {
      asio::thread_pool* pool;
      std::atomic<int>* left;
      Event* done;
      void operator()() const {
        if (left->fetch_sub(1, std::memory_order_relaxed) == 1) {
          done->set();
        } else {
          asio::post(*pool, *this);
        }
      }
    };
    auto start = Clock::now();
    asio::post(pool, Step{&pool, &left, &done});
    done.wait();
    double ns = nsSince(start);
    total += ns;
    s.SetIterationTime(ns / 1e9);
  }
  perItem(s, "ns_per_link", total, kChain);
}

// The same floor on GLib's thread pool: each task pushes the next one.
struct GLibHops {
  GThreadPool* pool;
  std::atomic<int> left;
  Event done;
};

GThreadPool* glibPool() {
  static GThreadPool* pool = g_thread_pool_new(
      [](gpointer data, gpointer) {
        auto* hops = static_cast<GLibHops*>(data);
        if (hops->left.fetch_sub(1, std::memory_order_relaxed) == 1) {
          hops->done.set();
        } else {
          g_thread_pool_push(hops->pool, hops, nullptr);
        }
      },
      nullptr, static_cast<int>(poolThreads()), FALSE, nullptr);
  return pool;
}

void BM_Chain_GLibBareHop(benchmark::State& s) {
  GThreadPool* pool = glibPool();
  double total = 0;
  for (auto _ : s) {
    GLibHops hops{pool, kChain, {}};
    auto start = Clock::now();
    g_thread_pool_push(pool, &hops, nullptr);
    hops.done.wait();
    double ns = nsSince(start);
    total += ns;
    s.SetIterationTime(ns / 1e9);
  }
  perItem(s, "ns_per_link", total, kChain);
}

// ---- (b) fan-out.

void BM_FanOut_Nk(benchmark::State& s) {
  nk::Queue q = nk::Queue::global();
  double reg = 0, settle = 0, run = 0;
  for (auto _ : s) {
    std::optional<nk::PRMResolver> resolve;
    auto root = nk::PRMPromise::promiseWithResolver([&](nk::PRMResolver r) { resolve.emplace(r); });
    std::atomic<int> left{kFan};
    Event done;
    std::vector<nk::Ref<nk::PRMPromise>> keep;
    keep.reserve(kFan);
    auto t0 = Clock::now();
    for (int i = 0; i < kFan; ++i) {
      keep.push_back(root->thenOn(q, [&] {
        if (left.fetch_sub(1, std::memory_order_relaxed) == 1) done.set();
      }));
    }
    reg += nsSince(t0);
    auto t1 = Clock::now();
    (*resolve)(nk::Number::withInt(1));
    settle += nsSince(t1);
    done.wait();
    double ns = nsSince(t1);
    run += ns;
    s.SetIterationTime(ns / 1e9);
  }
  perItem(s, "register_ns", reg, kFan);
  perItem(s, "settle_ns_per_handler", settle, kFan);
  perItem(s, "run_ns_per_handler", run, kFan);
}

void BM_FanOut_Boost(benchmark::State& s) {
  auto& pool = boostPool();
  double reg = 0, settle = 0, run = 0;
  for (auto _ : s) {
    boost::promise<int> root;
    boost::shared_future<int> shared = root.get_future().share();
    std::atomic<int> left{kFan};
    Event done;
    std::vector<boost::future<void>> keep;
    keep.reserve(kFan);
    auto t0 = Clock::now();
    for (int i = 0; i < kFan; ++i) {
      keep.push_back(shared.then(pool, [&](boost::shared_future<int>) {
        if (left.fetch_sub(1, std::memory_order_relaxed) == 1) done.set();
      }));
    }
    reg += nsSince(t0);
    auto t1 = Clock::now();
    root.set_value(1);
    settle += nsSince(t1);
    done.wait();
    double ns = nsSince(t1);
    run += ns;
    s.SetIterationTime(ns / 1e9);
    for (auto& f : keep) f.wait();
  }
  perItem(s, "register_ns", reg, kFan);
  perItem(s, "settle_ns_per_handler", settle, kFan);
  perItem(s, "run_ns_per_handler", run, kFan);
}

// ---- (c) one value, one continuation, one at a time.

void BM_RoundTrip_NkPromise(benchmark::State& s) {
  nk::Queue q = nk::Queue::global();
  Event done;
  for (auto _ : s) {
    auto next = nk::PRMPromise::promiseWithValue(nullptr)->thenOn(q, [&] { done.set(); });
    done.wait();
    benchmark::DoNotOptimize(next.get());
  }
}

void BM_RoundTrip_StdPromiseOnNkQueue(benchmark::State& s) {
  nk::Queue q = nk::Queue::global();
  for (auto _ : s) {
    std::promise<int> p;
    std::future<int> f = p.get_future();
    q.async([&p] { p.set_value(1); });
    benchmark::DoNotOptimize(f.get());
  }
}

void BM_RoundTrip_BoostThen(benchmark::State& s) {
  auto& pool = boostPool();
  for (auto _ : s) {
    auto f = boost::make_ready_future(1).then(pool, [](boost::future<int> x) { return x.get(); });
    benchmark::DoNotOptimize(f.get());
  }
}

// ---- (d) memory.

template <class F>
std::pair<double, double> countPer(int n, F&& f) {
  tAllocations = 0;
  tBytes = 0;
  tCounting = true;
  f();
  tCounting = false;
  return {static_cast<double>(tBytes) / n, static_cast<double>(tAllocations) / n};
}

void BM_Memory_Nk(benchmark::State& s) {
  constexpr int n = 1000;
  std::vector<nk::Ref<nk::PRMPromise>> keep;
  keep.reserve(n * 2);
  std::pair<double, double> pending, link;
  nk::Queue q = nk::Queue::global();
  for (auto _ : s) {
    keep.clear();
    pending = countPer(n, [&] {
      for (int i = 0; i < n; ++i) {
        keep.push_back(nk::PRMPromise::promiseWithResolver([](nk::PRMResolver) {}));
      }
    });
    auto root = keep[0];
    link = countPer(n, [&] {
      for (int i = 0; i < n; ++i) keep.push_back(root->thenOn(q, [](nk::Id v) { return v; }));
    });
  }
  s.counters["pending_promise_bytes"] = pending.first;
  s.counters["pending_promise_allocs"] = pending.second;
  s.counters["chained_link_bytes"] = link.first;
  s.counters["chained_link_allocs"] = link.second;
  // A waiting entry is what a link allocates beyond its next promise.
  s.counters["waiting_entry_bytes"] = link.first - pending.first;
}

void BM_Memory_Boost(benchmark::State& s) {
  constexpr int n = 1000;
  std::pair<double, double> pending, link;
  auto& pool = boostPool();
  for (auto _ : s) {
    std::vector<boost::promise<int>> promises;
    std::vector<boost::future<int>> futures;
    promises.reserve(n);
    futures.reserve(n * 2);
    pending = countPer(n, [&] {
      for (int i = 0; i < n; ++i) {
        promises.emplace_back();
        futures.push_back(promises.back().get_future());
      }
    });
    boost::promise<int> root;
    auto shared = root.get_future().share();
    std::vector<boost::future<int>> links;
    links.reserve(n);
    link = countPer(n, [&] {
      for (int i = 0; i < n; ++i) {
        links.push_back(shared.then(pool, [](boost::shared_future<int> f) { return f.get(); }));
      }
    });
    root.set_value(1);
    for (auto& f : links) f.wait();
    for (auto& p : promises) p.set_value(0);
  }
  s.counters["pending_promise_bytes"] = pending.first;
  s.counters["pending_promise_allocs"] = pending.second;
  s.counters["chained_link_bytes"] = link.first;
  s.counters["chained_link_allocs"] = link.second;
}

void BM_Memory_StdPromise(benchmark::State& s) {
  constexpr int n = 1000;
  std::pair<double, double> pending;
  for (auto _ : s) {
    std::vector<std::promise<int>> promises;
    std::vector<std::future<int>> futures;
    promises.reserve(n);
    futures.reserve(n);
    pending = countPer(n, [&] {
      for (int i = 0; i < n; ++i) {
        promises.emplace_back();
        futures.push_back(promises.back().get_future());
      }
    });
  }
  s.counters["pending_promise_bytes"] = pending.first;
  s.counters["pending_promise_allocs"] = pending.second;
}

}  // namespace

BENCHMARK(BM_Chain_NkThenOnGlobal)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Chain_NkThenOnSerial)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Chain_BoostThen)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Chain_AsioBareHop)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Chain_GLibBareHop)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FanOut_Nk)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FanOut_Boost)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RoundTrip_NkPromise);
BENCHMARK(BM_RoundTrip_StdPromiseOnNkQueue);
BENCHMARK(BM_RoundTrip_BoostThen);
BENCHMARK(BM_Memory_Nk)->Iterations(1);
BENCHMARK(BM_Memory_Boost)->Iterations(1);
BENCHMARK(BM_Memory_StdPromise)->Iterations(1);

BENCHMARK_MAIN();
