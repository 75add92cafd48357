// PRMPromise: a value that will be known later, kept in one outcome slot and settled
// once, with handlers chained on dispatch queues.
//
// The slot alone says the state: nil pending, an Error rejected, PRMNull fulfilled
// with nothing, a PRMArray fulfilled with several values, another promise followed,
// anything else fulfilled with it. The slot and the list of waiting entries share one
// word, so registering an entry is one compare-and-swap and settling one exchange; no
// handler runs inside either. The slot is read without a lock: what a slot held stays
// alive as long as its promise.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "nk/dispatch/operation_queue.hpp"
#include "nk/dispatch/queue.hpp"
#include "nk/foundation/error.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"
#include "nk/promise/prm_array.hpp"
#include "nk/promise/prm_call.hpp"
#include "nk/promise/prm_error.hpp"
#include "nk/promise/prm_lock.hpp"

namespace nk {

class Array;
class PRMPromise;

namespace promise_internal {

inline bool isError(const Id& value) noexcept {
  return value && value->isKindOfClass(Error::staticClass());
}

// Called before an entry runs code other than the engine's own while a step is being
// finished, which may keep the next step's task on the pool thread (see finishStep).
void leaveTaskTail() noexcept;

// What settling hands each waiting entry: the value, whether it is an error (judged
// once for all of them), and the tasks the entries queue, which go to their queue
// together so that many handlers on one queue cost one queue operation per batch. An
// entry that does anything but queue a task calls flush() first, so that every queue
// still receives its tasks in the order the entries ran.
class Settlement {
 public:
  explicit Settlement(const Id& v) noexcept : Settlement(v, v ? &v->objectClass() : nullptr) {}
  // `cls` is the value's class, nil for nil.
  Settlement(const Id& v, const Class* cls) noexcept;
  Settlement(const Settlement&) = delete;
  Settlement& operator=(const Settlement&) = delete;
  ~Settlement() {
    clear();
    if (spare_ != 0) value->release(spare_);
  }

  // A reference to `value` for an entry that keeps it (Ops::keepsValue): one the
  // settler took beforehand, together with the slot's own, while any are left.
  Id takeValue() noexcept {
    if (spare_ == 0) return value;
    --spare_;
    return Id::adopt(value.get());
  }
  // The settler took `n` such references.
  void addSpares(uint32_t n) noexcept { spare_ += n; }

  template <class F>
  void submit(const Queue& queue, F&& task) {
    if (count_ == kCapacity || (count_ != 0 && !(queue == queue_))) flush();
    if (count_ == 0) queue_ = queue;
    ::new (static_cast<void*>(tasks() + count_)) Task(std::forward<F>(task));
    ++count_;
  }
  void flush() {
    if (count_ == 0) return;
    queue_.asyncBatch(tasks(), count_);
    clear();
  }

  const Id& value;
  const Class* const valueClass;  // nil for nil
  const bool error;

 private:
  static constexpr size_t kCapacity = 16;
  // Built only as tasks arrive: most settlements queue one task or none.
  Task* tasks() noexcept { return std::launder(reinterpret_cast<Task*>(storage_)); }
  void clear() noexcept {
    for (size_t i = 0; i < count_; ++i) tasks()[i].~Task();
    count_ = 0;
  }

  Queue queue_;
  size_t count_ = 0;
  uint32_t spare_ = 0;
  alignas(Task) unsigned char storage_[kCapacity * sizeof(Task)];
};

// One waiting entry of a pending promise: a link and a pointer to its operations,
// so that an entry costs two words beyond what it carries. `run` is called once with
// the settlement and disposes of the entry (it may hand it on to a queue first);
// `destroy` frees an entry that will never run.
struct Waiter {
  struct Ops {
    void (*run)(Waiter* self, Settlement& settlement);
    void (*destroy)(Waiter* self) noexcept;
    // `run` keeps a reference to the value, taken with Settlement::takeValue().
    bool keepsValue = false;
  };

