// Snapshot extraction and verification against the tools that would do the
// same work, on the same snapshot in the same run:
//
//   extract  extract_snapshot  vs  zstd -dc | tar -x, sha256sum -c, sync
//   verify   verify_snapshot_tree  vs  sha256sum -c, and vs the in-memory
//            SHA-256 rate of `openssl speed -evp sha256 -bytes 65536`
//   memory   peak resident set of snapshot_tool extract (/usr/bin/time -v)
//            on a small and a large single-file archive
//
// Two snapshots: a tree (ZORVI_SNAPSHOT_BENCH_TREE_BYTES, default 1 GiB, in
// ZORVI_SNAPSHOT_BENCH_TREE_FILES, default 20,000 files) and a single file
// (ZORVI_SNAPSHOT_BENCH_FILE_BYTES, default 2 GiB). They are built under
// ZORVI_SNAPSHOT_BENCH_DIR (default /var/tmp) and removed at the end.
// Each benchmark runs once; counters carry the ratios and the numbers behind them.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "client/domain/crypto.hpp"
#include "client/domain/manifest.hpp"
#include "client/domain/snapshot.hpp"

namespace {

using namespace zorvi;
namespace fs = std::filesystem;

std::uint64_t env_size(const char* name, std::uint64_t fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::stoull(value) : fallback;
}

std::string quoted(const fs::path& path) { return "'" + path.string() + "'"; }

struct Run {
  int status = -1;
  std::string out;
  double seconds = 0;
};

// Runs `sh -c script`, capturing standard output and error together.
Run shell(const std::string& script) {
  const auto start = std::chrono::steady_clock::now();
  Run run;
  int pipe_ends[2];
  if (::pipe(pipe_ends) != 0) throw std::runtime_error("pipe failed");
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(pipe_ends[1], 1);
    ::dup2(pipe_ends[1], 2);
    ::close(pipe_ends[0]);
    ::close(pipe_ends[1]);
    ::execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(pipe_ends[1]);
  char buffer[4096];
  for (ssize_t got; (got = ::read(pipe_ends[0], buffer, sizeof buffer)) > 0;) run.out.append(buffer, got);
  ::close(pipe_ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return run;
}

Run must(const std::string& script) {
  Run run = shell(script);
  if (run.status != 0) throw std::runtime_error(script + " failed: " + run.out);
  return run;
}

double timed(const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Half-compressible content: four random bits in every byte.
void write_content(const fs::path& path, std::uint64_t length, std::uint64_t& state) {
  std::ofstream stream(path, std::ios::binary);
  std::vector<std::uint64_t> block(8192);
  while (length > 0) {
    for (auto& word : block) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      word = state & 0x0F0F0F0F0F0F0F0FULL;
    }
    const std::uint64_t count = std::min<std::uint64_t>(length, block.size() * sizeof(std::uint64_t));
    stream.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(count));
    length -= count;
  }
  if (!stream) throw std::runtime_error("cannot write " + path.string());
}

// One packed snapshot: its source tree, archive, manifest and sums file.
struct Snapshot {
  fs::path dir;
  fs::path tree;
  fs::path archive;
  fs::path manifest_file;
  fs::path sums;
  SnapshotManifest manifest;
  std::uint64_t bytes = 0;

