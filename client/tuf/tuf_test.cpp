#include <sys/stat.h>

#include <gtest/gtest.h>

#include "client/platform/files.hpp"
#include "tests/support/tuf_support.hpp"

namespace zorvi::testing {
namespace {

// The stored documents by name, the lock aside: what "nothing new trusted" compares.
std::map<std::string, std::string> stored(const std::filesystem::path& trust, bool with_timestamp) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(trust))
    if (entry.path().filename() != ".lock" && (with_timestamp || entry.path().filename() != "timestamp.json"))
      files[entry.path().filename().string()] = read_text(entry.path());
  return files;
}

std::uint64_t version(const json& document) { return document.at("signed").at("version").get<std::uint64_t>(); }

TEST(TufClient, FindsTargetsThroughDelegationsWithEveryKeyType) {
  for (const auto& [keys, consistent] : std::vector<std::pair<std::string, std::string>>{
           {"ed25519", "1"}, {"rsa", "0"}, {"ecdsa", "0"}, {"ml-dsa", "1"}}) {
    TufRepository repository({"keys=" + keys, "threshold=2", "roles=2", "targets=4", "consistent=" + consistent});
    const json file = repository.client().target("set1/file3.bin");
    EXPECT_EQ(file.at("hashes").at("sha256"), digest(read_text(repository.repo / "targets/set1/file3.bin"), "sha256"));
    EXPECT_TRUE(std::filesystem::exists(role_cache(repository.trust, "role1"))) << keys;
  }
}

TEST(TufClient, DelegationSearchFollowsLevelsAndStopsAtTerminatingRoles) {
  TufRepository repository;
  for (const auto& command : std::vector<std::vector<std::string>>{
           {"delegate", "targets", "a", "paths", "x/*", "terminating"},
           {"delegate", "a", "b", "prefixes", "ff," + digest("x/deep.bin", "sha256").substr(0, 3)},
           {"delegate", "targets", "c", "paths", "*/*"}, {"target", "x/deep.bin", "8", "b"},
           {"target", "x/other.bin", "8", "c"}, {"target", "y/stray.bin", "8", "a"}, {"target", "y/c.bin", "8", "c"}})
    repository.run(command);
  TufClient client = repository.client();
  EXPECT_EQ(client.target("x/deep.bin").at("length"), 8);
  EXPECT_EQ(client.target("y/c.bin").at("length"), 8);
  // "a" is terminating and claims x/*, so "c" is never asked; "a" lists y/stray.bin outside its paths.
  for (const std::string path : {"x/other.bin", "y/stray.bin"})
    EXPECT_EQ(outcome([&] { client.target(path); }), "target_not_found: Target is not authorized by the repository: " + path);
}

TEST(TufClient, AttacksAreRefusedWithNothingNewTrusted) {
  const std::string short_threshold = "signature_threshold: Metadata does not meet its authorized signature threshold";
  const std::vector<std::pair<std::string, std::string>> rows{
      {"rollback-timestamp", "rollback: Timestamp version went backwards"},
      {"rollback-snapshot", "rollback: Timestamp references an older snapshot"},
      {"rollback-targets", "rollback: Snapshot removed or rolled back a known targets role"},
      {"freeze", "expired_metadata: Repository metadata has expired; previously installed games remain playable"},
      {"mix-and-match", "length_mismatch: Metadata length does not match its parent"},
      {"threshold-short", short_threshold},
      {"duplicate-signature", "invalid_metadata: Metadata repeats a signature key ID"},
      {"unknown-key", short_threshold},
      {"revoked-key", short_threshold}};
  for (const auto& [attack, expected] : rows) {
    TufRepository repository({"threshold=2"});
    repository.run({"rotate", "timestamp", "2"});  // so that there are revoked keys
    repository.client().refresh();
    // A new timestamp that passed its own checks stays, though the snapshot it names fails.
    const bool timestamp_kept = attack != "rollback-targets" && attack != "mix-and-match";
    const auto before = stored(repository.trust, timestamp_kept);
    repository.run({"attack", attack});
    EXPECT_EQ(outcome([&] { repository.client().refresh(); }), expected) << attack;
    EXPECT_EQ(stored(repository.trust, timestamp_kept), before) << attack;
  }
}