  explicit Waiter(const Ops* o) noexcept : ops(o) {}
  void runWith(Settlement& settlement) { ops->run(this, settlement); }
  void dispose() noexcept { ops->destroy(this); }

  Waiter* next = nullptr;
  const Ops* ops;
};

struct WaiterDeleter {
  void operator()(Waiter* w) const noexcept { w->dispose(); }
};
template <class W>
using WaiterPtr = std::unique_ptr<W, WaiterDeleter>;

// An entry that calls `f(value)`.
template <class F>
struct CallableWaiter final : Waiter {
  explicit CallableWaiter(F fn) : Waiter(&kOps), f(std::move(fn)) {}

  static constexpr Ops kOps = {
      [](Waiter* self, Settlement& settlement) {
        WaiterPtr<CallableWaiter> owned(static_cast<CallableWaiter*>(self));
        leaveTaskTail();
        settlement.flush();
        owned->f(settlement.value);
      },
      [](Waiter* self) noexcept { delete static_cast<CallableWaiter*>(self); },
  };

  F f;
};

// Reverses a list of entries linked through `next`: lists are pushed newest first
// and handed out oldest first.
inline Waiter* reversed(Waiter* w) noexcept {
  Waiter* out = nullptr;
  while (w) {
    Waiter* next = w->next;
    w->next = out;
    out = w;
    w = next;
  }
  return out;
}

template <class F>
Waiter* makeWaiter(F&& f) {
  return new CallableWaiter<std::decay_t<F>>(std::forward<F>(f));
}

enum class ChainKind { kThen, kCatch, kFinally };

struct Access;

}  // namespace promise_internal

// The waiting entries a promise had when it was settled, in registration order.
// `present()` is false when the promise had no list (born settled, or settled before).
class PRMHandlerList {
 public:
  PRMHandlerList() noexcept = default;
  PRMHandlerList(promise_internal::Waiter* first, bool present) noexcept
      : first_(first), present_(present) {}
  PRMHandlerList(PRMHandlerList&& o) noexcept
      : first_(std::exchange(o.first_, nullptr)), present_(o.present_) {}
  PRMHandlerList& operator=(PRMHandlerList&&) = delete;
  ~PRMHandlerList();

  bool present() const noexcept { return present_; }
  size_t size() const noexcept;
  // How many of the first few entries keep the value they run with
  // (Waiter::Ops::keepsValue); the rest are not looked at.
  uint32_t keepers() const noexcept;
  // Runs every entry once with `value`, in order.
  void runAll(const Id& value);
  void runAll(promise_internal::Settlement& settlement);
  // Runs the first entry left, if any; false when none was.
  bool runNext(promise_internal::Settlement& settlement);

 private:
  promise_internal::Waiter* first_ = nullptr;
  bool present_ = false;
};

// Settles a promise as the one resolve entry of the engine does: settling with a
// value that is a PRMPromise adopts its outcome (now, or when it settles), anything
// else is stored (nil as PRMNull) and the waiting entries run, in order, on this
// thread, with the value itself (nil stays nil for them).
void PRMResolve(PRMPromise* promise, const Id& value);
// The single writer of the slot: stores PRMSanitizeResult(value) whatever the state
// and returns the entries that were waiting, without running them. Content it
// replaces is released when the promise dies, as a reader may still be using it.
PRMHandlerList PRMSetResult(PRMPromise* promise, const Id& value);
// The raw slot: nil, an Error, PRMNull, a PRMArray, a PRMPromise or a value.
inline Id PRMGetResult(const PRMPromise* promise);
// Nil becomes PRMNull; an Error has its unhandled-error tracker armed.
Id PRMSanitizeResult(const Id& value);

// Settles `promise` with `value` unless it is settled already, in which case it logs
// "Migriornop: Warning: Promise already resolved" and drops the value. May be kept
// and called from any thread, any number of times.
class PRMResolver {
 public:
  explicit PRMResolver(Ref<PRMPromise> promise) noexcept : promise_(std::move(promise)) {}
  void operator()(const Id& value) const;
  const Ref<PRMPromise>& promise() const noexcept { return promise_; }

