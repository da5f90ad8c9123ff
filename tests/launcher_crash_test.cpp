// Crash points of the launcher update: the staging process and the bootstrap
// trying a candidate are killed right after each durable step they take
// (their test builds count every flush, rename and link), and the next start
// must always bring up a working launcher without losing a verified version,
// even when the first start after the kill is itself killed.
// ZORVI_CRASH_ROUNDS=R repeats every kill R times (1 when unset), each round
// pairing it with a kill at another step of that first start.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "client/domain/snapshot.hpp"
#include "tests/support/sample_launcher.hpp"

namespace zorvi::testing {
namespace {

namespace fs = std::filesystem;

// At least the longest road of one start (an attempt recovered, a new one
// made and confirmed, three saves); a kill past a road's end lets it finish.
constexpr long start_steps = 9;

constexpr const char* orphan_refusal = "The unfinished launcher is still using its startup attempt";

long rounds() {
  const char* text = std::getenv("ZORVI_CRASH_ROUNDS");
  return text != nullptr && std::atol(text) > 0 ? std::atol(text) : 1;
}

struct LauncherCrash : ::testing::Test {
  // The data folder and trust folder are put back by copy at the same paths,
  // so nothing recorded in them goes stale.
  void save() const {
    for (const fs::path& folder : {install.root, repository.trust})
      ASSERT_EQ(run_command({"cp", "-a", folder, saved.path() / folder.filename()}).status, 0);
  }
  void restore() const {
    for (const fs::path& folder : {install.root, repository.trust}) {
      fs::remove_all(folder);
      ASSERT_EQ(run_command({"cp", "-a", saved.path() / folder.filename(), folder}).status, 0);
    }
  }
  // Runs a crash-test program, killed after step `kill_at` (never when 0).
  CommandResult run(long kill_at, std::vector<std::string> argv) const {
    argv.insert(argv.begin(), {"env", "ZORVI_TEST_STEP_COUNT=" + steps.string(),
                               "ZORVI_TEST_KILL_AT_STEP=" + std::to_string(kill_at),
                               "ZORVI_SAMPLE_LAUNCHER_LOG=" + install.log.string()});
    return run_command(argv);
  }
  CommandResult stage(long kill_at) const {
    return run(kill_at, {binary_dir() / "launcher_stage", repository.trust, repository.server->base_url(),
                         repository.server->ca_bundle(), install.root});
  }
  CommandResult entry(long kill_at) const {
    return run(kill_at, {binary_dir() / "bootstrap_entry", install.root, "gui", "5000"});
  }
  // The length of a road: one full run that must succeed, with its steps counted.
  long road_length(const CommandResult& full) const {
    EXPECT_EQ(full.status, 0) << full.out << full.err;
    return std::atol(read_text(steps).c_str());
  }

  // A candidate orphaned by a kill may hold its attempt a moment longer,
  // which a start refuses (launcher_running): that start is tried again.
  template <class Start>
  static CommandResult patiently(const Start& start) {
    CommandResult result = start();
    for (int retry = 0; retry < 100 && result.err.find(orphan_refusal) != std::string::npos; ++retry) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      result = start();
    }
    return result;
  }
  // A start by the crash-test build of the bootstrap, killed after its own
  // step `kill_at`: recovering from a crash may itself crash.
  void crashing_start(long kill_at) const {
    const CommandResult start = patiently([&] { return entry(kill_at); });
    EXPECT_TRUE(start.status == 0 || start.status == 137) << start.status << start.err;
  }
  // The next start, by the real bootstrap, must run a launcher.
  void expect_working_start() const {
    const std::size_t before = install.starts().size();
    const CommandResult start = patiently([&] { return install.start(); });
    ASSERT_EQ(start.status, 0) << start.err;
    const std::vector<std::string> lines = install.starts();
    ASSERT_EQ(lines.size(), before + 1);
    EXPECT_TRUE(lines.back().starts_with("trial ") || lines.back().starts_with("start ")) << lines.back();
  }
  // Nothing verified is lost: active is named and every version the state
  // keeps to fall back on still verifies.
  void expect_versions_intact() const {
    const json state = install.store.load();
    ASSERT_FALSE(state["active"].is_null());
    for (const char* slot : {"active", "rollback"}) {
      if (state[slot].is_null()) continue;
      SCOPED_TRACE(slot);
      const LauncherManifest manifest = install.store.manifest(state[slot]);
      EXPECT_NO_THROW(verify_snapshot_tree(manifest.snapshot, install.store.payload(state[slot]), {}));
    }
  }

