// A promise chain on the main loop: slow work runs on a background queue, each
// step's handler runs on the main queue, a failure is caught and turned into a
// value, and one promise waits for every chain before the program ends.
#include <chrono>
#include <cstdint>
#include <cstdio>

#include <nk/dispatch/queue.hpp>
#include <nk/dispatch/run_loop.hpp>
#include <nk/foundation/array.hpp>
#include <nk/foundation/error.hpp>
#include <nk/foundation/format.hpp>
#include <nk/foundation/number.hpp>
#include <nk/promise/promise.hpp>
#include <nk/promise/promise_when.hpp>
#include <nk/system/byte_count_formatter.hpp>

namespace {

constexpr int64_t kQuotaBytes = 5'000'000'000;

// Stands for an asynchronous service call that completes on a thread of its own.
nk::Ref<nk::PRMPromise> fetchUsedBytes(int64_t answer) {
  return nk::PRMPromise::new_([answer](nk::PRMFulfiller fulfil, nk::PRMRejecter) {
    nk::Queue::global().async([=] { fulfil(nk::Number::withLongLong(answer)); });
  });
}

// A line about one user's storage: each handler below runs on the main queue.
nk::Ref<nk::PRMPromise> describeUsage(const char* user, int64_t usedBytes) {
  return fetchUsedBytes(usedBytes)
      ->then([](nk::Ref<nk::Number> used) -> nk::Id {
        if (used->longLongValue() > kQuotaBytes) {
          return nk::Error::make("ExampleQuotaDomain", 1);  // rejects the next promise
        }
        return nk::ByteCountFormatter::stringFromByteCount(used->longLongValue(),
                                                           nk::ByteCountStyle::kFile);
      })
      ->then([user](nk::Ref<nk::String> size) { return nk::format("%s uses %@", user, size); })
      ->catch_([user](nk::Ref<nk::Error> error) {
        return nk::format("%s is over quota (error %ld)", user, error->code());
      });
}

}  // namespace

int main() {
  bool done = false;
  nk::Ref<nk::PRMPromise> report = nk::PRMPromise::all(
      nk::Array::make({describeUsage("ana", 1'500'000), describeUsage("ben", 7'200'000'000)}));
  report
      ->then([](nk::Ref<nk::Array> lines) {
        for (const nk::Id& line : *lines) std::printf("%s\n", line->description()->utf8().c_str());
      })
      ->finally([&done] { done = true; });

  // A host with a GTK or Qt loop needs none of this: its loop runs the main queue.
  using namespace std::chrono_literals;
  if (!nk::RunLoop::main().runUntil([&done] { return done; }, 10s)) {
    std::fprintf(stderr, "the chain did not finish\n");
    return 1;
  }
  return report->fulfilled() ? 0 : 1;
}
