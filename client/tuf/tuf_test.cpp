#include <sys/stat.h>

#include <gtest/gtest.h>

#include "client/platform/files.hpp"
#include "tests/support/tuf_support.hpp"

namespace zorvi::testing {
namespace {

// The stored documents, the lock aside: what "nothing new trusted" compares.
std::map<std::string, std::string> stored(const std::filesystem::path& trust, bool with_timestamp) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(trust))
    if (entry.path().filename() != ".lock" && (with_timestamp || entry.path().filename() != "timestamp.json"))
      files[entry.path().filename().string()] = read_text(entry.path());
  return files;
}

std::uint64_t version(const json& document) { return document.at("signed").at("version").get<std::uint64_t>(); }

TEST(TufClient, FindsTargetsThroughDelegationsWithEveryKeyType) {
  for (const std::string keys : {"ed25519", "rsa", "ecdsa", "ml-dsa"}) {
    TufRepository repository("threshold=2 roles=2 targets=4 keys=" + keys + (keys == "rsa" ? "" : " consistent=1"));
    const json file = repository.client().target("set1/file3.bin");
    EXPECT_EQ(file.at("hashes").at("sha256"), digest(read_text(repository.repo / "targets/set1/file3.bin"), "sha256"));
    EXPECT_TRUE(std::filesystem::exists(role_cache(repository.trust, "role1"))) << keys;
  }
}

TEST(TufClient, DelegationSearchFollowsLevelsAndStopsAtTerminatingRoles) {
  TufRepository repository;
  for (const std::string command : {"delegate targets a paths x/* terminating", "delegate targets c paths */*",
                                    "target x/other.bin 8 c", "target y/stray.bin 8 a", "target y/c.bin 8 c"})
    repository.run(command);
  repository.run("delegate a b prefixes ff," + digest("x/deep.bin", "sha256").substr(0, 3));
  repository.run("target x/deep.bin 8 b");
  TufClient client = repository.client();
  EXPECT_EQ(client.target("x/deep.bin").at("length"), 8);
  EXPECT_EQ(client.target("y/c.bin").at("length"), 8);
  // "a" is terminating and claims x/*, so "c" is never asked; "a" lists y/stray.bin outside its paths.
  for (const std::string path : {"x/other.bin", "y/stray.bin"})
    EXPECT_EQ(outcome([&] { client.target(path); }),
              "target_not_found: Target is not authorized by the repository: " + path);
}

TEST(TufClient, AttacksAreRefusedWithNothingNewTrusted) {
  const std::string short_threshold = "signature_threshold: Metadata does not meet its authorized signature threshold";
  for (const auto& [attack, expected] : std::vector<std::pair<std::string, std::string>>{
           {"rollback-timestamp", "rollback: Timestamp version went backwards"},
           {"rollback-snapshot", "rollback: Timestamp references an older snapshot"},
           {"rollback-targets", "rollback: Snapshot removed or rolled back a known targets role"},
           {"freeze", "expired_metadata: Repository metadata has expired; previously installed games remain playable"},
           {"mix-and-match", "length_mismatch: Metadata length does not match its parent"},
           {"threshold-short", short_threshold},
           {"duplicate-signature", "invalid_metadata: Metadata repeats a signature key ID"},
           {"unknown-key", short_threshold},
           {"revoked-key", short_threshold}}) {
    TufRepository repository("threshold=2");
    repository.run("rotate timestamp 2");  // so that there are revoked keys
    repository.client().refresh();
    // A new timestamp that passed its own checks stays, though the snapshot it names fails.
    const bool timestamp_kept = attack != "rollback-targets" && attack != "mix-and-match";
    const auto before = stored(repository.trust, timestamp_kept);
    repository.run("attack " + attack);
    EXPECT_EQ(outcome([&] { repository.client().refresh(); }), expected) << attack;
    EXPECT_EQ(stored(repository.trust, timestamp_kept), before) << attack;
  }
}

