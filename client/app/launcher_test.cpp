#include "client/app/launcher.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <thread>
#include <typeinfo>

#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/snapshot_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;
using testing::TempDir;

struct Version {
  std::string bytes;
  fs::path archive;
  json reference;
};

// A real signed-form launcher release of a real packed tree.
Version make_version(const TempDir& dir, const std::string& build, const std::string& platform = "linux-x86_64") {
  const fs::path tree = dir / ("tree-" + build);
  testing::write_tree(tree, {{"bin/zorvi", "cli " + build, true}, {"bin/zorvi-gui", "gui", true}, {"share/a", "a"}});
  Version version{"", dir / (build + ".tar.zst"), nullptr};
  testing::pack_tree(tree, version.archive);
  json document = testing::python_manifest(tree, version.archive);
  document.update({{"kind", "zorvi-launcher-release"}, {"build_id", build}, {"platform", platform},
                   {"bootstrap_abi", 1}, {"health_abi", 1}, {"application_schema", {{"minimum", 1}, {"maximum", 1}}},
                   {"runtime_lease_abi", 2}, {"staging_abi", 1}, {"console_interrupt_abi", 1},
                   {"gui_executable", "bin/zorvi-gui"}, {"runtime_helpers", json::array()}});
  version.bytes = document.dump();
  version.reference = launcher_reference(digest(version.bytes, "sha256"), build);
  return version;
}

// What a finished staging leaves: the manifest and the expanded tree.
void place_version(const LauncherStore& store, const Version& version) {
  const std::string sha = version.reference["manifest_sha256"];
  atomic_create(store.launcher_directory() / "manifests" / (sha + ".json"), version.bytes);
  extract_snapshot(LauncherManifest::parse(json::parse(version.bytes)).snapshot, version.archive,
                   store.payload(version.reference), {}, nullptr);
}

TEST(LauncherStore, SeedsTheFirstVersionAsCandidateOfANormalizedRoot) {
  TempDir dir;
  const Version version = make_version(dir, "1.0.0");
  LauncherStore store(dir / "x/../data/", true);
  EXPECT_EQ(store.root(), fs::canonical(dir.path()) / "data");
  EXPECT_EQ(store.status()["installed"], false);
  EXPECT_EQ(store.seed_initial(version.bytes, version.archive, {}), version.reference);

  const LauncherStore reopened = LauncherStore::existing(dir / "data");
  const json state = reopened.status();
  EXPECT_EQ(state["generation"], 1);
  EXPECT_EQ(state["candidate"], version.reference);
  EXPECT_EQ(state["active"], nullptr);
  EXPECT_EQ(state["installed"], false);
  const LauncherManifest manifest = reopened.manifest(version.reference);
  verify_snapshot_tree(manifest.snapshot, reopened.payload(version.reference), {});
}

TEST(LauncherStore, FailuresChangeNoStoredState) {
  TempDir dir;
  const Version version = make_version(dir, "1.0.0");
  const Version foreign = make_version(dir, "2.0.0", "macos-aarch64");
  const LauncherStore store(dir / "data", true);
  const json seeded = store.seed_initial(version.bytes, version.archive, {});
  const LauncherStore fresh(dir / "fresh", true);
  const fs::path state_file = store.launcher_directory() / "installation.json";
  const json base = store.load();
  const auto patched = [&](const json& patch) {
    json state = base;
    state.update(patch);
    return state;
  };
  json missing_key = base;
  missing_key.erase("rollback");
  const json attempt = {{"nonce", std::string(32, 'a')}, {"reference", seeded}};
  const json tampered = launcher_reference(digest("stored", "sha256"), "1.0.0");
  testing::write_text(store.launcher_directory() / "manifests" / (tampered["manifest_sha256"].get<std::string>() + ".json"), "changed");
  const auto load = [&] { store.load(); };
  const auto save = [&](const json& patch) { return [&, patch] { json state = patched(patch); store.save(state); }; };
  const std::string malformed = "launcher_state: Launcher installation record is malformed; it was preserved";
  const std::string identity = "launcher_state: Launcher manifest identity is invalid";
  const std::string contradictory = "launcher_state: Launcher candidate/startup state is contradictory";
  const std::string unknown = "unsupported_schema: Unknown launcher state was preserved";
  const struct {
    json stored;
    std::function<void()> call;
    std::string expected;
  } rows[] = {
      {patched({{"schema_version", 2}}), load, unknown},
      {patched({{"format", "zorvi-launcher-store-v2"}}), load, unknown},
      {patched({{"generation", 0}}), load, malformed},
      {missing_key, load, malformed},
      {patched({{"failed_candidate", {{"reference", seeded}}}}), load, malformed},
      {patched({{"active", launcher_reference(std::string(64, 'A'), "b")}}), load, identity},
      {patched({{"rollback", launcher_reference(std::string(64, 'a'), "B")}}), load, identity},
      {patched({{"candidate", nullptr}, {"attempt", {{"nonce", "a1"}, {"reference", seeded}}}}), load,
       "launcher_state: Launcher startup identity is invalid"},
      {patched({{"attempt", attempt}}), load, contradictory},
      {patched({{"candidate", nullptr}, {"attempt", {{"nonce", std::string(32, 'a')}, {"reference", nullptr}}}}), load,
       contradictory},
      {base, save({{"generation", UINT64_MAX}}), "launcher_state: Launcher state generation is exhausted"},
      {base, save({{"failed_candidate", {{"reference", seeded}, {"problem", std::string(32768, 'x')}}}}),
       "size_limit: Launcher state exceeds its durable bound"},
      {base, [&] { store.payload(nullptr); }, "launcher_missing: No working launcher is installed"},
      {base, [&] { store.manifest(nullptr); }, "launcher_missing: Install a verified launcher first"},
      {base, [&] { store.manifest(tampered); }, "content_mismatch: Stored launcher manifest changed"},
      {base, [&] { store.manifest(launcher_reference(seeded["manifest_sha256"], "1.0.1")); },
       "launcher_state: Launcher identity/platform differs from its local reference"},
      {base, [&] { store.seed_initial(version.bytes, version.archive, {}); },
       "already_installed: Initial launcher seeding requires a new owned profile"},
      {base, [&] { fresh.seed_initial(foreign.bytes, foreign.archive, {}); },
       "launcher_incompatible: Initial launcher targets another native platform"},
      {base, [&] { fresh.fallback_active(); }, "launcher_missing: No installed Zorvi version could be started"},
      {base, [&] { LauncherStore::existing(dir.path()); }, "unsafe_path: Cannot inspect prepared directory identity"},
  };
  for (const auto& row : rows) {
    const std::string bytes = row.stored.dump();
    atomic_write(state_file, bytes);
    EXPECT_EQ(outcome(row.call), row.expected) << bytes;
    EXPECT_EQ(testing::read_text(state_file), bytes);
    if (row.call.target_type() == typeid(load)) {
      EXPECT_FALSE(store.selection()) << bytes;
    }
  }
  EXPECT_EQ(testing::caught([&] { fresh.fallback_active(); }).details, std::vector<std::string>{"self status"});
  fs::remove(state_file);
  fs::create_directory(state_file);
  EXPECT_EQ(outcome([&] { store.selection(); }), "unsafe_path: Expected an ordinary file: " + state_file.native());
}

