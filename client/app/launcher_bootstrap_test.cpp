#include "client/app/launcher_bootstrap.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <sstream>

#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;
using testing::read_text;
using testing::TempDir;

struct Version {
  std::string bytes;
  fs::path archive;
  json reference;
  std::string sha() const { return reference.at("manifest_sha256").get<std::string>(); }
};

// A data directory whose launcher versions are copies of the stand-in
// program, and a bootstrap run as a real process against it.
class Bootstrap {
public:
  Bootstrap() : store_(data_, true) { ::setenv("ZORVI_TEST_LAUNCHER_LOG", log_.c_str(), 1); }

  Version version(const std::string& build) {
    const fs::path tree = dir_ / ("tree-" + build), archive = dir_ / (build + ".tar.zst");
    fs::create_directories(tree / "bin");
    EXPECT_EQ(testing::run_command({"strip", "-o", (tree / "bin/zorvi").native(),
                                    (testing::binary_dir() / "launcher_stand_in").native()}).status, 0);
    fs::copy_file(tree / "bin/zorvi", tree / "bin/zorvi-gui");
    testing::pack_tree(tree, archive);
    json document = testing::python_manifest(tree, archive);
    document.update({{"kind", "zorvi-launcher-release"}, {"build_id", build}, {"platform", "linux-x86_64"},
                     {"bootstrap_abi", 1}, {"health_abi", 1}, {"application_schema", {{"minimum", 1}, {"maximum", 1}}},
                     {"staging_abi", 1}, {"runtime_lease_abi", 2}, {"console_interrupt_abi", 1},
                     {"gui_executable", "bin/zorvi-gui"}, {"runtime_helpers", json::array()}});
    return {document.dump(), archive, launcher_reference(digest(document.dump(), "sha256"), build)};
  }

  void seed(const Version& version) { store_.seed_initial(version.bytes, version.archive, {}); }

  // What a staging leaves: the version stored and named as the candidate.
  void stage(const Version& version) {
    const fs::path manifest = store_.launcher_directory() / "manifests" / (version.sha() + ".json");
    if (!fs::exists(manifest)) {
      atomic_create(manifest, version.bytes);
      extract_snapshot(LauncherManifest::parse(json::parse(version.bytes)).snapshot, version.archive,
                       store_.payload(version.reference), {}, nullptr);
    }
    const FileLock owner = store_.owner();
    json state = store_.load();
    state["candidate"] = version.reference;
    store_.save(state);
  }

  testing::CommandResult run(const std::string& mode, const std::string& interface, const std::string& limit,
                             const std::vector<std::string>& arguments = {}) {
    ::setenv("ZORVI_TEST_LAUNCHER", mode.c_str(), 1);
    std::vector<std::string> command{(testing::binary_dir() / "bootstrap_entry").native(), data_.native(), interface, limit};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return testing::run_command(command);
  }

  // The launcher's last line in the log: "trial|exec VERSION-DIR ARGS...".
  std::string last_start() const {
    std::istringstream lines(read_text(log_));
    std::string line, last;
    while (std::getline(lines, line)) last = line;
    return last;
  }

  // The state's active, rollback, attempt, candidate and failed_candidate.
  json slots() const {
    const json state = store_.load();
    return {state["active"], state["rollback"], state["attempt"], state["candidate"], state["failed_candidate"]};
  }

  void backdate_marker(const std::string& sha, int attempts) {
    replace_private_file(start_marker_path(data_), json({{"manifest_sha256", sha}, {"started_at", std::time(nullptr) - 30},
                                                         {"attempts", attempts}}).dump());
  }

  const fs::path& data() const { return data_; }
  const LauncherStore& store() const { return store_; }

private:
  TempDir dir_;
  fs::path data_ = fs::canonical(dir_.path()) / "data", log_ = dir_ / "log";
  LauncherStore store_;
};

json failed(const Version& version) { return {{"reference", version.reference}, {"problem", "startup_failed"}}; }

// Candidates tried under supervision: the first gets 30 seconds whatever the
// caller's limit, a confirmed one becomes active with the old one as
// rollback, and every way of failing leaves the version failed while the
// active one is started in the bootstrap's place.
TEST(LauncherBootstrap, CandidatesAreConfirmedOrFallBackToTheActiveVersion) {
  Bootstrap boot;
  const Version a = boot.version("1.0.0"), b = boot.version("2.0.0"), c = boot.version("3.0.0");
  boot.seed(a);
  testing::CommandResult result = boot.run("slow", "gui", "5", {"--launch", "g"});
  EXPECT_EQ(result.status, 7) << result.err;
  EXPECT_EQ(boot.last_start(), "trial " + a.sha() + " --data-dir " + boot.data().native() + " --launch g");
  EXPECT_EQ(boot.slots(), json({a.reference, nullptr, nullptr, nullptr, nullptr}));
  boot.stage(b);
  EXPECT_EQ(boot.run("healthy", "gui", "30000").status, 7);
  EXPECT_EQ(boot.slots(), json({b.reference, a.reference, nullptr, nullptr, nullptr}));
  for (const std::string mode : {"crash", "exit", "silent", "drop", "lie"}) {
    boot.stage(c);
    result = boot.run(mode, "gui", "1000");
    EXPECT_EQ(result.status, 5) << mode << result.err;  // the active version's own exit
    EXPECT_EQ(boot.last_start(), "exec " + b.sha() + " cleared --data-dir " + boot.data().native()) << mode;
    EXPECT_EQ(boot.slots(), json({b.reference, a.reference, nullptr, nullptr, failed(c)})) << mode;
  }
  boot.stage(c);  // reports and exits at once: entitled to let its lease go
  EXPECT_EQ(boot.run("quick", "cli", "1000", {"list"}).status, 0);
  EXPECT_EQ(boot.last_start(), "trial " + c.sha() + " --data-dir " + boot.data().native() + " list");
  EXPECT_EQ(boot.slots(), json({c.reference, b.reference, nullptr, nullptr, nullptr}));
}

