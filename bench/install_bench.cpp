// A fresh install of an initial package whose launcher is about 200 MB (400
// files of random bytes, which zstd cannot shrink, as with most game data)
// through NativeInstaller::install, against `tar --zstd -x` of the same two
// archives followed by `sha256sum -c` of both trees, in one run. The install
// also reports where its time goes: the proof of the package, the bootstrap,
// the launcher's seeding and the commit. A second benchmark splits the
// seeding into the archive hash, one extraction and one tree verification.
// Both sides run warm; every folder is removed outside the timing.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#include "client/app/native_install.hpp"
#include "client/app/native_package.hpp"
#include "client/domain/snapshot.hpp"
#include "tests/support/sample_launcher.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double ms_between(Clock::time_point begin, Clock::time_point end) {
  return std::chrono::duration<double, std::milli>(end - begin).count();
}

void run(const std::vector<std::string>& argv) {
  const zorvi::testing::CommandResult result = zorvi::testing::run_command(argv);
  if (result.status != 0) throw std::runtime_error(argv[0] + " failed: " + result.err);
}

// The repository, the package made from it by the real builder, and the
// checksum list of both trees as the reference unpacks them.
struct Setup {
  Setup() {
    zorvi::testing::SampleBootstrapRelease(repository.dir.path(), "1.0.0").publish(repository);
    zorvi::testing::SampleRelease(repository.dir.path(), "1.0.0", 400, 200'000'000).publish(repository);
    std::string origin = repository.server->base_url();
    origin.pop_back();
    const zorvi::testing::CommandResult built =
        zorvi::testing::run_command({zorvi::testing::source_dir() / "tools/zorvi-package", "build", repository.repo,
                                     package, "--origin", origin, "--ca-bundle", repository.server->ca_bundle()});
    if (built.status != 0) throw std::runtime_error("package build failed: " + built.err);
    seal = built.out.substr(0, 64);
    proved = zorvi::read_native_package(package, seal, {});
    std::ofstream list(checksums);
    for (const auto& [name, file] : proved.bootstrap.files)
      list << file.sha256 << "  " << (reference / "b" / name).native() << '\n';
    for (const auto& [name, file] : proved.launcher.snapshot.files)
      list << file.sha256 << "  " << (reference / "l" / name).native() << '\n';
  }

  zorvi::testing::TufRepository repository;
  zorvi::testing::TempDir work;
  fs::path package = work / "package", data = work / "Zorvi Data", reference = work / "reference";
  fs::path checksums = work / "trees.sha256";
  std::string seal;
  zorvi::NativePackage proved;
};

Setup& setup() {
  static Setup instance;
  return instance;
}

using Totals = std::map<std::string, double>;

// One fresh install, its phases added to `t`: the proof of the package, the
// bootstrap, the launcher's seeding, and the commit after it.
double install(Totals& t) {
  Setup& s = setup();
  Clock::time_point proved{}, seeding, seeded;
  const auto seeder = zorvi::package_launcher_seeder(s.package, s.seal);
  const zorvi::NativeSetupCallbacks callbacks{
      [&](std::string_view phase, std::uint64_t, std::uint64_t) {
        if (phase == "installing" && proved == Clock::time_point{}) proved = Clock::now();
      },
      {},
      [&](const fs::path& root) { seeding = Clock::now(), seeder(root), seeded = Clock::now(); }};
  const auto begin = Clock::now();
  zorvi::NativeInstaller::install({s.package, s.data, false, false}, s.seal, callbacks);
  const auto end = Clock::now();
  fs::remove_all(s.data);
  t["proof_ms"] += ms_between(begin, proved);
  t["bootstrap_ms"] += ms_between(proved, seeding);
  t["seed_ms"] += ms_between(seeding, seeded);
  t["commit_ms"] += ms_between(seeded, end);
  return ms_between(begin, end);
}

// tar -x of both archives into a fresh folder, then sha256sum -c of the list.
// What making its files durable would add, as the install does, is timed apart.
double reference(double& fsync) {
  Setup& s = setup();
  fs::create_directories(s.reference / "b");
  fs::create_directories(s.reference / "l");
  const auto begin = Clock::now();
  run({"tar", "--zstd", "-xf", s.proved.bootstrap_archive(), "-C", s.reference / "b"});
  run({"tar", "--zstd", "-xf", s.proved.launcher_archive(), "-C", s.reference / "l"});
  run({"sha256sum", "-c", "--status", s.checksums});
  const auto checked = Clock::now();
  run({"sh", "-c", "find \"$0\" -type f -exec sync -- {} +", s.reference});
  fsync += ms_between(checked, Clock::now());
  fs::remove_all(s.reference);
  return ms_between(begin, checked);
}

// Each counter as its mean over the iterations, in milliseconds.
void report(benchmark::State& state, const Totals& totals) {
  for (const auto& [name, ms] : totals) state.counters[name] = ms / static_cast<double>(state.iterations());
}

void BM_InstallAgainstTarAndSha256sum(benchmark::State& state) {
  Totals t, warming;
  install(warming);  // warms both sides
  reference(warming["reference_fsync_ms"]);
  for (auto _ : state) {
    const double own = install(t);
    state.SetIterationTime(own / 1e3);
    t["install_ms"] += own;
    t["reference_ms"] += reference(t["reference_fsync_ms"]);
  }
  report(state, t);
  state.counters["ratio"] = t["install_ms"] / t["reference_ms"];
}

// The launcher's seeding taken apart: one hash of its archive (as the
// package proof does), one extraction (which hashes the archive, checks each
// file as written and proves the whole tree at its end), and, for scale, one
// proof of the finished tree alone.
void BM_SeedingParts(benchmark::State& state) {
  Setup& s = setup();
  const zorvi::SnapshotManifest& manifest = s.proved.launcher.snapshot;
  const fs::path tree = s.work / "tree";
  Totals t;
  for (auto _ : state) {
    const auto begin = Clock::now();
    benchmark::DoNotOptimize(zorvi::digest_file(s.proved.launcher_archive(), "sha256"));
    const auto hashed = Clock::now();
    zorvi::extract_snapshot(manifest, s.proved.launcher_archive(), tree, {}, nullptr);
    const auto extracted = Clock::now();
    zorvi::verify_snapshot_tree(manifest, tree, {});
    const auto end = Clock::now();
    state.SetIterationTime(ms_between(begin, end) / 1e3);
    t["archive_hash_ms"] += ms_between(begin, hashed);
    t["extract_ms"] += ms_between(hashed, extracted);
    t["tree_verify_ms"] += ms_between(extracted, end);
    fs::remove_all(tree);
  }
  report(state, t);
}

BENCHMARK(BM_InstallAgainstTarAndSha256sum)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SeedingParts)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
