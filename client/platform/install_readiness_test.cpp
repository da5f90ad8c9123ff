#include "client/platform/install_readiness.hpp"

#include <set>

#include <gtest/gtest.h>

#include "client/domain/crypto.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

// One game, packed by tar and zstd, installed under `home` by tests/programs/install_prepare.
struct InstallReadiness : ::testing::Test {
  void SetUp() override {
    testing::write_tree(
        dir / "tree",
        {{"bin/game", "#!/bin/sh\n", true}, {"data/levels/one", std::string(70000, 'l')}, {"data/readme.txt", "hi"}});
    testing::pack_tree(dir / "tree", archive);
    testing::write_text(manifest_file, (manifest = testing::parsed_manifest(dir / "tree", archive)).document.dump());
  }
  testing::CommandResult run(const std::string& archive_or_cleanup, const std::string& mode, long kill_at = 0) const {
    return testing::run_command({"env", "ZORVI_TEST_KILL_AT_STEP=" + std::to_string(kill_at),
                                 "ZORVI_TEST_STEP_COUNT=" + (dir / "steps").string(), program, manifest_file,
                                 archive_or_cleanup, home, mode});
  }
  // Runs the install to `stage`, changes it by `setup`, and cleans up with
  // `mounts` made in the cleanup's own mount namespace; the refusal raised
  // from the cleanup's output must have left everything as it was.
  void cleanup_after(const char* stage, const std::string& setup, const std::string& mounts = "true",
                     const char* mode = "") const {
    fs::remove_all(home);
    ASSERT_EQ(run(archive, stage).status, 0);
    testing::shell("cd '" + home.string() + "' && " + setup);
    const std::string before = testing::tree_state(home),
                      out = testing::run_in_private_mounts("cd '" + home.string() + "' && " + mounts + " && '" +
                                                           program.string() + "' '" + manifest_file.string() +
                                                           "' cleanup '" + home.string() + "' '" + mode + "'")
                                .out;
    EXPECT_EQ(testing::tree_state(home), before);
    if (const std::size_t colon = out.find(": "); colon != std::string::npos)
      throw Error(out.substr(0, colon), out.substr(colon + 2, out.size() - colon - 3));
  }
  testing::TempDir dir;
  SnapshotManifest manifest;
  fs::path archive = dir / "game.tar.zst", manifest_file = dir / "game.json", home = dir / "home",
           staging = home / "staging/1.0.0", destination = home / "versions/1.0.0",
           program = testing::binary_dir() / "install_prepare";
};

// Kills the install after each durable step, and the cleanup after it at
// another: the next cleanup removes what is provably the install's and the
// rerun installs. ZORVI_CRASH_ROUNDS repeats the campaign.
TEST_F(InstallReadiness, AKillAtEveryDurableStepIsCleanedUpAndTheRerunInstalls) {
  ASSERT_EQ(run(archive, "").out, "none\nactive\n");
  const long total = std::stol(testing::read_text(dir / "steps"));
  RecordProperty("install_steps", static_cast<int>(total));
  const char* rounds = std::getenv("ZORVI_CRASH_ROUNDS");
  std::set<std::string> states;  // which of preparation, ready and destination a kill left
  for (long round = 0; round < (rounds ? std::atol(rounds) : 1); ++round)
    for (long kill_at = 1; kill_at <= total; ++kill_at) {
      SCOPED_TRACE("round " + std::to_string(round) + ", killed after step " + std::to_string(kill_at));
      fs::remove_all(home);
      ASSERT_EQ(run(archive, "", kill_at).status, 137);
      states.insert(std::to_string(entry_present(home / "operation/preparation.json")) +
                    std::to_string(entry_present(home / "operation/ready.json")) +
                    std::to_string(entry_present(destination)));
      const auto cleanup = [&] {
        const auto first = run("cleanup", "", 1 + (kill_at + round) % 4);
        return first.status == 137 ? run("cleanup", "") : first;
      };
      testing::CommandResult cleaned = cleanup();
      if (cleaned.out == "allocation_changed: Unrecorded preparation root was preserved\n") {
        states.insert(fs::remove(staging)
                          ? "unrecorded"
                          : "unrecorded root missing");  // empty and provably nobody's: the user takes it
        cleaned = cleanup();
      }
      ASSERT_EQ(cleaned.status, 0) << cleaned.out;
      EXPECT_FALSE(entry_present(staging) || entry_present(home / "operation"));
      ASSERT_EQ(run(archive, "").out, "none\nactive\n");
      verify_snapshot_tree(manifest, destination, {});
    }
  EXPECT_EQ(states, (std::set<std::string>{"000", "100", "110", "111", "011", "001", "unrecorded"}));
}

