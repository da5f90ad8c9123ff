// The launcher's start through real processes: the launch-document helper
// starts the installed zorvi-bootstrap, which tries the sample launcher.
// Staging a release and trying it as a candidate through real processes is
// launcher_crash_test's road; each way a candidate fails is
// launcher_bootstrap_test's.
#include <gtest/gtest.h>

#include "tests/support/helper_install.hpp"
#include "tests/support/sample_launcher.hpp"

namespace zorvi::testing {
namespace {

namespace fs = std::filesystem;

TEST(LauncherUpdate, TheHelperStartsTheRealBootstrapWhichStartsTheLauncher) {
  HelperInstall helper("zorvi-shortcut", nullptr);
  const SampleRelease first(helper.folder(), "1.0.0");
  fs::copy_file(binary_dir() / "zorvi-bootstrap", helper.bootstrap(), fs::copy_options::overwrite_existing);
  LauncherStore(helper.root()).seed_initial(first.manifest, first.archive, {});
  const fs::path log = helper.folder() / "launcher.log";
  const HelperRun run = run_helper(helper, {{"ZORVI_LAUNCH_DOCUMENT", helper.document("a.zorvi-launch", "star-harbor")},
                                            {"ZORVI_SAMPLE_LAUNCHER_LOG", log}});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(read_text(log), "trial 1.0.0 --data-dir " + helper.root().string() + " --launch star-harbor\n");
  EXPECT_FALSE(LauncherStore(helper.root()).status()["active"].is_null());
}

}  // namespace
}  // namespace zorvi::testing
