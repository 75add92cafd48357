// MutableDictionary against std::unordered_map<std::u16string, int>, measured in
// the same run: building a large map of string keys, looking keys up through
// equal but distinct key objects, and building many small JSON-sized maps.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/string.hpp"

namespace {

constexpr int kLarge = 100000;

// Keys shaped like identifiers in JSON documents, in a shuffled order.
std::vector<std::string> makeKeys(int n, unsigned seed) {
  std::vector<std::string> keys;
  keys.reserve(n);
  char buf[32];
  for (int i = 0; i < n; ++i) {
    std::snprintf(buf, sizeof buf, "item-%07d-key", i);
    keys.emplace_back(buf);
  }
  std::shuffle(keys.begin(), keys.end(), std::mt19937(seed));
  return keys;
}

std::vector<nk::Ref<nk::String>> toStrings(const std::vector<std::string>& keys) {
  std::vector<nk::Ref<nk::String>> out;
  out.reserve(keys.size());
  for (const auto& k : keys) out.push_back(nk::String::fromUTF8(k));
  return out;
}

std::vector<std::u16string> toU16(const std::vector<nk::Ref<nk::String>>& keys) {
  std::vector<std::u16string> out;
  out.reserve(keys.size());
  for (const auto& k : keys) out.push_back(k->toUTF16());
  return out;
}

struct Fixture {
  std::vector<nk::Ref<nk::String>> keys = toStrings(makeKeys(kLarge, 1));
  // Equal to `keys` but distinct objects, in another order: no identity shortcut.
  std::vector<nk::Ref<nk::String>> probes = toStrings(makeKeys(kLarge, 2));
  std::vector<std::u16string> keys16 = toU16(keys);
  std::vector<std::u16string> probes16 = toU16(probes);
  nk::Id value = nk::Number::withInt(7);
};

const Fixture& fixture() {
  static const Fixture f;
  return f;
}

void BM_NkInsert(benchmark::State& state) {
  const Fixture& f = fixture();
  for (auto _ : state) {
    auto d = nk::MutableDictionary::make();
    for (const auto& k : f.keys) d->setObjectForKey(f.value, k);
    benchmark::DoNotOptimize(d->count());
  }
  state.SetItemsProcessed(state.iterations() * kLarge);
}
BENCHMARK(BM_NkInsert)->Unit(benchmark::kMillisecond);

void BM_StdInsert(benchmark::State& state) {
  const Fixture& f = fixture();
  for (auto _ : state) {
    std::unordered_map<std::u16string, int> m;
    for (const auto& k : f.keys16) m.emplace(k, 7);
    benchmark::DoNotOptimize(m.size());
  }
  state.SetItemsProcessed(state.iterations() * kLarge);
}
BENCHMARK(BM_StdInsert)->Unit(benchmark::kMillisecond);

void BM_NkLookup(benchmark::State& state) {
  const Fixture& f = fixture();
  auto d = nk::MutableDictionary::make();
  for (const auto& k : f.keys) d->setObjectForKey(f.value, k);
  for (auto _ : state) {
    size_t found = 0;
    for (const auto& k : f.probes) found += d->objectForKey(k) ? 1 : 0;
    if (found != kLarge) state.SkipWithError("lookup missed");
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * kLarge);
}
BENCHMARK(BM_NkLookup)->Unit(benchmark::kMillisecond);

void BM_StdLookup(benchmark::State& state) {
  const Fixture& f = fixture();
  std::unordered_map<std::u16string, int> m;
  for (const auto& k : f.keys16) m.emplace(k, 7);
  for (auto _ : state) {
    size_t found = 0;
    for (const auto& k : f.probes16) found += m.find(k) != m.end() ? 1 : 0;
    if (found != kLarge) state.SkipWithError("lookup missed");
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * kLarge);
}
BENCHMARK(BM_StdLookup)->Unit(benchmark::kMillisecond);

// What a JSON decoder does most: many objects of a few keys each.
void BM_NkSmallBuild(benchmark::State& state) {
  const Fixture& f = fixture();
  const int n = static_cast<int>(state.range(0));
  size_t next = 0;
  for (auto _ : state) {
    auto d = nk::MutableDictionary::make();
    for (int i = 0; i < n; ++i) d->setObjectForKey(f.value, f.keys[(next + i) % kLarge]);
    benchmark::DoNotOptimize(d->objectForKey(f.probes[next % kLarge]));
    next += n;
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_NkSmallBuild)->Arg(5)->Arg(16);

void BM_StdSmallBuild(benchmark::State& state) {
  const Fixture& f = fixture();
  const int n = static_cast<int>(state.range(0));
  size_t next = 0;
  for (auto _ : state) {
    std::unordered_map<std::u16string, int> m;
    for (int i = 0; i < n; ++i) m.emplace(f.keys16[(next + i) % kLarge], 7);
    benchmark::DoNotOptimize(m.find(f.probes16[next % kLarge]));
    next += n;
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_StdSmallBuild)->Arg(5)->Arg(16);

}  // namespace

BENCHMARK_MAIN();
