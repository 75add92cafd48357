// Semaphore: a counting semaphore whose waiters sleep in the kernel until signalled or
// timed out; waiting never spins.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace nk {

// A counter of available resources. wait() takes one, sleeping until one is available;
// signal() returns one, waking a waiter if there is one. Each signal wakes at most one
// waiter, and a waiter that times out gives back its place without taking a resource.
// Memory effects before a signal() are visible after the wait() it satisfies.
//
// Example (waiting for a callback that runs on another queue):
//   nk::Semaphore done;
//   nk::Queue::global().async([&] { work(); done.signal(); });
//   if (!done.waitFor(std::chrono::seconds(5))) reportStall();
class Semaphore {
 public:
  // Starts with `value` resources; must not be negative.
  explicit Semaphore(int64_t value = 0) noexcept;
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  // Returns one resource. Returns true if a waiting thread was woken to take it.
  bool signal() noexcept;
  // Takes one resource, waiting as long as it takes.
  void wait() noexcept;
  // Takes one resource if one becomes available within `timeout` (or by `deadline`);
  // returns false, having taken nothing, otherwise. A zero timeout only tries.
  [[nodiscard]] bool waitFor(std::chrono::nanoseconds timeout) noexcept;
  [[nodiscard]] bool waitUntil(std::chrono::steady_clock::time_point deadline) noexcept;

 private:
  bool waitSlow(const std::chrono::steady_clock::time_point* deadline) noexcept;

  std::atomic<int64_t> value_;        // resources left; below zero, minus the waiters
  std::atomic<uint32_t> wakeups_{0};  // signals handed to waiters and not yet taken
};

}  // namespace nk
