#include "client/app/native_install.hpp"

#include <gtest/gtest.h>

#include "client/app/install_guards.hpp"
#include "client/app/launcher.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "tests/support/sample_launcher.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

// A package of a python-tuf repository served by nginx, made by the real
// builder, and data folders to install it into.
class NativeInstall : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    shared = new testing::SamplePackage("1.0.0");
    const std::string origin = shared->repository.server->base_url();
    ASSERT_EQ(shared->build(origin.substr(0, origin.size() - 1)).status, 0);
  }
  static void TearDownTestSuite() { delete shared; }

  static NativeInstallResult install(const fs::path& folder, bool repair = false,
                                     std::function<bool()> cancelled = {}) {
    const NativeSetupCallbacks callbacks{
        {}, std::move(cancelled), package_launcher_seeder(shared->package, shared->seal)};
    return NativeInstaller::install({shared->package, folder, repair, false}, shared->seal, callbacks);
  }
  // The installed bootstrap, its first launcher and the trust root all work.
  static void expect_working(const fs::path& folder) {
    const DataPaths paths(folder);
    EXPECT_FALSE(entry_present(paths.incomplete) || entry_present(paths.staging));
    const LauncherStore store = LauncherStore::existing(folder);
    const json version = store.status()["candidate"].is_null() ? store.status()["active"] : store.status()["candidate"];
    EXPECT_NO_THROW(verify_snapshot_tree(store.manifest(version).snapshot, store.payload(version), {}));
    TufClient client(paths.trust, *shared->repository.metadata, *shared->repository.targets,
                     {1 << 20, 1 << 16, 1 << 22, 8, 8}, {});
    EXPECT_NO_THROW(client.refresh());
  }
  // The crash-test build of setup run with `words`, killed after its durable step `kill_at` (0: never); it
  // counts its steps into dir/steps; `calls` keeps its renames, unlinks and flushes.
  testing::CommandResult entry(int kill_at, std::vector<std::string> words,
                               std::vector<std::string>* calls = nullptr) const {
    words.insert(words.begin(),
                 {"env", "ZORVI_TEST_KILL_AT_STEP=" + std::to_string(kill_at),
                  "ZORVI_TEST_STEP_COUNT=" + (dir / "steps").string(), testing::binary_dir() / "install_entry"});
    if (!calls) return testing::run_command(words);
    testing::TracedRun traced = testing::run_traced(words, "rename,renameat2,unlink,unlinkat,fsync");
    *calls = std::move(traced.calls);
    return traced.result;
  }

  static inline testing::SamplePackage* shared = nullptr;
  TempDir dir;
  fs::path data = fs::canonical(dir.path()) / "Zorvi Data";
};

TEST_F(NativeInstall, InstallsAPackageAndRepairsOnlyWhatIsDamaged) {
  EXPECT_EQ(install(data).to_json()["replaced"], json({"bootstrap", "launcher", "trust"}));
  EXPECT_EQ(install(data, true).replaced, std::vector<std::string>{});
  fs::resize_file(data / "native/bootstrap/bin/zorvi-bootstrap", 10);
  fs::remove(data / "trust/root.json");
  EXPECT_EQ(install(data, true).replaced, (std::vector<std::string>{"bootstrap", "trust"}));
  expect_working(data);
  const json status = NativeInstaller::status(data).to_json();
  EXPECT_EQ(json({status["launcher_build"], status["last_operation"]["outcome"]}), json({"1.0.0", "succeeded"}));
  // A half-made installation names no builds; a damaged one is refused.
  testing::write_text(data / ".zorvi-setup-incomplete", "");
  EXPECT_TRUE(NativeInstaller::status(data).incomplete && !NativeInstaller::status(data).bootstrap_build);
  fs::remove(data / ".zorvi-setup-incomplete");
  testing::write_text(data / "native/installation.json", R"({"schema_version": 2})");
  EXPECT_EQ(testing::caught([&] { NativeInstaller::status(data); }).code, "unsupported_schema");
}

