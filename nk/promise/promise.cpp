// PRMPromise: the slot and its lock, settling and adoption, the state answers, the
// resolver family and the shared operation queue.
#include "nk/promise/promise.hpp"

#include "nk/dispatch/once.hpp"
#include "nk/dispatch/thread_pool_internal.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/format.hpp"
#include "nk/foundation/log.hpp"
#include "nk/foundation/number.hpp"

namespace nk {

NK_DEFINE_CLASS(PRMPromise, "PRMPromise");

using promise_internal::PRMReadGuard;
using promise_internal::PRMWriteGuard;
using promise_internal::Settlement;
using promise_internal::Waiter;

namespace {

// What a slot held before it was overwritten, kept until the promise dies: the slot is
// read without a lock, so a reader may still be taking a reference to it. Never
// handed out as a handler.
struct FormerContent final : Waiter {
  FormerContent() noexcept : Waiter(&kOps) {}
  static void run(Waiter*, Settlement&) {}
  static void destroy(Waiter* self) noexcept;
  static constexpr Ops kOps = {&run, &destroy};
  Id content;
};

void FormerContent::destroy(Waiter* self) noexcept { delete static_cast<FormerContent*>(self); }

void destroyAll(Waiter* w) noexcept {
  while (w) {
    Waiter* next = w->next;
    w->dispose();
    w = next;
  }
}

}  // namespace

// ---- The handler list.

Settlement::Settlement(const Id& v, const Class* cls) noexcept
    : value(v), valueClass(cls), error(cls && cls->isSubclassOf(Error::staticClass())) {}

PRMHandlerList::~PRMHandlerList() { destroyAll(first_); }

size_t PRMHandlerList::size() const noexcept {
  size_t n = 0;
  for (Waiter* w = first_; w; w = w->next) ++n;
  return n;
}

uint32_t PRMHandlerList::keepers() const noexcept {
  // Only the first few: a long list would cost a second walk.
  constexpr int kLooked = 4;
  uint32_t n = 0;
  const Waiter* w = first_;
  for (int i = 0; w && i < kLooked; ++i, w = w->next) n += w->ops->keepsValue ? 1 : 0;
  return n;
}

void PRMHandlerList::runAll(const Id& value) {
  Settlement settlement(value);
  runAll(settlement);
}

void PRMHandlerList::runAll(Settlement& settlement) {
  while (runNext(settlement)) {
  }
  settlement.flush();
}

// ---- The object.

void PRMPromise::init() {
  Exception::raise("Migriornop", "Migriornop: init is not a valid initializer for PRMPromise");
}

PRMPromise::~PRMPromise() {
  // A promise that dies pending drops what its entries held: the next promises,
  // which may hold entries of their own. A long pending chain would recurse once per
  // link, so entries freed while another promise is being torn down on this thread
  // join that promise's work list instead.
  static thread_local Waiter* tDoomed = nullptr;
  static thread_local bool tTearingDown = false;
  const uintptr_t state = state_.load(std::memory_order_acquire);
  if (state & kSettled) {
    contentOf(state)->release();
  } else if (auto* waiters = reinterpret_cast<Waiter*>(state)) {
    Waiter* last = waiters;
    while (last->next) last = last->next;
    last->next = tDoomed;
    tDoomed = waiters;
    if (!tTearingDown) {
      tTearingDown = true;
      while (tDoomed) {
        Waiter* w = std::exchange(tDoomed, tDoomed->next);
        w->dispose();
      }
      tTearingDown = false;
    }
  }
  destroyAll(former_);
}

Ref<PRMPromise> PRMPromise::makePending() { return Ref<PRMPromise>::adopt(new PRMPromise()); }

Ref<PRMPromise> PRMPromise::promiseWithValue(const Id& value) {
  auto p = Ref<PRMPromise>::adopt(new PRMPromise());
  auto content = reinterpret_cast<uintptr_t>(PRMSanitizeResult(value).leak());
  p->state_.store(content | kSettled, std::memory_order_relaxed);
  return p;
}

// ---- Reading, writing and settling the slot.

namespace {

// What the slot holds for `value`, not yet counted.
Object* slotContent(const Id& value, bool error) {
  if (!value) return PRMNull();
  if (error) PRMError::unconsume(static_cast<const Error*>(value.get()));
  return value.get();
}

}  // namespace

Id PRMSanitizeResult(const Id& value) {
  return Id(slotContent(value, promise_internal::isError(value)));
}

PRMHandlerList PRMPromise::exchangeResult(PRMPromise* promise, Object* content) {
  // An overwrite keeps the old content in a FormerContent, made beforehand when it can
  // be foreseen.
  std::unique_ptr<FormerContent> former;
  if (promise->settledNow()) former = std::make_unique<FormerContent>();
  const uintptr_t old = promise->state_.exchange(reinterpret_cast<uintptr_t>(content) | kSettled,
                                                 std::memory_order_seq_cst);
  if (old & kSettled) {
    if (!former) former = std::make_unique<FormerContent>();  // settled meanwhile
    former->content = Id::adopt(contentOf(old));
    PRMWriteGuard guard(promise->lock_);
    former->next = promise->former_;
    promise->former_ = former.release();
    return PRMHandlerList(nullptr, false);
  }
  // description() may still be counting the entries: they are handed out, and freed,
  // only once it is done. Paired with its fence: either it saw the slot filled or
  // this sees it inside.
  if (!promise->lock_.idle()) PRMWriteGuard wait(promise->lock_);
  return PRMHandlerList(promise_internal::reversed(reinterpret_cast<Waiter*>(old)), true);
}

PRMHandlerList PRMSetResult(PRMPromise* promise, const Id& value) {
  return PRMPromise::exchangeResult(promise, PRMSanitizeResult(value).leak());
}

[[gnu::always_inline]] inline PRMHandlerList PRMPromise::takeEntries(PRMPromise* promise,
                                                                     Settlement& settlement) {
  // The slot's reference and those the entries will keep are taken in one step, once
  // the exchange has handed the entries to this thread. Until then the caller's own
  // reference keeps the value alive.
  Object* content = slotContent(settlement.value, settlement.error);
  PRMHandlerList entries = exchangeResult(promise, content);
  const uint32_t keepers = settlement.value ? entries.keepers() : 0;
  content->retain(keepers + 1);
  settlement.addSpares(keepers);
  return entries;
}

// An entry may settle another promise, whose entries run inside it, and so on down
// a pending chain: one nested settlement per link would overflow the stack on a long
// chain. Past kNestedSettlements on a thread, a settlement is stored and the entries
// stop at that depth; the settlement there runs the stored ones after each of its own
// entries, the newest first and one entry at a time, which keeps the order nesting
// gives while the stack stays bounded.
namespace {
constexpr int kNestedSettlements = 32;
thread_local int tSettling = 0;

struct SettlingDepth {
  SettlingDepth() noexcept { ++tSettling; }
  ~SettlingDepth() { --tSettling; }
};
}  // namespace

struct PRMPromise::DeferredSettlement {
  DeferredSettlement(PRMPromise* promise, const Id& v, const Class* cls)
      : value(v), settlement(value, cls), entries(takeEntries(promise, settlement)) {}
  Id value;  // the caller's reference is gone by the time the entries run
  Settlement settlement;
  PRMHandlerList entries;
  DeferredSettlement* below = tDeferred;

