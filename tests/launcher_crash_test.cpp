// Crash points of the launcher update: the staging process and the bootstrap
// trying a candidate are killed right after each durable step they take
// (their test builds count every flush, rename and link), and the next start
// must always bring up a working launcher without losing a verified version,
// even when the first start after the kill is itself killed.
// ZORVI_CRASH_ROUNDS=R repeats every kill R times (1 when unset), each round
// pairing it with a kill at another step of that first start.
#include <gtest/gtest.h>

#include <thread>

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
  return std::max(1L, text != nullptr ? std::atol(text) : 1L);
}

struct LauncherCrash : ::testing::Test {
  // 1.0.0 active and 2.0.0 published, as the update finds them.
  void SetUp() override {
    install.seed(first);
    ASSERT_EQ(install.start().status, 0);
    second.publish(repository);
  }
  std::vector<std::string> killing(long kill_at) const {
    return {"ZORVI_TEST_STEP_COUNT=" + steps.string(), "ZORVI_TEST_KILL_AT_STEP=" + std::to_string(kill_at)};
  }
  CommandResult stage(long kill_at) const { return install.stage(repository, killing(kill_at)); }
  CommandResult entry(long kill_at) const {
    const std::vector<std::string> variables = killing(kill_at);
    return run_command({"env", "ZORVI_SAMPLE_LAUNCHER_LOG=" + install.log.string(), variables[0], variables[1],
                        binary_dir() / "bootstrap_entry", install.root, "gui", "5000"});
  }

  // A candidate orphaned by a kill may hold its attempt a moment longer,
  // which a start refuses (launcher_running): that start is tried again.
  static CommandResult patiently(const std::function<CommandResult()>& start) {
    CommandResult result = start();
    for (int retry = 0; retry < 100 && result.err.find(orphan_refusal) != std::string::npos; ++retry) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      result = start();
    }
    return result;
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
    for (const char* slot : {"active", "rollback"})
      if (!state[slot].is_null()) install.expect_intact(state[slot]);
  }

  // Records the data and trust folders, runs the road once in full (which
  // must take more than `least` steps and leave the `slots` named), then for
  // every step: puts the folders back by copy at the same paths, kills the
  // road there, kills the first start after it at another step (recovering
  // may itself crash), and checks with `after` once a real start has run a
  // launcher.
  void campaign(const std::string& name, const std::function<CommandResult(long)>& road, long least,
                const std::string& slots, const std::function<void()>& after) {
    const auto copy = [](const fs::path& from, const fs::path& to) { return run_command({"cp", "-a", from, to}); };
    for (const fs::path& folder : {install.root, repository.trust})
      ASSERT_EQ(copy(folder, saved.path() / folder.filename()).status, 0);
    const CommandResult full = road(0);
    ASSERT_EQ(full.status, 0) << full.out << full.err;
    ASSERT_EQ(install.slots(), slots);
    const long total = std::atol(read_text(steps).c_str());
    ASSERT_GT(total, least);
    std::cout << name << " road: " << total << " durable steps\n";
    for (long round = 0; round < rounds(); ++round) {
      for (long kill_at = 1; kill_at <= total; ++kill_at) {
        const long then = 1 + (kill_at + round) % start_steps;
        SCOPED_TRACE("round " + std::to_string(round) + ": " + name + " killed after step " + std::to_string(kill_at) +
                     ", the next start after step " + std::to_string(then));
        for (const fs::path& folder : {install.root, repository.trust}) {
          fs::remove_all(folder);
          ASSERT_EQ(copy(saved.path() / folder.filename(), folder).status, 0);
        }
        ASSERT_EQ(road(kill_at).status, 137);
        const CommandResult start = patiently([&] { return entry(then); });
        EXPECT_TRUE(start.status == 0 || start.status == 137) << start.status << start.err;
        ASSERT_NO_FATAL_FAILURE(expect_working_start());
        expect_versions_intact();
        after();
        if (HasFatalFailure()) return;
      }
    }
  }

  TufRepository repository;
  BootstrapInstall install;
  SampleRelease first{repository.dir.path(), "1.0.0"}, second{repository.dir.path(), "2.0.0"};
  TempDir saved;
  fs::path steps = saved / "steps";
};

TEST_F(LauncherCrash, AStagingKilledAtAnyDurableStepLeavesAWorkingLauncherAndCanBeRedone) {
  // Refresh, two downloads with their receipts, extraction and the state:
  // far more than a handful, or the counting hook is broken.
  campaign(
      "staging", [&](long kill_at) { return stage(kill_at); }, 20, "1.0.0 - 2.0.0 -",
      [&] {
        // Whatever the kill left, staging again and one more start end on the new release.
        const CommandResult again = stage(0);
        ASSERT_EQ(again.status, 0) << again.out;
        ASSERT_NO_FATAL_FAILURE(expect_working_start());
        ASSERT_EQ(install.slots().substr(0, 11), "2.0.0 1.0.0");
        expect_versions_intact();
      });
}

TEST_F(LauncherCrash, ABootstrapKilledAtAnyDurableStepOfATrialLeavesAWorkingLauncher) {
  ASSERT_EQ(stage(0).status, 0);
  ASSERT_EQ(install.slots(), "1.0.0 - 2.0.0 -");
  // At least the attempt's save and the confirmation's.
  campaign(
      "trial", [&](long kill_at) { return entry(kill_at); }, 3, "2.0.0 1.0.0 - -",
      [&] {
        // A trial that lost its bootstrap is not tried again on its own.
        const json failed = install.store.load()["failed_candidate"];
        EXPECT_TRUE(failed.is_null() || failed["problem"] == "startup_interrupted") << failed.dump();
      });
}

}  // namespace
}  // namespace zorvi::testing