 private:
  Ref<PRMPromise> promise_;
};

// Fulfils (an Error rejects, after "Migriornop: Warning: PRMFulfiller called with NSError.").
class PRMFulfiller {
 public:
  explicit PRMFulfiller(PRMResolver resolver) noexcept : resolve_(std::move(resolver)) {}
  void operator()(const Id& value) const;

 private:
  PRMResolver resolve_;
};

// Rejects: with an Error, or with the error of a rejected promise; nil and any
// other value become a PRMErrorDomain code-3 error.
class PRMRejecter {
 public:
  explicit PRMRejecter(PRMResolver resolver) noexcept : resolve_(std::move(resolver)) {}
  void operator()(const Id& reason) const;

 private:
  PRMResolver resolve_;
};

// Rejects with `error` when it is non-nil, else fulfils with the value.
class PRMAdapter {
 public:
  explicit PRMAdapter(PRMResolver resolver) noexcept : resolve_(std::move(resolver)) {}
  void operator()(const Id& value, const Ref<Error>& error) const;

 private:
  PRMResolver resolve_;
};

class PRMIntegerAdapter {
 public:
  explicit PRMIntegerAdapter(PRMResolver resolver) noexcept : resolve_(std::move(resolver)) {}
  void operator()(int64_t value, const Ref<Error>& error) const;

 private:
  PRMResolver resolve_;
};

class PRMBooleanAdapter {
 public:
  explicit PRMBooleanAdapter(PRMResolver resolver) noexcept : resolve_(std::move(resolver)) {}
  void operator()(bool value, const Ref<Error>& error) const;

 private:
  PRMResolver resolve_;
};

// The callable `thenOn()`, `catchOn()` and `finallyOn()` return: given a queue and a
// handler, it registers the handler and returns the promise for the rest of the chain.
template <promise_internal::ChainKind K>
class PRMChainOn {
 public:
  explicit PRMChainOn(Ref<PRMPromise> promise) noexcept : promise_(std::move(promise)) {}
  template <class H>
  Ref<PRMPromise> operator()(const Queue& queue, H&& handler) const;

 private:
  Ref<PRMPromise> promise_;
};

// The callable `then()`, `thenInBackground()`, `catch_()` and `finally()` return: the
// queue-taking form with its queue already chosen.
template <promise_internal::ChainKind K>
class PRMChain {
 public:
  PRMChain(Ref<PRMPromise> promise, Queue queue) noexcept
      : promise_(std::move(promise)), queue_(std::move(queue)) {}
  template <class H>
  Ref<PRMPromise> operator()(H&& handler) const {
    return PRMChainOn<K>(promise_)(queue_, std::forward<H>(handler));
  }

 private:
  Ref<PRMPromise> promise_;
  Queue queue_;
};

class PRMPromise final : public Object {
  NK_DECLARE_CLASS(PRMPromise, Object)

 public:
  // Promises are made only by the constructors below: this raises "Migriornop",
  // "Migriornop: init is not a valid initializer for PRMPromise".
  [[noreturn]] static void init();

  // ---- Construction.

