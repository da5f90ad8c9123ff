#include "client/domain/manifest.hpp"

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "client/domain/encrypted_archive.hpp"
#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

const std::string digest_a(64, 'a');

json entry(const std::string& path, std::uint64_t length = 1, int mode = 420) {
  return {{"path", path}, {"length", length}, {"mode", mode}, {"sha256", digest_a}};
}

// A valid document around `files`, its archive at the smallest length; the
// first file becomes the executable.
json document_with(json files) {
  std::uint64_t total = 0;
  for (auto& file : files) total += file["length"].get<std::uint64_t>();
  files[0]["mode"] = 493;
  return {{"schema_version", 1},
          {"build_id", "build-7"},
          {"platform", "linux-x86_64"},
          {"executable", files[0]["path"]},
          {"archive", {{"format", "tar.zst-v1"}, {"target", "builds/7.tar.zst"}, {"length", 1}, {"sha256", digest_a}}},
          {"files", files},
          {"expanded_length", total}};
}

json valid_document() { return document_with({entry("bin/game", 3), entry("data/level.pak", 5), entry("README", 0)}); }

json document_of(const std::vector<std::string>& paths) {
  json files = json::array();
  for (const auto& path : paths) files.push_back(entry(path));
  return document_with(std::move(files));
}

json target(const std::string& path, std::uint64_t length) {
  return {{"target", path}, {"length", length}, {"sha256", digest_a}};
}

// A game build with every optional part present.
json game() {
  json document = valid_document();
  document.update({{"minimum_launcher", 1},
                   {"game_id", "fox-run"},
                   {"display_name", "Fox Run"},
                   {"presentation", {{"tagline", "Run"}}},
                   {"release_notes", "Faster\r\n\tfoxes"},
                   {"sdk", {{"required", true}, {"abi_version", 1}}},
                   {"encrypted",
                    {{"format", encrypted_archive_format},
                     {"artifact", target("fox.zc", encrypted_archive_length(1))},
                     {"key", target("keys/fox", 32)}}}});
  for (const std::string build : {"build-6", "build-5"}) {
    json source = target("builds/" + build + ".tar.zst", 9);
    source.update({{"format", "tar.zst-v1"}, {"build_id", build}});
    document["patches"].push_back(
        {{"format", "zstd-patch"}, {"source", source}, {"artifact", target("patches/" + build, 4)}});
  }
  return document;
}

TEST(GameManifest, ParsesEveryPartWithTheFilesInPathOrder) {
  json document = game();
  document["files"][1]["length"] = static_cast<std::int64_t>(5);  // a signed length is as good
  document["future"] = {{"x", 1}};                                // unknown keys are ignored
  const GameManifest manifest = GameManifest::parse(document);
  const SnapshotManifest& snapshot = manifest.snapshot;
  EXPECT_EQ(snapshot.build_id + " " + snapshot.platform + " " + snapshot.executable + " " + snapshot.archive_target,
            "build-7 linux-x86_64 bin/game builds/7.tar.zst");
  EXPECT_TRUE(snapshot.archive_length == 1 && snapshot.expanded_length == 8 && snapshot.document == document);
  std::string order;
  for (const auto& [path, file] : snapshot.files) order += path + (file.executable ? "*" : "") + " ";
  EXPECT_EQ(order, "README bin/game* data/level.pak ");
  EXPECT_EQ(snapshot.files.at("data/level.pak").length, 5u);
  EXPECT_TRUE(manifest.sdk_required);
  EXPECT_EQ(manifest.encrypted->key.target, "keys/fox");
  EXPECT_EQ(manifest.patches.at(1).source_build_id, "build-5");
  EXPECT_EQ(SnapshotManifest::parse(document_of({"bin/game", "a/b/c/d/e/f/g"})).longest_native_path(), 13u);
}

json many_files(std::size_t count) {
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < count; ++i) paths.push_back("d" + std::to_string(i % 100) + "/f" + std::to_string(i));
  return document_of(paths);
}

