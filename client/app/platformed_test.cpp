#include "client/app/platformed.hpp"

#include <gtest/gtest.h>

#include "client/platform/native_platform.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;
using testing::TempDir;

const json shell_file = R"({"schema_version": 1, "game_id": "star-miner", "name": "Star Miner", "build": "b-17",
    "channel": "beta", "executable": "game/star-miner", "crash_service": "https://crash.example:8443",
    "ca_bundle": "certs/ca.pem"})"_json;

// A copy of the probe in its own folder, as a shell copy of the client is shipped.
TEST(PlatformedGame, ShellCopyReadsTheFileBesideItsOwnImageOnce) {
  TempDir dir;
  const fs::path bin = dir / "Star Miner/bin";
  fs::create_directories(bin);
  fs::copy_file(testing::binary_dir() / "platform_probe", bin / "platform_probe");
  const auto probe = [&](const std::string& file, const char* game) {
    if (!file.empty()) testing::write_text(bin / "zorvi-platform.json", file);
    return testing::run_command({(bin / "platform_probe").string(), game}).out;
  };
  EXPECT_EQ(probe("", "star-miner"), "none\n");
  const std::string fields = "star-miner b-17 beta " + (bin / "game/star-miner").string() + " " +
                             (bin / "certs/ca.pem").string() + " " +
                             (user_data_root() / "platformed/star-miner").string();
  EXPECT_EQ(probe(shell_file.dump(), "star-miner"), fields + " shell\n");
  EXPECT_EQ(probe(shell_file.dump(), "other-game"), fields + " not-shell\n");
  EXPECT_EQ(probe(R"({"schema_version": 1, "debug": true})", "star-miner"),
            "platformed_config|zorvi-platform.json has an unknown field: debug\n");
}

TEST(PlatformedGame, RefusesEachFaultWithItsOwnSentence) {
  TempDir dir;
  fs::create_directories(dir / "real");
  fs::create_symlink(dir / "real", dir / "linked");
  const auto with = [&](const json& patch) {
    json file = shell_file;
    file.merge_patch(patch);
    return outcome([&] { parse_platformed_game(file, dir.path()); });
  };
  const std::vector<std::pair<json, std::string>> rows = {
      {R"({"schema_version": true})"_json, "zorvi-platform.json is not a version 1 platform file"},
      {R"({"name": null})"_json, "zorvi-platform.json needs a \"name\" text"},
      {R"({"game_id": "Star Miner"})"_json, "zorvi-platform.json has an unusable \"game_id\""},
      {R"({"name": ""})"_json, "zorvi-platform.json has an unusable \"name\""},
      {R"({"executable": "linked/star-miner"})"_json, "zorvi-platform.json has an unusable \"executable\""},
      {R"({"executable": "game/star-miner."})"_json, "zorvi-platform.json has an unusable \"executable\""},
      {R"({"crash_service": "https://:8443"})"_json,
       "zorvi-platform.json needs \"crash_service\" as a plain https:// origin"},
      {R"({"ca_bundle": "../ca.pem", "crash_service": "http://crash.example"})"_json,
       "zorvi-platform.json has an unusable \"ca_bundle\""},
  };
  for (const auto& [patch, message] : rows) EXPECT_EQ(with(patch), "platformed_config: " + message) << patch.dump();
  EXPECT_EQ(with(R"({"executable": "real/star-miner", "channel": null, "ca_bundle": null})"_json), "ok");
}

}  // namespace
}  // namespace zorvi