TEST(TufClient, RootRotationsKeepOrClearOnlineStateAndResumeAfterACrash) {
  TufRepository repository("targets=1");
  repository.client().refresh();
  const auto inode = [&] {
    struct stat status{};
    return ::stat((repository.trust / "timestamp.json").c_str(), &status) == 0 ? status.st_ino : 0;
  };
  const ino_t kept = inode();
  for (int round = 0; round < 5; ++round) repository.run(round == 0 ? "rotate root 2" : "rotate root");
  repository.client(3).refresh();
  EXPECT_EQ(version(repository.client().root()), 4u);  // three rounds a refresh
  EXPECT_EQ(inode(), kept);                            // only root keys changed: the stored timestamp stands
  repository.run("rotate timestamp");
  repository.client().refresh();
  ASSERT_EQ(version(repository.client().root()), 7u);
  // A crash after the marker but before the new root, then one after the root but before the removals.
  for (const char* root : {"metadata/6.root.json", "metadata/7.root.json"}) {
    atomic_write(repository.trust / "root-invalidation.json", R"({"version":7})");
    atomic_write(repository.trust / "root.json", read_text(repository.repo / root));
    TufClient client = repository.client();
    for (const char* name : {"timestamp.json", "snapshot.json", "root-invalidation.json"})
      EXPECT_FALSE(std::filesystem::exists(repository.trust / name)) << name;
    EXPECT_EQ(client.target("file0.bin").at("length"), 64) << root;
  }
}

TEST(TufClient, Failures) {
  TufRepository repository("roles=1 targets=1");
  const auto refresh = [&](const std::string& name, int status, std::uint64_t delegations = 8) {
    repository.serve(name.empty() ? ""
                                  : "location = /metadata/" + name + " { return " + std::to_string(status) + "; }");
    return outcome([&] { repository.client(8, delegations).target("set0/file0.bin"); });
  };
  EXPECT_EQ(outcome([&] { TufClient::initialize(repository.trust, "{}"); }),
            "already_initialized: Trusted root is already initialized");
  EXPECT_EQ(refresh("2.root.json", 500), "http_status: Could not download next trusted root");
  EXPECT_EQ(refresh("snapshot.json", 404), "http_status: Could not download metadata for role snapshot");
  EXPECT_EQ(refresh("2.root.json", 403, 1), "delegation_limit: Repository delegation limit reached");
  {
    TufClient client = repository.client();
    EXPECT_EQ(outcome([&] { repository.client(); }), "busy: Another Zorvi operation is using this state");
    client.target("set0/file0.bin");  // loads the snapshot that delegations are checked against
    const auto visit = [&](const json& role) {
      std::set<std::string> visited;
      bool stop = false;
      const json document = {
          {"signed",
           {{"targets", json::object()}, {"delegations", {{"keys", json::object()}, {"roles", json::array({role})}}}}}};
      return outcome([&] { client.visit("p", "targets", document, visited, stop); });
    };
    EXPECT_EQ(visit({{"name", "ghost"}, {"paths", {"*"}}, {"terminating", false}}),
              "missing_role: Delegated role is absent from the authenticated snapshot");
    EXPECT_EQ(visit({{"name", "ghost"}, {"path_hash_prefixes", {"AB"}}, {"terminating", false}}),
              "invalid_metadata: Invalid delegation hash prefix");
    write_text(repository.trust / "snapshot.json", "{");
    EXPECT_EQ(outcome([&] { client.local("snapshot"); }),
              "invalid_trusted_metadata: Stored snapshot metadata is malformed; preserve and restore trusted state");
  }
  write_text(repository.trust / "snapshot.json", R"({"signed":{}})");  // parses, but no meta to compare against
  EXPECT_EQ(outcome([&] { repository.client().target("set0/file0.bin"); }),
            "invalid_trusted_metadata: Stored snapshot metadata is malformed; preserve and restore trusted state");
  repository.run("rotate timestamp");
  repository.run("rotate timestamp");
  std::filesystem::copy_file(repository.repo / "metadata/3.root.json", repository.repo / "metadata/2.root.json",
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(refresh("", 0), "rollback: Root version is not exactly the next version");
}

}  // namespace
}  // namespace zorvi::testing
