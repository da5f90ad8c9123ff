// The launcher's update roads through real processes: releases of the sample
// launcher signed by python-tuf and served by nginx, staged by a separate
// process, and tried by the installed zorvi-bootstrap.
#include <gtest/gtest.h>

#include "tests/support/helper_install.hpp"
#include "tests/support/sample_launcher.hpp"

namespace zorvi::testing {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

struct LauncherUpdate : ::testing::Test {
  // A start of the real bootstrap, which must succeed: the launcher line it logged last.
  std::string started(const std::vector<std::string>& arguments = {"--gui"}, const std::string& mode = "",
                      const std::map<std::string, std::string>& extra = {}) const {
    const CommandResult run = install.start(arguments, mode, extra);
    EXPECT_EQ(run.status, 0) << run.err;
    return install.starts().empty() ? "" : install.starts().back();
  }
  std::string ran(const std::string& how, const std::string& build, const std::string& rest = "") const {
    return how + " " + build + " --data-dir " + install.root.string() + rest;
  }

  TufRepository repository;
  BootstrapInstall install;
  SampleRelease first{repository.dir.path(), "1.0.0"}, second{repository.dir.path(), "2.0.0"};
};

TEST_F(LauncherUpdate, ANewReleaseIsKeptWithTheOldAsRollbackAndAFailedOneFallsBackToTheActive) {
  install.seed(first);
  // A first launcher is tried like any candidate, with nothing behind it.
  EXPECT_EQ(started(), ran("trial", "1.0.0"));
  EXPECT_EQ(install.slots(), "1.0.0 - - -");

  second.publish(repository);
  const CommandResult run = install.stage(repository);  // refresh, find, budget, download, extract, name the candidate
  ASSERT_EQ(run.status, 0) << run.out;
  EXPECT_EQ(json::parse(run.out)["manifest_sha256"], second.reference["manifest_sha256"]);
  EXPECT_EQ(install.slots(), "1.0.0 - 2.0.0 -");
  EXPECT_TRUE(fs::is_empty(install.root / "launcher/staging"));
  EXPECT_EQ(started({"--gui", "--game", "star-harbor"}), ran("trial", "2.0.0", " --launch star-harbor"));
  EXPECT_EQ(install.slots(), "2.0.0 1.0.0 - -");
  EXPECT_EQ(started({"--json", "list"}), ran("start", "2.0.0", " --json list"));
  EXPECT_EQ(install.starts().size(), 3u);
  install.expect_intact(first.reference);

  const SampleRelease third(repository.dir.path(), "3.0.0");
  third.publish(repository);
  // A candidate that crashes falls back to the active version and is kept
  // as failed (every other way of failing: launcher_bootstrap_test).
  TufClient client = repository.client();
  client.refresh();
  install.store.stage(client, {}, {}, false);
  EXPECT_EQ(started({"--gui"}, "crash", {{"ZORVI_STARTUP_LIMIT_MS", "1500"}}), ran("start", "2.0.0"));
  EXPECT_EQ(install.slots(), "2.0.0 1.0.0 - 3.0.0");
  EXPECT_EQ(install.starts().size(), 5u);  // the trial, then the active version
}

TEST_F(LauncherUpdate, TheHelperStartsTheRealBootstrapWhichStartsTheLauncher) {
  HelperInstall helper("zorvi-shortcut", nullptr);
  fs::copy_file(binary_dir() / "zorvi-bootstrap", helper.bootstrap(), fs::copy_options::overwrite_existing);
  LauncherStore(helper.root()).seed_initial(first.manifest, first.archive, {});
  const HelperRun run = run_helper(helper, {{"ZORVI_LAUNCH_DOCUMENT", helper.document("a.zorvi-launch", "star-harbor")},
                                            {"ZORVI_SAMPLE_LAUNCHER_LOG", install.log}});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(install.starts(), Lines{"trial 1.0.0 --data-dir " + helper.root().string() + " --launch star-harbor"});
  EXPECT_FALSE(LauncherStore(helper.root()).status()["active"].is_null());
}

}  // namespace
}  // namespace zorvi::testing
