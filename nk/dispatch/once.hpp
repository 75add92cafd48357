// once: runs an initialiser exactly once however many threads ask at the same time; the
// others wait for it to finish. Checking an initialised flag costs one load.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "nk/dispatch/function_ref.hpp"

namespace nk {

// The state of one once-only initialisation. Usually a static or a member; constant-
// initialised, so a static OnceFlag is ready before any constructor runs.
class OnceFlag {
 public:
  constexpr OnceFlag() noexcept = default;
  OnceFlag(const OnceFlag&) = delete;
  OnceFlag& operator=(const OnceFlag&) = delete;

 private:
  template <class F>
  friend void once(OnceFlag& flag, F&& f);
  friend void onceSlow(OnceFlag& flag, FunctionRef<void()> f);
  std::atomic<uint32_t> state_{0};  // 0 new, 1 running, 2 running with waiters, 3 done
};

void onceSlow(OnceFlag& flag, FunctionRef<void()> f);

// Calls `f` if no call through `flag` has completed yet, and returns once one has. Calls
// racing with the first wait for it, and then see everything it wrote. If `f` throws, the
// exception reaches its caller and the next call tries again. Calling once on the same
// flag from inside `f` deadlocks.
//
// Example:
//   const Table& table() {
//     static nk::OnceFlag flag;
//     static Table* t;
//     nk::once(flag, [] { t = new Table(load()); });
//     return *t;
//   }
template <class F>
void once(OnceFlag& flag, F&& f) {
  if (flag.state_.load(std::memory_order_acquire) == 3) return;
  onceSlow(flag, f);
}

}  // namespace nk
