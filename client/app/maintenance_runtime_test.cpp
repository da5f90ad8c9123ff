#include "client/app/maintenance_runtime.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "client/app/native_install.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/sample_launcher.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

// Real installations of a package whose launcher carries zorvi-maintenance,
// removed through the installed bootstrap and the version's own helpers.
class Maintenance : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    shared = new testing::SamplePackage("1.0.0");
    const std::string origin = shared->repository.server->base_url();
    ASSERT_EQ(shared->build(origin.substr(0, origin.size() - 1)).status, 0);
  }
  static void TearDownTestSuite() { delete shared; }
  void SetUp() override { ::setenv("XDG_DATA_HOME", (dir / "xdg").c_str(), 1); }

  // A fresh installation with user data.
  void install() {
    const NativeSetupCallbacks seeding{{}, {}, package_launcher_seeder(shared->package, shared->seal)};
    NativeInstaller::install({shared->package, data, false, false}, shared->seal, seeding);
    fs::create_directories(data / "userdata");
    testing::write_text(data / "userdata/save", "mine");
    reference = LauncherStore(data).fallback_active();
  }
  testing::CommandResult bootstrap(std::vector<std::string> words) const {
    words.insert(words.begin(), {data / "native/bootstrap/bin/zorvi-bootstrap", "--data-dir", data});
    return testing::run_command(words);
  }
  bool removed_keeping_user_data() const {
    return !fs::exists(data / "native") && !fs::exists(data / "launcher") &&
           testing::read_text(data / "userdata/save") == "mine";
  }

  static inline testing::SamplePackage* shared = nullptr;
  testing::TempDir dir;
  fs::path data = fs::canonical(dir.path()) / "Zorvi Data";
  json reference;
};

TEST_F(Maintenance, TheBootstrapHandsShortcutsAndUninstallsToTheVersionsVerifiedHelper) {
  install();
  const fs::path helper = LauncherStore(data).payload(reference) / "bin/zorvi-maintenance";
  const auto flip_byte = [&] {  // the helper damaged, its size kept
    std::string bytes = testing::read_text(helper);
    bytes[4096] ^= 1;
    testing::write_text(helper, bytes);
  };
  const json shortcut = json::parse(bootstrap({"--json", "self", "shortcut", "create", "--game", "g1"}).out);
  EXPECT_TRUE(fs::exists(shortcut.at("created").get<std::string>()));
  EXPECT_EQ(json::parse(bootstrap({"self", "shortcut", "remove"}).out)["removed"], json::array({shortcut["created"]}));
  flip_byte();
  EXPECT_EQ(bootstrap({"self", "uninstall"}).err,
            "zorvi: The maintenance helper is damaged; run the Zorvi installer to repair it\n");
  flip_byte();
  const testing::CommandResult removed = bootstrap({"--json", "self", "uninstall"});
  ASSERT_EQ(removed.status, 0) << removed.err;
  EXPECT_EQ(json::parse(removed.out)["kept"], json::array({(data / "userdata").string()}));
  EXPECT_TRUE(removed_keeping_user_data());

  testing::BootstrapInstall plain;
  plain.seed(testing::SampleRelease(plain.dir.path(), "2.0.0", 0, 0, ""));
  EXPECT_EQ(plain.start({"self", "uninstall"}).err,
            "zorvi: This Zorvi version has no maintenance helper; use the Zorvi installer to uninstall\n");
}

