#include "client/app/launcher_bootstrap.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

// A data directory whose launcher versions are copies of the stand-in
// program, and bootstraps run as real processes against it.
struct Bootstrap {
  Bootstrap() { ::setenv("ZORVI_TEST_LAUNCHER_LOG", log.c_str(), 1); }

  // Builds a version of the stand-in and stores it as the candidate.
  json stage(const std::string& build) {
    const fs::path tree = dir / build, archive = dir / (build + ".tar.zst");
    fs::create_directories(tree / "bin");
    testing::run_command({"strip", "-o", tree / "bin/zorvi", testing::binary_dir() / "launcher_stand_in"});
    fs::copy_file(tree / "bin/zorvi", tree / "bin/zorvi-gui");
    testing::pack_tree(tree, archive);
    json document = testing::python_manifest(tree, archive);
    document.update(testing::launcher_release_fields(build));
    document["platform"] = "linux-x86_64";
    const json reference = launcher_reference(digest(document.dump(), "sha256"), build);
    atomic_create(store.launcher_directory() / "manifests" / (digest(document.dump(), "sha256") + ".json"),
                  document.dump());
    extract_snapshot(LauncherManifest::parse(document).snapshot, archive, store.payload(reference), {}, nullptr);
    restage(reference);
    return reference;
  }

  // Names an already stored version as the candidate again.
  void restage(const json& reference) {
    const FileLock owner = store.owner();
    json state = store.load();
    state["candidate"] = reference;
    store.save(state);
  }

  int run(const std::string& mode, const std::string& interface, const std::string& limit,
          std::vector<std::string> arguments = {}) {
    ::setenv("ZORVI_TEST_LAUNCHER", mode.c_str(), 1);
    arguments.insert(arguments.begin(), {testing::binary_dir() / "bootstrap_entry", data, interface, limit});
    const testing::CommandResult result = testing::run_command(arguments);
    err = result.err;
    return result.status;
  }

  // The forwarded arguments of the last launcher start, proved to be a start
  // of `reference` under trial ("trial") or in the bootstrap's place ("exec").
  std::string last_start(std::string prefix, const json& reference) const {
    std::string text = testing::read_text(log);
    text.pop_back();  // the last line's end
    const std::string last = text.substr(text.rfind('\n') + 1);
    // A start outside a trial must see the startup variables cleared.
    prefix += " " + reference.at("manifest_sha256").get<std::string>() + (prefix == "exec" ? " cleared" : "") +
              " --data-dir " + data.native();
    return last.substr(0, prefix.size()) == prefix ? last.substr(prefix.size()) : "unexpected: " + last;
  }

  json slots() const {
    const json state = store.load();
    return {state["active"], state["rollback"], state["attempt"], state["candidate"], state["failed_candidate"]};
  }

  TempDir dir;
  fs::path data = fs::canonical(dir.path()) / "data", log = dir / "log";
  LauncherStore store{data, true};
  std::string err;
};

json failed(const json& reference) { return {{"reference", reference}, {"problem", "startup_failed"}}; }

