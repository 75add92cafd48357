// Unhandled-error tracking: the tracker's life and the replaceable report handler.
#include "nk/promise/prm_error.hpp"

#include "nk/foundation/class.hpp"
#include "nk/foundation/log.hpp"

namespace nk {

NK_DEFINE_CLASS(PRMError, "PRMError");

String* PRMErrorDomain() noexcept { return NK_STR("PRMErrorDomain"); }
String* PRMUnderlyingExceptionKey() noexcept { return NK_STR("PRMUnderlyingExceptionKey"); }
String* PRMThrown() noexcept { return NK_STR("PRMUnderlyingExceptionKey"); }
String* PRMFailingPromiseIndexKey() noexcept { return NK_STR("PRMFailingPromiseIndexKey"); }

PRMUnhandledErrorHandlerSlot PRMUnhandledErrorHandler;

namespace {

// The key of the tracker among an error's associated objects.
const char kPRMErrorAssociatedObject = 0;

}  // namespace

void PRMError::unconsume(const Error* error) {
  if (!error) return;
  if (Id tracker = error->associatedObject(&kPRMErrorAssociatedObject)) {
    static_cast<PRMError*>(tracker.get())->consumed_.store(false, std::memory_order_release);
    return;
  }
  // Two threads storing the same new error must not both attach a tracker: the one
  // replaced would die unconsumed and report an error that is still alive.
  static std::mutex attachLock;
  std::lock_guard<std::mutex> guard(attachLock);
  if (Id tracker = error->associatedObject(&kPRMErrorAssociatedObject)) {
    static_cast<PRMError*>(tracker.get())->consumed_.store(false, std::memory_order_release);
    return;
  }
  // A separate error object with the same contents: the tracked error owns its
  // tracker, so holding the error itself would keep both alive for ever.
  auto copy = Error::make(error->domain(), error->code(), error->userInfo());
  Ref<PRMError> tracker = Ref<PRMError>::adopt(new PRMError(std::move(copy)));
  const_cast<Error*>(error)->setAssociatedObject(&kPRMErrorAssociatedObject, std::move(tracker));
}

void PRMError::consume(const Error* error) {
  if (!error) return;
  if (Id tracker = error->associatedObject(&kPRMErrorAssociatedObject)) {
    static_cast<PRMError*>(tracker.get())->consumed_.store(true, std::memory_order_release);
  }
}

Ref<PRMError> PRMError::trackerOf(const Error* error) {
  if (!error) return nullptr;
  Id tracker = error->associatedObject(&kPRMErrorAssociatedObject);
  return Ref<PRMError>(static_cast<PRMError*>(tracker.get()));
}

PRMError::~PRMError() {
  if (!consumed_.load(std::memory_order_acquire)) PRMUnhandledErrorHandler(error_);
}

namespace {

// Never destroyed: errors may die while the process exits.
const std::shared_ptr<const PRMUnhandledErrorHandlerSlot::Function>& defaultHandler() {
  static const auto* handler = new std::shared_ptr<const PRMUnhandledErrorHandlerSlot::Function>(
      std::make_shared<const PRMUnhandledErrorHandlerSlot::Function>(
          [](const Ref<Error>& error) { Log("Migriornop: Unhandled error: %@", error); }));
  return *handler;
}

}  // namespace

PRMUnhandledErrorHandlerSlot::Function PRMUnhandledErrorHandlerSlot::exchange(Function f) {
  std::shared_ptr<const Function> next;
  if (f) next = std::make_shared<const Function>(std::move(f));
  std::shared_ptr<const Function> previous;
  {
    std::lock_guard<std::mutex> guard(lock_);
    previous = replaced_ ? function_ : defaultHandler();
    replaced_ = true;
    function_.swap(next);
  }
  return previous ? *previous : Function();
}

std::shared_ptr<const PRMUnhandledErrorHandlerSlot::Function>
PRMUnhandledErrorHandlerSlot::current() const {
  std::lock_guard<std::mutex> guard(lock_);
  return replaced_ ? function_ : defaultHandler();
}

PRMUnhandledErrorHandlerSlot::Function PRMUnhandledErrorHandlerSlot::get() const {
  auto f = current();
  return f ? *f : Function();
}

PRMUnhandledErrorHandlerSlot::operator bool() const { return current() != nullptr; }

void PRMUnhandledErrorHandlerSlot::operator()(const Ref<Error>& error) const {
  // Called outside the lock: a handler may replace itself.
  if (auto f = current()) (*f)(error);
}

}  // namespace nk
