#include <gtest/gtest.h>

#include "client/app/launcher.hpp"
#include "client/app/launcher_download.hpp"
#include "client/domain/snapshot.hpp"
#include "tests/support/sample_launcher.hpp"
#include "tests/support/tuf_support.hpp"

namespace zorvi::testing {
namespace {

namespace fs = std::filesystem;

// Real launcher releases published by python-tuf over nginx, and data folders to stage them into.
struct Releases {
  // Publishes a sample release of `build`, its manifest altered by `change`.
  json publish(const std::string& build, const std::function<void(json&)>& change = {}) {
    SampleRelease release(repository.dir.path(), build, 0, 0, "");
    json document = json::parse(release.manifest);
    if (change) change(document), release.manifest = document.dump();
    release.publish(repository);
    return launcher_reference(digest(release.manifest, "sha256"), build);
  }
  // The result, or "code: message [detail]" of the failure; the phases are recorded.
  std::string stage(const LauncherStore& store, bool optional) {
    TufClient client = repository.client();
    const LauncherPhase phase = [&](std::string_view word, bool) {
      if (word == "verifying") phases.clear();
      phases.emplace_back(word);
    };
    try {
      return store.stage(client, {}, phase, optional).dump();
    } catch (const Error& error) {
      return error.code + ": " + error.what() + (error.details.empty() ? "" : " [" + error.details.at(0) + "]");
    }
  }
  void set(const LauncherStore& store, const json& patch) {
    json state = store.load();
    state.update(patch);
    store.save(state);
  }