TEST_F(NativeInstall, RefusedSetupsLeaveTheFolderAsTheyFoundIt) {
  const fs::path empty = dir / "empty", notes = dir / "notes", earlier = dir / "earlier", link = dir / "link";
  for (const fs::path& folder : {empty, earlier / "userdata", notes}) fs::create_directories(folder);
  for (const fs::path& folder : {notes, earlier}) testing::write_text(folder / "notes.txt", "mine");
  fs::create_directory_symlink(empty, link);
  install(data);
  const std::string folder = data.string();
  // Cancels once the install has begun to unpack into its staging folder.
  const auto unpacking = [](const fs::path& target) {
    return [target] { return fs::exists(target / "native/staging"); };
  };
  // Another worker's lock on `target` held across the setup.
  const auto held = [](const char* lock, NativeLockSharing sharing, LockMode mode, const fs::path& target,
                       bool repair) {
    return [=] {
      const NativeFileLock other(target / lock, true, sharing, mode);
      install(target, repair);
    };
  };
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[&] { install(empty, true); }, "not_installed: Zorvi is not installed in " + empty.string()},
      {[&] { install(data); }, "already_installed: Zorvi is already installed in " + folder + "; use repair"},
      {[&] { install(notes); }, "unsafe_path: Choose an empty folder or an earlier Zorvi data folder"},
      {[&] { install("/"); }, "unsafe_path: The data folder cannot be a filesystem root"},
      {[&] { install(link); }, "unsafe_path: The data folder cannot be a symbolic link"},
      {[&] { install(shared->package / "data"); }, "unsafe_path: The package and data folders overlap"},
      {held(".zorvi-setup.lock", NativeLockSharing::shared_install, LockMode::exclusive, empty, false),
       "busy: Another worker owns this native installation"},
      {held(".native-bootstrap.lock", NativeLockSharing::exclusive_install, LockMode::shared, data, true),
       "zorvi_running: Zorvi or a game from this folder is still running; close it and try again"},
      {[&] { install(dir / "new", false, unpacking(dir / "new")); },
       "cancelled: Operation cancelled at a safe boundary"},
      {[&] { install(empty, false, unpacking(empty)); }, "cancelled: Operation cancelled at a safe boundary"},
      {[&] { NativeInstaller::uninstall({empty}, {}); }, "not_installed: Zorvi is not installed in " + empty.string()},
      {[&] { NativeInstaller::uninstall({data}, {{}, [] { return true; }, {}}); }, "cancelled: Setup was cancelled"},
  };
  for (const auto& [run, expected] : rows) EXPECT_EQ(testing::outcome(run), expected);
  EXPECT_FALSE(fs::exists(dir / "new"));  // a failed install into a new folder leaves none
  EXPECT_TRUE(fs::is_empty(empty));       // nor a lock in a folder that was empty
  EXPECT_NO_THROW(install(earlier));      // user data marks an earlier data folder
}

// Kills a real install, and a repair, after each of their durable steps: the
// next setup always ends with a working installation, and the user's data
// stays as it was. ZORVI_CRASH_ROUNDS repeats the campaign.
TEST_F(NativeInstall, AKillAtEveryDurableStepOfAnInstallOrRepairIsFinishedByTheNextRepair) {
  const auto setup = [&](const fs::path& folder, int kill_at, bool repair, std::vector<std::string>* calls = nullptr) {
    std::vector<std::string> words{shared->seal, shared->package, folder};
    if (repair) words.emplace_back("--repair");
    return entry(kill_at, words, calls);
  };
  const fs::path folder = dir / "folder", saved = folder / "userdata/save.dat", damaged = dir / "damaged";
  // A complete installation with all three parts damaged, for the repair road.
  ASSERT_EQ(setup(damaged, 0, false).status, 0);
  fs::remove_all(damaged / "launcher");
  fs::remove(damaged / "trust/root.json");
  fs::resize_file(damaged / "native/bootstrap/bin/zorvi-bootstrap", 10);
  const auto fresh = [&](bool repair) {
    fs::remove_all(folder);
    if (repair) testing::run_command({"cp", "-a", damaged, folder});
    fs::create_directories(saved.parent_path());
    testing::write_text(saved, "level 7");
  };
  const char* rounds = std::getenv("ZORVI_CRASH_ROUNDS");
  for (int round = 0; round < (rounds ? std::atoi(rounds) : 1); ++round) {
    for (const bool repair : {false, true}) {
      fresh(repair);
      std::vector<std::string> calls;
      ASSERT_EQ(setup(folder, 0, repair, &calls).status, 0);
      // A new tree's move out of staging, and the marker's removal, are flushed before the next step.
      const fs::path real = fs::canonical(folder);
      EXPECT_TRUE(
          testing::flushed_between(calls, real / "native/staging", "/native/bootstrap\") = 0", "bootstrap.json"));
      EXPECT_TRUE(testing::flushed_between(calls, real, "unlink(\"" + real.string() + "/.zorvi-setup-incomplete\")",
                                           "setup-status"));
      const int total = std::stoi(testing::read_text(dir / "steps"));
      ASSERT_GT(total, 20);
      RecordProperty(repair ? "repair_steps" : "install_steps", total);
      for (int step = 1; step < total; ++step) {
        SCOPED_TRACE((repair ? "repair, step " : "install, step ") + std::to_string(step));
        fresh(repair);
        ASSERT_EQ(setup(folder, step, repair).status, 128 + 9);
        const bool begun =
            entry_present(folder / ".zorvi-setup-incomplete") || entry_present(folder / "native/installation.json");
        const testing::CommandResult next = setup(folder, 0, begun);
        ASSERT_EQ(next.status, 0) << next.out;
        expect_working(folder);
        EXPECT_EQ(testing::read_text(saved), "level 7");
      }
    }
  }
}