  // A promise settled at birth: nil fulfils with nothing, an Error rejects (and
  // arms its tracker), a promise is held in the slot and followed, anything else
  // fulfils.
  static Ref<PRMPromise> promiseWithValue(const Id& value);
  // A pending promise whose `body` receives the resolver (a PRMResolver) and is run
  // at once. A body that raises (ThrownObject) leaves the promise rejected with the
  // converted error, whatever it had set, and its waiting entries are dropped; other
  // exceptions pass through.
  template <class Body>
  static Ref<PRMPromise> promiseWithResolver(Body&& body);
  // As promiseWithResolver, the body receiving a PRMFulfiller and a PRMRejecter.
  //   auto p = nk::PRMPromise::new_([](nk::PRMFulfiller fulfil, nk::PRMRejecter reject) {
  //     fetch([=](nk::Id data) { fulfil(data); });
  //   });
  template <class Body>
  static Ref<PRMPromise> new_(Body&& body);
  // The body receives a PRMAdapter, PRMIntegerAdapter or PRMBooleanAdapter.
  template <class Body>
  static Ref<PRMPromise> promiseWithAdapter(Body&& body);
  template <class Body>
  static Ref<PRMPromise> promiseWithIntegerAdapter(Body&& body);
  template <class Body>
  static Ref<PRMPromise> promiseWithBooleanAdapter(Body&& body);

  // Aggregation, for callers that include the matching header: when and all
  // (promise_when.hpp), untilCatch (promise_until.hpp), join (promise_join.hpp).
  static Ref<PRMPromise> when(const Id& value);
  static Ref<PRMPromise> all(const Id& collection);
  template <class Until, class Catch>
  static Ref<PRMPromise> untilCatch(Until until, Catch catchHandler);
  static Ref<PRMPromise> join(const Ref<Array>& promises);

  // ---- State, read from the slot (a slot holding a promise answers resolved and
  // fulfilled itself, and pending and value through that promise).

  bool pending() const;
  bool resolved() const;
  bool fulfilled() const;
  bool rejected() const;
  // Nil while pending or fulfilled with nothing; the error when rejected; element 0
  // of a PRMArray; the followed promise's value.
  Id value() const;
  // "Promise: N pending handlers", "Promise: rejected: <error>" or
  // "Promise: fulfilled: <slot>".
  Ref<String> description() const override;

  // ---- Chaining. Each returns a callable; each plain overload calls it at once.
  // `then` handlers run on fulfilment, `catch_` handlers on rejection (the error is
  // marked handled first), `finally` handlers (no parameters) on both, passing the
  // outcome on. Skipped steps settle at once without visiting the queue.

  PRMChainOn<promise_internal::ChainKind::kThen> thenOn() const;
  PRMChainOn<promise_internal::ChainKind::kCatch> catchOn() const;
  PRMChainOn<promise_internal::ChainKind::kFinally> finallyOn() const;
  // On the main queue.
  PRMChain<promise_internal::ChainKind::kThen> then() const;
  // On the default-priority global queue.
  PRMChain<promise_internal::ChainKind::kThen> thenInBackground() const;
  PRMChain<promise_internal::ChainKind::kCatch> catch_() const;
  PRMChain<promise_internal::ChainKind::kFinally> finally() const;

  template <class H>
  Ref<PRMPromise> thenOn(const Queue& queue, H&& handler) const {
    return chain<promise_internal::ChainKind::kThen>(queue, std::forward<H>(handler));
  }
  template <class H>
  Ref<PRMPromise> catchOn(const Queue& queue, H&& handler) const {
    return chain<promise_internal::ChainKind::kCatch>(queue, std::forward<H>(handler));
  }
  template <class H>
  Ref<PRMPromise> finallyOn(const Queue& queue, H&& handler) const {
    return chain<promise_internal::ChainKind::kFinally>(queue, std::forward<H>(handler));
  }
  template <class H>
  Ref<PRMPromise> then(H&& handler) const {
    return thenOn(Queue::main(), std::forward<H>(handler));
  }
  template <class H>
  Ref<PRMPromise> thenInBackground(H&& handler) const {
    return thenOn(Queue::global(), std::forward<H>(handler));
  }
  template <class H>
  Ref<PRMPromise> catch_(H&& handler) const {
    return catchOn(Queue::main(), std::forward<H>(handler));
  }
  template <class H>
  Ref<PRMPromise> finally(H&& handler) const {
    return finallyOn(Queue::main(), std::forward<H>(handler));
  }

