// Keyed archiving of a 1,000-entry dictionary of strings, beside the plain binary
// property-list writer and reader on the same dictionary: the cost of the keyed
// layer (object table, UIDs, class records, allow-list) over the raw format.
#include <benchmark/benchmark.h>

#include <string>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/keyed_archiver.hpp"
#include "nk/foundation/keyed_unarchiver.hpp"
#include "nk/foundation/property_list.hpp"

namespace {

nk::Ref<nk::Dictionary> sampleDictionary() {
  auto dict = nk::MutableDictionary::make();
  for (int i = 0; i < 1000; ++i) {
    dict->setObjectForKey(nk::String::fromUTF8("value number " + std::to_string(i)),
                          nk::String::fromUTF8("key-" + std::to_string(i)));
  }
  return nk::cast<nk::Dictionary>(dict->copy());
}

const nk::Class* const kAllowed[] = {&nk::Dictionary::staticClass(), &nk::String::staticClass()};

void BM_KeyedArchiveEncode(benchmark::State& state) {
  auto dict = sampleDictionary();
  for (auto _ : state) {
    auto data = nk::KeyedArchiver::archivedDataWithRootObject(dict.get(), true);
    benchmark::DoNotOptimize(data);
  }
}
BENCHMARK(BM_KeyedArchiveEncode);

void BM_PlistBinaryWrite(benchmark::State& state) {
  auto dict = sampleDictionary();
  for (auto _ : state) {
    auto bytes = nk::writePropertyList(dict.get(), nk::PropertyListFormat::kBinary);
    benchmark::DoNotOptimize(bytes);
  }
}
BENCHMARK(BM_PlistBinaryWrite);

void BM_KeyedArchiveDecode(benchmark::State& state) {
  auto data = nk::KeyedArchiver::archivedDataWithRootObject(sampleDictionary().get(), true);
  for (auto _ : state) {
    nk::Id root = nk::KeyedUnarchiver::unarchivedObjectOfClasses(kAllowed, data.get());
    if (!root) state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(root);
  }
}
BENCHMARK(BM_KeyedArchiveDecode);

void BM_PlistBinaryRead(benchmark::State& state) {
  auto bytes = *nk::writePropertyList(sampleDictionary().get(), nk::PropertyListFormat::kBinary);
  for (auto _ : state) {
    nk::Id root = nk::readPropertyList(bytes);
    if (!root) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(root);
  }
}
BENCHMARK(BM_PlistBinaryRead);

}  // namespace

BENCHMARK_MAIN();
