// PRMLock: the 4-byte reader/writer lock word of each promise, held by readers of its
// waiting list and by writers that replace a settled slot. Reads overlap, writes are
// exclusive; waiters sleep on a futex and never spin, because the sections it guards
// are a handful of loads and stores.
#pragma once

#include <atomic>
#include <cstdint>

namespace nk::promise_internal {

// Word layout: bit 31 a writer holds the lock, bit 30 someone sleeps on the word,
// bits 0-29 the number of readers inside.
class PRMLock {
 public:
  constexpr PRMLock() noexcept = default;
  PRMLock(const PRMLock&) = delete;
  PRMLock& operator=(const PRMLock&) = delete;

  void lock() noexcept {
    uint32_t expected = 0;
    if (word_.compare_exchange_strong(expected, kWriter, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
      return;
    }
    acquireSlow(false);
  }

  void unlock() noexcept {
    if (word_.exchange(0, std::memory_order_release) & kSleepers) wakeAll();
  }

  void lockShared() noexcept {
    uint32_t v = word_.load(std::memory_order_relaxed);
    if (!(v & kWriter) && word_.compare_exchange_weak(v, v + 1, std::memory_order_acquire,
                                                      std::memory_order_relaxed)) {
      return;
    }
    acquireSlow(true);
  }

  // Whether anyone holds the lock or waits for it. Sequentially consistent, for a
  // writer that pairs it with a store of its own instead of taking the lock.
  bool idle() const noexcept { return word_.load(std::memory_order_seq_cst) == 0; }

  void unlockShared() noexcept {
    uint32_t v = word_.fetch_sub(1, std::memory_order_release) - 1;
    // The last reader out wakes the writers that wait for the readers to drain.
    if (v == kSleepers) {
      if (word_.compare_exchange_strong(v, 0, std::memory_order_relaxed)) wakeAll();
    }
  }

 private:
  static constexpr uint32_t kWriter = 1u << 31;
  static constexpr uint32_t kSleepers = 1u << 30;

  // Out of line: the sleeping paths.
  void acquireSlow(bool shared) noexcept;
  void wakeAll() noexcept;

  std::atomic<uint32_t> word_{0};
};

// Scoped holders.
class PRMWriteGuard {
 public:
  explicit PRMWriteGuard(PRMLock& lock) noexcept : lock_(lock) { lock_.lock(); }
  ~PRMWriteGuard() { lock_.unlock(); }
  PRMWriteGuard(const PRMWriteGuard&) = delete;
  PRMWriteGuard& operator=(const PRMWriteGuard&) = delete;

 private:
  PRMLock& lock_;
};

class PRMReadGuard {
 public:
  explicit PRMReadGuard(PRMLock& lock) noexcept : lock_(lock) { lock_.lockShared(); }
  ~PRMReadGuard() { lock_.unlockShared(); }
  PRMReadGuard(const PRMReadGuard&) = delete;
  PRMReadGuard& operator=(const PRMReadGuard&) = delete;

 private:
  PRMLock& lock_;
};

}  // namespace nk::promise_internal
