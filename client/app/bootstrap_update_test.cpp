#include "client/app/bootstrap_update.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "client/app/native_install.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "tests/support/sample_launcher.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::CommandResult;
using testing::TempDir;

// Installations made by the real installer from a package of a python-tuf
// repository served by nginx, updated by the real zorvi-bootstrap.
class BootstrapUpdate : public ::testing::Test {
protected:
  struct Shared {
    testing::TufRepository repository;
    TempDir dir;
    fs::path package = dir / "package";
    std::string seal;
  };
  static inline Shared* shared = nullptr;

  static void SetUpTestSuite() {
    shared = new Shared;
    testing::SampleBootstrapRelease(shared->repository.dir.path(), "1.0.0").publish(shared->repository);
    testing::SampleRelease(shared->repository.dir.path(), "1.0.0").publish(shared->repository);
    std::string origin = shared->repository.server->base_url();
    origin.pop_back();
    const CommandResult built = testing::run_command(
        {testing::source_dir() / "tools/zorvi-package", "build", shared->repository.repo, shared->package, "--origin",
         origin, "--ca-bundle", shared->repository.server->ca_bundle()});
    ASSERT_EQ(built.status, 0) << built.err;
    shared->seal = built.out.substr(0, 64);
  }
  static void TearDownTestSuite() { delete shared; }

  // A new release, published; the repository takes each one once.
  static testing::SampleBootstrapRelease release(const std::string& build, const std::string& image = "zorvi-bootstrap") {
    testing::SampleBootstrapRelease made(shared->repository.dir.path(), build, image);
    made.publish(shared->repository);
    return made;
  }

  void SetUp() override {
    const NativeSetupCallbacks callbacks{{}, {}, package_launcher_seeder(shared->package, shared->seal)};
    NativeInstaller::install({shared->package, data, false, false}, shared->seal, callbacks);
  }
  std::string stage() const {
    TufClient client = shared->repository.client();
    client.refresh();
    return stage_bootstrap_update(data, client, {});
  }
  CommandResult start(const std::map<std::string, std::string>& extra = {}) const {
    std::vector<std::string> argv{"env"};
    for (const auto& [name, value] : extra) argv.push_back(name + "=" + value);
    argv.insert(argv.end(), {bootstrap.string(), "--data-dir", data.string(), "--gui"});
    return testing::run_command(argv);
  }
  // The build the installed tree holds, proved whole against its record,
  // with nothing of an update left beside it.
  std::string installed_build() const {
    const auto manifest = SnapshotManifest::parse(json::parse(testing::read_text(data / "native/bootstrap.json")));
    EXPECT_NO_THROW(verify_snapshot_tree(manifest, data / "native/bootstrap", {}));
    EXPECT_FALSE(bootstrap_update_pending(data));
    EXPECT_FALSE(fs::exists(data / "native/bootstrap-update"));
    return manifest.build_id;
  }

  TempDir dir;
  fs::path data = fs::canonical(dir.path()) / "Zorvi Data";
  fs::path bootstrap = data / "native/bootstrap/bin/zorvi-bootstrap";
};

TEST_F(BootstrapUpdate, ANewReleaseIsStagedThenAppliedByTheNextStartWhichProvesItRuns) {
  release("2.0.0");
  EXPECT_EQ(stage(), "staged");
  EXPECT_TRUE(bootstrap_update_pending(data));
  EXPECT_EQ(stage(), "pending");
  // A running bootstrap holds the lifetime lock: the update waits.
  {
    const NativeFileLock running(data / ".native-bootstrap.lock", false, NativeLockSharing::exclusive_install,
                                 LockMode::shared);
    EXPECT_NO_THROW(apply_pending_bootstrap_update(bootstrap));
    EXPECT_TRUE(bootstrap_update_pending(data));
  }
  const CommandResult applied = start();
  ASSERT_EQ(applied.status, 0) << applied.err;
  EXPECT_EQ(installed_build(), "2.0.0");
  EXPECT_FALSE(fs::exists(data / "native/bootstrap/build-1.0.0.old"));
  EXPECT_EQ(stage(), "current");
  EXPECT_EQ(start().status, 0);
  // The check answers before the command line or the data folder is looked at.
  const CommandResult check =
      testing::run_command({"env", "ZORVI_BOOTSTRAP_START_CHECK=1", bootstrap.string(), "--no-such-option"});
  EXPECT_EQ(check.status, 0);
  EXPECT_EQ(check.out + check.err, "");
}

TEST_F(BootstrapUpdate, AnImageThatFailsItsStartCheckIsUndoneAndRejected) {
  const testing::SampleBootstrapRelease unstartable = release("3.0.0", "unstartable_bootstrap");
  EXPECT_EQ(stage(), "staged");
  const CommandResult first = start();
  EXPECT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(installed_build(), "1.0.0");
  EXPECT_EQ(testing::read_text(data / "native/bootstrap-update.rejected"),
            digest(unstartable.manifest, "sha256"));
  EXPECT_EQ(stage(), "rejected");
  EXPECT_EQ(start().status, 0);
  EXPECT_EQ(installed_build(), "1.0.0");
}

