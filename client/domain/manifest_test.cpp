#include "client/domain/manifest.hpp"

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "client/domain/encrypted_archive.hpp"
#include "client/domain/error.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

const std::string digest_a(64, 'a');

json entry(const std::string& path, std::uint64_t length = 1, int mode = 420) {
  return {{"path", path}, {"length", length}, {"mode", mode}, {"sha256", digest_a}};
}

// A valid document around `files`; the first file becomes the executable.
json document_with(json files) {
  std::uint64_t total = 0;
  for (auto& file : files) total += file["length"].get<std::uint64_t>();
  files[0]["mode"] = 493;
  return {{"schema_version", 1},
          {"build_id", "build-7"},
          {"platform", "linux-x86_64"},
          {"executable", files[0]["path"]},
          {"archive", {{"format", "tar.zst-v1"}, {"target", "builds/7.tar.zst"}, {"length", 10}, {"sha256", digest_a}}},
          {"files", files},
          {"expanded_length", total}};
}

json valid_document() { return document_with({entry("bin/game", 3), entry("data/level.pak", 5), entry("README", 0)}); }

Error parse_error(const json& document) {
  try {
    SnapshotManifest::parse(document);
  } catch (const Error& error) {
    return error;
  }
  ADD_FAILURE() << "parse accepted " << document.dump();
  return Error("", "");
}

void expect_refused(const json& document, const std::string& code, const std::string& message) {
  const Error error = parse_error(document);
  EXPECT_EQ(error.code, code) << document.dump();
  EXPECT_EQ(std::string(error.what()), message) << document.dump();
}

TEST(SnapshotManifest, ParsesRecordInPathOrder) {
  const SnapshotManifest manifest = SnapshotManifest::parse(valid_document());
  EXPECT_EQ(manifest.build_id, "build-7");
  EXPECT_EQ(manifest.platform, "linux-x86_64");
  EXPECT_EQ(manifest.executable, "bin/game");
  EXPECT_EQ(manifest.archive_target, "builds/7.tar.zst");
  EXPECT_EQ(manifest.archive_length, 10u);
  EXPECT_EQ(manifest.archive_sha256, digest_a);
  EXPECT_EQ(manifest.expanded_length, 8u);
  EXPECT_EQ(manifest.document, valid_document());
  std::vector<std::string> order;
  for (const auto& [path, file] : manifest.files) order.push_back(path);
  EXPECT_EQ(order, (std::vector<std::string>{"README", "bin/game", "data/level.pak"}));
  EXPECT_TRUE(manifest.files.at("bin/game").executable);
  EXPECT_FALSE(manifest.files.at("README").executable);
  EXPECT_EQ(manifest.files.at("README").length, 0u);
}

TEST(SnapshotManifest, AcceptsSignedNonNegativeLengthsAndIgnoresUnknownKeys) {
  json document = valid_document();
  document["files"][1]["length"] = static_cast<std::int64_t>(5);
  document["future"] = {{"x", 1}};
  EXPECT_EQ(SnapshotManifest::parse(document).files.at("data/level.pak").length, 5u);
}

struct Refusal {
  const char* name;
  std::function<void(json&)> change;
  const char* code;
  const char* message;
};

