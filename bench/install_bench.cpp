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
    const zorvi::testing::CommandResult built = zorvi::testing::run_command(
        {zorvi::testing::source_dir() / "tools/zorvi-package", "build", repository.repo, package, "--origin", origin,
         "--ca-bundle", repository.server->ca_bundle()});
    if (built.status != 0) throw std::runtime_error("package build failed: " + built.err);
    seal = built.out.substr(0, 64);
    proved = zorvi::read_native_package(package, seal, {});
    std::ofstream list(checksums);
    for (const auto& [name, file] : proved.bootstrap.files) list << file.sha256 << "  " << (reference / "b" / name).string() << '\n';
    for (const auto& [name, file] : proved.launcher.snapshot.files) list << file.sha256 << "  " << (reference / "l" / name).string() << '\n';
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

// Points in one install: the package proved, the launcher's seeding begun and ended.
struct Marks { Clock::time_point begin, proved, seeding, seeded, end; };

Marks install() {
  Setup& s = setup();
  Marks marks{};
  const auto seeder = zorvi::package_launcher_seeder(s.package, s.seal);
  const zorvi::NativeSetupCallbacks callbacks{
      [&](std::string_view phase, std::uint64_t, std::uint64_t) {
        if (phase == "installing" && marks.proved == Clock::time_point{}) marks.proved = Clock::now();
      },
      {},
      [&](const fs::path& root) {
        marks.seeding = Clock::now();
        seeder(root);
        marks.seeded = Clock::now();
      }};
  marks.begin = Clock::now();
  zorvi::NativeInstaller::install({s.package, s.data, false, false}, s.seal, callbacks);
  marks.end = Clock::now();
  fs::remove_all(s.data);
  return marks;
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

void BM_InstallAgainstTarAndSha256sum(benchmark::State& state) {
  double own = 0, ref = 0, ref_fsync = 0, proof = 0, bootstrap = 0, seed = 0, commit = 0;
  install();  // warms both sides
  reference(ref_fsync);
  ref_fsync = 0;
  for (auto _ : state) {
    const Marks m = install();
    state.SetIterationTime(ms_between(m.begin, m.end) / 1e3);
    own += ms_between(m.begin, m.end);
    proof += ms_between(m.begin, m.proved);
    bootstrap += ms_between(m.proved, m.seeding);
    seed += ms_between(m.seeding, m.seeded);
    commit += ms_between(m.seeded, m.end);
    ref += reference(ref_fsync);
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["install_ms"] = own / n;
  state.counters["reference_ms"] = ref / n;
  state.counters["ratio"] = own / ref;
  state.counters["reference_fsync_ms"] = ref_fsync / n;
  state.counters["proof_ms"] = proof / n;
  state.counters["bootstrap_ms"] = bootstrap / n;
  state.counters["seed_ms"] = seed / n;
  state.counters["commit_ms"] = commit / n;
}

// The launcher's seeding taken apart: one hash of its archive, one
// extraction (which checks each file as written and the whole tree at its
// end), and one more verification of the finished tree.
void BM_SeedingParts(benchmark::State& state) {
  Setup& s = setup();
  const zorvi::SnapshotManifest& manifest = s.proved.launcher.snapshot;
  const fs::path tree = s.work / "tree";
  double archive = 0, extract = 0, verify = 0;
  for (auto _ : state) {
    const auto begin = Clock::now();
    benchmark::DoNotOptimize(zorvi::digest_file(s.proved.launcher_archive(), "sha256"));
    const auto hashed = Clock::now();
    zorvi::extract_snapshot(manifest, s.proved.launcher_archive(), tree, {}, nullptr);
    const auto extracted = Clock::now();
    zorvi::verify_snapshot_tree(manifest, tree, {});
    const auto end = Clock::now();
    state.SetIterationTime(ms_between(begin, end) / 1e3);
    archive += ms_between(begin, hashed);
    extract += ms_between(hashed, extracted);
    verify += ms_between(extracted, end);
    fs::remove_all(tree);
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["archive_hash_ms"] = archive / n;
  state.counters["extract_ms"] = extract / n;
  state.counters["tree_verify_ms"] = verify / n;
}

BENCHMARK(BM_InstallAgainstTarAndSha256sum)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SeedingParts)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
