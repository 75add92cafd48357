// The main queue: one persistent GSource on GLib's default main context drains a
// multi-producer FIFO, so a submission costs a push and, only when the loop is asleep in
// poll, one wake-up of the context.
#include <glib.h>

#include <exception>

#include "nk/dispatch/main_context_internal.hpp"
#include "nk/dispatch/main_thread.hpp"
#include "nk/dispatch/queue_core_internal.hpp"
#include "nk/foundation/block_pool.hpp"

namespace nk::dispatch_internal {
namespace {

// Tasks run per dispatch before the loop gets to serve its other sources.
constexpr int kDispatchBudget = 1024;

class MainCore final : public QueueCore {
 public:
  MainCore() : QueueCore(QueueKind::kMain, QueuePriority::kDefault, "nk.main") {
    context_ = defaultMainContext();
    source_ = g_source_new(&kFuncs, sizeof(GSource));
    g_source_set_name(source_, "nk main queue");
    g_source_set_priority(source_, G_PRIORITY_DEFAULT);
    // Like per-task idle sources, main-queue work keeps running inside nested loops
    // (modal dialogs) started by a main-queue task.
    g_source_set_can_recurse(source_, TRUE);
  }

  // Starts serving the queue from the context. After publication: the callbacks find the
  // core through `published`, which orders them after its construction in a way the thread
  // sanitizer can see, as it cannot see GLib's locking.
  void attach() { g_source_attach(source_, context_); }

  static std::atomic<MainCore*> published;

  void push(Task&& task, bool) override {
    fifo_.push(WorkItem{std::move(task), 0});
    signal();
  }

  void pushBatch(Task* tasks, size_t count) override {
    fifo_.pushEach(count, [&](size_t i) noexcept { return WorkItem{std::move(tasks[i]), 0}; });
    signal();
  }

  void sync(FunctionRef<void()> block, bool) override {
    if (isMainThread()) {
      fatal("sync onto the main queue from the main thread would deadlock");
    }
    SyncWaiter waiter(block);
    waiter.callerFrames = currentFrame();
    fifo_.push(WorkItem{Task(), reinterpret_cast<uintptr_t>(&waiter) | kSyncTag});
    signal();
    waiter.wait();
    if (waiter.error) std::rethrow_exception(waiter.error);
  }

 private:
  static constexpr uint32_t kPending = 1;  // work waits for a dispatch
  static constexpr uint32_t kPolling = 2;  // the loop may be asleep in poll

  void signal() {
    // Pending already: the dispatch that clears it drains after clearing, so it finds
    // what was just pushed.
    if (flags_.load(std::memory_order_seq_cst) & kPending) return;
    uint32_t old = flags_.fetch_or(kPending, std::memory_order_seq_cst);
    if ((old & kPending) == 0 && (old & kPolling) != 0) g_main_context_wakeup(context_);
  }

  bool prepare() noexcept {
    bool pending = flags_.fetch_or(kPolling, std::memory_order_seq_cst) & kPending;
    // In a loop run by a main-queue task: the dispatch under way cleared the flag before
    // it ran that task, so the work queued behind the task shows only in the FIFO.
    if (!pending && dispatching_.load(std::memory_order_relaxed) != 0) pending = !fifo_.empty();
    // The loop may sleep now: value blocks freed by a burst of work go back.
    if (!pending) block_pool::trim();
    return pending;
  }
  bool check() noexcept {
    return flags_.fetch_and(~kPolling, std::memory_order_seq_cst) & kPending;
  }
  void dispatch() {
    flags_.fetch_and(~(kPending | kPolling), std::memory_order_seq_cst);
    dispatching_.fetch_add(1, std::memory_order_relaxed);
    if (!runQueued()) flags_.fetch_or(kPending, std::memory_order_seq_cst);  // next iteration
    dispatching_.fetch_sub(1, std::memory_order_relaxed);
  }
  // Runs queued work within the budget; returns false if some was left.
  bool runQueued() {
    for (int budget = kDispatchBudget; budget > 0; --budget) {
      WorkItem item;
      if (!fifo_.pop(item)) return true;
      SyncWaiter* waiter = item.aux & kSyncTag ? waiterOf(item) : nullptr;
      FrameScope frame(this, true, waiter ? waiter->callerFrames : nullptr);
      if (waiter) {
        try {
          waiter->block();
        } catch (...) {
          waiter->error = std::current_exception();
        }
        waiter->signal();
      } else {
        invokeGuarded(item.task, this);
      }
    }
    return false;
  }

  static MainCore* self() noexcept { return published.load(std::memory_order_acquire); }
  static gboolean sourcePrepare(GSource*, gint* timeout) {
    *timeout = -1;
    return self()->prepare();
  }
  static gboolean sourceCheck(GSource*) { return self()->check(); }
  static gboolean sourceDispatch(GSource*, GSourceFunc, gpointer) {
    self()->dispatch();
    return G_SOURCE_CONTINUE;
  }
  static GSourceFuncs kFuncs;

  SegmentedQueue<WorkItem> fifo_;
  alignas(64) std::atomic<uint32_t> flags_{0};
  std::atomic<int> dispatching_{0};  // dispatches under way, nested ones included
  GMainContext* context_;
  GSource* source_;
};

std::atomic<MainCore*> MainCore::published{nullptr};
GSourceFuncs MainCore::kFuncs = {MainCore::sourcePrepare,
                                 MainCore::sourceCheck,
                                 MainCore::sourceDispatch,
                                 nullptr,
                                 nullptr,
                                 nullptr};

}  // namespace

GMainContext* defaultMainContext() {
  static GMainContext* const context = g_main_context_ref(g_main_context_default());
  return context;
}

QueueCore* mainCore() {
  // Never destroyed: the host's loop may dispatch the source during exit.
  static MainCore* const core = [] {
    auto* c = new MainCore;
    MainCore::published.store(c, std::memory_order_release);
    c->attach();
    return c;
  }();
  return core;
}

}  // namespace nk::dispatch_internal