TEST(TufClient, RootRotationsKeepOrClearOnlineStateAndResumeAfterACrash) {
  TufRepository repository;
  repository.client().refresh();
  const auto inode = [&] {
    struct stat status {};
    return ::stat((repository.trust / "timestamp.json").c_str(), &status) == 0 ? status.st_ino : 0;
  };
  const ino_t kept = inode();
  for (int round = 0; round < 5; ++round) repository.run({"rotate", "root", round == 0 ? "2" : "1"});
  TufClient(repository.trust, repository.metadata, repository.targets, {1 << 20, 1 << 16, 1 << 22, 3, 8}, {}).refresh();
  EXPECT_EQ(version(json::parse(read_text(repository.trust / "root.json"))), 4u);  // three rounds per refresh
  EXPECT_EQ(inode(), kept);  // only root keys changed: the stored timestamp stands

  repository.run({"rotate", "timestamp"});
  repository.client().refresh();
  ASSERT_EQ(version(repository.client().root()), 7u);
  // A crash after the marker but before the new root, then one after the root but before the removals.
  for (const bool root_written : {false, true}) {
    atomic_write(repository.trust / "root-invalidation.json", R"({"version":7})");
    atomic_write(repository.trust / "root.json", read_text(repository.repo / (root_written ? "metadata/7.root.json" : "metadata/6.root.json")));
    TufClient client = repository.client();
    for (const char* name : {"timestamp.json", "snapshot.json", "root-invalidation.json"})
      EXPECT_FALSE(std::filesystem::exists(repository.trust / name)) << name;
    EXPECT_EQ(client.target("file0.bin").at("length"), 64) << root_written;
  }
}

TEST(TufClient, Failures) {
  TufRepository repository({"roles=1", "targets=1"});
  EXPECT_EQ(outcome([&] { TufClient::initialize(repository.trust, "{}"); }),
            "already_initialized: Trusted root is already initialized");
  {
    TufClient client = repository.client();
    EXPECT_EQ(outcome([&] { repository.client(); }), "busy: Another Zorvi operation is using this state");
    const auto refresh = [&](const char* name, long status) {
      repository.metadata.status = {{name, status}};
      return outcome([&] { client.refresh(); });
    };
    EXPECT_EQ(refresh("2.root.json", 500), "http_status: Could not download next trusted root");
    EXPECT_EQ(refresh("timestamp.json", 404), "http_status: Could not download timestamp metadata");
    EXPECT_EQ(refresh("snapshot.json", 404), "http_status: Could not download metadata for role snapshot");
    EXPECT_EQ(refresh("2.root.json", 403), "ok");
    client.load_selected_metadata();  // the timestamp was already stored: the rest loads on first need

    const json& keys = client.root().at("signed").at("keys");
    const json authority = client.root().at("signed").at("roles").at("targets");
    const auto load = [&](const std::string& role, const json& description) {
      return outcome([&] { client.load_role(role, description, keys, authority, "targets"); });
    };
    const std::uint64_t current = version(client.targets());
    const std::uint64_t size = read_text(repository.repo / "metadata/targets.json").size();
    EXPECT_EQ(load(std::string(4097, 'r'), {{"version", 1}}), "size_limit: Metadata role name exceeds its bound");
    EXPECT_EQ(load("targets", {{"version", current}, {"length", size + 1}}),
              "length_mismatch: Metadata length does not match its parent");
    EXPECT_EQ(load("targets", {{"version", current}, {"hashes", json::object()}}),
              "invalid_hashes: Metadata hashes must be a nonempty object");
    EXPECT_EQ(load("targets", {{"version", current}, {"hashes", {{"sha256", std::string(64, '0')}}}}),
              "hash_mismatch: Metadata hash does not match its parent");
    EXPECT_EQ(load("targets", {{"version", current + 1}}), "version_mismatch: Metadata version does not match its parent");

    const auto visit = [&](const json& role) {
      const json document = {{"signed", {{"targets", json::object()}, {"delegations", {{"keys", json::object()}, {"roles", json::array({role})}}}}}};
      std::set<std::string> visited;
      bool stop = false;
      return outcome([&] { client.visit("p", "targets", document, visited, stop); });
    };
    EXPECT_EQ(visit({{"name", "ghost"}, {"paths", {"*"}}, {"terminating", false}}),
              "missing_role: Delegated role is absent from the authenticated snapshot");
    EXPECT_EQ(visit({{"name", "ghost"}, {"path_hash_prefixes", {"AB"}}, {"terminating", false}}),
              "invalid_metadata: Invalid delegation hash prefix");
    EXPECT_EQ(outcome([&] { client.target("nope.bin"); }), "target_not_found: Target is not authorized by the repository: nope.bin");
  }
  EXPECT_EQ(outcome([&] { repository.client(8, 1).target("set0/file0.bin"); }),
            "delegation_limit: Repository delegation limit reached");
  write_text(repository.trust / "snapshot.json", "{");
  EXPECT_EQ(outcome([&] { repository.client().local("snapshot"); }),
            "invalid_trusted_metadata: Stored snapshot metadata is malformed; preserve and restore trusted state");
  repository.run({"rotate", "timestamp"});
  repository.run({"rotate", "timestamp"});
  std::filesystem::copy_file(repository.repo / "metadata/3.root.json", repository.repo / "metadata/2.root.json",
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(outcome([&] { repository.client().refresh(); }), "rollback: Root version is not exactly the next version");
}

}  // namespace
}  // namespace zorvi::testing