  // The registration primitive chaining is built on. Returns a chain callable
  // C(queue, handler): when the slot holds r, C returns resolved(r)(queue, handler);
  // while pending, it makes the next promise, registers an entry that calls
  // pending(value, next, queue, handler, resolveNext) when this promise settles
  // (resolveNext settles `next`), and returns `next`. The state is looked at once
  // without the lock and again under the exclusive one, so a settlement racing
  // with the registration is never lost.
  template <class R, class P>
  auto resolvedPending(R resolved, P pending) const;

 private:
  friend void PRMResolve(PRMPromise*, const Id&);
  friend PRMHandlerList PRMSetResult(PRMPromise*, const Id&);
  friend Id PRMGetResult(const PRMPromise*);
  friend class PRMHandlerList;
  friend struct promise_internal::Access;
  template <promise_internal::ChainKind>
  friend class PRMChainOn;

  PRMPromise() noexcept = default;
  ~PRMPromise() override;

  // Class-level allocation, so that a next promise and the entry that will settle it
  // can live in one block (makePendingWith).
  static void* operator new(size_t size) { return ::operator new(size); }
  static void* operator new(size_t size, size_t extra) { return ::operator new(size + extra); }
  static void operator delete(void* p) noexcept { ::operator delete(p); }

  // A pending promise allocated together with its entry E, built from `args` with
  // the promise's address first. The entry holds one reference to the promise, which
  // it gives back last thing when it is disposed of.
  template <class E, class... Args>
  static Ref<PRMPromise> makePendingWith(E*& entry, Args&&... args);

  // A pending promise with an (empty) handler list.
  static Ref<PRMPromise> makePending();
  // Whether the slot is filled: a settled promise stays settled, so only a false
  // answer can be out of date by the time it is used.
  bool settledNow() const noexcept { return state_.load(std::memory_order_acquire) & kSettled; }
  // PRMSetResult's work: stores `content` and takes the waiting entries. The slot's
  // reference to `content` is the caller's to give, before the exchange or, while the
  // caller still holds one of its own, after it.
  static PRMHandlerList exchangeResult(PRMPromise* promise, Object* content);
  // Stores `value`, of class `cls` (nil for nil), and runs the waiting entries with it.
  static void settle(PRMPromise* promise, const Id& value, const Class* cls);
  // settle's first half: stores the value and hands over the entries, with the
  // references to the value that they will keep taken in `settlement`.
  static PRMHandlerList takeEntries(PRMPromise* promise, promise_internal::Settlement& settlement);
  // A settlement nested too deep on this thread, kept to be run by the one below.
  struct DeferredSettlement;
  // Settles `promise` unless settled (the resolver's rule), from engine code.
  static void resolveIfPending(PRMPromise* promise, const Id& value);
  // resolveIfPending as the last thing a queued step does: the next step's task may
  // then stay on this pool thread.
  static void finishStep(PRMPromise* promise, const Id& value);
  // For a body that raised: stores the converted error, dropping the waiting entries.
  static void rejectFromBody(PRMPromise* promise, const Id& thrown);
  // Adds `waiter` if still pending and returns nil; else returns the slot and leaves
  // `waiter` to the caller.
  Id tryRegister(promise_internal::Waiter* waiter) const;

  template <promise_internal::ChainKind K, class H>
  Ref<PRMPromise> chain(const Queue& queue, H&& handler) const;
  template <promise_internal::ChainKind K, class H>
  static Ref<PRMPromise> chainSettled(const Id& slot, const Queue& queue, H&& handler);
  template <class Body, class Make>
  static Ref<PRMPromise> withBody(Body& body, Make make);

