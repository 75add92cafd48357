// Queue handles, the global queues, and what all queue cores share: frames, sync waiting,
// and the fatal reports for escaped exceptions and deadlocking sync calls.
#include "nk/dispatch/queue.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <typeinfo>

#include "nk/dispatch/main_thread.hpp"
#include "nk/dispatch/queue_core_internal.hpp"
#include "nk/dispatch/thread_pool_internal.hpp"
#include "nk/dispatch/timer_service_internal.hpp"

namespace nk {
namespace dispatch_internal {

thread_local constinit Frame* tlsFrame = nullptr;

namespace {

// A global queue is a priority level of the pool; its tasks go straight there.
class GlobalCore final : public QueueCore {
 public:
  GlobalCore(QueuePriority priority, const char* label)
      : QueueCore(QueueKind::kGlobal, priority, label), pool_(ThreadPool::instance()) {}

  void push(Task&& task, bool) override {
    const auto aux = reinterpret_cast<uintptr_t>(this);
    if (pool_.handOff(priority, task, aux)) return;
    WorkItem item{std::move(task), aux};
    if (!ThreadPool::keep(priority, item)) pool_.enqueue(priority, std::move(item));
  }
  void pushBatch(Task* tasks, size_t count) override {
    if (count == 1) {
      push(std::move(tasks[0]), false);
      return;
    }
    ThreadPool::queueKept();
    pool_.pushEach(priority, count, [&](size_t i) noexcept {
      return WorkItem{std::move(tasks[i]), reinterpret_cast<uintptr_t>(this)};
    });
  }
  void sync(FunctionRef<void()> block, bool) override {
    FrameScope frame(this, false);
    block();
  }

 private:
  ThreadPool& pool_;
};

}  // namespace

void fatal(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  std::fputs("nk: ", stderr);
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  va_end(args);
  std::abort();
}

void reportEscapedException(const std::string& where) noexcept {
  try {
    throw;
  } catch (const std::exception& e) {
    fatal("%s threw %s (\"%s\"); exceptions must not escape queue tasks", where.c_str(),
          typeid(e).name(), e.what());
  } catch (...) {
    fatal("%s threw an exception; exceptions must not escape queue tasks", where.c_str());
  }
}

[[gnu::hot]] void invokeGuarded(Task& task, const QueueCore* queue) noexcept {
  try {
    task();
  } catch (...) {
    reportEscapedException("a task on queue \"" + queue->label + "\"");
  }
}

void SyncWaiter::wait() noexcept {
  BlockingRegion blocking;
  while (ready.load(std::memory_order_acquire) == 0) futexWait(&ready, 0);
}

QueueCore::QueueCore(QueueKind k, QueuePriority p, std::string l)
    : kind(k), priority(p), label(std::move(l)) {}

QueueCore::~QueueCore() = default;

Frame* currentFrame() noexcept { return tlsFrame; }

namespace {
const Frame* findInChain(const Frame* f, const QueueCore* queue) noexcept {
  for (; f != nullptr; f = f->previous) {
    if (f->queue == queue) return f;
    if (const Frame* found = findInChain(f->caller, queue)) return found;
  }
  return nullptr;
}
}  // namespace

const Frame* waitedOnFrame(const QueueCore* queue) noexcept { return findInChain(tlsFrame, queue); }

QueueCore* globalCore(QueuePriority priority) {
  // Never destroyed: tasks may still be running on them during exit.
  static GlobalCore* const cores[] = {
      new GlobalCore(QueuePriority::kHigh, "nk.global.high"),
      new GlobalCore(QueuePriority::kDefault, "nk.global.default"),
      new GlobalCore(QueuePriority::kLow, "nk.global.low"),
      new GlobalCore(QueuePriority::kBackground, "nk.global.background"),
  };
  return cores[static_cast<unsigned>(priority)];
}

}  // namespace dispatch_internal

using dispatch_internal::QueueCore;
using dispatch_internal::QueueKind;

Queue::Queue(QueueCore* core, bool counted) noexcept
    : bits_(reinterpret_cast<uintptr_t>(core) | (counted ? kCounted : 0)) {}

void Queue::retainCore() const noexcept { core()->retain(); }
void Queue::releaseCore() noexcept { core()->release(); }

Queue Queue::main() { return Queue(dispatch_internal::mainCore(), false); }

Queue Queue::global(QueuePriority priority) {
  return Queue(dispatch_internal::globalCore(priority), false);
}

// A new core starts with one handle, which the returned Queue adopts.
Queue Queue::serial(std::string label, QueuePriority priority) {
  return Queue(dispatch_internal::makeSerialCore(std::move(label), priority), true);
}

Queue Queue::concurrent(std::string label, QueuePriority priority) {
  return Queue(dispatch_internal::makeConcurrentCore(std::move(label), priority), true);
}

Queue Queue::current() {
  dispatch_internal::Frame* frame = dispatch_internal::currentFrame();
  if (frame == nullptr) return isMainThread() ? main() : global();
  QueueCore* core = frame->queue;
  bool counted = core->kind == QueueKind::kSerial || core->kind == QueueKind::kConcurrent;
  if (counted) core->retain();
  return Queue(core, counted);
}

// What a hop to a sleeping worker runs is marked hot, on both sides: the linker keeps it
// together, and a thread that has slept finds its code on fewer cold lines.
[[gnu::hot]] void Queue::submit(Task&& task, bool barrier) const {
  QueueCore* c = core();
  // Global and serial queues directly (see serialPush).
  if (c->kind == QueueKind::kGlobal) {
    static_cast<dispatch_internal::GlobalCore*>(c)->push(std::move(task), barrier);
  } else if (c->kind == QueueKind::kSerial) {
    dispatch_internal::serialPush(c, std::move(task));
  } else {
    c->push(std::move(task), barrier);
  }
}

void Queue::asyncBatch(Task* tasks, size_t count) const { core()->pushBatch(tasks, count); }

void Queue::submitAfter(std::chrono::nanoseconds delay, Task&& task) const {
  dispatch_internal::scheduleAfter(delay, *this, std::move(task));
}

void Queue::syncRef(FunctionRef<void()> block, bool barrier) const { core()->sync(block, barrier); }

const std::string& Queue::label() const noexcept { return core()->label; }

bool Queue::isSerial() const noexcept {
  return core()->kind != QueueKind::kConcurrent && core()->kind != QueueKind::kGlobal;
}

bool Queue::isCurrent() const noexcept {
  dispatch_internal::Frame* frame = dispatch_internal::currentFrame();
  if (frame == nullptr) {
    return core() == (isMainThread() ? dispatch_internal::mainCore()
                                     : dispatch_internal::globalCore(QueuePriority::kDefault));
  }
  return frame->queue == core();
}

}  // namespace nk
