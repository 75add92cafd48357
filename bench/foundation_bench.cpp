// Object-model building blocks beside the standard peers: reference copies and
// decoding UTF-8 into strings.
#include <benchmark/benchmark.h>
#include <unicode/unistr.h>

#include <memory>
#include <string>
#include <thread>

#include "nk/foundation/string.hpp"

namespace {

struct Payload : nk::Object {
  int value = 0;
};

// The C++ library counts shared_ptr references without atomics while a process
// has a single thread; a host of this library always has more, so start one
// before measuring to compare like with like.
void leaveSingleThreadedMode() {
  static const bool done = [] {
    std::thread([] {}).join();
    return true;
  }();
  (void)done;
}

void BM_RefCopy(benchmark::State& state) {
  leaveSingleThreadedMode();
  auto p = nk::make<Payload>();
  for (auto _ : state) {
    nk::Ref<Payload> copy = p;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_RefCopy);

void BM_SharedPtrCopy(benchmark::State& state) {
  leaveSingleThreadedMode();
  auto p = std::make_shared<int>(0);
  for (auto _ : state) {
    std::shared_ptr<int> copy = p;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_SharedPtrCopy);

std::string asciiText() {
  std::string s;
  while (s.size() < 256) s += "The quick brown fox jumps over the lazy dog. ";
  return s.substr(0, 256);
}

std::string mixedText() {
  std::string s;
  while (s.size() < 256) s += "Caf\xC3\xA9 \xE2\x82\xAC 12 \xCE\xB1\xCE\xB2 \xF0\x9F\x98\x80 ok ";
  return s;
}

void BM_StringFromUTF8(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    auto s = nk::String::fromUTF8(text);
    benchmark::DoNotOptimize(s);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_IcuFromUTF8(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    icu::UnicodeString s = icu::UnicodeString::fromUTF8(text);
    benchmark::DoNotOptimize(s);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

BENCHMARK_CAPTURE(BM_StringFromUTF8, ascii, asciiText());
BENCHMARK_CAPTURE(BM_IcuFromUTF8, ascii, asciiText());
BENCHMARK_CAPTURE(BM_StringFromUTF8, mixed, mixedText());
BENCHMARK_CAPTURE(BM_IcuFromUTF8, mixed, mixedText());

}  // namespace

BENCHMARK_MAIN();
