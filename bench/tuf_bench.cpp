// The TUF client against reference tools on the same repository and the same
// nginx over loopback HTTPS, in one run:
// - TufClient::download of a large target (2 GiB; ZORVI_BENCH_BYTES overrides)
//   with hashing, reservation and checkpoints, against curl to /dev/null and
//   to a file;
// - a full refresh plus lookups of 1,000 targets spread over 50 delegated
//   roles, against python-tuf's ngclient.

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "client/platform/files.hpp"
#include "client/platform/posix_files.hpp"
#include "client/tuf/tuf.hpp"
#include "tests/support/https_server.hpp"
#include "tests/support/test_support.hpp"

namespace {

namespace fs = std::filesystem;
using zorvi::testing::HttpsServer;
using zorvi::testing::TempDir;
using Clock = std::chrono::steady_clock;

constexpr zorvi::TufLimits limits{512000, 16384, 16 << 20, 256, 64};
constexpr int target_count = 1000;
constexpr int role_count = 50;

std::uint64_t bench_bytes() {
  const char* text = std::getenv("ZORVI_BENCH_BYTES");
  if (text == nullptr || *text == '\0') return std::uint64_t{2} << 30;
  return std::stoull(text);
}

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void run(const std::vector<std::string>& argv) {
  const auto result = zorvi::testing::run_command(argv);
  if (result.status != 0) throw std::runtime_error(argv[0] + " failed: " + result.err);
}

void fixture(const fs::path& repository, const std::vector<std::string>& words) {
  std::vector<std::string> argv{"python3", (zorvi::testing::source_dir() / "tests/tuf_repository.py").string(),
                                repository.string()};
  argv.insert(argv.end(), words.begin(), words.end());
  run(argv);
}

// A client on a fresh trusted-metadata directory seeded with version 1 of the root.
struct Client {
  Client(const fs::path& repository, const fs::path& directory, const HttpsServer& server)
      : metadata(server.base_url() + "metadata/", server.ca_bundle(), 0, nullptr),
        targets(server.base_url() + "targets/", server.ca_bundle(), 0, nullptr) {
    zorvi::TufClient::initialize(directory, zorvi::read_file(repository / "metadata/1.root.json", 1 << 20));
    client.emplace(directory, metadata, targets, limits, [] { return std::chrono::system_clock::now(); });
  }
  zorvi::HttpsTransport metadata;
  zorvi::HttpsTransport targets;
  std::optional<zorvi::TufClient> client;
};

void BM_TargetDownload(benchmark::State& state) {
  const TempDir work;
  const std::uint64_t size = bench_bytes();
  fixture(work / "repo", {"build"});
  fixture(work / "repo", {"target", "big.bin", std::to_string(size)});
  const HttpsServer server(work / "repo");
  const std::string url = server.base_url() + "targets/big.bin";
  const std::string ca = server.ca_bundle().string();

  double own = 0, to_null = 0, to_file = 0;
  int round = 0;
  for (auto _ : state) {
    const fs::path round_dir = work / ("round" + std::to_string(round++));
    zorvi::private_directory(round_dir / "trust");
    Client client(work / "repo", round_dir / "trust", server);
    client.client->refresh();
    auto start = Clock::now();
    client.client->download("big.bin", round_dir / "out", {}, {}, zorvi::TufDownloadOptions{"bench", {}});
    own += seconds_since(start);
    state.PauseTiming();
    start = Clock::now();
    run({"curl", "-sSf", "--cacert", ca, "-o", "/dev/null", url});
    to_null += seconds_since(start);
    start = Clock::now();
    run({"curl", "-sSf", "--cacert", ca, "-o", (round_dir / "curl.bin").string(), url});
    to_file += seconds_since(start);
    fs::remove_all(round_dir);
    state.ResumeTiming();
  }
  const double bytes = static_cast<double>(size) * static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
  state.counters["download_MBps"] = bytes / own / 1e6;
  state.counters["curl_null_MBps"] = bytes / to_null / 1e6;
  state.counters["curl_file_MBps"] = bytes / to_file / 1e6;
  state.counters["ratio_to_curl_null"] = to_null / own;
  state.counters["ratio_to_curl_file"] = to_file / own;
}
BENCHMARK(BM_TargetDownload)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

// python-tuf's own client doing the same work on the same server.
constexpr const char* ngclient_script = R"(
import sys, time
from tuf.ngclient import Updater
repository, directory, base, count = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
import shutil; shutil.copy(repository + "/metadata/1.root.json", directory + "/root.json")
start = time.monotonic()
updater = Updater(directory, base + "metadata/", None, base + "targets/")
updater.refresh()
for index in range(count):
    assert updater.get_targetinfo("set%d/file%d.bin" % (index % 50, index)) is not None
print(time.monotonic() - start)
)";

void BM_RefreshAndLookups(benchmark::State& state) {
  const TempDir work;
  fixture(work / "repo", {"build", "roles=" + std::to_string(role_count), "targets=" + std::to_string(target_count)});
  const HttpsServer server(work / "repo");
  double own = 0, python = 0;
  int round = 0;
  for (auto _ : state) {
    const fs::path round_dir = work / ("round" + std::to_string(round++));
    zorvi::private_directory(round_dir / "trust");
    const auto start = Clock::now();
    Client client(work / "repo", round_dir / "trust", server);
    client.client->refresh();
    for (int index = 0; index < target_count; ++index)
      benchmark::DoNotOptimize(
          client.client->target("set" + std::to_string(index % role_count) + "/file" + std::to_string(index) + ".bin"));
    own += seconds_since(start);
    state.PauseTiming();
    fs::create_directories(round_dir / "python");
    const auto result = zorvi::testing::run_command(
        {"env", "REQUESTS_CA_BUNDLE=" + server.ca_bundle().string(), "python3", "-c", ngclient_script,
         (work / "repo").string(), (round_dir / "python").string(), server.base_url(), std::to_string(target_count)});
    if (result.status != 0) throw std::runtime_error("ngclient failed: " + result.err);
    python += std::stod(result.out);
    state.ResumeTiming();
  }
  state.counters["zorvi_s"] = own / static_cast<double>(state.iterations());
  state.counters["ngclient_s"] = python / static_cast<double>(state.iterations());
  state.counters["ratio_to_ngclient"] = python / own;
}
BENCHMARK(BM_RefreshAndLookups)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
