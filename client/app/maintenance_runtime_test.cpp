#include "client/app/maintenance_runtime.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <stdlib.h>

#include <fstream>

#include "client/app/native_install.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/sample_launcher.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::CommandResult;

// Real installations of a package whose launcher carries zorvi-maintenance,
// removed through the installed bootstrap and the version's own helpers.
class Maintenance : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    shared = new testing::SamplePackage("1.0.0");
    std::string origin = shared->repository.server->base_url();
    origin.pop_back();
    ASSERT_EQ(shared->build(origin).status, 0);
  }
  static void TearDownTestSuite() { delete shared; }
  void SetUp() override { ::setenv("XDG_DATA_HOME", (dir / "xdg").c_str(), 1); }

  // A fresh installation with user data; gives the folder of its helpers.
  fs::path install() {
    const NativeSetupCallbacks seeding{{}, {}, package_launcher_seeder(shared->package, shared->seal)};
    NativeInstaller::install({shared->package, data, false, false}, shared->seal, seeding);
    fs::create_directories(data / "userdata");
    testing::write_text(data / "userdata/save", "mine");
    reference = LauncherStore(data).fallback_active();
    return LauncherStore(data).payload(reference) / "bin";
  }
  CommandResult bootstrap(std::vector<std::string> words) const {
    words.insert(words.begin(), {data / "native/bootstrap/bin/zorvi-bootstrap", "--data-dir", data});
    return testing::run_command(words);
  }
  void expect_removed_keeping_user_data() const {
    EXPECT_FALSE(fs::exists(data / "native") || fs::exists(data / "launcher"));
    EXPECT_EQ(testing::read_text(data / "userdata/save"), "mine");
  }

  static inline testing::SamplePackage* shared = nullptr;
  testing::TempDir dir;
  fs::path data = fs::canonical(dir.path()) / "Zorvi Data";
  json reference;
};

void flip_byte(const fs::path& path) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekg(4096);
  const char byte = static_cast<char>(file.get() ^ 1);
  file.seekp(4096);
  file.put(byte);
}

// Ends a child whatever way the test leaves.
struct Stopped {
  ChildProcess& child;
  ~Stopped() { child.terminate(250); }
};

// Whether `pid` holds a flock on `path`, as the kernel lists it: a look
// that takes no lock itself, so it cannot get in the holder's way.
bool holds_lock(std::uint64_t pid, const fs::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return false;
  const std::string owner = " " + std::to_string(pid) + " ", inode = ":" + std::to_string(status.st_ino) + " ";
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);)
    if (line.find("FLOCK") != std::string::npos && line.find(owner) != std::string::npos &&
        line.find(inode) != std::string::npos)
      return true;
  return false;
}

TEST_F(Maintenance, TheBootstrapHandsShortcutsAndUninstallsToTheVersionsVerifiedHelper) {
  const fs::path bin = install();
  const CommandResult created = bootstrap({"--json", "self", "shortcut", "create", "--game", "g1"});
  ASSERT_EQ(created.status, 0) << created.err;
  const json shortcut = json::parse(created.out).at("created");
  EXPECT_TRUE(fs::exists(shortcut.get<std::string>()));
  EXPECT_EQ(json::parse(bootstrap({"--json", "self", "shortcut", "remove"}).out)["removed"], json::array({shortcut}));
  flip_byte(bin / "zorvi-maintenance");
  EXPECT_EQ(bootstrap({"self", "uninstall"}).err,
            "zorvi: The maintenance helper is damaged; run the Zorvi installer to repair it\n");
  flip_byte(bin / "zorvi-maintenance");
  const CommandResult removed = bootstrap({"--json", "self", "uninstall"});
  ASSERT_EQ(removed.status, 0) << removed.err;
  EXPECT_EQ(json::parse(removed.out)["kept"], json::array({(data / "userdata").string()}));
  expect_removed_keeping_user_data();
  install();
  EXPECT_EQ(bootstrap({"self", "uninstall", "--remove-data"}).status, 0);
  EXPECT_FALSE(fs::exists(data));

  testing::BootstrapInstall plain;
  plain.seed(testing::SampleRelease(plain.dir.path(), "2.0.0", 0, 0, ""));
  EXPECT_EQ(plain.start({"self", "uninstall"}).err,
            "zorvi: This Zorvi version has no maintenance helper; use the Zorvi installer to uninstall\n");
}

