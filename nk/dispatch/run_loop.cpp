// Run loops over GLib main contexts, and the one GSource type behind their watches and
// timers.
#include "nk/dispatch/run_loop.hpp"

#include <glib.h>

#include <atomic>
#include <memory>
#include <thread>

#include "nk/dispatch/clock_internal.hpp"
#include "nk/dispatch/main_context_internal.hpp"
#include "nk/dispatch/main_thread.hpp"
#include "nk/dispatch/queue_core_internal.hpp"
#include "nk/dispatch/thread_pool_internal.hpp"

namespace nk {

class RunLoop::State {
 public:
  State(GMainContext* context, bool isMain, bool pushed)
      : context_(context), isMain_(isMain), pushed_(pushed), owner_(std::this_thread::get_id()) {}
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() { g_main_context_unref(context_); }

  GMainContext* context() const noexcept { return context_; }
  bool pushedThreadDefault() const noexcept { return pushed_; }
  bool ownedByCurrentThread() const noexcept {
    return isMain_ ? isMainThread() : owner_ == std::this_thread::get_id();
  }
  void requireOwner(const char* what) const {
    if (!ownedByCurrentThread()) {
      dispatch_internal::fatal("RunLoop::%s called on a thread that does not own the loop", what);
    }
  }

  // Marks one run()/runUntil() as active for stop().
  class Running {
   public:
    explicit Running(State& s) noexcept : state_(s) { state_.depth_.fetch_add(1); }
    ~Running() {
      // A stop this run did not need (its predicate came true first) must not end the
      // next one.
      state_.stopRequested_.store(false);
      state_.depth_.fetch_sub(1);
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

   private:
    State& state_;
  };

  void stop() noexcept {
    if (depth_.load() == 0) return;
    stopRequested_.store(true);
    g_main_context_wakeup(context_);
  }
  bool takeStop() noexcept { return stopRequested_.exchange(false); }

 private:
  GMainContext* context_;
  const bool isMain_;
  const bool pushed_;
  const std::thread::id owner_;
  std::atomic<int> depth_{0};
  std::atomic<bool> stopRequested_{false};
};

// Owns each thread's loop, and pops it from the thread-default stack when the thread ends.
class RunLoopRegistry {
 public:
  static std::shared_ptr<RunLoop::State>& threadState() {
    thread_local Holder holder;
    return holder.state;
  }

