#include "client/app/launcher_runtime.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

#include "client/app/launcher_attempts.hpp"
#include "client/platform/files.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;
using testing::ProgramChild;

// A real store whose one version is the probe program three times over: the
// CLI and GUI entry points and a declared crash handler.
struct Installed {
  testing::TempDir dir;
  LauncherStore store{dir / "data", true};
  json reference;
  fs::path payload, guard;
  const std::string data = (dir / "data").native();

  Installed() {
    const std::string probe = testing::read_text(testing::binary_dir() / "runtime_probe");
    testing::write_tree(dir / "t",
                        {{"bin/zorvi", probe, true}, {"bin/zorvi-gui", probe, true}, {"bin/zz-crash", probe, true}});
    testing::pack_tree(dir / "t", dir / "l.tar.zst");
    json release = testing::python_manifest(dir / "t", dir / "l.tar.zst");
    const json crash_handler = {{"path", "bin/zz-crash"}, {"role", "crash-handler"}, {"lease_abi", 1}};
    release.update(testing::launcher_release_fields("1.0.0", json::array({crash_handler})));
    release.update({{"platform", "linux-x86_64"}, {"executable", "bin/zorvi"}});
    reference = store.seed_initial(release.dump(), dir / "l.tar.zst", {});
    payload = store.payload(reference);
    guard = store.launcher_directory() / "leases/versions" / (reference.value("manifest_sha256", "") + ".lock");
  }

  // Starts `image` with the startup variables of a GUI trial of `attempt`, after `changes`.
  std::unique_ptr<ProgramChild> run(const fs::path& image, const std::vector<std::string>& args,
                                    const json& attempt = nullptr,
                                    const std::map<std::string, std::string>& changes = {}) const {
    auto variables = attempt.is_null() ? changes : store.health_environment(attempt, "gui");
    for (const auto& [name, value] : changes) variables[name] = value;
    for (const auto& [name, value] : variables) ::setenv(name.c_str(), value.c_str(), 1);
    auto child = std::make_unique<ProgramChild>(image.native(), args);
    for (const auto& [name, value] : variables) ::unsetenv(name.c_str());
    return child;
  }
};

// Whether another process finds the lock held.
bool busy(const fs::path& lock) {
  return ProgramChild("files_probe", {"hold_lock", lock.native(), "exclusive"}).read_line().starts_with("busy: ");
}