TEST(SnapshotManifest, RefusesEachRuleWithItsCodeAndMessage) {
  const char* malformed = "Snapshot manifest has missing or malformed fields";
  const std::vector<Refusal> rows{
      {"not an object", [](json& d) { d = json::array(); }, "unsupported_schema",
       "Unsupported snapshot schema; nothing was rewritten"},
      {"schema 2", [](json& d) { d["schema_version"] = 2; }, "unsupported_schema",
       "Unsupported snapshot schema; nothing was rewritten"},
      {"schema text", [](json& d) { d["schema_version"] = "1"; }, "unsupported_schema",
       "Unsupported snapshot schema; nothing was rewritten"},
      {"bad build id", [](json& d) { d["build_id"] = "Build"; }, "invalid_identity",
       "Game and build IDs use lower-case letters, digits, dots and hyphens"},
      {"unknown platform", [](json& d) { d["platform"] = "linux-arm64"; }, "invalid_manifest",
       "Unknown snapshot platform"},
      {"unsafe executable", [](json& d) { d["executable"] = "../game"; }, "unsafe_path",
       "Path contains an unsafe component"},
      {"wrong format", [](json& d) { d["archive"]["format"] = "tar.gz-v1"; }, "invalid_manifest",
       "Unsupported snapshot format"},
      {"unsafe target", [](json& d) { d["archive"]["target"] = "/abs"; }, "unsafe_path",
       "Path must be a safe relative path"},
      {"archive length 0", [](json& d) { d["archive"]["length"] = 0; }, "size_limit",
       "Snapshot exceeds archive size bounds"},
      {"archive length 2^42+1", [](json& d) { d["archive"]["length"] = (std::uint64_t{1} << 42) + 1; }, "size_limit",
       "Snapshot exceeds archive size bounds"},
      {"digest checked before length bound",
       [](json& d) {
         d["archive"]["length"] = 0;
         d["archive"]["sha256"] = std::string(64, 'A');
       },
       "invalid_manifest", "Manifest needs a lower-case SHA-256 digest"},
      {"negative archive length", [](json& d) { d["archive"]["length"] = -1; }, "invalid_manifest",
       "Manifest length must be a non-negative integer"},
      {"float file length", [](json& d) { d["files"][1]["length"] = 5.0; }, "invalid_manifest",
       "Manifest length must be a non-negative integer"},
      {"short digest", [](json& d) { d["files"][1]["sha256"] = std::string(63, 'a'); }, "invalid_manifest",
       "Manifest needs a lower-case SHA-256 digest"},
      {"files not array", [](json& d) { d["files"] = json::object(); }, "size_limit",
       "Package file count exceeds bounds"},
      {"files empty", [](json& d) { d["files"] = json::array(); }, "size_limit", "Package file count exceeds bounds"},
      {"non-ASCII path", [](json& d) { d["files"][1]["path"] = "data/caf\xc3\xa9"; }, "invalid_manifest",
       "The v1 package profile requires ASCII file paths"},
      {"control byte in path", [](json& d) { d["files"][1]["path"] = "data/a\x7f"; }, "invalid_manifest",
       "The v1 package profile requires ASCII file paths"},
      {"path rule before ASCII rule", [](json& d) { d["files"][1]["path"] = "data/a\x01"; }, "unsafe_path",
       "Path is not portable across supported platforms"},
      {"mode 755 decimal", [](json& d) { d["files"][1]["mode"] = 755; }, "invalid_manifest",
       "Package modes must be 0644 or 0755"},
      {"mode float", [](json& d) { d["files"][1]["mode"] = 420.0; }, "invalid_manifest",
       "Package modes must be 0644 or 0755"},
      {"mode as text", [](json& d) { d["files"][1]["mode"] = "0755"; }, "invalid_manifest", malformed},
      {"executable 0644", [](json& d) { d["files"][0]["mode"] = 420; }, "invalid_manifest",
       "Declared executable is missing or not executable"},
      {"executable unlisted", [](json& d) { d["executable"] = "bin/Game"; }, "invalid_manifest",
       "Declared executable is missing or not executable"},
      {"expanded one below", [](json& d) { d["expanded_length"] = 7; }, "invalid_manifest",
       "Expanded length differs from file inventory"},
      {"missing build id", [](json& d) { d.erase("build_id"); }, "invalid_manifest", malformed},
      {"archive not object", [](json& d) { d["archive"] = "x"; }, "invalid_manifest", malformed},
      {"length as text", [](json& d) { d["files"][1]["length"] = "5"; }, "invalid_manifest", malformed},
      {"digest as number", [](json& d) { d["archive"]["sha256"] = 5; }, "invalid_manifest", malformed},
      {"file not object", [](json& d) { d["files"][1] = 3; }, "invalid_manifest", malformed},
      {"missing expanded length", [](json& d) { d.erase("expanded_length"); }, "invalid_manifest", malformed},
  };
  for (const Refusal& row : rows) {
    SCOPED_TRACE(row.name);
    json document = valid_document();
    row.change(document);
    expect_refused(document, row.code, row.message);
  }
}

TEST(SnapshotManifest, ExpandedSumIsBoundedAtTwoToTheFortySecond) {
  const std::uint64_t half = std::uint64_t{1} << 41;
  json exact = document_with({entry("a", half), entry("b", half)});
  EXPECT_EQ(SnapshotManifest::parse(exact).expanded_length, std::uint64_t{1} << 42);
  json over = document_with({entry("a", half), entry("b", half), entry("c", 1)});
  expect_refused(over, "size_limit", "Expanded package exceeds size bounds");
}