 private:
  struct Holder {
    std::shared_ptr<RunLoop::State> state;
    ~Holder() {
      if (state && state->pushedThreadDefault()) {
        g_main_context_pop_thread_default(state->context());
      }
    }
  };
};

namespace {

// One source type for watches and timers. GLib owns its lifetime; the C++ part is
// constructed after g_source_new and destroyed in finalize.
struct CallbackSource {
  GSource base;
  struct Body {
    std::function<void()> callback;
    int64_t nextNs = 0;      // timers: when the next call is due (monotonic)
    int64_t intervalNs = 0;  // timers: 0 for one-shot
    bool isTimer = false;
    // Orders the owner's setup and teardown against calls on the loop's thread, whose
    // GLib locking the thread sanitizer cannot see.
    std::atomic<uint32_t> handoff{0};
  } body;
};

gint64 readyTimeUs(int64_t ns) { return ns / 1000 + (ns % 1000 != 0 ? 1 : 0); }

gboolean callbackDispatch(GSource* source, GSourceFunc, gpointer) {
  auto& body = reinterpret_cast<CallbackSource*>(source)->body;
  body.handoff.load(std::memory_order_acquire);
  gboolean keep = G_SOURCE_CONTINUE;
  if (body.isTimer) {
    if (body.intervalNs > 0) {
      body.nextNs = dispatch_internal::nextDueAfter(body.nextNs, body.intervalNs,
                                                    dispatch_internal::monotonicNowNs());
      g_source_set_ready_time(source, readyTimeUs(body.nextNs));
    } else {
      g_source_set_ready_time(source, -1);
      keep = G_SOURCE_REMOVE;
    }
  }
  try {
    body.callback();
  } catch (...) {
    dispatch_internal::reportEscapedException("a run-loop callback");
  }
  body.handoff.fetch_add(1, std::memory_order_release);
  return keep;
}

void callbackFinalize(GSource* source) {
  auto& body = reinterpret_cast<CallbackSource*>(source)->body;
  body.handoff.load(std::memory_order_acquire);
  std::destroy_at(&body);
}

GSourceFuncs callbackFuncs = {nullptr,          nullptr, callbackDispatch,
                              callbackFinalize, nullptr, nullptr};

GSource* newCallbackSource(std::function<void()> callback) {
  GSource* source = g_source_new(&callbackFuncs, sizeof(CallbackSource));
  auto* cs = reinterpret_cast<CallbackSource*>(source);
  ::new (static_cast<void*>(&cs->body)) CallbackSource::Body();
  cs->body.callback = std::move(callback);
  return source;
}

void attach(GSource* source, GMainContext* context) {
  reinterpret_cast<CallbackSource*>(source)->body.handoff.fetch_add(1, std::memory_order_release);
  g_source_attach(source, context);
}

// Wakes runUntil at its deadline; the loop then sees the time is up.
gboolean deadlineDispatch(GSource* source, GSourceFunc, gpointer) {
  g_source_set_ready_time(source, -1);
  return G_SOURCE_CONTINUE;
}
GSourceFuncs deadlineFuncs = {nullptr, nullptr, deadlineDispatch, nullptr, nullptr, nullptr};

}  // namespace

RunLoop RunLoop::main() {
  // Never destroyed: the default context outlives everything anyway.
  static auto* state = new std::shared_ptr<State>(std::make_shared<State>(
      g_main_context_ref(dispatch_internal::defaultMainContext()), true, false));
  return RunLoop(*state);
}

RunLoop RunLoop::current() {
  if (isMainThread()) return main();
  std::shared_ptr<State>& state = RunLoopRegistry::threadState();
  if (!state) {
    GMainContext* context = g_main_context_ref_thread_default();
    bool pushed = false;
    if (context == dispatch_internal::defaultMainContext() &&
        g_main_context_get_thread_default() == nullptr) {
      // No thread default yet: give the thread a context of its own.
      g_main_context_unref(context);
      context = g_main_context_new();
      g_main_context_push_thread_default(context);
      pushed = true;
    }
    state = std::make_shared<State>(context, false, pushed);
  }
  return RunLoop(state);
}

// A pool thread running a loop waits for events much as one in sync waits: the pool keeps
// other threads for the work those events may depend on.
void RunLoop::run() const {
  state_->requireOwner("run");
  dispatch_internal::BlockingRegion blocking;
  State::Running running(*state_);
  while (!state_->takeStop()) g_main_context_iteration(state_->context(), TRUE);
}

bool RunLoop::runUntil(FunctionRef<bool()> predicate, std::chrono::nanoseconds timeout) const {
  state_->requireOwner("runUntil");
  dispatch_internal::BlockingRegion blocking;
  State::Running running(*state_);
  if (predicate()) return true;
  int64_t deadlineNs =
      dispatch_internal::saturatingAdd(dispatch_internal::monotonicNowNs(), timeout.count());
  struct DeadlineSource {
    GSource* source;
    ~DeadlineSource() {
      g_source_destroy(source);
      g_source_unref(source);
    }
  } wake{g_source_new(&deadlineFuncs, sizeof(GSource))};
  g_source_set_ready_time(wake.source, readyTimeUs(deadlineNs));
  g_source_attach(wake.source, state_->context());
  for (;;) {
    if (state_->takeStop() || dispatch_internal::monotonicNowNs() >= deadlineNs) return predicate();
    g_main_context_iteration(state_->context(), TRUE);
    if (predicate()) return true;
  }
}

bool RunLoop::runOnce(bool mayBlock) const {
  state_->requireOwner("runOnce");
  if (!mayBlock) return g_main_context_iteration(state_->context(), FALSE);
  dispatch_internal::BlockingRegion blocking;
  return g_main_context_iteration(state_->context(), TRUE);
}

void RunLoop::stop() const { state_->stop(); }

void RunLoop::wakeUp() const { g_main_context_wakeup(state_->context()); }

RunLoopSource RunLoop::watchReadable(int fd, std::function<void()> callback) const {
  GSource* source = newCallbackSource(std::move(callback));
  g_source_add_unix_fd(source, fd, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR));
  attach(source, state_->context());
  return RunLoopSource(source);
}

RunLoopSource RunLoop::addTimer(std::chrono::nanoseconds delay, std::chrono::nanoseconds interval,
                                std::function<void()> callback) const {
  GSource* source = newCallbackSource(std::move(callback));
  auto& body = reinterpret_cast<CallbackSource*>(source)->body;
  body.isTimer = true;
  body.intervalNs = interval.count() > 0 ? interval.count() : 0;
  body.nextNs = dispatch_internal::saturatingAdd(dispatch_internal::monotonicNowNs(),
                                                 delay.count() > 0 ? delay.count() : 0);
  g_source_set_ready_time(source, readyTimeUs(body.nextNs));
  attach(source, state_->context());
  return RunLoopSource(source);
}

GMainContext* RunLoop::context() const noexcept { return state_->context(); }

bool RunLoop::isOwnedByCurrentThread() const noexcept { return state_->ownedByCurrentThread(); }

RunLoopSource::RunLoopSource(RunLoopSource&& other) noexcept
    : source_(std::exchange(other.source_, nullptr)) {}

RunLoopSource& RunLoopSource::operator=(RunLoopSource&& other) noexcept {
  if (this != &other) {
    cancel();
    source_ = std::exchange(other.source_, nullptr);
  }
  return *this;
}

RunLoopSource::~RunLoopSource() { cancel(); }

void RunLoopSource::cancel() noexcept {
  if (source_ == nullptr) return;
  reinterpret_cast<CallbackSource*>(source_)->body.handoff.fetch_add(1, std::memory_order_release);
  g_source_destroy(source_);
  g_source_unref(source_);
  source_ = nullptr;
}

bool RunLoopSource::isActive() const noexcept {
  return source_ != nullptr && !g_source_is_destroyed(source_);
}

}  // namespace nk
