#include "client/app/launcher.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <thread>
#include <typeinfo>

#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "tests/support/sample_launcher.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;
using testing::TempDir;

using testing::SampleRelease;

// What a staging or a seeding leaves before its state is saved.
void place_version(const LauncherStore& store, const SampleRelease& version) {
  atomic_create(store.launcher_directory() / "manifests" / (version.reference.value("manifest_sha256", "") + ".json"),
                version.manifest);
  extract_snapshot(LauncherManifest::parse(json::parse(version.manifest)).snapshot, version.archive,
                   store.payload(version.reference), {}, nullptr);
}

// Seeding, then every refusal, each of which must leave the stored state as it was.
TEST(LauncherStore, SeedsACandidateAndFailuresChangeNoStoredState) {
  TempDir dir;
  const SampleRelease version(dir.path(), "1.0.0", 0, 0, "");
  json foreign = json::parse(version.manifest);
  foreign["platform"] = "macos-aarch64";
  const LauncherStore store(dir / "x/../data/", true), fresh(dir / "fresh", true);
  EXPECT_EQ(store.root(), fs::canonical(dir.path()) / "data");
  EXPECT_EQ(store.status()["installed"], false);
  const json seeded = store.seed_initial(version.manifest, version.archive, {});
  const json base = LauncherStore::existing(dir / "data").load();
  // Only a confirmed first start makes it active.
  EXPECT_EQ(json({base["generation"], base["candidate"], base["active"]}), json({1, seeded, nullptr}));
  verify_snapshot_tree(store.manifest(seeded).snapshot, store.payload(seeded), {});

  const json tampered = launcher_reference(digest("stored", "sha256"), "1.0.0");
  testing::write_text(store.launcher_directory() / "manifests" / (tampered.value("manifest_sha256", "") + ".json"),
                      "x");
  const auto with = [&](const json& patch) {
    json state = base;
    state.update(patch);
    return state;
  };
  const auto load = [&] { store.load(); };
  const auto save = [&](const json& patch) { return [&, state = with(patch)]() mutable { store.save(state); }; };
  const std::string malformed = "launcher_state: Launcher installation record is malformed; it was preserved",
                    identity = "launcher_state: Launcher manifest identity is invalid",
                    contradictory = "launcher_state: Launcher candidate/startup state is contradictory";
  const json nonce = std::string(32, 'a');
  const std::vector<std::tuple<json, std::function<void()>, std::string>> rows = {
      {with({{"schema_version", 2}}), load, "unsupported_schema: Unknown launcher state was preserved"},
      {with({{"extra", nullptr}}), load, malformed},
      {with({{"active", {{"manifest_sha256", std::string(64, 'a')}, {"build", "b"}}}}), load, identity},
      {with({{"active", launcher_reference(std::string(64, 'A'), "b")}}), load, identity},
      {with({{"candidate", nullptr}, {"attempt", {{"nonce", "a1"}}}}), load,
       "launcher_state: Launcher startup identity is invalid"},
      {with({{"attempt", {{"nonce", nonce}, {"reference", seeded}}}}), load, contradictory},
      {with({{"candidate", nullptr}, {"attempt", {{"nonce", nonce}}}}), load, contradictory},
      {base, save({{"generation", UINT64_MAX}}), "launcher_state: Launcher state generation is exhausted"},
      {base, save({{"failed_candidate", {{"reference", seeded}, {"problem", std::string(32768, 'x')}}}}),
       "size_limit: Launcher state exceeds its durable bound"},
      {base, [&] { store.payload(nullptr); }, "launcher_missing: No working launcher is installed"},
      {base, [&] { store.manifest(nullptr); }, "launcher_missing: Install a verified launcher first"},
      {base, [&] { store.manifest(tampered); }, "content_mismatch: Stored launcher manifest changed"},
      {base, [&] { store.manifest(launcher_reference(seeded["manifest_sha256"], "1.0.1")); },
       "launcher_state: Launcher identity/platform differs from its local reference"},
      {base, [&] { store.seed_initial(version.manifest, version.archive, {}); },
       "already_installed: Initial launcher seeding requires a new owned profile"},
      {base, [&] { fresh.seed_initial(foreign.dump(), version.archive, {}); },
       "launcher_incompatible: Initial launcher targets another native platform"},
      {base, [&] { fresh.fallback_active(); }, "launcher_missing: No installed Zorvi version could be started"},
      {base, [&] { LauncherStore::existing(dir.path()); }, "unsafe_path: Cannot inspect prepared directory identity"},
  };
  const fs::path file = store.launcher_directory() / "installation.json";
  for (const auto& [stored, call, expected] : rows) {
    atomic_write(file, stored.dump());
    EXPECT_EQ(outcome(call), expected) << stored;
    EXPECT_EQ(testing::read_text(file), stored.dump());
    EXPECT_TRUE(call.target_type() != typeid(load) || !store.selection()) << stored;
  }
  EXPECT_EQ(testing::caught([&] { fresh.fallback_active(); }).details, std::vector<std::string>{"self status"});
  fs::remove(file);
  fs::create_directory(file);  // unreadable, not malformed: selection passes it on
  EXPECT_EQ(outcome([&] { store.selection(); }), "unsafe_path: Expected an ordinary file: " + file.native());
}