  static thread_local DeferredSettlement* tDeferred;  // the newest on this thread
};

thread_local PRMPromise::DeferredSettlement* PRMPromise::DeferredSettlement::tDeferred = nullptr;

void PRMPromise::settle(PRMPromise* promise, const Id& value, const Class* cls) {
  DeferredSettlement*& deferred = DeferredSettlement::tDeferred;
  if (tSettling >= kNestedSettlements) {
    deferred = new DeferredSettlement(promise, value, cls);
    return;
  }
  Settlement settlement(value, cls);
  PRMHandlerList entries = takeEntries(promise, settlement);
  SettlingDepth depth;
  if (tSettling < kNestedSettlements) {
    entries.runAll(settlement);
    return;
  }
  try {
    while (entries.runNext(settlement)) {
      while (DeferredSettlement* top = deferred) {
        // An entry that defers a settlement puts it on top, so it runs before this
        // settlement's next entry.
        if (top->entries.runNext(top->settlement)) continue;
        top->settlement.flush();
        deferred = top->below;
        delete top;
      }
    }
  } catch (...) {
    // As the exception would unwind nested settlements: what they had not run is
    // dropped.
    while (DeferredSettlement* top = deferred) {
      deferred = top->below;
      delete top;
    }
    throw;
  }
  settlement.flush();
}

void PRMResolve(PRMPromise* promise, const Id& value) {
  // The class is looked up once for the whole settlement.
  const Class* cls = value ? &value->objectClass() : nullptr;
  if (cls != &PRMPromise::staticClass()) {
    PRMPromise::settle(promise, value, cls);
    return;
  }
  auto* adopted = static_cast<PRMPromise*>(value.get());
  Id content = PRMGetResult(adopted);
  if (!content) {
    // Adopting itself would make the promise own itself: the entry then holds a
    // plain pointer, since it can only run while the promise is alive anyway.
    Waiter* entry =
        adopted == promise
            ? promise_internal::makeWaiter([promise](const Id& o) { PRMResolve(promise, o); })
            : promise_internal::makeWaiter(
                  [keep = Ref<PRMPromise>(promise)](const Id& o) { PRMResolve(keep.get(), o); });
    content = adopted->tryRegister(entry);
    if (!content) return;
    entry->dispose();  // settled meanwhile
  }
  // The raw content: an error stays the error, PRMNull the marker, a promise a
  // promise.
  PRMPromise::settle(promise, content, &content->objectClass());
}

void PRMPromise::resolveIfPending(PRMPromise* promise, const Id& value) {
  if (promise->settledNow()) {
    Log("Migriornop: Warning: Promise already resolved");
    return;
  }
  PRMResolve(promise, value);
}

void promise_internal::leaveTaskTail() noexcept { dispatch_internal::TaskTailRegion::interrupt(); }

void PRMPromise::finishStep(PRMPromise* promise, const Id& value) {
  dispatch_internal::TaskTailRegion tail;
  resolveIfPending(promise, value);
}

void PRMPromise::rejectFromBody(PRMPromise* promise, const Id& thrown) {
  // Overwrites whatever the body set and drops the waiting entries unrun.
  PRMHandlerList dropped = PRMSetResult(promise, NSErrorFromException(thrown));
}

// ---- State.

bool PRMPromise::pending() const {
  Id r = PRMGetResult(this);
  if (PRMPromise* inner = promise_internal::asPromise(r)) return inner->pending();
  return !r;
}

bool PRMPromise::resolved() const { return static_cast<bool>(PRMGetResult(this)); }

bool PRMPromise::fulfilled() const {
  Id r = PRMGetResult(this);
  return r && !promise_internal::isError(r);
}

bool PRMPromise::rejected() const { return promise_internal::isError(PRMGetResult(this)); }

Id PRMPromise::value() const {
  Id r = PRMGetResult(this);
  if (!r || r.get() == PRMNull()) return nullptr;
  if (r->isMemberOfClass(PRMArray::staticClass())) {
    return static_cast<const PRMArray*>(r.get())->objectAtIndexedSubscript(0);
  }
  if (PRMPromise* inner = promise_internal::asPromise(r)) return inner->value();
  return r;
}

Ref<String> PRMPromise::description() const {
  Id r;
  size_t count = 0;
  {
    // Keeps a settler from freeing the entries while they are counted; the fence
    // pairs with its look at the lock after it has taken them (exchangeResult).
    PRMReadGuard guard(lock_);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    const uintptr_t state = state_.load(std::memory_order_acquire);
    if (state & kSettled) {
      r = Id(contentOf(state));
    } else {
      for (auto* w = reinterpret_cast<Waiter*>(state); w; w = w->next) ++count;
    }
  }
  PRMPromise* inner = promise_internal::asPromise(r);
  const bool isPending = inner ? inner->pending() : !r;
  if (isPending) return format("Promise: %lu pending handlers", static_cast<unsigned long>(count));
  if (promise_internal::isError(r)) return format("Promise: rejected: %@", r);
  return format("Promise: fulfilled: %@", r);
}

// ---- Chain accessors.

using promise_internal::ChainKind;

PRMChainOn<ChainKind::kThen> PRMPromise::thenOn() const {
  return PRMChainOn<ChainKind::kThen>(Ref<PRMPromise>(const_cast<PRMPromise*>(this)));
}
PRMChainOn<ChainKind::kCatch> PRMPromise::catchOn() const {
  return PRMChainOn<ChainKind::kCatch>(Ref<PRMPromise>(const_cast<PRMPromise*>(this)));
}
PRMChainOn<ChainKind::kFinally> PRMPromise::finallyOn() const {
  return PRMChainOn<ChainKind::kFinally>(Ref<PRMPromise>(const_cast<PRMPromise*>(this)));
}
PRMChain<ChainKind::kThen> PRMPromise::then() const {
  return PRMChain<ChainKind::kThen>(Ref<PRMPromise>(const_cast<PRMPromise*>(this)), Queue::main());
}
PRMChain<ChainKind::kThen> PRMPromise::thenInBackground() const {
  return PRMChain<ChainKind::kThen>(Ref<PRMPromise>(const_cast<PRMPromise*>(this)),
                                    Queue::global());
}
PRMChain<ChainKind::kCatch> PRMPromise::catch_() const {
  return PRMChain<ChainKind::kCatch>(Ref<PRMPromise>(const_cast<PRMPromise*>(this)), Queue::main());
}
PRMChain<ChainKind::kFinally> PRMPromise::finally() const {
  return PRMChain<ChainKind::kFinally>(Ref<PRMPromise>(const_cast<PRMPromise*>(this)),
                                       Queue::main());
}

// ---- The resolver family.

void PRMResolver::operator()(const Id& value) const {
  promise_internal::Access::resolveIfPending(promise_.get(), value);
}

void PRMFulfiller::operator()(const Id& value) const {
  if (promise_internal::isError(value))
    Log("Migriornop: Warning: PRMFulfiller called with NSError.");
  resolve_(value);
}

void PRMRejecter::operator()(const Id& reason) const {
  if (!reason) {
    Log("Migriornop: Warning: Promise rejected with nil");
    resolve_(Error::make(PRMErrorDomain(), 3));
    return;
  }
  if (PRMPromise* p = promise_internal::asPromise(reason); p && p->rejected()) {
    resolve_(reason);
    return;
  }
  if (promise_internal::isError(reason)) {
    resolve_(reason);
    return;
  }
  auto userInfo = Dictionary::make(
      {{kLocalizedDescriptionKey(), reason->description()}, {PRMUnderlyingExceptionKey(), reason}});
  resolve_(Error::make(PRMErrorDomain(), 3, userInfo));
}

void PRMAdapter::operator()(const Id& value, const Ref<Error>& error) const {
  if (error) {
    resolve_(error);
  } else {
    resolve_(value);
  }
}

void PRMIntegerAdapter::operator()(int64_t value, const Ref<Error>& error) const {
  if (error) {
    resolve_(error);
  } else {
    resolve_(Number::withLongLong(value));
  }
}

void PRMBooleanAdapter::operator()(bool value, const Ref<Error>& error) const {
  if (error) {
    resolve_(error);
  } else {
    resolve_(Number::withBool(value));
  }
}

// ---- The shared operation queue.

OperationQueue& PRMOperationQueue() {
  static OnceFlag flag;
  static OperationQueue* queue = nullptr;
  // Never destroyed: clients may still use it while the process exits.
  once(flag, [] { queue = new OperationQueue("org.nkutils.PRMPromise.Queue"); });
  return *queue;
}

}  // namespace nk