TEST(LauncherStore, FallbackTakesTheNewestUsableVersionWithinItsBound) {
  TempDir dir;
  const LauncherStore store(dir / "data", true);
  const Version first = make_version(dir, "1.0.0");
  const Version second = make_version(dir, "1.0.1");
  place_version(store, first);  // a seeding interrupted before its state was saved
  EXPECT_EQ(outcome([&] { store.seed_initial(first.bytes, first.archive, {}); }),
            "already_installed: Initial launcher seeding requires a new owned profile");
  place_version(store, second);
  const fs::path versions = store.launcher_directory() / "versions";
  const auto now = fs::file_time_type::clock::now();
  fs::last_write_time(store.payload(first.reference), now - std::chrono::hours(1));
  fs::last_write_time(store.payload(second.reference), now - std::chrono::hours(2));
  EXPECT_EQ(store.fallback_active(), first.reference);

  // Newer entries that are not usable versions are passed over.
  const std::string other(64, 'c');
  fs::create_directory_symlink(store.payload(second.reference), versions / std::string(64, 'b'));
  fs::create_directory(versions / other);
  testing::write_text(store.launcher_directory() / "manifests" / (other + ".json"), first.bytes);
  fs::create_directory(versions / "short");
  EXPECT_EQ(store.fallback_active(), first.reference);

  fs::last_write_time(store.payload(second.reference), now - std::chrono::hours(1));
  json seen_first;
  for (const auto& entry : fs::directory_iterator(versions)) {
    if (seen_first.is_null() && entry.path() == store.payload(first.reference)) seen_first = first.reference;
    if (seen_first.is_null() && entry.path() == store.payload(second.reference)) seen_first = second.reference;
  }
  EXPECT_EQ(store.fallback_active(), seen_first);

  for (int i = 5; i < 64; ++i) fs::create_directory(versions / ("junk-" + std::to_string(i)));
  EXPECT_EQ(store.fallback_active(), seen_first);
  fs::create_directory(versions / "junk-64");
  EXPECT_EQ(outcome([&] { store.fallback_active(); }),
            "launcher_state: Too many launcher versions to choose a fallback");
}

TEST(LauncherStore, OwnerRetriesUntilTheHolderLeaves) {
  TempDir dir;
  const LauncherStore store(dir / "data", true);
  testing::ProgramChild holder("files_probe", {"hold_lock", (store.launcher_directory() / "bootstrap.lock").native(), "exclusive"});
  ASSERT_EQ(holder.read_line(), "locked");
  EXPECT_EQ(outcome([&] { store.owner(); }), "busy: Another Zorvi operation is using this state");
  std::thread leave([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    holder.kill(SIGKILL);
  });
  EXPECT_EQ(outcome([&] { store.owner(); }), "ok");
  leave.join();
}

TEST(LauncherStore, SaveKilledAtAnyPointLeavesAWholeDocument) {
  TempDir dir;
  std::uint64_t generation = 0;
  for (int round = 0; round < 8; ++round) {
    testing::ProgramChild saver("launcher_probe", {(dir / "data").native()});
    ASSERT_EQ(saver.read_line(), "ready");
    std::this_thread::sleep_for(std::chrono::milliseconds(5 * round));
    saver.kill(SIGKILL);
    saver.wait();
    const LauncherStore store(dir / "data", true);
    json state = store.load();
    EXPECT_GT(state["generation"].get<std::uint64_t>(), generation);
    generation = state["generation"];
    const FileLock lock = store.owner();
    store.save(state);
    EXPECT_EQ(store.load(), state);
  }
}

}  // namespace
}  // namespace zorvi
