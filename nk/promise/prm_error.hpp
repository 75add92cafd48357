// Unhandled-error tracking and the promise engine's exported names.
//
// Every error stored as a rejection carries a PRMError tracker on its associated-
// object slot; when the error dies while no catch handler has taken it since it was
// last stored, the tracker reports a copy of it through PRMUnhandledErrorHandler.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "nk/foundation/error.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// "PRMErrorDomain": the domain of the engine's own errors (code 1: a handler raised or
// has a form the engine cannot call; code 3: a rejection whose reason was not an error).
String* PRMErrorDomain() noexcept;
// "PRMUnderlyingExceptionKey": the user-information key of the thrown object.
String* PRMUnderlyingExceptionKey() noexcept;
// The same text under the name clients may know it by.
String* PRMThrown() noexcept;
// "PRMFailingPromiseIndexKey": where aggregation puts the failing member's position.
String* PRMFailingPromiseIndexKey() noexcept;
// An association key offered to clients (use its address); the library never uses it.
inline const char PRMManualReferenceAssociatedObject = 0;

// The tracker attached to a stored error.
class PRMError final : public Object {
  NK_DECLARE_CLASS(PRMError, Object)

 public:
  // Arms the tracker of `error`: attaches a new one, or marks the existing one
  // unconsumed again. Nil is ignored.
  static void unconsume(const Error* error);
  // Marks the tracker of `error` consumed (nothing when it has none).
  static void consume(const Error* error);
  // The tracker of `error`, or nil.
  static Ref<PRMError> trackerOf(const Error* error);

  // The copy that will be reported; never the tracked error itself.
  const Ref<Error>& error() const noexcept { return error_; }
  bool consumed() const noexcept { return consumed_.load(std::memory_order_acquire); }

 private:
  explicit PRMError(Ref<Error> copy) noexcept : error_(std::move(copy)) {}
  ~PRMError() override;

  Ref<Error> error_;
  std::atomic<bool> consumed_{false};
};

// The process-wide callable told about errors nobody handled. Initially it logs
// "Migriornop: Unhandled error: <description>"; set it to another callable, or to
// nil to report nothing. Reading, calling and replacing it are thread-safe; a
// report runs on whatever thread destroys the error.
//
//   nk::PRMUnhandledErrorHandler = [](const nk::Ref<nk::Error>& e) { count(e); };
//   nk::PRMUnhandledErrorHandler = nullptr;
class PRMUnhandledErrorHandlerSlot {
 public:
  using Function = std::function<void(const Ref<Error>&)>;

  constexpr PRMUnhandledErrorHandlerSlot() noexcept = default;
  PRMUnhandledErrorHandlerSlot(const PRMUnhandledErrorHandlerSlot&) = delete;

  PRMUnhandledErrorHandlerSlot& operator=(Function f) {
    exchange(std::move(f));
    return *this;
  }
  PRMUnhandledErrorHandlerSlot& operator=(std::nullptr_t) {
    exchange(Function());
    return *this;
  }
  // Installs `f` (empty = nil) and returns the previous handler (empty when nil).
  Function exchange(Function f);
  // The current handler; empty when nil.
  Function get() const;
  explicit operator bool() const;
  // Calls the current handler, if any, with `error`.
  void operator()(const Ref<Error>& error) const;

 private:
  std::shared_ptr<const Function> current() const;

  mutable std::mutex lock_;
  bool replaced_ = false;  // until then, the logging default
  std::shared_ptr<const Function> function_;
};

extern PRMUnhandledErrorHandlerSlot PRMUnhandledErrorHandler;

}  // namespace nk
