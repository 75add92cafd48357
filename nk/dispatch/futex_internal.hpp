// Futex wait and wake on a 32-bit atomic word: the one way dispatch threads go to sleep.
// Every waiter re-checks its condition after waking, so spurious wake-ups are harmless.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

namespace nk::dispatch_internal {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
                  std::atomic<uint32_t>::is_always_lock_free,
              "futex words must be plain 32-bit integers");

inline uint32_t* futexAddress(std::atomic<uint32_t>* word) noexcept {
  return reinterpret_cast<uint32_t*>(word);
}

// Sleeps while `*word == expected`. Returns on a wake, a changed value or spuriously.
inline void futexWait(std::atomic<uint32_t>* word, uint32_t expected) noexcept {
  int saved = errno;
  ::syscall(SYS_futex, futexAddress(word), FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
  errno = saved;
}

// As futexWait, giving up at `deadline` on CLOCK_MONOTONIC. Returns false once it has passed.
inline bool futexWaitUntil(std::atomic<uint32_t>* word, uint32_t expected,
                           const timespec& deadline) noexcept {
  int saved = errno;
  long r = ::syscall(SYS_futex, futexAddress(word), FUTEX_WAIT_BITSET_PRIVATE, expected, &deadline,
                     nullptr, FUTEX_BITSET_MATCH_ANY);
  bool timedOut = r == -1 && errno == ETIMEDOUT;
  errno = saved;
  return !timedOut;
}

// Wakes up to `count` threads sleeping on `word`. The word's memory may already be gone:
// the kernel only uses the address as a key.
inline void futexWake(std::atomic<uint32_t>* word, int count) noexcept {
  int saved = errno;
  ::syscall(SYS_futex, futexAddress(word), FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
  errno = saved;
}

}  // namespace nk::dispatch_internal
