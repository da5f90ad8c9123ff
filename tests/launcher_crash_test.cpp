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

struct LauncherCrash : ::testing::Test {
  // 1.0.0 active, tried like any candidate with nothing behind it, and 2.0.0 published.
  void SetUp() override {
    install.seed(first);
    ASSERT_EQ(install.start().status, 0);
    ASSERT_EQ(install.starts(), std::vector<std::string>{"trial 1.0.0 --data-dir " + install.root.string()});
    second.publish(repository);
  }
  // Test builds count their durable steps and die after step `kill_at` (never when 0).
  std::vector<std::string> killing(long kill_at) const {
    return {"ZORVI_TEST_STEP_COUNT=" + steps.string(), "ZORVI_TEST_KILL_AT_STEP=" + std::to_string(kill_at)};
  }
  CommandResult stage(long kill_at) const { return install.stage(repository, killing(kill_at)); }
  CommandResult entry(long kill_at) const {
    const std::vector<std::string> variables = killing(kill_at);
    return patiently([&] {
      return run_command({"env", "ZORVI_SAMPLE_LAUNCHER_LOG=" + install.log.string(), variables[0], variables[1],
                          binary_dir() / "bootstrap_entry", install.root, "gui", "5000"});
    });
  }
  // A candidate orphaned by a kill may hold its attempt a moment longer,
  // which a start refuses: that start is tried again.
  static CommandResult patiently(const std::function<CommandResult()>& start) {
    CommandResult result = start();
    for (int retry = 0; retry < 100 && result.err.find("still using its startup attempt") != std::string::npos;
         ++retry) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      result = start();
    }
    return result;
  }
  // The next start, by the real bootstrap, runs a launcher, and every version
  // the state keeps to fall back on still verifies.
  void expect_working_start() const {
    const std::size_t before = install.starts().size();
    const CommandResult working = patiently([&] { return install.start(); });
    ASSERT_EQ(working.status, 0) << working.err;
    ASSERT_EQ(install.starts().size(), before + 1);
    EXPECT_TRUE(install.starts().back().starts_with("trial ") || install.starts().back().starts_with("start "))
        << install.starts().back();
    const json state = install.store.load();
    ASSERT_FALSE(state["active"].is_null());
    for (const char* slot : {"active", "rollback"})
      if (!state[slot].is_null()) install.expect_intact(state[slot]);
  }
  // The road runs once in full (more than `least` steps, leaving `slots`),
  // then for every step: the data and trust folders are put back by copy,
  // the road is killed there, the first start after it is killed at another
  // step, and a working start and `after` must follow.
  void campaign(const std::function<CommandResult(long)>& road, long least, const std::string& slots,
                const std::function<void()>& after) {
    const auto copy = [](const fs::path& from, const fs::path& to) {
      return run_command({"cp", "-a", from, to}).status;
    };
    for (const fs::path& folder : {install.root, repository.trust})
      ASSERT_EQ(copy(folder, saved.path() / folder.filename()), 0);
    ASSERT_EQ(road(0).status, 0);
    ASSERT_EQ(install.slots(), slots);
    const long total = std::atol(read_text(steps).c_str());
    ASSERT_GT(total, least);
    const char* configured = std::getenv("ZORVI_CRASH_ROUNDS");
    const long rounds = std::max(1L, configured != nullptr ? std::atol(configured) : 1L);
    for (long round = 0; round < rounds; ++round) {
      for (long kill_at = 1; kill_at <= total; ++kill_at) {
        const long then = 1 + (kill_at + round) % start_steps;
        SCOPED_TRACE("round " + std::to_string(round) + ": killed after step " + std::to_string(kill_at) +
                     ", the next start after step " + std::to_string(then));
        for (const fs::path& folder : {install.root, repository.trust}) {
          fs::remove_all(folder);
          ASSERT_EQ(copy(saved.path() / folder.filename(), folder), 0);
        }
        ASSERT_EQ(road(kill_at).status, 137);
        const CommandResult start = entry(then);
        EXPECT_TRUE(start.status == 0 || start.status == 137) << start.status << start.err;
        ASSERT_NO_FATAL_FAILURE(expect_working_start());
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

// Refresh, two downloads with their receipts, extraction and the state: far
// more than a handful of steps, or the counting hook is broken.
TEST_F(LauncherCrash, AStagingKilledAtAnyDurableStepLeavesAWorkingLauncherAndCanBeRedone) {
  campaign([&](long kill_at) { return stage(kill_at); }, 20, "1.0.0 - 2.0.0 -",
           [&] {
             // Whatever the kill left, staging again and one more start end on the new release.
             ASSERT_EQ(stage(0).status, 0);
             ASSERT_NO_FATAL_FAILURE(expect_working_start());
             ASSERT_EQ(install.slots().substr(0, 11), "2.0.0 1.0.0");
           });
}

// At least the attempt's save and the confirmation's.
TEST_F(LauncherCrash, ABootstrapKilledAtAnyDurableStepOfATrialLeavesAWorkingLauncher) {
  const CommandResult staged = stage(0);  // by another process: refresh, find, budget, download, extract, name
  ASSERT_EQ(staged.status, 0) << staged.out;
  EXPECT_EQ(json::parse(staged.out)["manifest_sha256"], second.reference["manifest_sha256"]);
  EXPECT_TRUE(fs::is_empty(install.root / "launcher/staging"));
  ASSERT_EQ(install.slots(), "1.0.0 - 2.0.0 -");
  campaign([&](long kill_at) { return entry(kill_at); }, 3, "2.0.0 1.0.0 - -",
           [&] {
             // A trial that lost its bootstrap is not tried again on its own.
             const json failed = install.store.load()["failed_candidate"];
             EXPECT_TRUE(failed.is_null() || failed["problem"] == "startup_interrupted") << failed.dump();
           });
}

}  // namespace
}  // namespace zorvi::testing
