#include "client/domain/manifest.hpp"

#include <string>

#include <gtest/gtest.h>

#include "client/domain/encrypted_archive.hpp"
#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

const std::string digest_a(64, 'a');

json target(const std::string& path, std::uint64_t length) {
  return {{"target", path}, {"length", length}, {"sha256", digest_a}};
}

json entry(const std::string& path, std::uint64_t length = 1, int mode = 420) {
  return {{"path", path}, {"length", length}, {"mode", mode}, {"sha256", digest_a}};
}

// A valid document around `files`, its archive at the smallest length; the
// first file becomes the executable.
json document_with(json files) {
  std::uint64_t total = 0;
  for (auto& file : files) total += file["length"].get<std::uint64_t>();
  files[0]["mode"] = 493;
  json document = R"({"schema_version": 1, "build_id": "build-7", "platform": "linux-x86_64"})"_json;
  document.update({{"executable", files[0]["path"]}, {"files", files}, {"expanded_length", total}});
  document["archive"] = target("builds/7.tar.zst", 1);
  document["archive"]["format"] = "tar.zst-v1";
  return document;
}

json valid_document() { return document_with({entry("bin/game", 3), entry("data/level.pak", 5), entry("README", 0)}); }

json document_of(const std::vector<std::string>& paths) {
  json files = json::array();
  for (const auto& path : paths) files.push_back(entry(path));
  return document_with(std::move(files));
}

// A game build with every optional part present.
json game() {
  json document = valid_document();
  document.update(R"({"minimum_launcher": 1, "game_id": "fox-run", "display_name": "Fox Run",
                      "release_notes": "Faster\r\n\tfoxes", "presentation": {"tagline": "Run"},
                      "sdk": {"required": true, "abi_version": 1}})"_json);
  document["encrypted"] = {{"format", encrypted_archive_format},
                           {"artifact", target("fox.zc", encrypted_archive_length(1))},
                           {"key", target("keys/fox", 32)}};
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
  const SnapshotManifest& s = manifest.snapshot;
  std::string seen = s.build_id + " " + s.platform + " " + s.executable + " " + s.archive_target + " " +
                     std::to_string(s.archive_length) + " " + std::to_string(s.expanded_length);
  for (const auto& [path, file] : s.files)
    seen += " " + path + (file.executable ? "*" : "") + std::to_string(file.length);
  EXPECT_EQ(seen, "build-7 linux-x86_64 bin/game builds/7.tar.zst 1 8 README0 bin/game*3 data/level.pak5");
  EXPECT_TRUE(s.document == document && s.longest_native_path() == 14 && manifest.sdk_required &&
              manifest.encrypted->key.target == "keys/fox" && manifest.patches.at(1).source_build_id == "build-5");
}

json many_files(std::size_t count) {
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < count; ++i) paths.push_back("d" + std::to_string(i % 100) + "/f" + std::to_string(i));
  return document_of(paths);
}

// A copy of `document` with each member of `changes` set at its JSON
// pointer, or removed where the value is null; "" is the whole document.
json changed(json document, const json& changes) {
  for (const auto& [pointer, value] : changes.items()) {
    const json::json_pointer at(pointer);
    if (value.is_null()) document[at.parent_pointer()].erase(at.back());
    else document[at] = value;
  }
  return document;
}