TEST(SnapshotManifest, CaseAndShapeCollisions) {
  struct Row {
    std::vector<std::string> paths;
    const char* message;  // empty when the set is valid
  };
  const std::vector<Row> rows{
      {{"README", "readme"}, "Package contains duplicate or case-colliding paths"},
      {{"a/x", "a/x"}, "Package contains duplicate or case-colliding paths"},
      {{"bin/a", "Bin/b"}, "Package directories differ only in case"},
      {{"a/B/c", "a/b/d"}, "Package directories differ only in case"},
      {{"a", "A/y"}, "Package directories differ only in case"},
      {{"bin/a", "bin/b"}, ""},
      {{"bin", "bin/a"}, "Package file is another file's parent directory"},
      {{"x/bin/a", "x/bin"}, "Package file is another file's parent directory"},
      {{"BIN", "bin/a"}, "Package directories differ only in case"},
      {{"bin.txt", "bin/a"}, ""},
  };
  for (const Row& row : rows) {
    json files = json::array();
    for (const auto& path : row.paths) files.push_back(entry(path));
    const json document = document_with(files);
    if (std::string(row.message).empty()) {
      EXPECT_NO_THROW(SnapshotManifest::parse(document)) << document.dump();
    } else {
      expect_refused(document, "path_collision", row.message);
    }
  }
}

json many_files(std::size_t count) {
  json files = json::array();
  for (std::size_t i = 0; i < count; ++i)
    files.push_back(entry("d" + std::to_string(i % 100) + "/f" + std::to_string(i)));
  return document_with(std::move(files));
}

TEST(SnapshotManifest, FileCountBound) {
  const SnapshotManifest manifest = SnapshotManifest::parse(many_files(100000));
  EXPECT_EQ(manifest.files.size(), 100000u);
  EXPECT_EQ(manifest.expanded_length, 100000u);
  expect_refused(many_files(100001), "size_limit", "Package file count exceeds bounds");
}

TEST(SnapshotManifest, LongestNativePathCountsTheWholePath) {
  const SnapshotManifest manifest =
      SnapshotManifest::parse(document_with({entry("bin/game"), entry("aaaaaaaaaaa"), entry("a/b/c/d/e/f/g")}));
  EXPECT_EQ(manifest.longest_native_path(), 13u);
}

json target(const std::string& path, std::uint64_t length) {
  return {{"target", path}, {"length", length}, {"sha256", digest_a}};
}

// A game build whose snapshot is a real tree packed by tar and zstd and
// described by Python's hashlib, with every optional part present.
json real_game(const testing::TempDir& dir) {
  testing::write_tree(dir / "tree", {{"bin/fox", "#!/bin/sh\n", true}, {"data/level.pak", std::string(70000, 'x')}});
  testing::pack_tree(dir / "tree", dir / "fox.tar.zst");
  json document = testing::python_manifest(dir / "tree", dir / "fox.tar.zst");
  const std::uint64_t archive = document["archive"]["length"];
  document.update({{"minimum_launcher", 1},
                   {"game_id", "fox-run"},
                   {"display_name", "Fox Run"},
                   {"presentation", {{"tagline", "Run"}}},
                   {"release_notes", "Faster\r\n\tfoxes"},
                   {"sdk", {{"required", true}, {"abi_version", 1}}},
                   {"encrypted",
                    {{"format", "zorvi-chacha20-poly1305-v1"},
                     {"artifact", target("fox.zc", encrypted_archive_length(archive))},
                     {"key", target("keys/fox", 32)}}}});
  for (const std::string build : {"build-6", "build-5"}) {
    json source = target("builds/" + build + ".tar.zst", 9);
    source.update({{"format", "tar.zst-v1"}, {"build_id", build}});
    document["patches"].push_back(
        {{"format", "zstd-patch"}, {"source", source}, {"artifact", target("patches/" + build, 4)}});
  }
  return document;
}

