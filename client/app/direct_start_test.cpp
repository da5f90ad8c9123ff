#include "client/app/direct_start.hpp"

#include <gtest/gtest.h>

#include "client/domain/crypto.hpp"
#include "client/platform/native_platform.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/sample_launcher.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi::testing {
namespace {

namespace fs = std::filesystem;

// The game: a real program that leaves its argument count in its working directory.
const std::string game_program = "#!/bin/sh\necho $# > started\n";
const std::string announced = "zorvi: starting star-harbor directly; repair Zorvi by running its installer again\n";

// What a row changes: the manifest before its reference is taken, the stored
// copy after, the record, the program on disk; or the manifest is embedded.
struct Change {
  json manifest = json::object(), stored = json::object(), record = json::object();
  std::string program = game_program;
  bool embedded = false;
};

// Star Harbor 1.4.0 installed below `root`. The manifest is stored indented:
// its reference is the digest of the value, not of the stored bytes.
fs::path install_game(const fs::path& root, const Change& change = {}) {
  json manifest = manifest_of_lengths({{"bin/game", game_program.size()}}).document;
  manifest.update({{"platform", native_platform()},
                   {"minimum_launcher", 1},
                   {"game_id", "star-harbor"},
                   {"display_name", "Star Harbor"}});
  manifest.merge_patch(change.manifest);
  const std::string ref = digest(manifest.dump(), "sha256");
  json record = {
      {"installed", true}, {"game_id", "star-harbor"}, {"active", {{"version", "1.4.0"}, {"manifest_ref", ref}}}};
  if (change.embedded) record["active"] = {{"version", "1.4.0"}, {"manifest", manifest}};
  record.merge_patch(change.record);
  manifest.merge_patch(change.stored);
  write_tree(root / "games/star-harbor", {{"versions/1.4.0/bin/game", change.program, true},
                                          {"record.json", record.dump()},
                                          {"verified-manifests/application-" + ref + ".json", manifest.dump(2)}});
  return root / "games/star-harbor";
}

// No launcher version at all and a repository that does not answer: the real
// windowed bootstrap starts the game from its records alone. A platformed copy
// starts its own game from outside the data folder without reading a record,
// and without its program fails before it would look for one.
TEST(DirectStart, StartsTheInstalledGameWithoutALauncherAndRefusesEachFault) {
  BootstrapInstall install;
  const fs::path started = install_game(install.root) / "versions/1.4.0/started";
  const std::string port =
      run_python("import socket\ns = socket.socket()\ns.bind(('127.0.0.1', 0))\nprint(s.getsockname()[1], end='')");
  write_text(install.root / "repository.json",
             json{{"schema_version", 1}, {"origin", "https://127.0.0.1:" + port}, {"ca_bundle", ""}}.dump());
  const CommandResult run = install.start({"--gui", "--game", "star-harbor"});
  EXPECT_EQ(std::to_string(run.status) + " " + run.err + read_text(started), "0 " + announced + "0\n");
  // Without replacing this process the game is let go as a child of its own.
  fs::remove(started);
  start_installed_game(install.root, "star-harbor", false);
  EXPECT_TRUE(eventually([&] { return fs::exists(started); }));

  const fs::path bin = install.dir / "Star Harbor/native/bootstrap/bin";
  write_tree(bin, {{"game/star-harbor", game_program, true}, {"zorvi-platform.json", R"({"schema_version": 1,
      "game_id": "star-harbor", "name": "Star Harbor", "build": "b-7", "executable": "game/star-harbor", "crash_service": "https://crash.example"})"}});
  fs::copy_file(binary_dir() / "zorvi-bootstrap", bin / "zorvi-bootstrap");
  fs::remove(install.root / "games/star-harbor/record.json");
  const auto shell = [&] {
    return run_command({bin / "zorvi-bootstrap", "--data-dir", install.root, "--gui", "--game", "star-harbor"});
  };
  EXPECT_EQ(shell().status, 0);
  EXPECT_EQ(read_text(bin / "game/started"), "0\n");
  fs::remove(bin / "game/star-harbor");
  const CommandResult orphan = shell();

  const auto after = [](const Change& change) {
    TempDir dir;
    install_game(dir.path(), change);
    return outcome([&] { locate_installed_game(dir.path(), "star-harbor"); });
  };
  const std::pair<std::string, std::string> rows[] = {
      {after({.record = {{"installed", false}}}), "not_installed: The game is not installed"},
      {after({.record = {{"active", {{"manifest_ref", std::string(63, 'a')}}}}}),
       "invalid_state: Installed manifest reference is malformed"},
      {after({.stored = {{"display_name", "Star Harbour"}}}), "content_mismatch: The stored game manifest changed"},
      {after({.manifest = {{"platform", "windows-x86_64"}}, .embedded = true}),
       "platform_mismatch: Installed game build is for another platform"},
      {after({.program = "#!/bin/sh\n"}), "content_mismatch: The game's program is missing or changed"},
      {std::to_string(orphan.status) + " " + orphan.err, "1 " + announced + "zorvi: The game's program is missing\n"},
  };
  for (const auto& [got, expected] : rows) EXPECT_EQ(got, expected);
}

}  // namespace
}  // namespace zorvi::testing