// A first launcher's failure ends the run; retried, it gets 30 seconds
// whatever the caller's limit. A confirmed candidate becomes active with the
// old one as rollback; every way of failing records the candidate as failed
// and starts the active version in the bootstrap's place.
// Then the GUI's start marker: a start unconfirmed for 30 seconds counts, a
// second one skips the version, and so does a damaged entry point.
TEST(LauncherBootstrap, CandidatesAreConfirmedOrFallBackAndUnconfirmedOrDamagedVersionsAreSkipped) {
  Bootstrap boot;
  const json a = boot.stage("1.0.0");
  EXPECT_EQ(boot.run("exit", "gui", "5"), 1);
  EXPECT_EQ(boot.err, "zorvi: launcher_startup_failed: Launcher candidate exited before initialization\n");
  EXPECT_EQ(boot.slots(), json({nullptr, nullptr, nullptr, nullptr, failed(a)}));
  boot.restage(a);
  EXPECT_EQ(boot.run("healthy", "gui", "5", {"--launch", "g"}), 7) << boot.err;
  EXPECT_EQ(boot.last_start("trial", a), " --launch g");
  const json b = boot.stage("2.0.0");
  EXPECT_EQ(boot.run("quick", "gui", "30000"), 0);
  EXPECT_EQ(boot.slots(), json({b, a, nullptr, nullptr, nullptr}));
  const json c = boot.stage("3.0.0");
  for (const std::string mode : {"exit", "silent", "drop", "lie"}) {
    boot.restage(c);
    EXPECT_EQ(boot.run(mode, "cli", "1000", {"list"}), 5) << mode << boot.err;  // the active version's exit
    EXPECT_EQ(boot.last_start("exec", b), " list") << mode;
    EXPECT_EQ(boot.slots(), json({b, a, nullptr, nullptr, failed(c)})) << mode;
  }
  const auto started = [&](const json& expected, const std::string& skipped, int attempts) {
    EXPECT_EQ(boot.run("quick", "gui", "1000", {"--", "--data-dir", "x"}), 5);
    EXPECT_EQ(boot.err, skipped.empty() ? "" : "zorvi: launcher version unusable " + skipped + "\n");
    const auto marker = read_start_marker(boot.data);
    EXPECT_EQ(json({marker->manifest_sha256, marker->attempts}), json({expected["manifest_sha256"], attempts}));
    return boot.last_start("exec", expected) == " -- --data-dir x";
  };
  const auto backdate = [&](const json& version, int attempts) {
    json marker = {{"manifest_sha256", version["manifest_sha256"]}, {"attempts", attempts}};
    marker["started_at"] = std::time(nullptr) - 30;
    replace_private_file(start_marker_path(boot.data), marker.dump());
  };
  testing::write_text(start_marker_path(boot.data), "{");  // unreadable: as if absent
  EXPECT_TRUE(started(b, "", 1));
  EXPECT_TRUE(started(b, "", 1));  // younger than 30 seconds: may still be under way
  backdate(b, 1);
  EXPECT_TRUE(started(b, "", 2));
  backdate(b, 2);
  EXPECT_TRUE(started(a, "(launcher_damaged): This Zorvi version failed to start twice", 1));
  confirm_launcher_start(boot.data);
  EXPECT_FALSE(read_start_marker(boot.data));
  std::string image = testing::read_text(boot.store.payload(b) / "bin/zorvi-gui");
  image[image.size() / 2] ^= 1;  // same size: only the full proof an unconfirmed start gets can find it
  testing::write_text(boot.store.payload(b) / "bin/zorvi-gui", image);
  backdate(b, 0);
  EXPECT_TRUE(started(a, "(content_mismatch): Game content differs from the verified manifest: bin/zorvi-gui", 1));
  testing::write_text(boot.store.payload(b) / "bin/zorvi-gui", "short");
  EXPECT_TRUE(started(a, "(launcher_damaged): Zorvi's files are damaged. Reinstall Zorvi to repair them.", 1));
}

// Refusals of runs that never start anything; the store holds no version.
TEST(LauncherBootstrap, RefusedRuns) {
  TempDir dir;
  const LauncherStore store(dir / "data", true);
  const NativeFileLock lifetime(dir / "lifetime.lock", true, NativeLockSharing::exclusive_install, LockMode::shared);
  const auto run = [&](const char* interface, std::int64_t limit, const std::vector<std::string>& arguments) {
    return testing::outcome([&] { run_launcher_bootstrap(dir / "data", interface, arguments, limit, lifetime); });
  };
  const std::string limit = "launcher_health: Launcher startup limit must be bounded to 30 seconds";
  const std::pair<std::string, std::string> rows[] = {
      {run("gui", 0, {}), limit},
      {run("gui", 30001, {}), limit},
      {run("cli", 1000, {"--data-dir", "x", "list"}),
       "usage: Set the data directory on the native bootstrap, before forwarded arguments"},
      {run("cli", 1000, {"--json", "self", "uninstall"}),
       "launcher_missing: No installed Zorvi version could be started"},
      {run("cli", 1000, {"list"}), "launcher_damaged: No installed Zorvi version could be started"},
      {run("gui", 30000, {"--launch", "game"}),
       "file_read: Cannot open file: " + (dir / "data/games/game/record.json").string()},
  };
  for (const auto& [got, expected] : rows) EXPECT_EQ(got, expected);
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(run("cli", 1000, {"--json", "--help"}), "ok");
  EXPECT_EQ(json::parse(::testing::internal::GetCapturedStdout()).value("kind", ""), "help");
}

}  // namespace
}  // namespace zorvi