TEST(GameManifest, RealBuildParsesAndEachRuleRefusesWithItsCodeAndMessage) {
  testing::TempDir dir;
  const json base = real_game(dir);
  const GameManifest manifest = GameManifest::parse(parse_json(base.dump(), 1 << 20));
  EXPECT_TRUE(manifest.sdk_required);
  EXPECT_EQ(manifest.encrypted->key.target, "keys/fox");
  EXPECT_EQ(manifest.patches.at(1).source_build_id, "build-5");
  const auto sized = [](json& d, std::uint64_t archive, std::uint64_t encrypted) {
    d["archive"]["length"] = archive;
    d["encrypted"]["artifact"]["length"] = encrypted;
  };
  const std::string bad = "invalid_manifest: ";
  const std::vector<std::pair<std::function<void(json&)>, std::string>> rows{
      {[](json& d) { d["schema_version"] = 2; },
       "unsupported_schema: Unsupported game manifest schema; nothing was rewritten"},
      {[](json& d) { d["minimum_launcher"] = 2; },
       "launcher_incompatible: This build needs a different launcher protocol"},
      {[](json& d) { d["game_id"] = 7; }, bad + "Game manifest has missing or malformed fields"},
      {[](json& d) { d["display_name"] = std::string(201, 'a'); }, bad + "Game display name is missing or too long"},
      {[](json& d) { d["presentation"] = nullptr; }, "invalid_presentation: Game presentation must be an object"},
      {[](json& d) { d["release_notes"] = std::string(16385, 'a'); }, bad + "Release notes exceed 16 KiB"},
      {[](json& d) { d["release_notes"] = "a\xc2\x85"; }, bad + "Release notes contain unsupported control characters"},
      {[](json& d) { d["sdk"] = {{"required", false}}; }, "ok"},
      {[](json& d) { d["sdk"] = {{"abi_version", 1}}; }, bad + "SDK capability must be explicit"},
      {[](json& d) { d["sdk"].erase("abi_version"); }, "sdk_incompatible: Game needs an unsupported SDK ABI"},
      {[](json& d) { d["sdk"]["abi_version"] = 2; }, "sdk_incompatible: Game needs an unsupported SDK ABI"},
      {[](json& d) { d["encrypted"]["nonce"] = 1; }, bad + "Unknown encrypted archive field"},
      {[](json& d) { d["encrypted"]["format"] = ""; }, bad + "Invalid encrypted archive decoder name"},
      {[](json& d) { d["encrypted"]["key"]["mode"] = 1; }, bad + "Unknown encrypted artifact/key descriptor field"},
      {[](json& d) { d["encrypted"]["artifact"]["target"] = "Snapshots/Test.tar.zst"; },
       bad + "Encrypted artifact/key aliases the full snapshot"},
      {[](json& d) { d["encrypted"]["key"]["length"] = 31; }, bad + "Encrypted archive/key exceeds its bound"},
      {[](json& d) {
         d["encrypted"]["format"] = "other";
         d["encrypted"]["artifact"]["length"] = 97;
       },
       "ok"},
      {[&](json& d) { sized(d, 65536, 65648); }, "ok"},
      {[&](json& d) { sized(d, 65537, 65665); }, "ok"},
      {[&](json& d) { sized(d, std::uint64_t{1} << 42, (std::uint64_t{1} << 42) + (1 << 30) + 96); }, "ok"},
      {[&](json& d) { sized(d, 65537, 65664); },
       bad + "Encrypted archive length differs from its fixed authenticated chunks"},
      {[](json& d) { d["patches"] = json::array({1, 2, 3, 4, 5, 6, 7, 8, 9}); },
       bad + "Direct patch list exceeds its bound"},
      {[](json& d) { d["patches"][0]["note"] = 1; }, bad + "Unknown direct patch field"},
      {[](json& d) {
         d["patches"][1]["source"].erase("format");
         d["patches"][1]["source"]["kind"] = 1;
       },
       bad + "Missing direct patch field"},
      {[](json& d) { d["patches"][0]["source"]["format"] = "zstd-patch"; },
       bad + "A direct patch must start from a full snapshot"},
      {[](json& d) { d["patches"][0]["source"]["build_id"] = "test-build"; },
       bad + "Direct patch repeats its source or targets its own build"},
      {[](json& d) { d["patches"][1]["source"]["build_id"] = "build-6"; },
       bad + "Direct patch repeats its source or targets its own build"},
      {[](json& d) { d["patches"][0]["artifact"]["target"] = "snapshots/test.tar.zst"; },
       bad + "Direct patch artifacts repeat or alias a snapshot"},
      {[](json& d) { d["patches"][1]["artifact"]["target"] = "Patches/Build-6"; },
       bad + "Direct patch artifacts repeat or alias a snapshot"},
      {[](json& d) { d["patches"][1]["source"]["length"] = 0; },
       "size_limit: Direct patch input exceeds its size bounds"},
  };
  for (const auto& [change, expected] : rows) {
    json document = base;
    change(document);
    EXPECT_EQ(testing::outcome([&] { GameManifest::parse(document); }), expected) << document.dump();
  }
}

}  // namespace
}  // namespace zorvi