TEST(SnapshotManifest, EachRuleAndBound) {
  const std::string archive_bound = "size_limit: Snapshot exceeds archive size bounds";
  const std::string count = "size_limit: Package file count exceeds bounds";
  const std::string collision = "path_collision: ";
  const std::uint64_t half = std::uint64_t{1} << 41;
  const std::vector<std::pair<std::function<void(json&)>, std::string>> rows{
      {[](json& d) { d["schema_version"] = "1"; },
       "unsupported_schema: Unsupported snapshot schema; nothing was rewritten"},
      {[](json& d) { d["build_id"] = "Build"; },
       "invalid_identity: Game and build IDs use lower-case letters, digits, dots and hyphens"},
      {[](json& d) { d["platform"] = "linux-arm64"; }, "invalid_manifest: Unknown snapshot platform"},
      {[](json& d) { d["archive"]["format"] = "tar.gz-v1"; }, "invalid_manifest: Unsupported snapshot format"},
      {[](json& d) { d["archive"]["target"] = "/abs"; }, "unsafe_path: Path must be a safe relative path"},
      {[](json& d) { d["archive"]["length"] = 0; }, archive_bound},
      {[](json& d) { d["archive"]["length"] = (std::uint64_t{1} << 42) + 1; }, archive_bound},
      {[](json& d) { d["files"][1]["length"] = -1; },
       "invalid_manifest: Manifest length must be a non-negative integer"},
      {[](json& d) { d["files"][1]["sha256"] = std::string(63, 'a'); },
       "invalid_manifest: Manifest needs a lower-case SHA-256 digest"},
      {[](json& d) { d["files"] = json::array(); }, count},
      {[](json& d) { d = many_files(100000); }, "ok"},
      {[](json& d) { d = many_files(100001); }, count},
      {[](json& d) { d["files"][1]["path"] = "data/a?"; },
       "unsafe_path: Path is not portable across supported platforms"},
      {[](json& d) { d["files"][1]["path"] = "data/a\x7f"; },
       "invalid_manifest: The v1 package profile requires ASCII file paths"},
      {[](json& d) { d["files"][1]["mode"] = 755; }, "invalid_manifest: Package modes must be 0644 or 0755"},
      {[](json& d) { d["files"][1]["mode"] = "0755"; },
       "invalid_manifest: Snapshot manifest has missing or malformed fields"},
      {[](json& d) { d["files"][0]["mode"] = 420; },
       "invalid_manifest: Declared executable is missing or not executable"},
      {[](json& d) { d["expanded_length"] = 7; }, "invalid_manifest: Expanded length differs from file inventory"},
      {[&](json& d) { d = document_with({entry("a", half), entry("b", half)}); }, "ok"},
      {[&](json& d) { d = document_with({entry("a", half), entry("b", half), entry("c", 1)}); },
       "size_limit: Expanded package exceeds size bounds"},
      {[](json& d) { d = document_of({"README", "readme"}); },
       collision + "Package contains duplicate or case-colliding paths"},
      {[](json& d) { d = document_of({"bin/a", "Bin/b"}); }, collision + "Package directories differ only in case"},
      {[](json& d) { d = document_of({"x/bin/a", "x/bin"}); },
       collision + "Package file is another file's parent directory"},
      {[](json& d) { d = document_of({"bin/a", "bin/b", "bin.txt"}); }, "ok"},
  };
  for (const auto& [change, expected] : rows) {
    json document = valid_document();
    change(document);
    EXPECT_EQ(testing::outcome([&] { SnapshotManifest::parse(document); }), expected) << document.dump().substr(0, 300);
  }
}

TEST(GameManifest, EachRuleRefusesWithItsCodeAndMessage) {
  const auto sized = [](json& d, std::uint64_t archive, std::uint64_t encrypted) {
    d["archive"]["length"] = archive, d["encrypted"]["artifact"]["length"] = encrypted;
  };
  const std::string bad = "invalid_manifest: ";
  const std::vector<std::pair<std::function<void(json&)>, std::string>> rows{
      {[](json& d) { d["schema_version"] = 2; },
       "unsupported_schema: Unsupported game manifest schema; nothing was rewritten"},
      {[](json& d) { d["minimum_launcher"] = 2; },
       "launcher_incompatible: This build needs a different launcher protocol"},
      {[](json& d) { d["game_id"] = 7; }, bad + "Game manifest has missing or malformed fields"},
      {[](json& d) { d["display_name"] = std::string(201, 'a'); }, bad + "Game display name is missing or too long"},
      {[](json& d) { d["release_notes"] = std::string(16385, 'a'); }, bad + "Release notes exceed 16 KiB"},
      {[](json& d) { d["release_notes"] = "a\xc2\x85"; }, bad + "Release notes contain unsupported control characters"},
      {[](json& d) { d["sdk"] = {{"required", false}}; }, "ok"},
      {[](json& d) { d["sdk"] = {{"abi_version", 1}}; }, bad + "SDK capability must be explicit"},
      {[](json& d) { d["sdk"]["abi_version"] = 2; }, "sdk_incompatible: Game needs an unsupported SDK ABI"},
      {[](json& d) { d["encrypted"]["nonce"] = 1; }, bad + "Unknown encrypted archive field"},
      {[](json& d) { d["encrypted"]["format"] = ""; }, bad + "Invalid encrypted archive decoder name"},
      {[](json& d) { d["encrypted"]["artifact"]["target"] = "Builds/7.tar.zst"; },
       bad + "Encrypted artifact/key aliases the full snapshot"},
      {[](json& d) { d["encrypted"]["key"]["length"] = 31; }, bad + "Encrypted archive/key exceeds its bound"},
      {[](json& d) { d["encrypted"]["format"] = "other", d["encrypted"]["artifact"]["length"] = 97; }, "ok"},
      {[&](json& d) { sized(d, std::uint64_t{1} << 42, (std::uint64_t{1} << 42) + (1 << 30) + 96); }, "ok"},
      {[&](json& d) { sized(d, 65537, 65664); },
       bad + "Encrypted archive length differs from its fixed authenticated chunks"},
      {[](json& d) { d["patches"] = json::array({1, 2, 3, 4, 5, 6, 7, 8, 9}); },
       bad + "Direct patch list exceeds its bound"},
      {[](json& d) { d["patches"][1]["source"].erase("format"), d["patches"][1]["source"]["kind"] = 1; },
       bad + "Missing direct patch field"},
      {[](json& d) { d["patches"][0]["source"]["format"] = "zstd-patch"; },
       bad + "A direct patch must start from a full snapshot"},
      {[](json& d) { d["patches"][0]["source"]["build_id"] = "build-7"; },
       bad + "Direct patch repeats its source or targets its own build"},
      {[](json& d) { d["patches"][1]["artifact"]["target"] = "Patches/Build-6"; },
       bad + "Direct patch artifacts repeat or alias a snapshot"},
      {[](json& d) { d["patches"][1]["source"]["length"] = 0; },
       "size_limit: Direct patch input exceeds its size bounds"},
  };
  for (const auto& [change, expected] : rows) {
    json document = game();
    change(document);
    EXPECT_EQ(testing::outcome([&] { GameManifest::parse(document); }), expected) << document.dump();
  }
}

}  // namespace
}  // namespace zorvi