// A windowed helper that never reports is ended at the limit; the real one
// is handed over once ready and removes the installation.
TEST_F(Maintenance, TheWindowedHelperIsHandedOverOnlyOnceReady) {
  testing::BootstrapInstall silent;
  const testing::SampleRelease hanging(silent.dir.path(), "2.0.0", 0, 0, "bootstrap_stand_in");
  silent.seed(hanging);
  MaintenanceRuntime quiet = MaintenanceRuntime::prepare(silent.store, hanging.reference, "maintenance-gui");
  ::setenv("ZORVI_STAND_IN_RECORDS", silent.dir.path().c_str(), 1);
  ::setenv("ZORVI_STAND_IN_HOLD", silent.dir.path().c_str(), 1);  // held until it is killed
  EXPECT_EQ(testing::outcome([&] { quiet.launch_gui({}, std::chrono::seconds(2)); }),
            "maintenance_startup: The uninstall window did not open");
  ::unsetenv("ZORVI_STAND_IN_HOLD");
  ::unsetenv("ZORVI_STAND_IN_RECORDS");
  const json record = json::parse(testing::run_command({"sh", "-c", "cat \"$0\"/*.json", silent.dir.path()}).out);
  const json& environment = record["environment"];  // terminated, cleaned up, and never taken for a trial
  EXPECT_EQ(json({testing::pid_exists(record["pid"]), fs::exists(quiet.ready_path()),
                  environment["ZORVI_MAINTENANCE_READY"], environment["ZORVI_LAUNCHER_HEALTH_NONCE"]}),
            json({false, false, quiet.ready_path().string(), ""}));

  install();
  MaintenanceRuntime window = MaintenanceRuntime::prepare(LauncherStore(data), reference, "maintenance-gui");
  EXPECT_EQ(window.launch_gui({"--data-dir", data.string()}, std::chrono::seconds(20)).wait(), 0);
  EXPECT_TRUE(removed_keeping_user_data());
  EXPECT_EQ(fs::status(fs::temp_directory_path()).permissions() & fs::perms::others_all,
            fs::perms::others_all);  // the ready file left the shared /tmp as it was
}

TEST(MaintenanceRuntime, Refusals) {
  using testing::outcome;
  testing::TempDir dir;
  const fs::path data = dir / "data";
  const auto with_variable = [](const char* name, const std::function<void()>& action) {
    ::setenv(name, "x", 1);
    const std::string got = outcome(action);
    return ::unsetenv(name), got;
  };
  const auto control = [&](const std::vector<std::string>& words) {
    return outcome([&] { native_maintenance_control(data, words, {}); });
  };
  const auto cli = [&] { run_cli_maintenance(data, {"self", "uninstall"}, "1.0.0", {}); };
  const std::string shortcut = "usage: Use self shortcut create [--game GAME] or self shortcut remove";
  const std::pair<std::string, std::string> rows[] = {
      {outcome([] { maintenance_arguments({"self", "uninstall", "--remove-data", "--remove-data"}, "d"); }),
       "usage: Use self uninstall [--remove-data]"},
      {control({"self", "shortcut", "create", "--game", "no way"}), shortcut},
      {control({"self", "shortcut", "create", "--game", "--json", "g1"}), shortcut},
      {outcome([&] {
         prepare_console_maintenance(
             LauncherStore(data, true), json(), {"self", "uninstall"}, [] { return true; }, false);
       }),
       "cancelled: Uninstall cancelled"},
      {outcome([] { require_maintenance_runtime_image("/tmp/zorvi-maintenance-1/bin/zorvi"); }),
       "maintenance_copy: A temporary maintenance helper cannot start Zorvi"},
      {with_variable("ZORVI_MAINTENANCE_COPY", [] { MaintenanceRuntime::attach("maintenance", "1.0.0"); }),
       "maintenance_copy: Maintenance helper copy path is invalid"},
      {outcome([&] { prepare_gui_maintenance(data, "1.0.0", {}); }),
       "maintenance_unavailable: Start the installed Zorvi GUI or use the external installer to review removal"},
      {with_variable("ZORVI_LAUNCHER_HEALTH_NONCE", cli),
       "maintenance_unavailable: Start native maintenance through the installed bootstrap to release startup "
       "ownership"},
      {outcome(cli),
       "maintenance_unavailable: Installed maintenance needs a managed launcher image; use the external installer"},
  };
  for (const auto& [got, expected] : rows) EXPECT_EQ(got, expected);
  EXPECT_EQ(maintenance_arguments({"--json", "self", "uninstall", "--remove-data"}, "d"),
            (std::vector<std::string>{"self", "uninstall", "--data-dir", fs::current_path() / "d", "--remove-data"}));
}

}  // namespace
}  // namespace zorvi
