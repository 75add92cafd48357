// Dispatch benchmarks: submission cost, throughput and hop latency of nk queues beside
// GLib (g_idle_add, GThreadPool), Asio (thread_pool, strand) and a raw futex wake-up,
// all measured in the same run so that the ratios are the figures to read. Built twice:
// dispatch_bench links the static library, dispatch_bench_shared the shared one, as
// clients do.
//
//   Post/*        cost of one submission on the submitting thread, consumers running
//   Throughput/*  batches of 1000 tasks submitted and run to completion, time per task
//   Hop/*         one-way latency from a submission to the task starting on a thread
//                 that was asleep; beside a raw futex wake (or, for the main loop, a bare
//                 g_main_context_wakeup)
//   Hop/Paired    the raw, global-queue and serial-queue hops taken in turn within each
//                 iteration, so that their ratios hold on a machine whose load drifts
#include <benchmark/benchmark.h>
#include <glib.h>

#include <algorithm>
#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "nk/dispatch/futex_internal.hpp"
#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/run_loop.hpp"

namespace {

constexpr int kBatch = 1000;
constexpr int kHopIterations = 4000;
constexpr auto kFallAsleep = std::chrono::microseconds(200);

unsigned poolThreads() { return std::max(2u, std::thread::hardware_concurrency()); }

// The very futex calls the queues make, so that a raw hop and a queue's hop differ only in
// the queue's own work.
void futexWait(std::atomic<uint32_t>* w, uint32_t v) { nk::dispatch_internal::futexWait(w, v); }
void futexWake(std::atomic<uint32_t>* w) { nk::dispatch_internal::futexWake(w, 1); }

// A reusable one-waiter event: set() always issues the wake, as a raw hand-off would.
struct Event {
  std::atomic<uint32_t> word{0};
  void set() {
    word.store(1, std::memory_order_release);
    futexWake(&word);
  }
  void wait() {
    while (word.load(std::memory_order_acquire) == 0) futexWait(&word, 0);
    word.store(0, std::memory_order_relaxed);
  }
};

// Counts a batch of tasks and sets the event when the last one has run. On lines of its
// own, as RanCounter below, so that the tasks' counting does not slow the submitter.
struct alignas(64) BatchCounter {
  std::atomic<int> done{0};
  Event finished;
  void taskRan() {
    if (done.fetch_add(1, std::memory_order_relaxed) + 1 == kBatch) finished.set();
  }
  void waitBatch() {
    finished.wait();
    done.store(0, std::memory_order_relaxed);
  }
};

// The peers, each as "submit f to run on another thread".
struct NkQueuePeer {
  nk::Queue queue;
  template <class F>
  void post(F&& f) {
    queue.async(std::forward<F>(f));
  }
};

struct AsioPoolPeer {
  asio::thread_pool pool{poolThreads()};
  template <class F>
  void post(F&& f) {
    asio::post(pool, std::forward<F>(f));
  }
};

struct AsioStrandPeer {
  asio::thread_pool pool{poolThreads()};
  asio::strand<asio::thread_pool::executor_type> strand = asio::make_strand(pool.get_executor());
  template <class F>
  void post(F&& f) {
    asio::post(strand, std::forward<F>(f));
  }
};

// GThreadPool takes a data pointer, not a closure: hand it pointers to a shared callback.
struct GThreadPoolPeer {
  struct Job {
    void (*run)(void*);
    void* arg;
  };
  GThreadPool* pool = g_thread_pool_new(
      [](gpointer data, gpointer) {
        auto* job = static_cast<Job*>(data);
        job->run(job->arg);
      },
      nullptr, static_cast<gint>(poolThreads()), FALSE, nullptr);
  ~GThreadPoolPeer() { g_thread_pool_free(pool, FALSE, TRUE); }
  void push(Job* job) { g_thread_pool_push(pool, job, nullptr); }
};

NkQueuePeer& nkGlobal() {
  static NkQueuePeer p{nk::Queue::global()};
  return p;
}
NkQueuePeer& nkSerial() {
  static NkQueuePeer p{nk::Queue::serial("bench.serial")};
  return p;
}
NkQueuePeer& nkConcurrent() {
  static NkQueuePeer p{nk::Queue::concurrent("bench.concurrent")};
  return p;
}
AsioPoolPeer& asioPool() {
  static auto* p = new AsioPoolPeer;
  return *p;
}
AsioStrandPeer& asioStrand() {
  static auto* p = new AsioStrandPeer;
  return *p;
}
GThreadPoolPeer& gthreadPool() {
  static auto* p = new GThreadPoolPeer;
  return *p;
}

// ---- Post: cost of one submission, consumers running ----------------------------------

// The consumers' count of tasks run, on a line of its own: beside the submitter's stack
// frame, every task would take that line from the submitter, and the submission would be
// charged for the benchmark's own counter.
struct alignas(64) RanCounter {
  std::atomic<int64_t> ran{0};
};

template <class PeerT>
void postBench(benchmark::State& state, PeerT& p) {
  RanCounter counter;
  std::atomic<int64_t>& ran = counter.ran;
  int64_t posted = 0;
  for (auto _ : state) {
    p.post([&ran] { ran.fetch_add(1, std::memory_order_relaxed); });
    ++posted;
  }
  // The timer stopped with the loop: drain the backlog before the next benchmark.
  while (ran.load() != posted) std::this_thread::yield();
  state.SetItemsProcessed(state.iterations());
}

void BM_Post_NkGlobal(benchmark::State& s) { postBench(s, nkGlobal()); }
void BM_Post_NkSerial(benchmark::State& s) { postBench(s, nkSerial()); }
void BM_Post_NkConcurrent(benchmark::State& s) { postBench(s, nkConcurrent()); }
void BM_Post_AsioThreadPool(benchmark::State& s) { postBench(s, asioPool()); }
void BM_Post_AsioStrand(benchmark::State& s) { postBench(s, asioStrand()); }

void BM_Post_GThreadPool(benchmark::State& state) {
  RanCounter counter;
  std::atomic<int64_t>& ran = counter.ran;
  GThreadPoolPeer::Job job{[](void* arg) {
                             static_cast<std::atomic<int64_t>*>(arg)->fetch_add(
                                 1, std::memory_order_relaxed);
                           },
                           &ran};
  int64_t posted = 0;
  for (auto _ : state) {
    gthreadPool().push(&job);
    ++posted;
  }
  // The timer stopped with the loop: drain the backlog before the next benchmark.
  while (ran.load() != posted) std::this_thread::yield();
  state.SetItemsProcessed(state.iterations());
}

// ---- Throughput: batches run to completion --------------------------------------------

template <class PeerT>
void throughputBench(benchmark::State& state, PeerT& p) {
  BatchCounter counter;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) p.post([&counter] { counter.taskRan(); });
    counter.waitBatch();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_Throughput_NkGlobal(benchmark::State& s) { throughputBench(s, nkGlobal()); }
void BM_Throughput_NkSerial(benchmark::State& s) { throughputBench(s, nkSerial()); }
void BM_Throughput_NkConcurrent(benchmark::State& s) { throughputBench(s, nkConcurrent()); }
void BM_Throughput_AsioThreadPool(benchmark::State& s) { throughputBench(s, asioPool()); }
void BM_Throughput_AsioStrand(benchmark::State& s) { throughputBench(s, asioStrand()); }

void BM_Throughput_GThreadPool(benchmark::State& state) {
  BatchCounter counter;
  GThreadPoolPeer::Job job{[](void* arg) { static_cast<BatchCounter*>(arg)->taskRan(); }, &counter};
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) gthreadPool().push(&job);
    counter.waitBatch();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

// ---- Hop: one-way latency to a sleeping thread ----------------------------------------
//
// Each iteration first lets the target thread fall asleep, then times from just before
// the submission to the first instruction of the task on the target thread.

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t median(std::vector<int64_t>& v) {
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  return v[v.size() / 2];
}

// Records one hop; on a busy machine the mean is at the mercy of preemptions, so the
// median is reported too.
class HopSamples {
 public:
  explicit HopSamples(benchmark::State& state) : state_(state) { samples_.reserve(kHopIterations); }
  ~HopSamples() {
    if (!samples_.empty()) state_.counters["p50_ns"] = static_cast<double>(median(samples_));
  }
  void add(int64_t ns) {
    samples_.push_back(ns);
    state_.SetIterationTime(ns * 1e-9);
  }