TEST_F(BootstrapUpdate, RefusalsLeaveTheInstalledTreeAsItWas) {
  const json good = json::parse(testing::SampleBootstrapRelease(dir.path(), "2.1.0").manifest);
  const auto with = [&](const std::function<void(json&)>& change) {
    json document = good;
    change(document);
    return [text = document.dump()] { parse_bootstrap_update(text); };
  };
  const fs::path big = dir / "big.json", misnamed = dir / "misnamed.json";
  testing::write_text(big, std::string(524289, ' '));
  json other = good;
  other["archive"]["target"] = "bootstrap-3.0.0.tar.zst";
  testing::write_text(misnamed, other.dump());
  const auto published = [&](const fs::path& manifest) {
    return [&, manifest] {
      shared->repository.run("target " + bootstrap_manifest_target() + " @" + manifest.string());
      stage();
    };
  };
  const std::pair<std::function<void()>, std::string> rows[] = {
      {with([](json& d) { d["runtime_lease_abi"] = 2; }), "launcher_incompatible: Bootstrap updates require the current native lifetime contract"},
      {with([](json& d) { d.erase("application_schema"); }), "launcher_incompatible: Bootstrap update data contract is missing"},
      {with([](json& d) { d["application_schema"]["maximum"] = 2; }), "launcher_incompatible: Bootstrap update data contract is unsupported"},
      {with([](json& d) { d["platform"] = "windows-x86_64"; }), "launcher_incompatible: Bootstrap update targets another platform"},
      {with([](json& d) { d["archive"]["length"] = (1 << 30) + 1; }), "size_limit: Bootstrap update exceeds its size limit"},
      {[&] { TufClient client = shared->repository.client(); stage_bootstrap_update(dir / "none", client, {}); }, "not_installed: Bootstrap updates need an installed Zorvi"},
      {published(big), "size_limit: Bootstrap update manifest exceeds 512 KiB"},
      {published(misnamed), "content_mismatch: Bootstrap archive is not authorized with its declared length and hash"},
  };
  for (const auto& [run, expected] : rows) EXPECT_EQ(testing::outcome(run), expected);

  release("2.2.0");
  ASSERT_EQ(stage(), "staged");
  std::ofstream(data / "native/bootstrap-update/build-2.2.0", std::ios::app) << "x";
  EXPECT_EQ(testing::outcome([&] { apply_pending_bootstrap_update(bootstrap); }),
            "content_mismatch: Staged bootstrap file changed: build-2.2.0");
  EXPECT_TRUE(bootstrap_update_pending(data));
  const auto manifest = SnapshotManifest::parse(json::parse(testing::read_text(data / "native/bootstrap.json")));
  EXPECT_NO_THROW(verify_snapshot_tree(manifest, data / "native/bootstrap", {}));
}

// Kills the staging and the apply after each of their durable steps (their
// test builds count every flush, rename and link): the next start of the
// installed bootstrap always runs a whole tree, old or new, and a staging
// after a killed one still ends with the new release in place.
// ZORVI_CRASH_ROUNDS repeats the campaign.
TEST_F(BootstrapUpdate, AKillAtEveryDurableStepLeavesAWholeBootstrap) {
  const fs::path saved = dir / "saved", staged = dir / "staged", steps = dir / "steps";
  const auto entry = [&](long kill_at, std::vector<std::string> words) {
    words.insert(words.begin(), {"env", "ZORVI_TEST_KILL_AT_STEP=" + std::to_string(kill_at),
                                 "ZORVI_TEST_STEP_COUNT=" + steps.string(),
                                 (testing::binary_dir() / "bootstrap_update_entry").string()});
    return testing::run_command(words);
  };
  const auto stage_entry = [&](long kill_at) {
    return entry(kill_at, {"stage", (data / "trust").string(), shared->repository.server->base_url(),
                           shared->repository.server->ca_bundle().string(), data.string()});
  };
  const auto apply_entry = [&](long kill_at) { return entry(kill_at, {"apply", bootstrap.string()}); };
  const auto copy = [](const fs::path& from, const fs::path& to) {
    fs::remove_all(to);
    ASSERT_EQ(testing::run_command({"cp", "-a", from.string(), to.string()}).status, 0);
  };
  const auto road = [&](const CommandResult& full) {
    EXPECT_EQ(full.status, 0) << full.out;
    return std::stol(testing::read_text(steps));
  };
  release("4.0.0");
  copy(data, saved);
  const char* rounds = std::getenv("ZORVI_CRASH_ROUNDS");
  for (int round = 0; round < (rounds ? std::atoi(rounds) : 1); ++round) {
    copy(saved, data);
    const long staging = road(stage_entry(0));
    copy(data, staged);
    const long applying = road(apply_entry(0));
    ASSERT_EQ(installed_build(), "4.0.0");
    for (long step = 1; step < staging; ++step) {
      SCOPED_TRACE("staging, step " + std::to_string(step));
      copy(saved, data);
      ASSERT_EQ(stage_entry(step).status, 128 + 9);
      ASSERT_EQ(start().status, 0);
      EXPECT_NE(installed_build(), "");
      EXPECT_EQ(stage_entry(0).out.find(": "), std::string::npos);
      ASSERT_EQ(start().status, 0);
      EXPECT_EQ(installed_build(), "4.0.0");
    }
    for (long step = 1; step < applying; ++step) {
      SCOPED_TRACE("apply, step " + std::to_string(step));
      copy(staged, data);
      ASSERT_EQ(apply_entry(step).status, 128 + 9);
      const CommandResult next = start();
      ASSERT_EQ(next.status, 0) << next.err;
      EXPECT_EQ(installed_build(), "4.0.0");
    }
  }
}

}  // namespace
}  // namespace zorvi
