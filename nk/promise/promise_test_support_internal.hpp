// Helpers shared by the promise engine's tests: capturing log lines and unhandled-
// error reports, running the main loop, and the errors and numbers most tests build.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "nk/dispatch/run_loop.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/log.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/promise.hpp"

namespace nk::promise_test {

using namespace std::chrono_literals;

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

// The value `p` settles with, once the main loop has run for it; a marker text if it
// never settles.
inline Id settledValue(const Ref<PRMPromise>& p) {
  return settles(p) ? p->value() : Id(NK_STR("<still pending>"));
}

// Lets the main loop run for a while, for work that must not (or need not) happen.
inline void idle(std::chrono::milliseconds span = std::chrono::milliseconds(30)) {
  runMainUntil([] { return false; }, span);
}

// Waits from this thread, without running the main loop, until `p` settles.
inline bool settlesOffMain(const Ref<PRMPromise>& p,
                           std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (p->pending() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return !p->pending();
}

inline constexpr const char* kAlreadyResolved = "Migriornop: Warning: Promise already resolved";

inline Id num(int v) { return Number::withInt(v); }
inline Ref<Error> failure(long code = 7, Ref<Dictionary> info = nullptr) {
  return Error::make(NK_STR("TestDomain"), code, info);
}

// Settles `p`, marks its error handled and returns the error's code; -1 unless it
// rejected with an error.
inline long rejectionCode(const Ref<PRMPromise>& p) {
  if (!settles(p) || !p->rejected()) return -1;
  p->catch_([] {});
  auto* e = cast<Error>(p->value().get());
  return e ? e->code() : -1;
}

inline Ref<PRMPromise> fulfilled(int v) { return PRMPromise::promiseWithValue(num(v)); }
inline Ref<PRMPromise> rejected(long code) { return PRMPromise::promiseWithValue(failure(code)); }

// The failing position or key an aggregate's rejection error carries, or nil.
inline Id failingIndex(const Id& error) {
  auto e = cast<Error>(error);
  if (!e || !e->userInfo()) return nullptr;
  return e->userInfo()->objectForKey(PRMFailingPromiseIndexKey());
}

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