  TufRepository repository;
  TempDir dir;
  std::vector<std::string> phases;
};

struct LauncherStaging : ::testing::Test, Releases {};

std::string staged(json reference) {
  reference.update({{"staged", true}, {"activated", false}});
  return reference.dump();
}
std::string skipped(const std::string& reason) { return R"({"skipped":")" + reason + R"(","staged":false})"; }
const std::string current = R"({"already_current":true,"build_id":"1.0.0","staged":false})";
void fill(const fs::path& folder, int count) {
  for (int i = 0; i < count; ++i) fs::create_directory(folder / std::to_string(i));
}

TEST_F(LauncherStaging, ARepositoryReleaseBecomesTheCandidateAndBackgroundChecksSkipWhatIsPointless) {
  const LauncherStore store(dir / "data", true);
  repository.server.reset();  // a background check of an empty store asks no repository
  EXPECT_EQ(stage(store, true), skipped("not_installed"));
  repository.serve();
  EXPECT_EQ(stage(store, false),
            "target_not_found: Target is not authorized by the repository: " + launcher_manifest_target());
  set(store, {{"active", launcher_reference(std::string(64, 'e'), "0.1")}});
  EXPECT_EQ(stage(store, true), skipped("not_published"));
  const json first = publish("1.0.0");
  // In a fresh folder the new tree's name in `versions` is flushed before its staging record goes.
  const TracedRun run = run_traced({binary_dir() / "launcher_stage", repository.trust, repository.server->base_url(),
                                    repository.server->ca_bundle(), dir / "traced"},
                                   "renameat2,unlink,fsync");
  EXPECT_TRUE(flushed_between(run.calls, fs::canonical(dir / "traced/launcher/versions"), "/launcher/versions/",
                              "/launcher/intents/"));
  EXPECT_EQ(stage(store, false), staged(first));
  EXPECT_EQ(phases, (std::vector<std::string>{"verifying", "downloading", "staging", "activating"}));
  EXPECT_EQ(store.load()["candidate"], first);
  EXPECT_TRUE(fs::is_empty(store.launcher_directory() / "download-intents"));  // its downloads retired
  EXPECT_EQ(stage(store, false), staged(first));  // the candidate itself is no different build

  set(store, {{"active", first}, {"candidate", nullptr}});
  EXPECT_EQ(stage(store, true), current);
  EXPECT_EQ(stage(store, false), current);
  write_text(store.launcher_directory() / "cleanup.json", "{}");
  set(store, {{"attempt", {{"nonce", std::string(32, 'a')}, {"reference", first}}}});
  EXPECT_EQ(stage(store, true), skipped("cleanup_pending"));
  fs::remove(store.launcher_directory() / "cleanup.json");
  EXPECT_EQ(stage(store, true), skipped("startup_pending"));
  const json second = publish("2.0.0");
  set(store, {{"attempt", nullptr}, {"failed_candidate", {{"reference", second}, {"problem", "startup_failed"}}}});
  EXPECT_EQ(stage(store, true), skipped("failed_before"));
  EXPECT_EQ(stage(store, false), staged(second));
  EXPECT_EQ(store.load()["failed_candidate"], nullptr);
  EXPECT_EQ(stage(store, true), skipped("candidate_pending"));
}

// Each row stages into a fresh data folder whose state document must come out unchanged.
TEST_F(LauncherStaging, Failures) {
  const json good = publish("1.0.0");
  const std::vector<std::pair<std::function<void(const LauncherStore&, const fs::path&)>, std::string>> rows = {
      {[](auto&, auto& at) { write_text(at / "cleanup.json", ""); },
       "launcher_cleanup_pending: Finish the recorded Zorvi cleanup before staging another update [self cleanup]"},
      {[&](auto& s, auto&) { set(s, {{"attempt", {{"nonce", std::string(32, 'b')}, {"reference", good}}}}); },
       "busy: A launcher startup must finish before another update is staged"},
      {[&](auto& s, auto&) { set(s, {{"rollback", launcher_reference(std::string(64, 'e'), "1.0.0")}}); },
       "launcher_build_conflict: An installed launcher build ID has different signed content"},
      {[&](auto& s, auto&) { set(s, {{"candidate", launcher_reference(std::string(64, 'e'), "0.9")}}); },
       "launcher_pending: Start the pending launcher candidate before staging a different build"},
      {[&](auto&, auto& at) { fill(at / "versions", 8); },
       "launcher_storage_full: Retained launcher versions reached their bounded capacity"},
      {[&](auto&, auto& at) { fill(at / "intents", 16); },
       "launcher_storage_full: Retained launcher records reached their bounded capacity [self cleanup]"},
      {[&](auto&, auto& at) { fill(at / "downloads", 47); },
       "launcher_storage_full: A new target needs bounded partial/checkpoint slots [self cleanup]"},
      {[&](auto&, auto& at) {
         write_text(at / "big", "");
         fs::resize_file(at / "big", (1ull << 32) - (1 << 20));
       },
       "launcher_storage_full: Launcher updates exceed their private storage budget"},
      {[&](auto&, auto& at) {
         write_text(at / "manifests" / (good["manifest_sha256"].get<std::string>() + ".json"), "{}");
       },
       "content_mismatch: Immutable launcher descriptor changed"},
      {[&](auto&, auto&) { publish("1.0.1", [](json& d) { d["platform"] = "macos-aarch64"; }); },
       "launcher_incompatible: Launcher payload targets another native platform"},
      {[&](auto&, auto&) {
         publish("1.0.2", [](json& d) { d["archive"]["length"] = d["archive"]["length"].get<int>() + 1; });
       },
       "content_mismatch: Launcher archive is not authorized with its declared length/hash"},
      {[&](auto&, auto&) { repository.run("target " + launcher_manifest_target() + " 524289"); },
       "size_limit: Launcher descriptor exceeds 512 KiB"},
  };
  for (std::size_t index = 0; index < rows.size(); ++index) {
    const LauncherStore store(dir / std::to_string(index), true);
    rows[index].first(store, store.launcher_directory());
    const json before = store.load();
    EXPECT_EQ(stage(store, false), rows[index].second);
    EXPECT_EQ(store.load(), before) << rows[index].second;
  }
  EXPECT_EQ(outcome([&] { require_launcher_download_room(dir.path(), 10, 0, {11, false, true}); }),
            "launcher_storage_full: Existing download exceeds its signed budget");
}

}  // namespace
}  // namespace zorvi::testing