  Snapshot(const fs::path& base, const std::string& name, std::uint64_t total, std::uint64_t files)
      : dir(base / name),
        tree(dir / "tree"),
        archive(dir / "snapshot.tar.zst"),
        manifest_file(dir / "manifest.json"),
        sums(dir / "SHA256SUMS") {
    fs::create_directories(tree);
    std::uint64_t state = 0x9E3779B97F4A7C15ULL ^ total ^ files;
    const std::uint64_t average = total / files;
    std::uint64_t left = total;
    for (std::uint64_t index = 0; index < files; ++index) {
      // Lengths vary from 0 to twice the average; the last file takes the rest.
      std::uint64_t length = index + 1 == files ? left : std::min(left, (state >> 11) % (2 * average + 1));
      state = state * 6364136223846793005ULL + 1442695040888963407ULL;
      const fs::path relative = files == 1 ? fs::path("game.pak")
                                           : fs::path("d" + std::to_string(index % 40)) /
                                                 ("s" + std::to_string(index / 40 % 10)) /
                                                 ("f" + std::to_string(index) + ".dat");
      fs::create_directories((tree / relative).parent_path());
      write_content(tree / relative, length, state);
      fs::permissions(tree / relative, index == 0 ? fs::perms(0755) : fs::perms(0644));
      left -= length;
      bytes += length;
    }
    must(
        "cd " + quoted(tree) + " && find . -type f -printf '%P\\n' | LC_ALL=C sort > ../files && " +
        "tar --format=gnu --owner=0 --group=0 --numeric-owner --no-recursion -cf - -T ../files | zstd -q -3 -T2 -c > " +
        quoted(archive) + " && xargs -d '\\n' sha256sum < ../files > " + quoted(sums));
    write_manifest();
  }

  void write_manifest() {
    json entries = json::array();
    std::ifstream lines(sums);
    for (std::string line; std::getline(lines, line);) {
      const std::string path = line.substr(66);
      const auto status = fs::status(tree / path);
      const bool executable = (status.permissions() & fs::perms::owner_exec) != fs::perms::none;
      entries.push_back({{"path", path},
                         {"length", fs::file_size(tree / path)},
                         {"mode", executable ? 493 : 420},
                         {"sha256", line.substr(0, 64)}});
    }
    const std::string archive_sum = must("sha256sum " + quoted(archive)).out.substr(0, 64);
    json document{{"schema_version", 1},
                  {"build_id", "bench"},
                  {"platform", "linux-x86_64"},
                  {"executable", entries[0]["path"]},
                  {"archive",
                   {{"format", "tar.zst-v1"},
                    {"target", "bench.tar.zst"},
                    {"length", fs::file_size(archive)},
                    {"sha256", archive_sum}}},
                  {"files", entries},
                  {"expanded_length", bytes}};
    std::ofstream(manifest_file) << document.dump();
    manifest = SnapshotManifest::parse(document);
  }
};

struct Bench {
  fs::path base;
  std::unique_ptr<Snapshot> tree;
  std::unique_ptr<Snapshot> large;
  std::unique_ptr<Snapshot> small;  // for the memory comparison
  double openssl_rate = 0;

