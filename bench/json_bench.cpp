// JSON decode and encode over the object model, beside nlohmann::json and
// RapidJSON (full-precision parsing) in the same run, on the standard files
// and the synthetic one. Figures are bytes of JSON text per second.
//
// Files come from $NK_JSON_BENCH_DIR (default /work/shared/bench-data/json);
// synthetic.json is looked for there or at $NK_JSON_SYNTHETIC.
#include <benchmark/benchmark.h>

#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "nk/foundation/json_reader.hpp"
#include "nk/foundation/json_writer.hpp"

namespace {

std::string load(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::span<const uint8_t> bytesOf(const std::string& s) {
  return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

void decodeNK(benchmark::State& state, const std::string* text) {
  for (auto _ : state) {
    nk::Id v = nk::readJSON(bytesOf(*text), 0, nullptr);
    if (!v) state.SkipWithError("nk refused the file");
    benchmark::DoNotOptimize(v.get());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
}

void decodeNlohmann(benchmark::State& state, const std::string* text) {
  for (auto _ : state) {
    auto v = nlohmann::json::parse(*text);
    benchmark::DoNotOptimize(&v);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
}

void decodeRapid(benchmark::State& state, const std::string* text) {
  for (auto _ : state) {
    rapidjson::Document d;
    d.Parse<rapidjson::kParseFullPrecisionFlag>(text->data(), text->size());
    if (d.HasParseError()) state.SkipWithError("RapidJSON refused the file");
    benchmark::DoNotOptimize(&d);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
}

// Encodes are measured per byte of the original file, so ratios compare work
// on the same document.
void encodeNK(benchmark::State& state, const std::string* text, unsigned options) {
  nk::Id v = nk::readJSON(bytesOf(*text), 0, nullptr);
  for (auto _ : state) {
    nk::Ref<nk::Data> out = nk::writeJSON(v.get(), options, nullptr);
    if (!out) state.SkipWithError("nk refused to write");
    benchmark::DoNotOptimize(out.get());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
}

void encodeNlohmann(benchmark::State& state, const std::string* text, int indent) {
  auto v = nlohmann::json::parse(*text);
  for (auto _ : state) {
    std::string out = v.dump(indent);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
}

template <bool kPretty>
void encodeRapid(benchmark::State& state, const std::string* text) {
  rapidjson::Document d;
  d.Parse<rapidjson::kParseFullPrecisionFlag>(text->data(), text->size());
  for (auto _ : state) {
    rapidjson::StringBuffer buffer;
    if constexpr (kPretty) {
      rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
      writer.SetIndent(' ', 2);
      d.Accept(writer);
    } else {
      rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
      d.Accept(writer);
    }
    benchmark::DoNotOptimize(buffer.GetString());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
}

}  // namespace

int main(int argc, char** argv) {
  const char* dirEnv = std::getenv("NK_JSON_BENCH_DIR");
  const std::string dir = dirEnv ? dirEnv : "/work/shared/bench-data/json";
  const char* synthetic = std::getenv("NK_JSON_SYNTHETIC");
  static std::vector<std::pair<std::string, std::string>> files;
  for (const char* name : {"twitter.json", "citm_catalog.json", "canada.json", "synthetic.json"}) {
    std::string text = load(dir + "/" + name);
    if (text.empty() && synthetic && std::string(name) == "synthetic.json") text = load(synthetic);
    if (text.empty()) continue;
    files.emplace_back(name, std::move(text));
  }
  for (const auto& [name, text] : files) {
    const std::string* t = &text;
    benchmark::RegisterBenchmark(("decode/nk/" + name).c_str(), decodeNK, t);
    benchmark::RegisterBenchmark(("decode/nlohmann/" + name).c_str(), decodeNlohmann, t);
    benchmark::RegisterBenchmark(("decode/rapidjson/" + name).c_str(), decodeRapid, t);
    benchmark::RegisterBenchmark(("encode/nk/" + name).c_str(), encodeNK, t, 0u);
    benchmark::RegisterBenchmark(("encode/nlohmann/" + name).c_str(), encodeNlohmann, t, -1);
    benchmark::RegisterBenchmark(("encode/rapidjson/" + name).c_str(), encodeRapid<false>, t);
    benchmark::RegisterBenchmark(("pretty/nk/" + name).c_str(), encodeNK, t, 1u);
    benchmark::RegisterBenchmark(("pretty/nlohmann/" + name).c_str(), encodeNlohmann, t, 2);
    benchmark::RegisterBenchmark(("pretty/rapidjson/" + name).c_str(), encodeRapid<true>, t);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
