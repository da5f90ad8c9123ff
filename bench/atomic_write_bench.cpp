// Durable replacement of a 4 KiB document with atomic_write, against the bare
// sequence it must cost (write, fsync of the file, rename, fsync of the
// folder) written inline here and, as an outside tool, in Python, on the same
// folder in the same run. Flushes dominate all three; the ratios show what the
// checks around them add.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "client/platform/files.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const std::string& document() {
  static const std::string text = "{\"pad\":\"" + std::string(4096 - 10, 'x') + "\"}";
  return text;
}

fs::path bench_directory() {
  std::string pattern = (fs::temp_directory_path() / "zorvi-atomic-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) std::abort();
  return pattern;
}

// What a careful program without any checks would do.
void bare_durable_replace(const fs::path& directory, const fs::path& target, const std::string& bytes) {
  const fs::path temporary = target.string() + ".tmp";
  const int file = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file < 0 || ::write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
      ::fsync(file) != 0 || ::close(file) != 0 || ::rename(temporary.c_str(), target.c_str()) != 0)
    std::abort();
  const int parent = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (parent < 0 || ::fsync(parent) != 0 || ::close(parent) != 0) std::abort();
}

// Seconds per replacement by the same sequence in Python, timed inside Python
// so that interpreter start-up is not counted.
double python_seconds(const fs::path& directory, int count) {
  const std::string command =
      "python3 -c 'import os,sys,time\n"
      "d=sys.argv[1]; n=int(sys.argv[2]); t=os.path.join(d,\"py.json\"); b=b\"x\"*4096\n"
      "s=time.perf_counter()\n"
      "for i in range(n):\n"
      "  f=os.open(t+\".tmp\",os.O_WRONLY|os.O_CREAT|os.O_EXCL|os.O_CLOEXEC,0o600)\n"
      "  os.write(f,b); os.fsync(f); os.close(f); os.rename(t+\".tmp\",t)\n"
      "  p=os.open(d,os.O_RDONLY|os.O_DIRECTORY); os.fsync(p); os.close(p)\n"
      "print((time.perf_counter()-s)/n)' " +
      directory.string() + " " + std::to_string(count);
  FILE* pipe = ::popen(command.c_str(), "r");
  double seconds = 0;
  if (pipe == nullptr || std::fscanf(pipe, "%lf", &seconds) != 1) seconds = 0;
  if (pipe != nullptr) ::pclose(pipe);
  return seconds;
}

void BM_atomic_write_4k(benchmark::State& state) {
  const fs::path directory = bench_directory();
  const fs::path ours_target = directory / "ours.json";
  const fs::path bare_target = directory / "bare.json";
  const int python_half = static_cast<int>(state.max_iterations / 2);
  // Python before and after the loop: a child in the middle of it disturbs
  // the pair being compared.
  double python = python_seconds(directory, python_half) * python_half;
  double ours = 0;
  double bare = 0;
  // Interleaved, so that both see the same disk at the same moments.
  for (auto _ : state) {
    const auto start = Clock::now();
    zorvi::atomic_write(ours_target, document());
    const auto middle = Clock::now();
    bare_durable_replace(directory, bare_target, document());
    ours += std::chrono::duration<double>(middle - start).count();
    bare += std::chrono::duration<double>(Clock::now() - middle).count();
  }
  python += python_seconds(directory, python_half) * python_half;
  const auto count = static_cast<double>(state.iterations());
  fs::remove_all(directory);
  state.counters["atomic_write_per_s"] = count / ours;
  state.counters["bare_inline_per_s"] = count / bare;
  state.counters["python_per_s"] = python > 0 ? 2 * python_half / python : 0;
  state.counters["speed_vs_bare"] = bare / ours;
  state.counters["speed_vs_python"] = python > 0 ? (python / (2 * python_half)) / (ours / count) : 0;
}
BENCHMARK(BM_atomic_write_4k)->Unit(benchmark::kMillisecond)->Iterations(500);

}  // namespace

BENCHMARK_MAIN();