  // state_ while pending: the waiting entries, newest first (0 for none); once
  // settled: the slot's content, holding one reference, tagged with kSettled.
  static constexpr uintptr_t kSettled = 1;
  static Object* contentOf(uintptr_t state) noexcept {
    return reinterpret_cast<Object*>(state & ~kSettled);
  }

  // Held shared while description() walks the waiting list, which a settler frees only
  // once no reader is inside; held exclusively to keep an overwritten slot's content.
  mutable promise_internal::PRMLock lock_;
  mutable std::atomic<uintptr_t> state_{0};
  // What overwritten slots held, kept until the promise dies: a reader may still be
  // taking a reference to it.
  promise_internal::Waiter* former_ = nullptr;
};

inline bool PRMHandlerList::runNext(promise_internal::Settlement& settlement) {
  if (!first_) return false;
  promise_internal::Waiter* w = std::exchange(first_, first_->next);
  w->runWith(settlement);
  return true;
}

// Inline: aggregates call these once per member.
inline Id PRMGetResult(const PRMPromise* promise) {
  // Content once stored lives as long as the promise (FormerContent).
  const uintptr_t state = promise->state_.load(std::memory_order_acquire);
  return state & PRMPromise::kSettled ? Id(PRMPromise::contentOf(state)) : nullptr;
}

inline Id PRMPromise::tryRegister(promise_internal::Waiter* waiter) const {
  uintptr_t state = state_.load(std::memory_order_acquire);
  do {
    if (state & kSettled) return Id(contentOf(state));
    waiter->next = reinterpret_cast<promise_internal::Waiter*>(state);
  } while (!state_.compare_exchange_weak(state, reinterpret_cast<uintptr_t>(waiter),
                                         std::memory_order_release, std::memory_order_acquire));
  return nullptr;
}

// A promise of what `block` returns, run on `queue` through prm_safely_call_block
// (a returned error rejects, a returned promise is followed). Returns at once.
template <class F>
Ref<PRMPromise> dispatch_promise_on(const Queue& queue, F&& block);
// dispatch_promise_on the default-priority global queue.
template <class F>
Ref<PRMPromise> dispatch_promise(F&& block) {
  return dispatch_promise_on(Queue::global(), std::forward<F>(block));
}

// The process-wide operation queue offered to clients, made on first use. The
// library itself never adds work to it.
OperationQueue& PRMOperationQueue();

}  // namespace nk

// ---- Templates.

namespace nk {
namespace promise_internal {

struct Access {
  static Ref<PRMPromise> makePending() { return PRMPromise::makePending(); }
  static void resolveIfPending(PRMPromise* p, const Id& v) { PRMPromise::resolveIfPending(p, v); }
  static void finishStep(PRMPromise* p, const Id& v) { PRMPromise::finishStep(p, v); }
  // Adds `w` to a pending promise and returns nil; a settled promise's slot otherwise.
  static Id tryRegister(const PRMPromise* p, Waiter* w) { return p->tryRegister(w); }
  static bool settledNow(const PRMPromise* p) { return p->settledNow(); }
};

inline PRMPromise* asPromise(const Id& value) noexcept {
  return value && value->isMemberOfClass(PRMPromise::staticClass())
             ? static_cast<PRMPromise*>(value.get())
             : nullptr;
}

// Whether a step of kind K lets a value pass by without running its handler.
template <ChainKind K>
bool skips(bool error) noexcept {
  if constexpr (K == ChainKind::kThen) {
    return error;
  } else if constexpr (K == ChainKind::kCatch) {
    return !error;
  } else {
    return false;
  }
}

// Whether a step's handler never looks at the value: a then handler without parameters.
template <ChainKind K, class H>
constexpr bool kIgnoresValue = (K == ChainKind::kThen) && (FormOf<H>::kKnown) &&
                               (FormOf<H>::kArity == 0);

// The work a step does on its queue: run the handler with `value`, settle `next`.
// Then and catch steps hand the value over to the call.
template <ChainKind K, class H>
void runStep(H& handler, Id& value, PRMPromise* next) {
  if constexpr (K == ChainKind::kThen) {
    Access::finishStep(next, prm_safely_call_block(handler, std::move(value)));
  } else if constexpr (K == ChainKind::kCatch) {
    PRMError::consume(static_cast<const Error*>(value.get()));
    Access::finishStep(next, prm_safely_call_block(handler, std::move(value)));
  } else {
    try {
      std::invoke(handler);
    } catch (const ThrownObject& thrown) {
      Access::finishStep(next, NSErrorFromException(thrown.object()));
      return;
    }
    Access::finishStep(next, value);
  }
}

// The entry a step leaves on a pending promise. It lives in the same block as the
// promise it settles (`next`), so a link is one allocation. When the promise it waits
// on settles it either settles `next` at once (a skip) or travels itself to the queue
// as the task, so a hop allocates nothing. A handler that ignores the value is not
// given a reference to it, which would be taken here and dropped on the queue's thread.
template <ChainKind K, class H>
struct ChainWaiter final : Waiter {
  ChainWaiter(PRMPromise* n, const Queue& q, H h)
      : Waiter(&kOps), next(n), queue(q), handler(std::move(h)) {}

