// Crash points of a launcher trial: the bootstrap trying a candidate is killed
// right after each durable step it takes (its test build counts every flush,
// rename and link), and the next start must always bring up a working
// launcher without losing a verified version, even when the first start
// after the kill is itself killed. Staging killed at its steps is
// launcher_staging_test's campaign.
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
  // 1.0.0 active, tried like any candidate with nothing behind it, and 2.0.0
  // staged by another process as the candidate.
  void SetUp() override {
    install.seed(first);
    ASSERT_EQ(install.start().status, 0);
    ASSERT_EQ(install.starts(), std::vector<std::string>{"trial 1.0.0 --data-dir " + install.root.string()});
    second.publish(repository);
    const CommandResult staged = install.stage(repository);  // refresh, find, budget, download, extract, name
    ASSERT_EQ(staged.status, 0) << staged.out;
    EXPECT_EQ(json::parse(staged.out)["manifest_sha256"], second.reference["manifest_sha256"]);
    EXPECT_TRUE(fs::is_empty(install.root / "launcher/staging"));
    ASSERT_EQ(install.slots(), "1.0.0 - 2.0.0 -");
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
  // The bootstrap's test build, killed after durable step `kill_at` (never when 0).
  CommandResult entry(long kill_at) const {
    return patiently([&] {
      return run_command({"env", "ZORVI_SAMPLE_LAUNCHER_LOG=" + install.log.string(),
                          "ZORVI_TEST_STEP_COUNT=" + steps.string(),
                          "ZORVI_TEST_KILL_AT_STEP=" + std::to_string(kill_at), binary_dir() / "bootstrap_entry",
                          install.root, "gui", "5000"});
    });
  }

  TufRepository repository;
  BootstrapInstall install;
  SampleRelease first{repository.dir.path(), "1.0.0"}, second{repository.dir.path(), "2.0.0"};
  TempDir saved;
  fs::path steps = saved / "steps";
};

// The trial runs once in full, then for every step: the data folder is put
// back by copy, the trial is killed there, the first start after it is killed
// at another step, and the next start by the real bootstrap must run a
// launcher, with every version the state keeps to fall back on verifying.
TEST_F(LauncherCrash, ABootstrapKilledAtAnyDurableStepOfATrialLeavesAWorkingLauncher) {
  const auto copy = [](const fs::path& from, const fs::path& to) { return run_command({"cp", "-a", from, to}).status; };
  ASSERT_EQ(copy(install.root, saved / "root"), 0);
  ASSERT_EQ(entry(0).status, 0);
  ASSERT_EQ(install.slots(), "2.0.0 1.0.0 - -");
  const long total = std::atol(read_text(steps).c_str());
  ASSERT_GT(total, 3);  // at least the attempt's save and the confirmation's
  const char* configured = std::getenv("ZORVI_CRASH_ROUNDS");
  const long rounds = std::max(1L, configured != nullptr ? std::atol(configured) : 1L);
  for (long round = 0; round < rounds; ++round) {
    for (long kill_at = 1; kill_at <= total; ++kill_at) {
      const long then = 1 + (kill_at + round) % start_steps;
      SCOPED_TRACE("round " + std::to_string(round) + ": killed after step " + std::to_string(kill_at) +
                   ", the next start after step " + std::to_string(then));
      fs::remove_all(install.root);
      ASSERT_EQ(copy(saved / "root", install.root), 0);
      ASSERT_EQ(entry(kill_at).status, 137);
      const CommandResult start = entry(then);
      EXPECT_TRUE(start.status == 0 || start.status == 137) << start.status << start.err;
      const std::size_t before = install.starts().size();
      const CommandResult working = patiently([&] { return install.start(); });  // the real bootstrap
      ASSERT_EQ(working.status, 0) << working.err;
      ASSERT_EQ(install.starts().size(), before + 1);
      EXPECT_TRUE(install.starts().back().starts_with("trial ") || install.starts().back().starts_with("start "))
          << install.starts().back();
      const json state = install.store.load();
      ASSERT_FALSE(state["active"].is_null());
      for (const char* slot : {"active", "rollback"})
        if (!state[slot].is_null()) install.expect_intact(state[slot]);
      // A trial that lost its bootstrap is not tried again on its own.
      const json failed = state["failed_candidate"];
      EXPECT_TRUE(failed.is_null() || failed["problem"] == "startup_interrupted") << failed.dump();
    }
  }
}

}  // namespace
}  // namespace zorvi::testing
