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

// The futex system call; returns its result, or minus the error number. On x86-64 it is
// made directly: a thread that has just slept pays dearly for every indirect jump, and
// libc's syscall() takes two through the PLT (its own and errno's) besides saving and
// restoring errno, which the direct call leaves alone.
inline long futex(std::atomic<uint32_t>* word, int op, uint32_t value, const timespec* timeout,
                  uint32_t value3) noexcept {
  auto* address = reinterpret_cast<uint32_t*>(word);
#if defined(__x86_64__)
  long result;
  register const timespec* r10 asm("r10") = timeout;
  register uint32_t* r8 asm("r8") = nullptr;
  register uint64_t r9 asm("r9") = value3;
  asm volatile("syscall"
               : "=a"(result)
               : "0"(long{SYS_futex}), "D"(address), "S"(long{op}), "d"(uint64_t{value}), "r"(r10),
                 "r"(r8), "r"(r9)
               : "rcx", "r11", "memory");
  return result;
#else
  const int saved = errno;
  long result = ::syscall(SYS_futex, address, op, value, timeout, nullptr, value3);
  if (result == -1) result = -errno;
  errno = saved;
  return result;
#endif
}

// Sleeps while `*word == expected`. Returns on a wake, a changed value or spuriously.
inline void futexWait(std::atomic<uint32_t>* word, uint32_t expected) noexcept {
  futex(word, FUTEX_WAIT_PRIVATE, expected, nullptr, 0);
}

// As futexWait, giving up at `deadline` on CLOCK_MONOTONIC. Returns false once it has passed.
inline bool futexWaitUntil(std::atomic<uint32_t>* word, uint32_t expected,
                           const timespec& deadline) noexcept {
  return futex(word, FUTEX_WAIT_BITSET_PRIVATE, expected, &deadline, FUTEX_BITSET_MATCH_ANY) !=
         -ETIMEDOUT;
}

// Wakes up to `count` threads sleeping on `word`. The word's memory may already be gone:
// the kernel only uses the address as a key.
inline void futexWake(std::atomic<uint32_t>* word, int count) noexcept {
  futex(word, FUTEX_WAKE_PRIVATE, static_cast<uint32_t>(count), nullptr, 0);
}

}  // namespace nk::dispatch_internal