  static void run(Waiter* self, Settlement& settlement) {
    WaiterPtr<ChainWaiter> owned(static_cast<ChainWaiter*>(self));
    if (skips<K>(settlement.error)) {
      settlement.flush();
      PRMResolve(owned->next, settlement.value);
      return;
    }
    if constexpr (!kIgnoresValue<K, H>) owned->value = settlement.value;
    ChainWaiter* entry = owned.get();
    settlement.submit(entry->queue, Hop{std::move(owned)});
  }
  // Ends the entry's life, then gives back its reference to `next`, which may free
  // the block the entry was in.
  static void destroyEntry(Waiter* self) noexcept {
    auto* entry = static_cast<ChainWaiter*>(self);
    PRMPromise* owner = entry->next;
    entry->~ChainWaiter();
    owner->release();
  }
  static constexpr Ops kOps = {&run, &destroyEntry};

  struct Hop {
    WaiterPtr<ChainWaiter> entry;
    void operator()() { runStep<K>(entry->handler, entry->value, entry->next); }
  };

  PRMPromise* next;  // counted: one reference, given back by destroyEntry
  Queue queue;
  H handler;
  Id value;
};

}  // namespace promise_internal

template <class E, class... Args>
Ref<PRMPromise> PRMPromise::makePendingWith(E*& entry, Args&&... args) {
  static_assert(alignof(E) <= alignof(std::max_align_t));
  constexpr size_t offset = (sizeof(PRMPromise) + alignof(E) - 1) / alignof(E) * alignof(E);
  auto promise = Ref<PRMPromise>::adopt(new (offset - sizeof(PRMPromise) + sizeof(E)) PRMPromise());
  void* place = reinterpret_cast<char*>(promise.get()) + offset;
  entry = ::new (place) E(promise.get(), std::forward<Args>(args)...);
  promise->retain();  // the entry's reference
  return promise;
}

template <promise_internal::ChainKind K>
template <class H>
Ref<PRMPromise> PRMChainOn<K>::operator()(const Queue& queue, H&& handler) const {
  return promise_->template chain<K>(queue, std::forward<H>(handler));
}

template <promise_internal::ChainKind K, class H>
Ref<PRMPromise> PRMPromise::chain(const Queue& queue, H&& handler) const {
  using D = std::decay_t<H>;
  if constexpr (K == promise_internal::ChainKind::kFinally) {
    static_assert(std::is_invocable_v<D&>, "a finally handler takes no parameters");
  }
  if (!settledNow()) {
    promise_internal::ChainWaiter<K, D>* entry;
    Ref<PRMPromise> next = makePendingWith(entry, queue, D(std::forward<H>(handler)));
    Id slot = tryRegister(entry);
    if (!slot) return next;
    // Settled between the two looks: serve the step as on a settled promise.
    promise_internal::WaiterPtr<promise_internal::ChainWaiter<K, D>> owned(entry);
    return chainSettled<K>(slot, queue, std::move(owned->handler));
  }
  return chainSettled<K>(PRMGetResult(this), queue, std::forward<H>(handler));
}

template <promise_internal::ChainKind K, class H>
Ref<PRMPromise> PRMPromise::chainSettled(const Id& slot, const Queue& queue, H&& handler) {
  using D = std::decay_t<H>;
  if (PRMPromise* inner = promise_internal::asPromise(slot)) {
    return inner->chain<K>(queue, std::forward<H>(handler));
  }
  if (promise_internal::skips<K>(promise_internal::isError(slot))) return promiseWithValue(slot);
  Ref<PRMPromise> next = makePending();
  queue.async([next, handler = D(std::forward<H>(handler)), slot = slot]() mutable {
    promise_internal::runStep<K>(handler, slot, next.get());
  });
  return next;
}

template <class R, class P>
auto PRMPromise::resolvedPending(R resolved, P pending) const {
  Ref<PRMPromise> self(const_cast<PRMPromise*>(this));
  return [self = std::move(self), resolved = std::move(resolved), pending = std::move(pending)](
             const Queue& queue, auto handler) -> Ref<PRMPromise> {
    Id slot = PRMGetResult(self.get());
    if (!slot) {
      Ref<PRMPromise> next = makePending();
      promise_internal::Waiter* entry =
          promise_internal::makeWaiter([next, queue, handler, pending](const Id& value) mutable {
            pending(value, next, queue, handler, PRMResolver(next));
          });
      slot = self->tryRegister(entry);
      if (!slot) return next;
      entry->dispose();
    }
    return resolved(slot)(queue, handler);
  };
}

template <class Body, class Make>
Ref<PRMPromise> PRMPromise::withBody(Body& body, Make make) {
  Ref<PRMPromise> promise = makePending();
  try {
    make(body, PRMResolver(promise));
  } catch (const ThrownObject& thrown) {
    rejectFromBody(promise.get(), thrown.object());
  }
  return promise;
}

template <class Body>
Ref<PRMPromise> PRMPromise::promiseWithResolver(Body&& body) {
  return withBody(body, [](auto& b, PRMResolver r) { std::invoke(b, std::move(r)); });
}

template <class Body>
Ref<PRMPromise> PRMPromise::new_(Body&& body) {
  return withBody(body,
                  [](auto& b, PRMResolver r) { std::invoke(b, PRMFulfiller(r), PRMRejecter(r)); });
}

template <class Body>
Ref<PRMPromise> PRMPromise::promiseWithAdapter(Body&& body) {
  return withBody(body, [](auto& b, PRMResolver r) { std::invoke(b, PRMAdapter(std::move(r))); });
}

template <class Body>
Ref<PRMPromise> PRMPromise::promiseWithIntegerAdapter(Body&& body) {
  return withBody(body,
                  [](auto& b, PRMResolver r) { std::invoke(b, PRMIntegerAdapter(std::move(r))); });
}

template <class Body>
Ref<PRMPromise> PRMPromise::promiseWithBooleanAdapter(Body&& body) {
  return withBody(body,
                  [](auto& b, PRMResolver r) { std::invoke(b, PRMBooleanAdapter(std::move(r))); });
}

template <class F>
Ref<PRMPromise> dispatch_promise_on(const Queue& queue, F&& block) {
  Ref<PRMPromise> promise = promise_internal::Access::makePending();
  queue.async([promise, block = std::decay_t<F>(std::forward<F>(block))]() mutable {
    promise_internal::Access::resolveIfPending(promise.get(),
                                               prm_safely_call_block(block, nullptr));
  });
  return promise;
}

}  // namespace nk