TEST_F(Maintenance, TheWindowedHelperIsHandedOverOnlyOnceItsWindowIsUp) {
  testing::BootstrapInstall silent;
  const testing::SampleRelease hanging(silent.dir.path(), "2.0.0", 0, 0, "bootstrap_stand_in");
  silent.seed(hanging);
  MaintenanceRuntime quiet = MaintenanceRuntime::prepare(silent.store, hanging.reference, "maintenance-gui");
  EXPECT_NO_THROW(quiet.report_ready());  // no ready file to write yet
  const fs::path records = silent.dir / "records";
  fs::create_directories(records);
  ::setenv("ZORVI_STAND_IN_RECORDS", records.c_str(), 1);
  ::setenv("ZORVI_STAND_IN_HOLD", records.c_str(), 1);  // stays until killed
  EXPECT_EQ(testing::outcome([&] { quiet.launch_gui({}, std::chrono::seconds(2)); }),
            "maintenance_startup: The uninstall window did not open");
  ::unsetenv("ZORVI_STAND_IN_HOLD");
  ::unsetenv("ZORVI_STAND_IN_RECORDS");
  const json record = json::parse(testing::read_text(fs::directory_iterator(records)->path()));
  EXPECT_FALSE(testing::pid_exists(record["pid"].get<long>()) || fs::exists(quiet.ready_path()));
  EXPECT_EQ(json({record["environment"]["ZORVI_MAINTENANCE_READY"], record["environment"]["ZORVI_LAUNCHER_HEALTH_NONCE"]}),
            json({quiet.ready_path().string(), ""}));

  install();
  MaintenanceRuntime window = MaintenanceRuntime::prepare(LauncherStore(data), reference, "maintenance-gui");
  ChildProcess helper = window.launch_gui({"--data-dir", data.string()}, std::chrono::seconds(20));
  EXPECT_EQ(helper.wait(), 0);
  expect_removed_keeping_user_data();
}

// The helper waits for a running bootstrap; killed, the removal goes on.
TEST_F(Maintenance, AnUninstallWaitingForARunningBootstrapCompletesOnceItIsKilled) {
  const fs::path bin = install();
  const fs::path image = data / "native/bootstrap/bin/zorvi-bootstrap";
  ChildProcess holder(testing::binary_dir() / "lifetime_holder", {image}, dir.path(), {}, ChildStreams::Separated,
                      ChildEnvironment::Inherited);
  const Stopped holder_stopped{holder};
  ASSERT_TRUE(testing::eventually([&] { return holds_lock(holder.pid(), data / ".native-bootstrap.lock"); }));
  ChildProcess helper(bin / "zorvi-maintenance", {"self", "uninstall", "--data-dir", data}, bin, {},
                      ChildStreams::Separated, ChildEnvironment::Inherited);
  const Stopped helper_stopped{helper};
  ASSERT_TRUE(testing::eventually([&] { return holds_lock(helper.pid(), data / ".zorvi-setup.lock"); }));
  EXPECT_TRUE(!helper.poll() && fs::exists(data / "native/installation.json"));
  ::kill(static_cast<pid_t>(holder.pid()), SIGKILL);
  EXPECT_EQ(helper.wait(), 0);
  expect_removed_keeping_user_data();
}

TEST(MaintenanceRuntime, Refusals) {
  testing::TempDir dir;
  const LauncherStore store(dir / "data", true);
  const auto with_variable = [](const char* name, const char* value, const std::function<void()>& action) {
    ::setenv(name, value, 1);
    const std::string got = testing::outcome(action);
    ::unsetenv(name);
    return got;
  };
  const auto control = [&](const std::vector<std::string>& words) {
    return testing::outcome([&] { native_maintenance_control(dir / "data", words, {}); });
  };
  const auto cli = [&] { run_cli_maintenance(dir / "data", {"self", "uninstall"}, "1.0.0", {}); };
  const std::string uninstall = "usage: Use self uninstall [--remove-data]";
  const std::string shortcut = "usage: Use self shortcut create [--game GAME] or self shortcut remove";
  const struct { std::string got, expected; } rows[] = {
      {testing::outcome([] { maintenance_arguments({"self", "uninstall", "--remove-data", "--remove-data"}, "d"); }), uninstall},
      {control({"self", "shortcut"}), shortcut},
      {control({"--json", "self", "shortcut", "create", "--game"}), shortcut},
      {control({"self", "shortcut", "create", "--game", "no way"}), shortcut},
      {testing::outcome([&] { prepare_console_maintenance(store, json(), [] { return true; }); }), "cancelled: Uninstall cancelled"},
      {testing::outcome([] { require_maintenance_runtime_image("/tmp/zorvi-maintenance-1/bin/zorvi"); }), "maintenance_copy: A temporary maintenance helper cannot start Zorvi"},
      {with_variable("ZORVI_MAINTENANCE_COPY", "/tmp/zorvi-maintenance-1/x", [] { MaintenanceRuntime::attach("maintenance", "1.0.0"); }), "maintenance_copy: Maintenance helper copy path is invalid"},
      {testing::outcome([&] { prepare_gui_maintenance(dir / "data", "1.0.0", {}); }), "maintenance_unavailable: Start the installed Zorvi GUI or use the external installer to review removal"},
      {with_variable("ZORVI_LAUNCHER_HEALTH_NONCE", "x", cli), "maintenance_unavailable: Start native maintenance through the installed bootstrap to release startup ownership"},
      {testing::outcome(cli), "maintenance_unavailable: Installed maintenance needs a managed launcher image; use the external installer"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.got, row.expected);
  EXPECT_EQ(maintenance_arguments({"--json", "self", "uninstall", "--remove-data"}, "d"),
            (std::vector<std::string>{"self", "uninstall", "--data-dir", fs::current_path() / "d", "--remove-data"}));
  EXPECT_TRUE(maintenance_arguments({"self", "status"}, "d").empty() && native_maintenance_control("d", {"list"}, {}).is_null());
}

}  // namespace
}  // namespace zorvi
