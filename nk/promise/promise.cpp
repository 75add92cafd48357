// PRMPromise: the slot and its lock, settling and adoption, the state answers, the
// resolver family and the shared operation queue.
#include "nk/promise/promise.hpp"

#include "nk/dispatch/once.hpp"
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
using promise_internal::Waiter;

namespace {

// Entries are pushed newest first; settling hands them out oldest first.
Waiter* reversed(Waiter* w) noexcept {
  Waiter* out = nullptr;
  while (w) {
    Waiter* next = w->next;
    w->next = out;
    out = w;
    w = next;
  }
  return out;
}

void destroyAll(Waiter* w) noexcept {
  while (w) {
    Waiter* next = w->next;
    w->dispose();
    w = next;
  }
}

}  // namespace

// ---- The handler list.

PRMHandlerList::~PRMHandlerList() { destroyAll(first_); }

size_t PRMHandlerList::size() const noexcept {
  size_t n = 0;
  for (Waiter* w = first_; w; w = w->next) ++n;
  return n;
}

void PRMHandlerList::runAll(const Id& value) {
  while (first_) {
    Waiter* w = std::exchange(first_, first_->next);
    w->runWith(value);
  }
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
  if (!waiters_) return;
  Waiter* last = waiters_;
  while (last->next) last = last->next;
  last->next = tDoomed;
  tDoomed = waiters_;
  if (tTearingDown) return;
  tTearingDown = true;
  while (tDoomed) {
    Waiter* w = std::exchange(tDoomed, tDoomed->next);
    w->dispose();
  }
  tTearingDown = false;
}

Ref<PRMPromise> PRMPromise::makePending() {
  auto p = Ref<PRMPromise>::adopt(new PRMPromise());
  p->spare_ |= kHasHandlerList;
  return p;
}

Ref<PRMPromise> PRMPromise::promiseWithValue(const Id& value) {
  auto p = Ref<PRMPromise>::adopt(new PRMPromise());
  p->result_ = PRMSanitizeResult(value);
  return p;
}

Id PRMPromise::tryRegister(Waiter* waiter) const {
  PRMWriteGuard guard(lock_);
  if (result_) return result_;
  waiter->next = waiters_;
  waiters_ = waiter;
  return nullptr;
}

size_t PRMPromise::waiterCount() const noexcept {
  size_t n = 0;
  for (Waiter* w = waiters_; w; w = w->next) ++n;
  return n;
}

// ---- Reading, writing and settling the slot.

Id PRMSanitizeResult(const Id& value) {
  if (!value) return Id(PRMNull());
  if (value->isKindOfClass(Error::staticClass())) {
    PRMError::unconsume(static_cast<const Error*>(value.get()));
  }
  return value;
}

Id PRMGetResult(const PRMPromise* promise) {
  PRMReadGuard guard(promise->lock_);
  return promise->result_;
}

PRMHandlerList PRMSetResult(PRMPromise* promise, const Id& value) {
  Id stored = PRMSanitizeResult(value);
  Waiter* taken;
  bool present;
  {
    PRMWriteGuard guard(promise->lock_);
    taken = std::exchange(promise->waiters_, nullptr);
    present = promise->spare_ & PRMPromise::kHasHandlerList;
    promise->spare_ &= ~PRMPromise::kHasHandlerList;
    // The old content is released after the lock, in `stored`.
    promise->result_.swap(stored);
  }
  return PRMHandlerList(reversed(taken), present);
}

namespace {

void settle(PRMPromise* promise, const Id& value) {
  PRMHandlerList waiting = PRMSetResult(promise, value);
  waiting.runAll(value);
}

}  // namespace

void PRMResolve(PRMPromise* promise, const Id& value) {
  PRMPromise* adopted = promise_internal::asPromise(value);
  if (!adopted) {
    settle(promise, value);
    return;
  }
  Id content;
  {
    PRMWriteGuard guard(adopted->lock_);
    content = adopted->result_;
    if (!content) {
      // Adopting itself would make the promise own itself: the entry then holds a
      // plain pointer, since it can only run while the promise is alive anyway.
      Waiter* entry =
          adopted == promise
              ? promise_internal::makeWaiter([promise](const Id& o) { PRMResolve(promise, o); })
              : promise_internal::makeWaiter(
                    [keep = Ref<PRMPromise>(promise)](const Id& o) { PRMResolve(keep.get(), o); });
      entry->next = adopted->waiters_;
      adopted->waiters_ = entry;
      return;
    }
  }
  // The raw content: an error stays the error, PRMNull the marker, a promise a
  // promise. Settled after the adopted promise's lock is released, so no handler of
  // the adopter ever runs under it.
  settle(promise, content);
}

void PRMPromise::resolveIfPending(PRMPromise* promise, const Id& value) {
  bool settled;
  {
    PRMReadGuard guard(promise->lock_);
    settled = static_cast<bool>(promise->result_);
  }
  if (settled) {
    Log("Migriornop: Warning: Promise already resolved");
    return;
  }
  PRMResolve(promise, value);
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
  size_t count;
  {
    PRMReadGuard guard(lock_);
    r = result_;
    count = waiterCount();
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