// The user's data and the shortcuts the user edited stay unless the data is
// asked to go; the client's own unchanged shortcuts always go.
TEST_F(NativeInstall, UninstallKeepsUserDataAndEditedShortcutsUnlessAskedToRemoveData) {
  ::setenv("XDG_DATA_HOME", data.parent_path().c_str(), 1);
  install(data);
  fs::create_directories(data / "userdata");
  testing::write_text(data / "settings.json", "{}");
  const fs::path menu = NativeInstaller::create_shortcut(data, "", "", "").at("path").get<std::string>();
  const fs::path edited = NativeInstaller::create_shortcut(data, "", data.parent_path() / "Mine.desktop", "Mine")
                              .at("path")
                              .get<std::string>();
  testing::write_text(edited, "[Desktop Entry]\n");
  const NativeUninstallResult kept = NativeInstaller::uninstall({data}, {});
  EXPECT_EQ(kept.kept, (std::vector<fs::path>{data / "settings.json", data / "userdata"}));
  EXPECT_EQ(kept.changed_shortcuts, std::vector<fs::path>{edited});
  EXPECT_TRUE(!kept.data_removed && !fs::exists(menu) && fs::exists(edited));
  install(data);
  EXPECT_TRUE(NativeInstaller::uninstall({data, true}, {}).to_json()["data_removed"]);
}

// Kills an uninstall after each of its durable steps: what it leaves starts
// nothing, and the next uninstall finishes the work.
TEST_F(NativeInstall, AKillAtEveryDurableStepOfAnUninstallIsFinishedByTheNextOne) {
  const auto uninstall = [&](int kill_at) { return entry(kill_at, {"--uninstall", data}).status; };
  const fs::path installed = install(dir / "installed").data_root;
  testing::write_text(installed / "settings.json", "{}");
  // Each name that goes from the folder is flushed away before the next one
  // goes, up to the locks and the marker, which go last.
  testing::run_command({"cp", "-aT", installed, data});
  const auto traced = testing::run_traced({testing::binary_dir() / "install_entry", "--uninstall", data},
                                          "rename,renameat,renameat2,unlink,unlinkat,rmdir,fsync");
  bool unflushed = false;
  for (const std::string& call : traced.calls) {
    if (call.starts_with("fsync(") && call.ends_with("<" + data.string() + ">) = 0")) unflushed = false;
    if (call.starts_with("fsync(") || call.find("\"" + data.string() + "/") == std::string::npos) continue;
    const std::string named = call.substr(call.find("\"" + data.string() + "/") + data.string().size() + 2);
    if (named.find('/') < named.find('"')) continue;  // deeper than the folder itself
    if (named.find(".lock\"") != std::string::npos) break;
    EXPECT_FALSE(unflushed) << call;
    unflushed = true;
  }
  EXPECT_FALSE(unflushed);
  for (int step = 0, total = 1; step < total; ++step) {
    SCOPED_TRACE(step);
    testing::run_command({"cp", "-aT", installed, data});
    ASSERT_EQ(uninstall(step), step == 0 ? 0 : 128 + 9);
    if (step == 0) total = std::stoi(testing::read_text(dir / "steps"));
    EXPECT_TRUE(!entry_present(data / ".zorvi-setup-incomplete") ||
                (NativeInstaller::status(data).incomplete &&
                 testing::caught([&] { require_complete_native_install(data); }).code == "native_install_incomplete"));
    EXPECT_EQ(uninstall(0), step == 0 ? 1 : 0);  // after a finished uninstall there is nothing to remove
    EXPECT_EQ(testing::read_text(data / "settings.json"), "{}");
  }
}

}  // namespace
}  // namespace zorvi