 private:
  benchmark::State& state_;
  std::vector<int64_t> samples_;
};

// A thread that wakes on a futex and stamps the time: the floor of every hop.
class RawPartner {
 public:
  RawPartner() : thread_([this] { run(); }) {}
  ~RawPartner() {
    quit_ = true;
    ping_.set();
    thread_.join();
  }
  RawPartner(const RawPartner&) = delete;
  RawPartner& operator=(const RawPartner&) = delete;

  // Lets the partner fall asleep, then times one wake-up.
  int64_t hop() {
    std::this_thread::sleep_for(kFallAsleep);
    int64_t sent = nowNs();
    ping_.set();
    pong_.wait();
    return arrived_.load(std::memory_order_relaxed) - sent;
  }

 private:
  void run() {
    for (;;) {
      ping_.wait();
      arrived_.store(nowNs(), std::memory_order_relaxed);
      if (quit_.load()) return;
      pong_.set();
    }
  }

  Event ping_, pong_;
  std::atomic<int64_t> arrived_{0};
  std::atomic<bool> quit_{false};
  std::thread thread_;  // last: it uses the members above as soon as it starts
};

// Lets the peer's threads fall asleep, then times one task from submission to start.
template <class PeerT>
int64_t hopOnce(PeerT& p) {
  Event pong;
  std::atomic<int64_t> arrived{0};
  std::this_thread::sleep_for(kFallAsleep);
  int64_t sent = nowNs();
  p.post([&] {
    arrived.store(nowNs(), std::memory_order_relaxed);
    pong.set();
  });
  pong.wait();
  return arrived.load(std::memory_order_relaxed) - sent;
}

void BM_Hop_RawFutex(benchmark::State& state) {
  RawPartner partner;
  HopSamples samples(state);
  for (auto _ : state) samples.add(partner.hop());
}

template <class PeerT>
void hopBench(benchmark::State& state, PeerT& p) {
  HopSamples samples(state);
  for (auto _ : state) samples.add(hopOnce(p));
}

// The comparison the queues are held to, with the drift of a shared machine taken out:
// each iteration times a raw futex hop, a global-queue hop and a serial-queue hop back
// to back, so that a change of host load reaches all three alike. The order rotates, so
// that no hop always follows the same one (a hop right after another through the same
// code finds more of it still cached). Reports the medians and the queue medians over
// the raw one.
void BM_Hop_Paired(benchmark::State& state) {
  RawPartner raw;
  std::vector<int64_t> rawNs, globalNs, serialNs;
  unsigned first = 0;
  for (auto _ : state) {
    for (unsigned k = 0; k < 3; ++k) {
      switch ((first + k) % 3) {
        case 0:
          rawNs.push_back(raw.hop());
          break;
        case 1:
          globalNs.push_back(hopOnce(nkGlobal()));
          break;
        default:
          serialNs.push_back(hopOnce(nkSerial()));
          break;
      }
    }
    first = (first + 1) % 3;
    state.SetIterationTime(static_cast<double>(rawNs.back() + globalNs.back() + serialNs.back()) *
                           1e-9);
  }
  const auto r = static_cast<double>(median(rawNs));
  const auto g = static_cast<double>(median(globalNs));
  const auto s = static_cast<double>(median(serialNs));
  state.counters["raw_p50_ns"] = r;
  state.counters["global_p50_ns"] = g;
  state.counters["serial_p50_ns"] = s;
  state.counters["global_over_raw"] = g / r;
  state.counters["serial_over_raw"] = s / r;
}

void BM_Hop_NkGlobal(benchmark::State& s) { hopBench(s, nkGlobal()); }
void BM_Hop_NkSerial(benchmark::State& s) { hopBench(s, nkSerial()); }
void BM_Hop_AsioThreadPool(benchmark::State& s) { hopBench(s, asioPool()); }
void BM_Hop_AsioStrand(benchmark::State& s) { hopBench(s, asioStrand()); }

struct HopJob {
  std::atomic<int64_t> arrived{0};
  Event pong;
};

void BM_Hop_GThreadPool(benchmark::State& state) {
  HopJob hop;
  HopSamples samples(state);
  GThreadPoolPeer::Job job{[](void* arg) {
                             auto* h = static_cast<HopJob*>(arg);
                             h->arrived.store(nowNs(), std::memory_order_relaxed);
                             h->pong.set();
                           },
                           &hop};
  for (auto _ : state) {
    std::this_thread::sleep_for(kFallAsleep);
    int64_t sent = nowNs();
    gthreadPool().push(&job);
    hop.pong.wait();
    samples.add(hop.arrived.load(std::memory_order_relaxed) - sent);
  }
}

// ---- The main queue: the benchmark thread is the main thread and runs the loop --------

// On each iteration a producer thread submits a batch to the main loop, which the main
// thread runs until the batch is done. Reports the producer's submission time, or the
// time until the whole batch has run.
template <class Submit>
void mainLoopBench(benchmark::State& state, Submit submit, bool reportPostTime) {
  std::atomic<int> ran{0};
  std::atomic<int64_t> postNs{0};
  Event go;
  std::atomic<bool> quit{false};
  std::thread producer([&] {
    for (;;) {
      go.wait();
      if (quit.load()) return;
      int64_t t0 = nowNs();
      for (int i = 0; i < kBatch; ++i) submit(ran);
      postNs.store(nowNs() - t0);
      g_main_context_wakeup(nullptr);  // the loop may have run everything already
    }
  });
  for (auto _ : state) {
    int64_t t0 = nowNs();
    ran.store(0);
    postNs.store(-1);
    go.set();
    while (ran.load(std::memory_order_acquire) != kBatch || (reportPostTime && postNs.load() < 0)) {
      g_main_context_iteration(nullptr, TRUE);
    }
    state.SetIterationTime((reportPostTime ? postNs.load() : nowNs() - t0) * 1e-9);
  }
  quit = true;
  go.set();
  producer.join();
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void nkMainSubmit(std::atomic<int>& ran) {
  nk::Queue::main().async([&ran] { ran.fetch_add(1, std::memory_order_release); });
}
void idleSubmit(std::atomic<int>& ran) {
  g_idle_add(
      [](gpointer p) -> gboolean {
        static_cast<std::atomic<int>*>(p)->fetch_add(1, std::memory_order_release);
        return G_SOURCE_REMOVE;
      },
      &ran);
}

void BM_Post_NkMain(benchmark::State& s) { mainLoopBench(s, nkMainSubmit, true); }
void BM_Post_GIdleAdd(benchmark::State& s) { mainLoopBench(s, idleSubmit, true); }
void BM_Throughput_NkMain(benchmark::State& s) { mainLoopBench(s, nkMainSubmit, false); }
void BM_Throughput_GIdleAdd(benchmark::State& s) { mainLoopBench(s, idleSubmit, false); }

// One-way latency from a producer thread to the main loop asleep in poll. `how` 0: set a
// flag and wake the context (the floor); 1: the main queue; 2: g_idle_add.
void mainHopBench(benchmark::State& state, int how) {
  std::atomic<int64_t> sent{0}, arrived{0};
  HopSamples samples(state);
  Event go;
  std::atomic<bool> quit{false};
  std::thread producer([&] {
    for (;;) {
      go.wait();
      if (quit.load()) return;
      std::this_thread::sleep_for(kFallAsleep);
      sent.store(nowNs());
      if (how == 0) {
        arrived.store(nowNs());
        g_main_context_wakeup(nullptr);
      } else if (how == 1) {
        nk::Queue::main().async([&] { arrived.store(nowNs()); });
      } else {
        g_idle_add(
            [](gpointer p) -> gboolean {
              static_cast<std::atomic<int64_t>*>(p)->store(nowNs());
              return G_SOURCE_REMOVE;
            },
            &arrived);
      }
    }
  });
  for (auto _ : state) {
    arrived.store(0);
    go.set();
    while (arrived.load() == 0) g_main_context_iteration(nullptr, TRUE);
    // The floor has no task: time it to the loop's return from poll instead.
    int64_t end = how == 0 ? nowNs() : arrived.load();
    samples.add(end - sent.load());
  }
  quit = true;
  go.set();
  producer.join();
}

void BM_Hop_MainLoopWakeup(benchmark::State& s) { mainHopBench(s, 0); }
void BM_Hop_NkMain(benchmark::State& s) { mainHopBench(s, 1); }
void BM_Hop_GIdleAdd(benchmark::State& s) { mainHopBench(s, 2); }

}  // namespace

BENCHMARK(BM_Post_NkGlobal);
BENCHMARK(BM_Post_NkSerial);
BENCHMARK(BM_Post_NkConcurrent);
BENCHMARK(BM_Post_AsioThreadPool);
BENCHMARK(BM_Post_AsioStrand);
BENCHMARK(BM_Post_GThreadPool);
BENCHMARK(BM_Post_NkMain)->UseManualTime();
BENCHMARK(BM_Post_GIdleAdd)->UseManualTime();

BENCHMARK(BM_Throughput_NkGlobal);
BENCHMARK(BM_Throughput_NkSerial);
BENCHMARK(BM_Throughput_NkConcurrent);
BENCHMARK(BM_Throughput_AsioThreadPool);
BENCHMARK(BM_Throughput_AsioStrand);
BENCHMARK(BM_Throughput_GThreadPool);
BENCHMARK(BM_Throughput_NkMain)->UseManualTime();
BENCHMARK(BM_Throughput_GIdleAdd)->UseManualTime();

BENCHMARK(BM_Hop_RawFutex)->UseManualTime()->Iterations(kHopIterations);
BENCHMARK(BM_Hop_Paired)->UseManualTime()->Iterations(kHopIterations);
BENCHMARK(BM_Hop_NkGlobal)->UseManualTime()->Iterations(kHopIterations);
BENCHMARK(BM_Hop_NkSerial)->UseManualTime()->Iterations(kHopIterations);
BENCHMARK(BM_Hop_AsioThreadPool)->UseManualTime()->Iterations(kHopIterations);
BENCHMARK(BM_Hop_AsioStrand)->UseManualTime()->Iterations(kHopIterations);
BENCHMARK(BM_Hop_GThreadPool)->UseManualTime()->Iterations(kHopIterations);
BENCHMARK(BM_Hop_MainLoopWakeup)->UseManualTime()->Iterations(kHopIterations);
BENCHMARK(BM_Hop_NkMain)->UseManualTime()->Iterations(kHopIterations);
BENCHMARK(BM_Hop_GIdleAdd)->UseManualTime()->Iterations(kHopIterations);

BENCHMARK_MAIN();
