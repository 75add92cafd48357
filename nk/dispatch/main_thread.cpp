// isMainThread: the initial thread is the one whose thread id equals the process id.
#include "nk/dispatch/main_thread.hpp"

#include <unistd.h>

namespace nk {

bool isMainThread() noexcept {
  // Not cached: a forked child's thread changes identity, and gettid() is cheap enough for
  // the places that ask (sync checks, run-loop ownership).
  return ::gettid() == ::getpid();
}

}  // namespace nk