TEST(LauncherRuntime, RefusalsNameTheirCauseAndKeepNoLease) {
  Installed in;
  const json attempt = in.store.begin_candidate();
  const fs::path crash = in.payload / "bin/zz-crash", gui = in.payload / "bin/zorvi-gui",
                 staged = in.store.launcher_directory() / "staging/x/z";
  fs::create_directories(staged.parent_path());
  fs::copy_file(crash, staged);
  fs::create_symlink(crash, in.dir / "link");
  std::string deep = "/";
  for (int level = 0; level < 257; ++level) deep += "d/";
  const auto helper = [&](const fs::path& image, const char* role, const char* build = "1.0.0") {
    return outcome([=] { launcher_helper_guard(image, role, build); });
  };
  const auto launcher = [&](const fs::path& image, const std::map<std::string, std::string>& changes) {
    return in.run(image, {"launcher", "gui", "1.0.0", in.data}, attempt, changes)->read_line();
  };
  const std::pair<std::string, std::string> rows[] = {
      {outcome([&] { managed_version(deep + "z"); }),
       "launcher_identity: Native executable ancestry exceeds its bound"},
      {outcome([&] { managed_version("/d/launcher/versions/" + std::string(64, 'A') + "/z"); }),
       "launcher_state: Launcher manifest identity is invalid"},
      {helper(staged, "crash-handler"),
       "launcher_staging: A staged Zorvi image cannot initialize; start the installed bootstrap"},
      {helper(crash, "updater"), "launcher_helper: Unsupported native helper role"},
      {helper(in.dir / "link", "crash-handler"),
       "launcher_identity: Native helper image must be an ordinary physical path"},
      {helper(crash, "crash-handler", "2.0.0"), "launcher_identity: Native helper has no bounded launcher identity"},
      {helper(gui, "crash-handler"), "launcher_identity: Running helper image differs from its declared native role"},
      {launcher(gui, {{"ZORVI_LAUNCHER_BUILD", "1.0.1"}}),
       "launcher_health: Launcher startup does not match this build, interface or data root"},
      {launcher(in.payload / "bin/zorvi", {}),
       "launcher_identity: Running launcher image differs from its verified native entry point"},
      {launcher(gui, {{"ZORVI_LAUNCHER_HEALTH_NONCE", std::string(32, 'e')}}),
       "launcher_health: Launcher startup is no longer pending or cannot protect its content"},
  };
  for (const auto& [seen, expected] : rows) EXPECT_EQ(seen, expected);
  EXPECT_FALSE(busy(in.guard) || entry_present(in.store.startup_ack_path(attempt)));

  std::string bytes = testing::read_text(crash);  // same size, one byte changed
  bytes[bytes.size() / 2] ^= 1;
  testing::write_text(crash, bytes);
  EXPECT_EQ(helper(crash, "crash-handler"),
            "content_mismatch: Native helper image differs from its verified launcher inventory");

  const auto late = in.run(gui, {"launcher", "gui", "1.0.0", in.data, (in.dir / "gate").native()}, attempt);
  EXPECT_EQ(late->read_line(), "waiting");
  in.store.reject_candidate(attempt, startup_failed);
  testing::write_text(in.dir / "gate", "");
  EXPECT_EQ(late->read_line(), "launcher_health: Launcher startup attempt is no longer pending");
}

// Outside a trial only an image inside the store guards its version, and
// writes nothing. A candidate run as a bootstrap runs it holds both leases
// until it exits, past its runtime object, and reports health the store accepts.
TEST(LauncherRuntime, LeasesLastUntilExitAndOnlyStoredImagesTakeThem) {
  Installed in;
  fs::copy_file(in.payload / "bin/zorvi", in.dir / "zorvi");
  const std::tuple<fs::path, std::vector<std::string>, std::string> rows[] = {
      {in.payload / "bin/zorvi", {"launcher", "cli", "1.0.0", in.data}, "attached"},
      {in.payload / "bin/zz-crash", {"helper", "crash-handler", "1.0.0"}, "attached"},
      {in.dir / "zorvi", {"launcher", "cli", "1.0.0", in.data}, "empty"},
      {in.dir / "zorvi", {"helper", "crash-handler", "1.0.0"}, "empty"},
  };
  for (const auto& [image, args, line] : rows) {
    const auto child = in.run(image, args);  // alive while its lease is looked at
    EXPECT_EQ(child->read_line(), line);
    EXPECT_EQ(busy(in.guard), line == "attached");
  }
  EXPECT_TRUE(fs::is_empty(in.store.launcher_directory() / "health") &&
              fs::is_empty(in.store.launcher_directory() / "leases/attempts"));

  const json attempt = in.store.begin_candidate();
  const auto launcher = in.run(in.payload / "bin/zorvi-gui", {"launcher", "gui", "1.0.0", in.data}, attempt);
  EXPECT_EQ(launcher->read_line(), "attached");  // and no startup variable left for its children
  EXPECT_TRUE(busy(in.store.startup_lease_path(attempt)) && busy(in.guard));
  const json health = read_startup_document(in.store.health_path(attempt));
  in.store.confirm_candidate(attempt, health, health.at("pid").get<std::int64_t>(), "gui");
  EXPECT_EQ(in.store.load()["active"], in.reference);
  launcher->kill(SIGKILL);
  launcher->wait();
  EXPECT_FALSE(busy(in.store.startup_lease_path(attempt)) || busy(in.guard));
}

}  // namespace
}  // namespace zorvi