// A root that an earlier, killed cleanup already removed may not be durably
// gone: its folder is flushed before the record that names it goes.
TEST_F(InstallReadiness, ACleanupFlushesTheFolderOfAGoneRootBeforeItsRecordGoes) {
  ASSERT_EQ(run(archive, "prepared").status, 0);
  fs::remove_all(staging);
  const auto traced = testing::run_traced({program, manifest_file, "cleanup", home, ""}, "unlink,unlinkat,fsync");
  EXPECT_EQ(traced.result.out, "prepared\n");
  EXPECT_TRUE(testing::flushed_between(traced.calls, fs::canonical(staging.parent_path()), "", "preparation.json"));
}

// One row per refusal: of the two documents, and of the cleanup of a changed tree.
TEST_F(InstallReadiness, RefusalsPreserveWhatTheyCannotProve) {
  const SnapshotManifest small = testing::manifest_of_lengths({{"bin/game", 4}});
  const json reference = {{"version", "1.0.0"},
                          {"build_id", "b1"},
                          {"manifest_ref", digest(small.document.dump(), "sha256")},
                          {"manifest_target", "game.json"}};
  const json preparation = make_install_preparation(small, reference, dir / "versions"),
             recorded = record_install_preparation(preparation, {1, 2});
  const auto changed = [](json document, const char* pointer, const json& value) {
    return document[json::json_pointer(pointer)] = value, document;
  };
  const json ready = changed(recorded, "/kind", "zorvi-install-ready");
  const auto as = [](const json& document, bool is_ready) {
    return [=] { is_ready ? validate_install_ready(document) : validate_install_preparation(document, nullptr); };
  };
  const std::string p = "install_preparation_state: ", r = "install_ready_state: ";
  for (const auto& [call, expected] : std::vector<std::pair<std::function<void()>, std::string>>{
           {as(json::array(), false), p + "Installation ownership has no known schema"},
           {as(changed(ready, "/schema_version", 2), true),
            "unsupported_schema: Unknown installation ownership schema was preserved"},
           {as(changed(ready, "/sixth", 1), true), r + "Unknown installation ownership contract was preserved"},
           {as(changed(ready, "/staging_identity", nullptr), true), r + "Invalid prepared directory identity"},
           {as(changed(preparation, "/versions_path", "/a/../b"), false),
            p + "Prepared storage path is not absolute and normalized"},
           {as(changed(preparation, "/reference/build_id", "B"), false),
            p + "Installation ownership reference is malformed"},
           {as(changed(ready, "/reference/manifest_ref", std::string(64, 'A')), true),
            r + "Installation ownership needs an exact manifest digest"},
           {as(changed(ready, "/reference/manifest_target", "../game.json"), true),
            "size_limit: Installation ownership exceeds its bounded format"},
           {as(changed(preparation, "/versions_path", "/\xff"), false),
            p + "Malformed installation ownership was preserved"},
           {[] { parse_install_document("{\"schema_version\": 1,", true); },
            r + "Malformed installation ownership was preserved"},
           {[&] { validate_install_preparation(recorded, changed(ready, "/staging_identity/1", 3)); },
            p + "Readiness differs from recorded preparation ownership"},
           {[&] { cleanup_after("prepared", "ln staging/1.0.0/bin/game linked"); },
            "unexpected_file: Prepared cleanup preserves unmanaged, linked or oversized files"},
           {[&] { cleanup_after("prepared", "mv staging/1.0.0 moved && cp -a moved staging/1.0.0"); },
            "allocation_changed: Prepared directory identity changed; preserve its replacement"},
           {[&] { cleanup_after("prepared", "true", "mount -t tmpfs tmpfs staging && mkdir staging/1.0.0"); },
            "allocation_changed: Prepared storage volume changed"},
           {[&] { cleanup_after("ready", "cp -a staging/1.0.0 versions && rm -r staging/1.0.0", "true", "discard"); },
            "allocation_changed: Activation directory identity changed; preserve its replacement"}})
    EXPECT_EQ(testing::outcome(call), expected);
}

}  // namespace
}  // namespace zorvi
