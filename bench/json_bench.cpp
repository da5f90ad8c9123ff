// parse_json over a 100,000-file snapshot manifest, against Python's
// json.loads on the same text in the same run.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "client/domain/crypto.hpp"
#include "client/domain/json.hpp"

namespace {

std::string manifest_text(int files) {
  zorvi::json list = zorvi::json::array();
  std::uint64_t total = 0;
  for (int i = 0; i < files; ++i) {
    const std::uint64_t length = static_cast<std::uint64_t>(i) * 7919 % 1000003;
    total += length;
    list.push_back({{"path", "data/pack" + std::to_string(i / 1000) + "/asset-" + std::to_string(i) + ".bin"},
                    {"length", length},
                    {"mode", i % 50 == 0 ? 493 : 420},
                    {"sha256", zorvi::digest(std::to_string(i), "sha256")}});
  }
  const zorvi::json manifest = {{"schema_version", 1},
                                {"build_id", "2026.11.22-1"},
                                {"platform", "linux-x86_64"},
                                {"executable", "data/pack0/asset-0.bin"},
                                {"archive",
                                 {{"format", "tar.zst-v1"},
                                  {"target", "builds/game.tar.zst"},
                                  {"length", 123456789},
                                  {"sha256", zorvi::digest("a", "sha256")}}},
                                {"files", list},
                                {"expanded_length", total}};
  return manifest.dump();
}

const std::string& manifest() {
  static const std::string text = manifest_text(100000);
  return text;
}

// Seconds per json.loads of the same text, best of five, timed inside Python
// so that interpreter start-up is not counted.
double python_seconds(const std::string& text) {
  const auto path = std::filesystem::temp_directory_path() / "zorvi-json-bench.json";
  std::ofstream(path, std::ios::binary) << text;
  const std::string command =
      "python3 -c 'import json,sys,time\n"
      "s=open(sys.argv[1],encoding=\"utf-8\").read()\n"
      "best=min((lambda t:(json.loads(s),time.perf_counter()-t)[1])(time.perf_counter()) for _ in range(5))\n"
      "print(best)' " +
      path.string();
  FILE* pipe = ::popen(command.c_str(), "r");
  double seconds = 0;
  if (pipe == nullptr || std::fscanf(pipe, "%lf", &seconds) != 1) seconds = 0;
  if (pipe != nullptr) ::pclose(pipe);
  std::filesystem::remove(path);
  return seconds;
}

void BM_parse_json_manifest(benchmark::State& state) {
  const std::string& text = manifest();
  const double reference = python_seconds(text);
  double ours = 1e9;
  for (auto _ : state) {
    // The value lives until the clock is read, as Python's does: freeing it
    // is not part of the reading on either side.
    const auto start = std::chrono::steady_clock::now();
    zorvi::json value = zorvi::parse_json(text, text.size());
    const auto stop = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(value);
    ours = std::min(ours, std::chrono::duration<double>(stop - start).count());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
  state.counters["bytes"] = static_cast<double>(text.size());
  state.counters["ours_s"] = ours;
  state.counters["python_json_loads_s"] = reference;
  state.counters["speed_vs_python"] = reference / ours;
}
BENCHMARK(BM_parse_json_manifest)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