TEST(LauncherStore, FallbackTakesTheNewestUsableVersionWithinItsBound) {
  TempDir dir;
  const LauncherStore store(dir / "data", true);
  const SampleRelease first(dir.path(), "1.0.0", 0, 0, ""), second(dir.path(), "1.0.1", 0, 0, "");
  place_version(store, first);
  place_version(store, second);
  const fs::path versions = store.launcher_directory() / "versions", impostor = versions / std::string(64, 'c');
  const auto past = fs::file_time_type::clock::now() - std::chrono::hours(1);
  fs::last_write_time(store.payload(second.reference), past - std::chrono::hours(1));
  fs::last_write_time(store.payload(first.reference), past);
  // Newer, but not usable: a link, a tree under another version's manifest, a short name.
  fs::create_directory_symlink(store.payload(second.reference), versions / std::string(64, 'b'));
  fs::create_directory(impostor);
  testing::write_text(store.launcher_directory() / "manifests" / (impostor.filename().native() + ".json"),
                      first.manifest);
  fs::create_directory(versions / "short");
  EXPECT_EQ(store.fallback_active(), first.reference);

  fs::last_write_time(store.payload(second.reference), past);  // a tie keeps the one listed first
  const auto listed = std::find_if(fs::directory_iterator(versions), {}, [&](const fs::directory_entry& entry) {
    return entry.path() == store.payload(first.reference) || entry.path() == store.payload(second.reference);
  });
  for (int i = 5; i < 64; ++i) fs::create_directory(versions / std::to_string(i));
  EXPECT_EQ(store.fallback_active()["manifest_sha256"], listed->path().filename().native());
  fs::create_directory(versions / "64");
  EXPECT_EQ(outcome([&] { store.fallback_active(); }),
            "launcher_state: Too many launcher versions to choose a fallback");
}

TEST(LauncherStore, OwnerRetriesUntilTheHolderLeaves) {
  TempDir dir;
  const LauncherStore store(dir / "data", true);
  // flock conflicts between two opens of the file even within one process.
  auto holder = std::make_unique<FileLock>(store.launcher_directory() / "bootstrap.lock", false, LockMode::shared);
  EXPECT_EQ(outcome([&] { store.owner(); }), "busy: Another Zorvi operation is using this state");
  std::jthread leave([&] { std::this_thread::sleep_for(std::chrono::milliseconds(300)), holder.reset(); });
  EXPECT_EQ(outcome([&] { store.owner(); }), "ok");
}

}  // namespace
}  // namespace zorvi
