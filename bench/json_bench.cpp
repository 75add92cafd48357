// JSON decode and encode over the object model, beside nlohmann::json and
// RapidJSON (full-precision parsing) in the same run, on the standard files
// and the synthetic one. Figures are bytes of JSON text per second.
//
//   decode|encode|pretty/<side>/<file>  each side on its own
//   paired/<op>/<file>                  the three sides in turn within each
//                                       iteration; the ratios are counters
//
// The CSV reporter wants the same counters in every row: for CSV output, filter
// the paired benchmarks out (or in) on their own.
//
// Files come from $NK_JSON_BENCH_DIR (default /work/shared/bench-data/json);
// synthetic.json is looked for there or at $NK_JSON_SYNTHETIC.
#include <benchmark/benchmark.h>

#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
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

// One round of each side's work, shared by the separate benchmarks and the paired
// ones. Each returns false if the side refused.
bool nkDecode(const std::string& text) {
  nk::Id v = nk::readJSON(bytesOf(text), 0, nullptr);
  benchmark::DoNotOptimize(v.get());
  return static_cast<bool>(v);
}

bool nlohmannDecode(const std::string& text) {
  auto v = nlohmann::json::parse(text);
  benchmark::DoNotOptimize(&v);
  return true;
}

bool rapidDecode(const std::string& text) {
  rapidjson::Document d;
  d.Parse<rapidjson::kParseFullPrecisionFlag>(text.data(), text.size());
  benchmark::DoNotOptimize(&d);
  return !d.HasParseError();
}

// The sides' documents, read once: every side's, or with `only`, that side's alone, so
// that a side measured on its own has no other document in memory. Encodes are
// measured per byte of the original file, so ratios compare work on the same document.
struct Documents {
  explicit Documents(const std::string& text, int only = -1) {
    if (only < 0 || only == 0) nk = nk::readJSON(bytesOf(text), 0, nullptr);
    if (only < 0 || only == 1) nlohmann = nlohmann::json::parse(text);
    if (only < 0 || only == 2) {
      rapid.Parse<rapidjson::kParseFullPrecisionFlag>(text.data(), text.size());
    }
  }
  nk::Id nk;
  nlohmann::json nlohmann;
  rapidjson::Document rapid;
};

bool nkEncode(const Documents& d, bool pretty) {
  nk::Ref<nk::Data> out = nk::writeJSON(d.nk.get(), pretty ? 1u : 0u, nullptr);
  benchmark::DoNotOptimize(out.get());
  return static_cast<bool>(out);
}

bool nlohmannEncode(const Documents& d, bool pretty) {
  std::string out = d.nlohmann.dump(pretty ? 2 : -1);
  benchmark::DoNotOptimize(out.data());
  return true;
}

bool rapidEncode(const Documents& d, bool pretty) {
  rapidjson::StringBuffer buffer;
  if (pretty) {
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    writer.SetIndent(' ', 2);
    d.rapid.Accept(writer);
  } else {
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    d.rapid.Accept(writer);
  }
  benchmark::DoNotOptimize(buffer.GetString());
  return true;
}

using DecodeRound = bool (*)(const std::string&);
using EncodeRound = bool (*)(const Documents&, bool);
constexpr const char* kSides[] = {"nk", "nlohmann", "rapidjson"};
// 0 decode, 1 compact encode, 2 pretty encode.
constexpr const char* kOps[] = {"decode", "encode", "pretty"};
constexpr DecodeRound kDecodes[] = {nkDecode, nlohmannDecode, rapidDecode};
constexpr EncodeRound kEncodes[] = {nkEncode, nlohmannEncode, rapidEncode};

void decodeBench(benchmark::State& state, const std::string* text, DecodeRound round) {
  for (auto _ : state) {
    if (!round(*text)) state.SkipWithError("the file was refused");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
}

void encodeBench(benchmark::State& state, const std::string* text, int side, bool pretty) {
  const EncodeRound round = kEncodes[side];
  Documents documents(*text, side);
  for (auto _ : state) {
    if (!round(documents, pretty)) state.SkipWithError("the document was refused");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
}

double seconds(std::chrono::steady_clock::time_point from) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

// The three sides' rounds taken in turn within each iteration, each timed: a drift of
// the machine's load between separate benchmarks moves their ratios by more than the
// margins they are read against, while here it reaches all three alike. Each round
// also starts with the caches the other two left behind, as work done now and then
// would, rather than with its own document still warm. Reports each side's MB/s from
// its median round and nk's ratios to the others.
void pairedBench(benchmark::State& state, const std::string* text, int op) {
  std::optional<Documents> documents;
  if (op != 0) documents.emplace(*text);
  std::vector<double> rounds[3];
  for (auto _ : state) {
    double total = 0;
    for (size_t side = 0; side < 3; ++side) {
      const auto start = std::chrono::steady_clock::now();
      const bool ok = op == 0 ? kDecodes[side](*text) : kEncodes[side](*documents, op == 2);
      const double t = seconds(start);
      if (!ok) state.SkipWithError("a side refused");
      rounds[side].push_back(t);
      total += t;
    }
    state.SetIterationTime(total);
  }
  double rate[3];
  for (size_t side = 0; side < 3; ++side) {
    auto& r = rounds[side];
    std::nth_element(r.begin(), r.begin() + r.size() / 2, r.end());
    rate[side] = static_cast<double>(text->size()) / r[r.size() / 2];
    state.counters[std::string(kSides[side]) + "_MBps"] = rate[side] / 1e6;
  }
  state.counters["nk_over_nlohmann"] = rate[0] / rate[1];
  state.counters["nk_over_rapidjson"] = rate[0] / rate[2];
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
    for (int op = 0; op < 3; ++op) {
      for (size_t side = 0; side < 3; ++side) {
        const std::string label = std::string(kOps[op]) + "/" + kSides[side] + "/" + name;
        if (op == 0) {
          benchmark::RegisterBenchmark(label.c_str(), decodeBench, t, kDecodes[side]);
        } else {
          benchmark::RegisterBenchmark(label.c_str(), encodeBench, t, static_cast<int>(side),
                                       op == 2);
        }
      }
    }
  }
  // After the separate ones, so that those keep the order they always ran in.
  for (const auto& [name, text] : files) {
    for (int op = 0; op < 3; ++op) {
      benchmark::RegisterBenchmark((std::string("paired/") + kOps[op] + "/" + name).c_str(),
                                   pairedBench, &text, op)
          ->UseManualTime();
    }
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
