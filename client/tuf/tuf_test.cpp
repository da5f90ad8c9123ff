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

// Two signatures a role, and roles fetched by their versioned names.
TEST(TufClient, DelegationSearchFollowsLevelsAndStopsAtTerminatingRoles) {
  TufRepository repository("threshold=2 consistent=1");
  for (const std::string& command : std::vector<std::string>{
           "delegate targets a paths x/* terminating", "delegate targets c paths */*", "target x/other.bin 8 c",
           "target y/stray.bin 8 a", "target y/c.bin 8 c",
           "delegate a b prefixes ff," + digest("x/deep.bin", "sha256").substr(0, 3), "target x/deep.bin 8 b"})
    repository.run(command);
  TufClient client = repository.client();
  EXPECT_EQ(client.target("x/deep.bin").at("length"), 8);
  EXPECT_EQ(client.target("y/c.bin").at("length"), 8);
  EXPECT_TRUE(std::filesystem::exists(role_cache(repository.trust, "b")));
  // "a" is terminating and claims x/*, so "c" is never asked; "a" lists y/stray.bin outside its paths.
  for (const std::string path : {"x/other.bin", "y/stray.bin"})
    EXPECT_EQ(outcome([&] { client.target(path); }),
              "target_not_found: Target is not authorized by the repository: " + path);
}

TEST(TufClient, AttacksAreRefusedWithNothingNewTrusted) {
  // clang-format off
  for (const auto& [attack, expected] : std::vector<std::pair<std::string, std::string>>{
           {"rollback-timestamp", "rollback: Timestamp version went backwards"},
           {"rollback-snapshot", "rollback: Timestamp references an older snapshot"},
           {"rollback-targets", "rollback: Snapshot removed or rolled back a known targets role"},
           {"freeze", "expired_metadata: Repository metadata has expired; previously installed games remain playable"},
           {"mix-and-match", "length_mismatch: Metadata length does not match its parent"},
           {"revoked-key", "signature_threshold: Metadata does not meet its authorized signature threshold"}}) {
    // clang-format on
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

TEST(TufClient, RootRotationsKeepOrClearOnlineStateAndResumeAfterACrashInADurableOrder) {
  TufRepository repository("targets=1");
  repository.client().refresh();
  const auto inode = [&] {
    struct stat status{};
    return ::stat((repository.trust / "timestamp.json").c_str(), &status) == 0 ? status.st_ino : 0;
  };
  const auto root_version = [&] { return repository.client().root().at("signed").at("version").get<int>(); };
  const ino_t kept = inode();
  for (int round = 0; round < 5; ++round) repository.run(round == 0 ? "rotate root 2" : "rotate root");
  repository.client(3).refresh();
  EXPECT_EQ(root_version(), 4);  // three rounds a refresh
  EXPECT_EQ(inode(), kept);      // only root keys changed: the stored timestamp stands
  repository.run("rotate timestamp");
  repository.client().refresh();
  ASSERT_EQ(root_version(), 7);
  // A crash after the marker but before the new root, then one after the root but before the removals.
  for (const char* root : {"metadata/6.root.json", "metadata/7.root.json"}) {
    atomic_write(repository.trust / "root-invalidation.json", R"({"version":7})");
    atomic_write(repository.trust / "root.json", read_text(repository.repo / root));
    TufClient client = repository.client();
    for (const char* name : {"timestamp.json", "snapshot.json", "root-invalidation.json"})
      EXPECT_FALSE(std::filesystem::exists(repository.trust / name)) << name;
    EXPECT_EQ(client.target("file0.bin").at("length"), 64) << root;
  }
  // The online roles' documents go, and are flushed away, before the marker
  // that says they must: a crash may come at any step.
  atomic_write(repository.trust / "root-invalidation.json", R"({"version":7})");
  const TracedRun traced = run_traced(repository.fetch_command("file0.bin"), "fsync,unlink,unlinkat");
  ASSERT_EQ(traced.result.out, "complete\n") << traced.result.err;
  std::string steps;  // each call on the trust folder or a name in it: "unlink timestamp.json"
  for (const std::string& call : traced.calls) {
    if (call.find(repository.trust.string()) == std::string::npos) continue;
    const std::string name = call.substr(call.rfind('/') + 1);
    steps += call.substr(0, call.find('(')) + " " + name.substr(0, name.find_first_of("\">")) + "\n";
  }
  EXPECT_TRUE(steps.starts_with(
      "unlink timestamp.json\nunlink snapshot.json\nfsync trust\nunlink root-invalidation.json\nfsync trust\n"))
      << steps;
}

// One repository through a run of refusals, each row leaving the trust folder as the next expects.
TEST(TufClient, Failures) {
  TufRepository repository("roles=1 targets=1");
  const auto fetch = [&](const std::string& name, int status, std::uint64_t delegations = 8) {
    return [&, name, status, delegations] {
      repository.serve(name.empty() ? ""
                                    : "location = /metadata/" + name + " { return " + std::to_string(status) + "; }");
      repository.client(8, delegations).target("set0/file0.bin");
    };
  };
  // A delegation to a role the snapshot does not list.
  const auto ghost = [&] {
    TufClient client = repository.client();
    client.target("set0/file0.bin");
    std::set<std::string> visited;
    bool stop = false;
    client.visit("p", "targets", R"({"signed": {"targets": {}, "delegations": {"keys": {},
        "roles": [{"name": "ghost", "paths": ["*"], "terminating": false}]}}})"_json,
                 visited, stop);
  };
  const auto replay_root = [&] {
    for (int round = 0; round < 2; ++round) repository.run("rotate timestamp");
    std::filesystem::copy_file(repository.repo / "metadata/3.root.json", repository.repo / "metadata/2.root.json",
                               std::filesystem::copy_options::overwrite_existing);
    fetch("", 0)();
  };
  const std::string malformed =
      "invalid_trusted_metadata: Stored snapshot metadata is malformed; preserve and restore trusted state";
  // clang-format off
  expect_outcomes({
      {[&] { TufClient::initialize(repository.trust, "{}"); }, "already_initialized: Trusted root is already initialized"},
      {fetch("2.root.json", 500), "http_status: Could not download next trusted root"},
      {fetch("snapshot.json", 404), "http_status: Could not download metadata for role snapshot"},
      // A refresh that failed is tried again, never taken as done.
      {[&] { repository.serve("location = /metadata/timestamp.json { return 500; }"); TufClient client = repository.client(); outcome([&] { client.refresh(); }); client.target("set0/file0.bin"); }, "http_status: Could not download timestamp metadata"},
      {fetch("2.root.json", 403, 1), "delegation_limit: Repository delegation limit reached"},
      {ghost, "missing_role: Delegated role is absent from the authenticated snapshot"},
      {[&] { TufClient held = repository.client(); repository.client(); }, "busy: Another Zorvi operation is using this state"},
      {[&] { write_text(repository.trust / "snapshot.json", "{"); repository.client().local("snapshot"); }, malformed},
      // Parses, but has no meta to compare against.
      {[&] { write_text(repository.trust / "snapshot.json", R"({"signed":{}})"); repository.client().target("set0/file0.bin"); }, malformed},
      {replay_root, "rollback: Root version is not exactly the next version"},
  });
  // clang-format on
}

}  // namespace
}  // namespace zorvi::testing
