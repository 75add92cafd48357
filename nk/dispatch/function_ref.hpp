// FunctionRef: a non-owning reference to a callable, for parameters that are called before
// the function returns (sync blocks, run-loop predicates, once initialisers).
#pragma once

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace nk {

template <class Signature>
class FunctionRef;

// Refers to any callable with the given signature without copying it. The callable must
// outlive every call through the reference; binding a temporary lambda in a call's argument
// list is fine because the temporary lives until the call returns.
//
// Example:
//   void forEach(FunctionRef<void(int)> f) { for (int i = 0; i < 3; ++i) f(i); }
//   forEach([&](int i) { sum += i; });
template <class R, class... Args>
class FunctionRef<R(Args...)> {
 public:
  template <class F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, FunctionRef> &&
           std::is_invocable_r_v<R, F&, Args...>) FunctionRef(F&& f)
  noexcept  // NOLINT: converts implicitly, like std::function
      : object_(const_cast<void*>(static_cast<const void*>(std::addressof(f)))),
        call_([](void* object, Args... args) -> R {
          return std::invoke(*static_cast<std::remove_reference_t<F>*>(object),
                             std::forward<Args>(args)...);
        }) {}

  R operator()(Args... args) const { return call_(object_, std::forward<Args>(args)...); }

 private:
  void* object_;
  R (*call_)(void*, Args...);
};

}  // namespace nk
