#include "client/app/bootstrap_update.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "client/app/native_install.hpp"
#include "client/domain/snapshot.hpp"
#include "tests/support/sample_launcher.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::CommandResult;
using testing::run_command;

// Installations made by the real installer from a package of a python-tuf
// repository served by nginx, updated by the real zorvi-bootstrap.
struct BootstrapUpdate : ::testing::Test {
  static inline testing::SamplePackage* shared = nullptr;
  static void SetUpTestSuite() {
    shared = new testing::SamplePackage("1.0.0");
    const std::string origin = shared->repository.server->base_url();
    ASSERT_EQ(shared->build(origin.substr(0, origin.size() - 1)).status, 0);
  }
  static void TearDownTestSuite() { delete shared; }
  // Published at once; the repository takes each release once.
  static std::string release(const std::string& build, const std::string& image = "zorvi-bootstrap") {
    const testing::SampleBootstrapRelease made(shared->repository.dir.path(), build, image);
    made.publish(shared->repository);
    return made.manifest;
  }

  void SetUp() override {
    const NativeSetupCallbacks callbacks{{}, {}, package_launcher_seeder(shared->package, shared->seal)};
    NativeInstaller::install({shared->package, data, false, false}, shared->seal, callbacks);
  }
  std::string stage(const fs::path& folder) const {
    TufClient client = shared->repository.client();
    client.refresh();
    return stage_bootstrap_update(folder, client, {});
  }
  int start() const { return run_command({bootstrap, "--data-dir", data, "--gui"}).status; }
  // Starts the installed bootstrap; the build it leaves installed.
  std::string started() const { return start() == 0 ? installed() : "no start"; }
  // The build of the installed tree, proved whole, with no update beside it.
  std::string installed() const {
    const auto manifest = SnapshotManifest::parse(json::parse(testing::read_text(data / "native/bootstrap.json")));
    EXPECT_NO_THROW(verify_snapshot_tree(manifest, data / "native/bootstrap", {}));
    EXPECT_FALSE(bootstrap_update_pending(data) || fs::exists(data / "native/bootstrap-update"));
    return manifest.build_id;
  }

  testing::TempDir dir;
  fs::path data = fs::canonical(dir.path()) / "Zorvi Data";
  fs::path bootstrap = data / "native/bootstrap/bin/zorvi-bootstrap";
};

TEST_F(BootstrapUpdate, ANewImageReplacesTheOldOnlyWhenItProvesItStarts) {
  const std::string unstartable = release("3.0.0", "unstartable_bootstrap");
  EXPECT_EQ(stage(data), "staged");
  EXPECT_EQ(started(), "1.0.0");  // the old image undoes the update and runs on
  EXPECT_EQ(testing::read_text(data / "native/bootstrap-update.rejected"), digest(unstartable, "sha256"));
  EXPECT_EQ(stage(data), "rejected");
  release("3.1.0-hang", "unstartable_bootstrap");
  EXPECT_EQ(stage(data), "staged");
  EXPECT_EQ(started(), "1.0.0");  // a silent image is ended at the 10 s limit and undone alike

  release("2.0.0");
  EXPECT_EQ(stage(data), "staged");
  {  // a running bootstrap holds the lifetime lock: the update waits
    const NativeFileLock running(data / ".native-bootstrap.lock", false, NativeLockSharing::exclusive_install,
                                 LockMode::shared);
    apply_pending_bootstrap_update(bootstrap);
    EXPECT_EQ(stage(data), "pending");
  }
  EXPECT_EQ(started(), "2.0.0");  // build-1.0.0 went aside as .old, and then away
  EXPECT_EQ(stage(data), "current");
  EXPECT_EQ(run_command({"env", "ZORVI_BOOTSTRAP_START_CHECK=1", bootstrap.string(), "--bad"}).status, 0);
}