TEST(SnapshotManifest, EachRuleAndBound) {
  const std::string archive_bound = "size_limit: Snapshot exceeds archive size bounds";
  const std::string count = "size_limit: Package file count exceeds bounds";
  const std::string bad = "invalid_manifest: ", collision = "path_collision: ";
  const std::uint64_t half = std::uint64_t{1} << 41;
  const std::vector<std::pair<json, std::string>> rows{
      {{{"/schema_version", "1"}}, "unsupported_schema: Unsupported snapshot schema; nothing was rewritten"},
      {{{"/build_id", "Build"}},
       "invalid_identity: Game and build IDs use lower-case letters, digits, dots and hyphens"},
      {{{"/platform", "linux-arm64"}}, bad + "Unknown snapshot platform"},
      {{{"/archive/format", "tar.gz-v1"}}, bad + "Unsupported snapshot format"},
      {{{"/archive/target", "/abs"}}, "unsafe_path: Path must be a safe relative path"},
      {{{"/archive/length", 0}}, archive_bound},
      {{{"/archive/length", (std::uint64_t{1} << 42) + 1}}, archive_bound},
      {{{"/files/1/length", -1}}, bad + "Manifest length must be a non-negative integer"},
      {{{"/files/1/sha256", std::string(63, 'a')}}, bad + "Manifest needs a lower-case SHA-256 digest"},
      {{{"/files", json::array()}}, count},
      {{{"", many_files(100000)}}, "ok"},
      {{{"", many_files(100001)}}, count},
      {{{"/files/1/path", "data/a?"}}, "unsafe_path: Path is not portable across supported platforms"},
      {{{"/files/1/path", "data/a\x7f"}}, bad + "The v1 package profile requires ASCII file paths"},
      {{{"/files/1/mode", 755}}, bad + "Package modes must be 0644 or 0755"},
      {{{"/files/1/mode", "0755"}}, bad + "Snapshot manifest has missing or malformed fields"},
      {{{"/files/0/mode", 420}}, bad + "Declared executable is missing or not executable"},
      {{{"/expanded_length", 7}}, bad + "Expanded length differs from file inventory"},
      {{{"", document_with({entry("a", half), entry("b", half)})}}, "ok"},
      {{{"", document_with({entry("a", half), entry("b", half), entry("c", 1)})}},
       "size_limit: Expanded package exceeds size bounds"},
      {{{"", document_of({"README", "readme"})}}, collision + "Package contains duplicate or case-colliding paths"},
      {{{"", document_of({"bin/a", "Bin/b"})}}, collision + "Package directories differ only in case"},
      {{{"", document_of({"x/bin/a", "x/bin"})}}, collision + "Package file is another file's parent directory"},
      {{{"", document_of({"bin/a", "bin/b", "bin.txt"})}}, "ok"},
  };
  for (const auto& [changes, expected] : rows)
    EXPECT_EQ(testing::outcome([&] { SnapshotManifest::parse(changed(valid_document(), changes)); }), expected)
        << changes.dump().substr(0, 300);
}

TEST(GameManifest, EachRuleRefusesWithItsCodeAndMessage) {
  const std::string bad = "invalid_manifest: ";
  const std::uint64_t largest = std::uint64_t{1} << 42;
  const std::vector<std::pair<json, std::string>> rows{
      {{{"/schema_version", 2}}, "unsupported_schema: Unsupported game manifest schema; nothing was rewritten"},
      {{{"/minimum_launcher", 2}}, "launcher_incompatible: This build needs a different launcher protocol"},
      {{{"/game_id", 7}}, bad + "Game manifest has missing or malformed fields"},
      {{{"/display_name", std::string(201, 'a')}}, bad + "Game display name is missing or too long"},
      {{{"/release_notes", std::string(16385, 'a')}}, bad + "Release notes exceed 16 KiB"},
      {{{"/release_notes", "a\xc2\x85"}}, bad + "Release notes contain unsupported control characters"},
      {{{"/sdk", {{"required", false}}}}, "ok"},
      {{{"/sdk/required", nullptr}}, bad + "SDK capability must be explicit"},
      {{{"/sdk/abi_version", 2}}, "sdk_incompatible: Game needs an unsupported SDK ABI"},
      {{{"/encrypted/nonce", 1}}, bad + "Unknown encrypted archive field"},
      {{{"/encrypted/format", ""}}, bad + "Invalid encrypted archive decoder name"},
      {{{"/encrypted/artifact/target", "Builds/7.tar.zst"}}, bad + "Encrypted artifact/key aliases the full snapshot"},
      {{{"/encrypted/key/length", 31}}, bad + "Encrypted archive/key exceeds its bound"},
      {{{"/encrypted/format", "other"}, {"/encrypted/artifact/length", 97}}, "ok"},
      {{{"/archive/length", largest}, {"/encrypted/artifact/length", largest + (1 << 30) + 96}}, "ok"},
      {{{"/archive/length", 65537}, {"/encrypted/artifact/length", 65664}},
       bad + "Encrypted archive length differs from its fixed authenticated chunks"},
      {{{"/patches", json::array({1, 2, 3, 4, 5, 6, 7, 8, 9})}}, bad + "Direct patch list exceeds its bound"},
      {{{"/patches/1/source/format", nullptr}, {"/patches/1/source/kind", 1}}, bad + "Missing direct patch field"},
      {{{"/patches/0/source/format", "zstd-patch"}}, bad + "A direct patch must start from a full snapshot"},
      {{{"/patches/0/source/build_id", "build-7"}}, bad + "Direct patch repeats its source or targets its own build"},
      {{{"/patches/1/artifact/target", "Patches/Build-6"}}, bad + "Direct patch artifacts repeat or alias a snapshot"},
      {{{"/patches/1/source/length", 0}}, "size_limit: Direct patch input exceeds its size bounds"},
  };
  for (const auto& [changes, expected] : rows)
    EXPECT_EQ(testing::outcome([&] { GameManifest::parse(changed(game(), changes)); }), expected) << changes.dump();
}

}  // namespace
}  // namespace zorvi