  Bench() {
    initialize_client_runtime();
    std::string pattern =
        (fs::path(std::getenv("ZORVI_SNAPSHOT_BENCH_DIR") ? std::getenv("ZORVI_SNAPSHOT_BENCH_DIR") : "/var/tmp") /
         "zorvi-snapshot-bench-XXXXXX")
            .string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    base = pattern;
    tree = std::make_unique<Snapshot>(base, "tree", env_size("ZORVI_SNAPSHOT_BENCH_TREE_BYTES", 1ULL << 30),
                                      env_size("ZORVI_SNAPSHOT_BENCH_TREE_FILES", 20000));
    large = std::make_unique<Snapshot>(base, "large", env_size("ZORVI_SNAPSHOT_BENCH_FILE_BYTES", 2ULL << 30), 1);
    small = std::make_unique<Snapshot>(base, "small", 16ULL << 20, 1);
    const std::string speed = must("openssl speed -evp sha256 -bytes 65536 -seconds 3 -mr 2>/dev/null").out;
    const std::size_t rate = speed.rfind(":sha256:");
    if (rate == std::string::npos) throw std::runtime_error("unexpected openssl output: " + speed);
    openssl_rate = std::stod(speed.substr(rate + 8));
  }
  ~Bench() {
    std::error_code ignored;
    fs::remove_all(base, ignored);
  }
};

Bench& bench() {
  static Bench instance;
  return instance;
}

Snapshot& pick(const benchmark::State& state) { return state.range(0) == 0 ? *bench().tree : *bench().large; }

void BM_ExtractSnapshot(benchmark::State& state) {
  Snapshot& snapshot = pick(state);
  const fs::path ours = snapshot.dir / "ours";
  const fs::path tools = snapshot.dir / "tools";
  for (auto _ : state) {
    must("sync");
    const double ours_seconds =
        timed([&] { extract_snapshot(snapshot.manifest, snapshot.archive, ours, Progress(), nullptr); });
    fs::remove_all(ours);
    fs::create_directory(tools);
    must("sync");
    const double tools_seconds =
        must("zstd -dc " + quoted(snapshot.archive) + " | tar -x -C " + quoted(tools) + " && cd " + quoted(tools) +
             " && sha256sum -c --quiet " + quoted(snapshot.sums) + " && sync")
            .seconds;
    fs::remove_all(tools);
    state.SetIterationTime(ours_seconds);
    state.counters["files"] = static_cast<double>(snapshot.manifest.files.size());
    state.counters["bytes"] = static_cast<double>(snapshot.bytes);
    state.counters["ours_s"] = ours_seconds;
    state.counters["tools_s"] = tools_seconds;
    state.counters["speed_vs_tools"] = tools_seconds / ours_seconds;
    state.counters["ours_MBps"] = static_cast<double>(snapshot.bytes) / ours_seconds / 1e6;
  }
}

void BM_VerifySnapshotTree(benchmark::State& state) {
  Snapshot& snapshot = pick(state);
  for (auto _ : state) {
    // Both read the same files once first, so that neither pays for the disk alone.
    must("cd " + quoted(snapshot.tree) + " && sha256sum -c --quiet " + quoted(snapshot.sums));
    const double ours_seconds = timed([&] { verify_snapshot_tree(snapshot.manifest, snapshot.tree, Progress()); });
    const double tools_seconds =
        must("cd " + quoted(snapshot.tree) + " && sha256sum -c --quiet " + quoted(snapshot.sums)).seconds;
    const double ours_rate = static_cast<double>(snapshot.bytes) / ours_seconds;
    state.SetIterationTime(ours_seconds);
    state.counters["ours_s"] = ours_seconds;
    state.counters["sha256sum_s"] = tools_seconds;
    state.counters["speed_vs_sha256sum"] = tools_seconds / ours_seconds;
    state.counters["ours_MBps"] = ours_rate / 1e6;
    state.counters["openssl_MBps"] = bench().openssl_rate / 1e6;
    state.counters["rate_vs_openssl"] = ours_rate / bench().openssl_rate;
  }
}

double peak_resident_kib(const Snapshot& snapshot) {
  const fs::path tool = fs::read_symlink("/proc/self/exe").parent_path() / "snapshot_tool";
  const fs::path staging = snapshot.dir / "memory";
  const Run run = must("/usr/bin/time -v " + quoted(tool) + " extract " + quoted(snapshot.manifest_file) + " " +
                       quoted(snapshot.archive) + " " + quoted(staging));
  fs::remove_all(staging);
  const std::string key = "Maximum resident set size (kbytes): ";
  const std::size_t at = run.out.find(key);
  if (at == std::string::npos) throw std::runtime_error("no resident size in: " + run.out);
  return std::stod(run.out.substr(at + key.size()));
}

void BM_ExtractionPeakMemory(benchmark::State& state) {
  for (auto _ : state) {
    const double small_kib = peak_resident_kib(*bench().small);
    const double large_kib = peak_resident_kib(*bench().large);
    const double tree_kib = peak_resident_kib(*bench().tree);
    state.SetIterationTime(1);
    state.counters["small_MiB"] = static_cast<double>(bench().small->bytes) / (1 << 20);
    state.counters["small_rss_KiB"] = small_kib;
    state.counters["large_MiB"] = static_cast<double>(bench().large->bytes) / (1 << 20);
    state.counters["large_rss_KiB"] = large_kib;
    state.counters["tree_rss_KiB"] = tree_kib;
    state.counters["rss_large_vs_small"] = large_kib / small_kib;
  }
}

BENCHMARK(BM_ExtractSnapshot)
    ->Arg(0)
    ->Arg(1)
    ->ArgNames({"large"})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);
BENCHMARK(BM_VerifySnapshotTree)
    ->Arg(0)
    ->Arg(1)
    ->ArgNames({"large"})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);
BENCHMARK(BM_ExtractionPeakMemory)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