TEST_F(BootstrapUpdate, RefusalsLeaveTheInstalledTreeAsItWas) {
  const json good = json::parse(testing::SampleBootstrapRelease(dir.path(), "2.1.0").manifest);
  const auto with = [&](const std::function<void(json&)>& change) {
    json document = good;
    change(document);
    return [text = document.dump()] { parse_bootstrap_update(text); };
  };
  const auto published = [&](const std::string& bytes) {
    const fs::path file = dir / std::to_string(bytes.size());
    testing::write_text(file, bytes);
    return [&, file] {
      shared->repository.run("target " + bootstrap_manifest_target() + " @" + file.string());
      stage(data);
    };
  };
  // Setup records that status cannot read, the first at the bound of what it reads, the last one past it.
  const auto status_of = [&](const std::string& record) {
    return [&, record] {
      testing::write_text(data / "native/setup-status.json", record);
      NativeInstaller::status(data);
    };
  };
  const std::string unknown = R"({"schema_version": 2})";
  json other = good;
  other["archive"]["target"] = "bootstrap-1.0.0.tar.zst";  // signed, with another length and hash
  const std::pair<std::function<void()>, std::string> rows[] = {
      {with([](json& d) { d["runtime_lease_abi"] = 2; }),
       "launcher_incompatible: Bootstrap updates require the current native lifetime contract"},
      {with([](json& d) { d.erase("application_schema"); }),
       "launcher_incompatible: Bootstrap update data contract is missing"},
      {with([](json& d) { d["application_schema"]["maximum"] = 2; }),
       "launcher_incompatible: Bootstrap update data contract is unsupported"},
      {with([](json& d) { d["platform"] = "windows-x86_64"; }),
       "launcher_incompatible: Bootstrap update targets another platform"},
      {with([](json& d) { d["archive"]["length"] = (1 << 30) + 1; }),
       "size_limit: Bootstrap update exceeds its size limit"},
      {[&] { stage(dir / "none"); }, "not_installed: Bootstrap updates need an installed Zorvi"},
      {published(std::string(524289, ' ')), "size_limit: Bootstrap update manifest exceeds 512 KiB"},
      {published(other.dump()),
       "content_mismatch: Bootstrap archive is not authorized with its declared length and hash"},
      {status_of(unknown + std::string(65536 - unknown.size(), ' ')),
       "unsupported_schema: Unsupported setup status record"},
      {status_of(R"({"schema_version": 1, "kind": "zorvi-setup-status"})"),
       "unsupported_schema: Setup status record is malformed: " + (data / "native/setup-status.json").string()},
      {status_of(std::string(65537, ' ')), "size_limit: File exceeds read limit"},
  };
  for (const auto& [run, expected] : rows) EXPECT_EQ(testing::outcome(run), expected);
  release("2.2.0");
  ASSERT_EQ(stage(data), "staged");
  std::ofstream(data / "native/bootstrap-update/build-2.2.0", std::ios::app) << "x";
  EXPECT_EQ(testing::outcome([&] { apply_pending_bootstrap_update(bootstrap); }),
            "content_mismatch: Staged bootstrap file changed: build-2.2.0");
  fs::remove_all(data / "native/bootstrap-update");
  fs::remove(data / "native/bootstrap-update.json");
  EXPECT_EQ(installed(), "1.0.0");
}

// Kills the staging and the apply after each of their durable steps: the
// next start always runs a whole tree, and the update still lands.
// ZORVI_CRASH_ROUNDS repeats the campaign.
TEST_F(BootstrapUpdate, AKillAtEveryDurableStepLeavesAWholeBootstrap) {
  const fs::path saved = dir / "saved", staged = dir / "staged", steps = dir / "steps";
  // Runs the crash-test build of the staging (or the apply) from `from`, killed after step `kill_at` (never at 0).
  const auto entry = [&](const fs::path& from, bool apply, long kill_at) {
    if (!from.empty()) fs::remove_all(data), run_command({"cp", "-a", from, data});
    const testing::HttpsServer& server = *shared->repository.server;
    std::vector<std::string> words{"env", "ZORVI_TEST_KILL_AT_STEP=" + std::to_string(kill_at),
                                   "ZORVI_TEST_STEP_COUNT=" + steps.string(),
                                   testing::binary_dir() / "bootstrap_update_entry"};
    if (apply) words.insert(words.end(), {"apply", bootstrap});
    else words.insert(words.end(), {"stage", data / "trust", server.base_url(), server.ca_bundle(), data});
    return run_command(words).status == 0 ? std::atol(testing::read_text(steps).c_str()) : -1;
  };
  release("4.0.0");
  run_command({"cp", "-a", data, saved});
  for (int round = 0; round < (std::getenv("ZORVI_CRASH_ROUNDS") ? std::atoi(std::getenv("ZORVI_CRASH_ROUNDS")) : 1);
       ++round) {
    const long staging = entry(saved, false, 0);
    fs::remove_all(staged);
    run_command({"cp", "-a", data, staged});
    const long applying = entry({}, true, 0);
    ASSERT_TRUE(installed() == "4.0.0" && staging > 0 && applying > 0);
    // Every name the apply changes is flushed in its folder before it ends,
    // but for the removal of the old files, which the next start retries.
    fs::remove_all(data), run_command({"cp", "-a", staged, data});
    const auto traced = testing::run_traced({testing::binary_dir() / "bootstrap_update_entry", "apply", bootstrap},
                                            "rename,renameat,renameat2,unlink,unlinkat,fsync");
    ASSERT_EQ(traced.result.status, 0) << traced.result.out;
    auto unflushed = testing::unflushed_name_changes(traced.calls, data);
    std::erase_if(unflushed, [](const std::string& call) { return call.find(".old\")") != std::string::npos; });
    EXPECT_EQ(unflushed, std::vector<std::string>{});
    for (long step = 1; step < staging + applying; ++step) {
      SCOPED_TRACE("step " + std::to_string(step));
      const bool apply = step >= staging;
      ASSERT_EQ(entry(apply ? staged : saved, apply, apply ? step - staging + 1 : step), -1);
      ASSERT_NE(started(), "no start");  // a whole tree, old or new
      EXPECT_TRUE(entry({}, false, 0) >= 0 && started() == "4.0.0");
    }
  }
}

}  // namespace
}  // namespace zorvi
