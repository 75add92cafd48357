// Helpers shared by the promise engine's tests: capturing log lines and unhandled-
// error reports, and letting the main loop run until a promise settles.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "nk/dispatch/run_loop.hpp"
#include "nk/foundation/log.hpp"
#include "nk/promise/promise.hpp"

namespace nk::promise_test {

// Collects the log lines written while it lives.
class LogCapture {
 public:
  LogCapture() {
    previous_ = setLogSink([this](std::string_view line) {
      std::lock_guard<std::mutex> guard(lock_);
      lines_.emplace_back(line);
    });
  }
  ~LogCapture() { setLogSink(previous_); }
  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_;
  }
  size_t count(const std::string& line) const {
    size_t n = 0;
    for (const auto& l : lines()) n += l == line;
    return n;
  }

 private:
  LogSink previous_;
  mutable std::mutex lock_;
  std::vector<std::string> lines_;
};

// Replaces PRMUnhandledErrorHandler with one that records the reports.
class UnhandledCapture {
 public:
  UnhandledCapture() {
    previous_ = PRMUnhandledErrorHandler.exchange([this](const Ref<Error>& e) {
      std::lock_guard<std::mutex> guard(lock_);
      reports_.push_back(e);
    });
  }
  ~UnhandledCapture() { PRMUnhandledErrorHandler.exchange(previous_); }
  std::vector<Ref<Error>> reports() const {
    std::lock_guard<std::mutex> guard(lock_);
    return reports_;
  }

 private:
  PRMUnhandledErrorHandlerSlot::Function previous_;
  mutable std::mutex lock_;
  std::vector<Ref<Error>> reports_;
};

// Runs the main loop (on the main thread) until `done` holds or five seconds pass.
template <class Pred>
bool runMainUntil(Pred done, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    RunLoop::main().runUntil([&] { return done(); }, std::chrono::milliseconds(5));
  }
  return true;
}

inline bool settles(const Ref<PRMPromise>& p) {
  return runMainUntil([&] { return !p->pending(); });
}

}  // namespace nk::promise_test

namespace nk::promise_test {

// A pending promise with its resolver kept for the test to settle it.
struct Deferred {
  Ref<PRMPromise> promise;
  std::optional<PRMResolver> resolve;
};
inline Deferred deferred() {
  Deferred d;
  d.promise = PRMPromise::promiseWithResolver([&](PRMResolver r) { d.resolve.emplace(r); });
  return d;
}

}  // namespace nk::promise_test