  TufRepository repository;
  BootstrapInstall install;
  SampleRelease first{repository.dir.path(), "1.0.0"}, second{repository.dir.path(), "2.0.0"};
  TempDir saved;
  fs::path steps = saved / "steps";
};

TEST_F(LauncherCrash, AStagingKilledAtAnyDurableStepLeavesAWorkingLauncherAndCanBeRedone) {
  install.seed(first);
  ASSERT_EQ(install.start().status, 0);
  second.publish(repository);
  save();
  const long total = road_length(stage(0));
  ASSERT_EQ(install.slots(), "1.0.0 - 2.0.0 -");
  // Refresh, two downloads with their receipts, extraction and the state:
  // far more than a handful, or the counting hook is broken.
  ASSERT_GT(total, 20);
  std::cout << "staging road: " << total << " durable steps\n";

  for (long round = 0; round < rounds(); ++round) {
    for (long kill_at = 1; kill_at <= total; ++kill_at) {
      const long then = 1 + (kill_at + round) % start_steps;
      SCOPED_TRACE("round " + std::to_string(round) + ": staging killed after step " + std::to_string(kill_at) +
                   ", the next start after step " + std::to_string(then));
      ASSERT_NO_FATAL_FAILURE(restore());
      ASSERT_EQ(stage(kill_at).status, 137);
      crashing_start(then);
      ASSERT_NO_FATAL_FAILURE(expect_working_start());
      expect_versions_intact();
      // Whatever the kill left, staging again and one more start end on the new release.
      const CommandResult again = stage(0);
      ASSERT_EQ(again.status, 0) << again.out;
      ASSERT_NO_FATAL_FAILURE(expect_working_start());
      ASSERT_EQ(install.slots().substr(0, 11), "2.0.0 1.0.0");
      expect_versions_intact();
    }
  }
}

TEST_F(LauncherCrash, ABootstrapKilledAtAnyDurableStepOfATrialLeavesAWorkingLauncher) {
  install.seed(first);
  ASSERT_EQ(install.start().status, 0);
  second.publish(repository);
  ASSERT_EQ(stage(0).status, 0);
  ASSERT_EQ(install.slots(), "1.0.0 - 2.0.0 -");
  save();
  const long total = road_length(entry(0));
  ASSERT_EQ(install.slots(), "2.0.0 1.0.0 - -");
  ASSERT_GT(total, 3);  // at least the attempt's save and the confirmation's
  std::cout << "trial road: " << total << " durable steps\n";

  for (long round = 0; round < rounds(); ++round) {
    for (long kill_at = 1; kill_at <= total; ++kill_at) {
      const long then = 1 + (kill_at + round) % start_steps;
      SCOPED_TRACE("round " + std::to_string(round) + ": bootstrap killed after step " + std::to_string(kill_at) +
                   ", the next start after step " + std::to_string(then));
      ASSERT_NO_FATAL_FAILURE(restore());
      ASSERT_EQ(entry(kill_at).status, 137);
      crashing_start(then);
      ASSERT_NO_FATAL_FAILURE(expect_working_start());
      expect_versions_intact();
      // A trial that lost its bootstrap is not tried again on its own.
      const json failed = install.store.load()["failed_candidate"];
      if (!failed.is_null()) {
        EXPECT_EQ(failed["problem"], "startup_interrupted");
      }
    }
  }
}

}  // namespace
}  // namespace zorvi::testing
