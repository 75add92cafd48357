// isMainThread: whether the calling thread is the process's initial thread, the one the
// main queue and the main run loop belong to.
#pragma once

namespace nk {

// True on the process's initial thread (the one that ran `main`), whichever thread asks
// first. In a child made by fork(), the thread that forked.
[[nodiscard]] bool isMainThread() noexcept;

}  // namespace nk