// With nothing active there is nothing to fall back on: the failure is the
// run's own, and the version is recorded as failed.
TEST(LauncherBootstrap, AFirstLauncherThatFailsEndsTheRun) {
  Bootstrap boot;
  const Version a = boot.version("1.0.0");
  boot.seed(a);
  const testing::CommandResult result = boot.run("exit", "gui", "5");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "zorvi: launcher_startup_failed: Launcher candidate exited before initialization\n");
  EXPECT_EQ(boot.slots(), json({nullptr, nullptr, nullptr, nullptr, failed(a)}));
}

// The GUI's start marker: a start that went unconfirmed for 30 seconds
// counts, a second such start skips the version, and damaged entry points
// skip it at once; each time the next version in the list starts instead.
TEST(LauncherBootstrap, UnconfirmedAndDamagedVersionsAreSkipped) {
  Bootstrap boot;
  const Version a = boot.version("1.0.0"), b = boot.version("2.0.0");
  boot.seed(a);
  EXPECT_EQ(boot.run("quick", "gui", "1000").status, 0);
  boot.stage(b);
  EXPECT_EQ(boot.run("quick", "gui", "1000").status, 0);
  const auto marker = [&] {
    const auto read = read_start_marker(boot.data());
    return read ? json({read->manifest_sha256, read->attempts}) : json();
  };
  const auto started = [&](const Version& version, const std::string& error) {
    const testing::CommandResult result = boot.run("quick", "gui", "1000", {"--", "--data-dir", "x"});
    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.err, error);
    return boot.last_start() == "exec " + version.sha() + " cleared --data-dir " + boot.data().native() + " -- --data-dir x";
  };
  const std::string unusable = "zorvi: launcher version unusable (launcher_damaged): ";
  testing::write_text(start_marker_path(boot.data()), "{");  // unreadable: as if absent
  EXPECT_TRUE(started(b, ""));
  EXPECT_EQ(marker(), json({b.sha(), 1}));
  EXPECT_TRUE(started(b, ""));  // younger than 30 seconds: still under way
  EXPECT_EQ(marker(), json({b.sha(), 1}));
  boot.backdate_marker(b.sha(), 1);
  EXPECT_TRUE(started(b, ""));
  EXPECT_EQ(marker(), json({b.sha(), 2}));
  boot.backdate_marker(b.sha(), 2);
  EXPECT_TRUE(started(a, unusable + "This Zorvi version failed to start twice\n"));
  EXPECT_EQ(marker(), json({a.sha(), 1}));
  confirm_launcher_start(boot.data());
  EXPECT_TRUE(marker().is_null());
  testing::write_text(boot.store().payload(b.reference) / "bin/zorvi-gui", "short");
  EXPECT_TRUE(started(a, unusable + "Zorvi's files are damaged. Reinstall Zorvi to repair them.\n"));
}

// Refusals of a run that never gets as far as starting anything.
TEST(LauncherBootstrap, RefusedRuns) {
  TempDir dir;
  const LauncherStore store(dir / "data", true);
  const NativeFileLock lifetime(dir / "lifetime.lock", true, NativeLockSharing::exclusive_install, LockMode::shared);
  const auto run = [&](const char* interface, std::int64_t limit, const std::vector<std::string>& arguments) {
    return outcome([&] { run_launcher_bootstrap(dir / "data", interface, arguments, limit, lifetime); });
  };
  const std::string nothing = "launcher_damaged: No installed Zorvi version could be started";
  const std::string usage = "usage: Set the data directory on the native bootstrap, before forwarded arguments";
  const struct { std::string got, expected; } rows[] = {
      {run("gui", 0, {}), "launcher_health: Launcher startup limit must be bounded to 30 seconds"},
      {run("gui", 30001, {}), "launcher_health: Launcher startup limit must be bounded to 30 seconds"},
      {run("tui", 1000, {}), "launcher_interface: Choose the CLI or GUI launcher interface"},
      {run("gui", 1000, {"--launch", "--data-dir"}), usage},
      {run("cli", 1000, {"--data-dir", "x", "list"}), usage},
      {run("cli", 1000, {"--json", "self", "uninstall"}), "maintenance_failed: Maintenance commands are not available in this build"},
      {run("cli", 1000, {"list"}), nothing},
      {run("gui", 30000, {"--launch", "game"}), nothing},  // the direct start is not built yet
  };
  for (const auto& row : rows) EXPECT_EQ(row.got, row.expected);
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(run("cli", 1000, {"--json", "--help"}), "ok");
  EXPECT_EQ(json::parse(::testing::internal::GetCapturedStdout()).value("kind", ""), "help");
  EXPECT_EQ(launcher_arguments(dir / "x/../data", {"a"}),
            (std::vector<std::string>{"--data-dir", (dir / "data").native(), "a"}));
  EXPECT_EQ(cleared_startup_environment().size(), 5U);
}

}  // namespace
}  // namespace zorvi
