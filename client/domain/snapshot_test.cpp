#include "client/domain/snapshot.hpp"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "client/domain/bounded_zstd.hpp"
#include "client/domain/error.hpp"
#include "client/platform/reserved_tree.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

using testing::caught;
using testing::expect_error;
using testing::TempDir;
using testing::TreeFile;

std::string random_bytes(std::size_t count, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator() & 0xff);
  return bytes;
}

// A tree with nested folders, an empty file, an executable and data that
// spans several 64 KiB chunks.
std::vector<TreeFile> sample_files() {
  return {{"bin/game", "#!/bin/sh\necho game\n", true},
          {"bin/tools/helper", random_bytes(1000, 1), true},
          {"data/levels/one.pak", random_bytes(200000, 2)},
          {"data/levels/two.pak", std::string(70000, 'z')},
          {"data/empty", ""},
          {"README", "read me\n"}};
}

mode_t mode_of(const std::filesystem::path& path) {
  struct stat status{};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// A snapshot made by GNU tar and the zstd command, with its manifest from Python.
struct Packed {
  TempDir dir;
  std::filesystem::path tree = dir / "tree";
  std::filesystem::path archive = dir / "snapshot.tar.zst";
  std::filesystem::path staging = dir / "out" / "staging";
  SnapshotManifest manifest;

  explicit Packed(const std::vector<TreeFile>& files, const std::string& zstd_options = "") {
    testing::write_tree(tree, files);
    testing::pack_tree(tree, archive, zstd_options);
    manifest = testing::parsed_manifest(tree, archive);
    std::filesystem::create_directory(dir / "out");
  }
};

TEST(SnapshotExtraction, ExtractsWhatRealToolsPackedAndVerifies) {
  Packed packed(sample_files(), "-19 -T2");
  std::vector<std::uint64_t> reports;
  const Progress progress = [&](std::uint64_t done, std::uint64_t total) {
    EXPECT_EQ(total, packed.manifest.expanded_length);
    reports.push_back(done);
    return true;
  };
  extract_snapshot(packed.manifest, packed.archive, packed.staging, progress, nullptr);

  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(reports.back(), packed.manifest.expanded_length);
  for (const TreeFile& file : sample_files()) {
    EXPECT_EQ(testing::read_text(packed.staging / file.path), file.content) << file.path;
    EXPECT_EQ(mode_of(packed.staging / file.path), file.executable ? 0700u : 0600u) << file.path;
  }
  EXPECT_EQ(mode_of(packed.staging), 0700u);
  EXPECT_EQ(mode_of(packed.staging / "data/levels"), 0700u);
  EXPECT_NO_THROW(verify_snapshot_tree(packed.manifest, packed.staging, Progress()));
  EXPECT_EQ(damaged_snapshot_files(packed.manifest, packed.staging, Progress(), 10).count, 0u);
}

TEST(SnapshotExtraction, FillsAReservedTree) {
  Packed packed(sample_files());
  const ReservedTree tree(packed.manifest, packed.staging, Progress(), RootObserver());
  extract_snapshot(packed.manifest, packed.archive, packed.staging, Progress(), &tree);
  EXPECT_NO_THROW(verify_snapshot_tree(packed.manifest, packed.staging, Progress()));

  // A reserved tree belongs to one snapshot: another manifest is refused before any byte.
  Packed other({{"bin/game", "other", true}});
  expect_error([&] { extract_snapshot(other.manifest, other.archive, packed.staging, Progress(), &tree); },
               "allocation_changed", "Prepared tree differs from the requested snapshot");
}

TEST(SnapshotExtraction, RefusesArchiveThatIsNotTheAuthenticatedOne) {
  Packed packed(sample_files());
  SnapshotManifest wrong_length = packed.manifest;
  wrong_length.archive_length += 1;
  SnapshotManifest wrong_digest = packed.manifest;
  wrong_digest.archive_sha256 = std::string(64, '0');
  std::filesystem::create_symlink(packed.archive, packed.dir / "link.tar.zst");
  const std::string message = "Snapshot differs from its verified application manifest";
  expect_error([&] { extract_snapshot(wrong_length, packed.archive, packed.staging, Progress(), nullptr); },
               "content_mismatch", message);
  expect_error([&] { extract_snapshot(wrong_digest, packed.archive, packed.staging, Progress(), nullptr); },
               "content_mismatch", message);
  expect_error(
      [&] { extract_snapshot(packed.manifest, packed.dir / "link.tar.zst", packed.staging, Progress(), nullptr); },
      "content_mismatch", message);
  EXPECT_FALSE(std::filesystem::exists(packed.staging));

  std::filesystem::create_directory(packed.staging);
  expect_error([&] { extract_snapshot(packed.manifest, packed.archive, packed.staging, Progress(), nullptr); },
               "staging_exists", "A fresh staging directory is required");
}

TEST(SnapshotExtraction, CancelsOnlyAtAReport) {
  Packed packed(sample_files());
  int calls = 0;
  const Progress stop_third = [&](std::uint64_t, std::uint64_t) { return ++calls < 3; };
  expect_error([&] { extract_snapshot(packed.manifest, packed.archive, packed.staging, stop_third, nullptr); },
               "cancelled", "Operation cancelled at a safe boundary");
}

// Directories are held open between files; one exchanged for a link after
// its first file was written is still seen at the next file, by name.
TEST(SnapshotExtraction, DirectorySwappedForALinkBetweenTwoFilesIsRefused) {
  Packed packed({{"bin/game", "x", true}, {"data/a", "first", false}, {"data/b", "second", false}});
  const std::filesystem::path data = packed.staging / "data";
  const std::filesystem::path aside = packed.dir / "out" / "aside";
  const Progress swap = [&](std::uint64_t done, std::uint64_t) {
    if (done == 6 && !std::filesystem::exists(aside)) {  // data/a is complete, data/b not begun
      std::filesystem::rename(data, aside);
      std::filesystem::create_directory_symlink(aside, data);
    }
    return true;
  };
  expect_error([&] { extract_snapshot(packed.manifest, packed.archive, packed.staging, swap, nullptr); }, "unsafe_path",
               "Managed path contains a symbolic link");
  EXPECT_FALSE(std::filesystem::exists(aside / "b"));
}

// ---- Hostile archives -----------------------------------------------------

struct Hostile {
  const char* name;
  std::vector<TreeFile> listed;                                         // what the manifest describes
  std::function<void(Packed&, const std::filesystem::path& tar)> make;  // writes the archive
  const char* code;
  const char* message;
};

const std::vector<TreeFile> one_game{{"bin/game", "#!/bin/sh\n", true}};
const std::vector<TreeFile> game_and_data{{"bin/game", "#!/bin/sh\n", true}, {"data/a", "alpha"}};
// Ten small files: room enough in the expansion bound for more than one
// decoder buffer of zeros behind their tar.
std::vector<TreeFile> ten_files() {
  std::vector<TreeFile> files{{"bin/game", "#!/bin/sh\n", true}};
  for (int index = 0; index < 9; ++index) files.push_back({"data/f" + std::to_string(index), "x"});
  return files;
}
// Their tar without record padding, then the given count of zeros.
const std::string tar_of_ten = "cd tree && { tar --format=gnu -b 1 -cf - bin/game data/f* && head -c";
const std::string zstd = " | zstd -q -c > \"$1\"";

// An archive crafted by Python's tarfile, compressed by the zstd command.
std::function<void(Packed&, const std::filesystem::path&)> crafted(json entries, std::string zstd_options = "") {
  return [entries, zstd_options](Packed& packed, const std::filesystem::path& tar) {
    testing::craft_tar(tar, entries);
    testing::compress(tar, packed.archive, zstd_options);
  };
}

json file_entry(const std::string& name, const std::string& content, int mode = 0644) {
  return {{"name", name}, {"content", content}, {"mode", mode}};
}

std::function<void(Packed&, const std::filesystem::path&)> shell(const std::string& script) {
  return [script](Packed& packed, const std::filesystem::path&) {
    const auto result = testing::run_command(
        {"sh", "-c", "cd '" + packed.dir.path().string() + "' && " + script, "sh", packed.archive.string()});
    ASSERT_EQ(result.status, 0) << result.err;
  };
}

std::vector<Hostile> hostile_archives() {
  const json game = file_entry("bin/game", "#!/bin/sh\n", 0755);
  const char* behind_tar = "Snapshot carries data after the end of its tar archive";
  return {
      {"byte behind the tar, read ahead with its end", one_game,
       shell("{ tar --format=gnu -C tree -cf - bin/game; printf x; } | zstd -q -c > \"$1\""), "archive", behind_tar},
      {"byte behind the tar, decoded only by the drain", ten_files(),
       shell(tar_of_ten + " 70000 /dev/zero && printf x; }" + zstd), "archive", behind_tar},
      {"second tar in the frame", one_game,
       shell("{ tar --format=gnu -b 1 -C tree -cf - bin/game; tar --format=gnu -b 1 -C tree -cf - bin/game; }" + zstd),
       "archive", behind_tar},
      {"decompression bomb", one_game,
       shell("truncate -s 256M bomb/bin/game && tar --format=gnu -C bomb -cf - bin/game | zstd -q -1 -c > \"$1\""),
       "size_limit", "Decoded tar stream exceeds authenticated expansion bounds"},
      {"128 MiB window", one_game, shell("tar --format=gnu -C tree -cf - bin/game | zstd -q --long=27 -c > \"$1\""),
       "archive", "Snapshot decoding failed or exceeds the 64 MiB window limit"},
      {"second frame", one_game,
       shell("tar --format=gnu -C tree -cf - bin/game | zstd -q -c > \"$1\" && echo more | zstd -q -c >> \"$1\""),
       "archive", "Trailing or concatenated Zstandard frames are forbidden"},
      {"skippable frame after", one_game,
       shell("tar --format=gnu -C tree -cf - bin/game | zstd -q -c > \"$1\" && "
             "printf '\\120\\52\\115\\030\\004\\000\\000\\000abcd' >> \"$1\""),
       "archive", "Trailing or concatenated Zstandard frames are forbidden"},
      {"skippable frame first", one_game,
       shell("printf '\\120\\52\\115\\030\\004\\000\\000\\000abcd' > \"$1\" && "
             "tar --format=gnu -C tree -cf - bin/game | zstd -q -c >> \"$1\""),
       "archive", "Snapshot must contain exactly one ordinary Zstandard frame"},
      {"not compressed", one_game, shell("tar --format=gnu -C tree -cf \"$1\" bin/game"), "archive",
       "Snapshot must contain exactly one ordinary Zstandard frame"},
      {"truncated frame", one_game,
       shell("tar --format=gnu -C tree -cf - bin/game | zstd -q -c > full && head -c 40 full > \"$1\""), "archive",
       "Snapshot frame is truncated"},
      {"corrupt frame", one_game,
       shell("tar --format=gnu -C tree -cf - bin/game | zstd -q -c > full && "
             "python3 -c \"import sys; b=bytearray(open('full','rb').read()); b[len(b)//2]^=0xff; "
             "open(sys.argv[1],'wb').write(b)\" \"$1\""),
       "archive", "Snapshot decoding failed or exceeds the 64 MiB window limit"},
      {"tar cut inside a file",
       {{"bin/game", std::string(3000, 'g'), true}},
       shell("tar --format=gnu -C tree -cf - bin/game | head -c 2000 | zstd -q -c > \"$1\""),
       "archive",
       "Snapshot decompression failed"},
      {"not a tar", one_game, shell("head -c 3000 /dev/urandom | zstd -q -c > \"$1\""), "archive",
       "Cannot open snapshot archive"},
      {"tar cut short", game_and_data,
       shell("tar --format=gnu -C tree -cf - bin/game data/a | head -c 1024 | zstd -q -c > \"$1\""), "archive",
       "Snapshot is incomplete or malformed"},
      {"directory entry", one_game, crafted({{{"name", "bin"}, {"type", "dir"}}, game}), "unsafe_path",
       "Trailing path separator is not allowed"},
      {"directory entry without a slash", one_game, crafted({{{"name", "bin"}, {"type", "dir"}, {"bare", true}}, game}),
       "archive_type", "Only ordinary files are accepted in snapshots"},
      {"symbolic link", one_game, crafted({{{"name", "bin/game"}, {"type", "symlink"}, {"link", "/bin/sh"}}}),
       "archive_type", "Only ordinary files are accepted in snapshots"},
      {"hard link", game_and_data, crafted({game, {{"name", "data/a"}, {"type", "hardlink"}, {"link", "bin/game"}}}),
       "archive_type", "Only ordinary files are accepted in snapshots"},
      {"sparse file",
       {{"bin/game", std::string(1 << 20, '\0') + "x", true}},
       shell("mkdir -p sparse/bin && truncate -s 1M sparse/bin/game && printf x >> sparse/bin/game && "
             "chmod 755 sparse/bin/game && tar --format=gnu --sparse -C sparse -cf - bin/game | zstd -q -c > \"$1\""),
       "archive_type",
       "Only ordinary files are accepted in snapshots"},
      {"extended attributes", one_game,
       crafted({{{"name", "bin/game"}, {"content", "#!/bin/sh\n"}, {"mode", 0755}, {"xattr", true}}}), "archive_type",
       "Only ordinary files are accepted in snapshots"},
      {"parent step", one_game, crafted({game, file_entry("../x", "escape")}), "unsafe_path",
       "Path contains an unsafe component"},
      {"inner parent step", game_and_data, crafted({game, file_entry("data/../data/a", "alpha")}), "unsafe_path",
       "Path contains an unsafe component"},
      {"absolute path", one_game, crafted({file_entry("/tmp/x", "escape"), game}), "unsafe_path",
       "Path must be a safe relative path"},
      {"not UTF-8", one_game, crafted({{{"raw_name_hex", "6361668e"}, {"content", "x"}}, game}), "archive_path",
       "Archive path is not valid UTF-8"},
      {"duplicate entry", one_game, crafted({game, game}), "archive_inventory",
       "Archive contains an unexpected or duplicate file"},
      {"unlisted file", one_game, crafted({game, file_entry("data/extra", "x")}), "archive_inventory",
       "Archive contains an unexpected or duplicate file"},
      {"mode 0640", game_and_data, crafted({game, file_entry("data/a", "alpha", 0640)}), "archive_inventory",
       "Archive file length or mode differs from manifest"},
      // A braced list of one json value is a copy for clang, not an array.
      {"executable as 0644", one_game, crafted(json::array({file_entry("bin/game", "#!/bin/sh\n", 0644)})),
       "archive_inventory", "Archive file length or mode differs from manifest"},
      {"longer file", game_and_data, crafted({game, file_entry("data/a", "alphabet")}), "archive_inventory",
       "Archive file length or mode differs from manifest"},
      {"shorter file", game_and_data, crafted({game, file_entry("data/a", "alp")}), "archive_inventory",
       "Archive file length or mode differs from manifest"},
      {"changed content", game_and_data, crafted({game, file_entry("data/a", "ALPHA")}), "content_mismatch",
       "Extracted file hash differs from manifest"},
      {"missing file", game_and_data, crafted(json::array({game})), "archive", "Snapshot is incomplete or malformed"},
  };
}

// Every path below `out` that is not inside staging.
std::vector<std::string> outside_staging(const std::filesystem::path& out) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(out)) {
    const std::string relative = entry.path().lexically_relative(out).string();
    if (relative != "staging" && !relative.starts_with("staging/")) found.push_back(relative);
  }
  return found;
}

TEST(SnapshotExtraction, RefusesHostileArchivesWithTheirExactFailure) {
  for (const Hostile& row : hostile_archives()) {
    SCOPED_TRACE(row.name);
    Packed packed(row.listed);
    std::filesystem::create_directories(packed.dir / "bomb/bin");
    row.make(packed, packed.dir / "crafted.tar");
    const SnapshotManifest manifest = testing::parsed_manifest(packed.tree, packed.archive);
    expect_error([&] { extract_snapshot(manifest, packed.archive, packed.staging, Progress(), nullptr); }, row.code,
                 row.message);
    EXPECT_EQ(outside_staging(packed.dir / "out"), std::vector<std::string>{});
    EXPECT_FALSE(std::filesystem::exists(packed.dir / "x"));
  }
}

TEST(SnapshotExtraction, TrailingFrameBehindALargeTarIsRefusedAtTheEnd) {
  // Large enough that the tar's files are delivered in several decoder reads
  // before the frame's end shows what follows it.
  Packed packed(sample_files());
  testing::run_command({"sh", "-c", "echo more | zstd -q -c >> '" + packed.archive.string() + "'"});
  const SnapshotManifest manifest = testing::parsed_manifest(packed.tree, packed.archive);
  expect_error([&] { extract_snapshot(manifest, packed.archive, packed.staging, Progress(), nullptr); }, "archive",
               "Trailing or concatenated Zstandard frames are forbidden");
}

TEST(SnapshotExtraction, AcceptsZeroPaddingBehindTheTar) {
  // GNU tar pads its records with zeros; a writer may add more, up to the
  // expansion bound: here more than one decoder buffer of them.
  Packed packed(ten_files());
  shell(tar_of_ten + " 70000 /dev/zero; }" + zstd)(packed, {});
  const SnapshotManifest manifest = testing::parsed_manifest(packed.tree, packed.archive);
  extract_snapshot(manifest, packed.archive, packed.staging, Progress(), nullptr);
  EXPECT_EQ(testing::read_text(packed.staging / "data/f8"), "x");
}

TEST(SnapshotExtraction, ArchiveExchangedAtAnyMomentYieldsOnlyTheAuthenticatedBytes) {
  // Two archives of the same shape whose bytes differ everywhere; the
  // manifest vouches for the first, and a thread keeps exchanging the two.
  const std::vector<TreeFile> files{{"bin/game", "#!/bin/sh\n", true}, {"data/a", random_bytes(300000, 12)}};
  Packed authentic(files);
  Packed other({files[0], {"data/a", random_bytes(300000, 22)}});
  std::atomic<bool> stop = false;
  std::thread exchanger([&] {
    while (!stop) ::renameat2(AT_FDCWD, authentic.archive.c_str(), AT_FDCWD, other.archive.c_str(), RENAME_EXCHANGE);
  });
  for (int round = 0; round < 40; ++round) {
    std::filesystem::remove_all(authentic.staging);
    const std::string result = testing::outcome(
        [&] { extract_snapshot(authentic.manifest, authentic.archive, authentic.staging, Progress(), nullptr); });
    // Either the authenticated bytes, or a refusal before staging exists.
    if (result == "ok") {
      EXPECT_EQ(testing::read_text(authentic.staging / "data/a"), files[1].content);
    } else {
      EXPECT_EQ(result, "content_mismatch: Snapshot differs from its verified application manifest");
      EXPECT_FALSE(std::filesystem::exists(authentic.staging));
    }
  }
  stop = true;
  exchanger.join();
}

// ---- Space, on small file systems mounted where nobody else sees them ------

struct SpaceCase {
  const char* file_system;
  const char* extract_options;
  const char* expected;
};

TEST(SnapshotExtractionSpace, SpaceIsClaimedBeforeTheFirstByte) {
  // The big file comes first in the tar, so a refusal there means no file
  // data at all reached the volume.
  Packed packed({{"a/big.bin", std::string(2 << 20, 'q')}, {"bin/game", "#!/bin/sh\n", true}, {"z", "last"}});
  testing::write_text(packed.dir / "manifest.json", packed.manifest.document.dump());
  const std::string refused =
      "error insufficient_space: Cannot reserve file data; free space or choose other game storage\n";
  const std::vector<SpaceCase> cases{
      {"-t tmpfs -o size=1m tmpfs", "", "files=0 used=0"},
      {"-t tmpfs -o size=1m tmpfs", "--reserve", "files=0 used=0"},
      {"-t tmpfs -o size=4m tmpfs", "", "files=3 used=2105344"},  // 2 MiB and a page for each small file
      {"-t ramfs ramfs", "", "files=3 used=0"},                   // ramfs cannot reserve, and counts nothing
  };
  const std::string mount = (packed.dir / "mnt").string();
  std::filesystem::create_directory(mount);
  for (const SpaceCase& row : cases) {
    SCOPED_TRACE(std::string(row.file_system) + " " + row.extract_options);
    const auto result = testing::run_in_private_mounts(
        "mount " + std::string(row.file_system) + " '" + mount + "' && \"$TOOL\" extract '" +
        (packed.dir / "manifest.json").string() + "' '" + packed.archive.string() + "' '" + mount + "/staging' " +
        row.extract_options + "; echo files=$(find '" + mount + "' -type f | wc -l) used=$(df --output=used -B1 '" +
        mount + "' | tail -1 | tr -d ' ')");
    const bool fits = std::string(row.expected) != "files=0 used=0";
    EXPECT_EQ(result.out, (fits ? std::string("ok\n") : refused) + row.expected + "\n") << result.err;
  }
}

// ---- The bounded decoder ----------------------------------------------------

TEST(BoundedZstdDecoder, DeliversExactlyTheLimitAndNoMore) {
  TempDir dir;
  const std::string content = random_bytes(150000, 7);
  testing::write_text(dir / "plain", content);
  testing::compress(dir / "plain", dir / "plain.zst");

  BoundedZstd exact(dir / "plain.zst", content.size());
  std::string decoded;
  for (std::size_t count = exact.read(); count != 0; count = exact.read()) {
    EXPECT_LE(count, 65536u);
    decoded += exact.output();
  }
  EXPECT_EQ(decoded, content);
  EXPECT_NO_THROW(exact.finish());

  expect_error(
      [&] {
        BoundedZstd short_limit(dir / "plain.zst", content.size() - 1);
        short_limit.finish();
      },
      "size_limit", "Decoded tar stream exceeds authenticated expansion bounds");
  expect_error([&] { BoundedZstd missing(dir / "absent.zst", 10); }, "archive", "Cannot open bounded snapshot decoder");
  expect_error([&] { BoundedZstd folder(dir.path(), 10); }, "archive", "Snapshot read failed");
  testing::write_text(dir / "short", "\x28\xb5");
  expect_error([&] { BoundedZstd too_short(dir / "short", 10); }, "archive",
               "Snapshot must contain exactly one ordinary Zstandard frame");
}

// ---- Verification and damage -------------------------------------------------

struct Extracted : Packed {
  explicit Extracted(const std::vector<TreeFile>& files = sample_files()) : Packed(files) {
    extract_snapshot(manifest, archive, staging, Progress(), nullptr);
  }
};

TEST(SnapshotVerification, DamageListsExactlyWhatWasDamaged) {
  Extracted tree;
  const auto& root = tree.staging;
  std::string changed = testing::read_text(root / "data/levels/one.pak");
  changed[100000] ^= 1;
  testing::write_text(root / "data/levels/one.pak", changed);
  std::filesystem::resize_file(root / "data/levels/two.pak", 69999);
  std::filesystem::remove(root / "README");
  std::filesystem::permissions(root / "bin/tools/helper", std::filesystem::perms::owner_exec,
                               std::filesystem::perm_options::remove);
  testing::write_text(root / "data/levels/notes.txt", "mine");

  const DamagedFiles damaged = damaged_snapshot_files(tree.manifest, root, Progress(), 100);
  EXPECT_EQ(damaged.count, 5u);
  std::vector<std::string> paths = damaged.paths;
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ(paths, (std::vector<std::string>{"README", "bin/tools/helper", "data/levels/notes.txt",
                                             "data/levels/one.pak", "data/levels/two.pak"}));

  const DamagedFiles none_listed = damaged_snapshot_files(tree.manifest, root, Progress(), 0);
  EXPECT_EQ(none_listed.count, 5u);
  EXPECT_TRUE(none_listed.paths.empty());
  EXPECT_EQ(damaged_snapshot_files(tree.manifest, root, Progress(), 2).paths.size(), 2u);

  std::uint64_t last = 0;
  damaged_snapshot_files(
      tree.manifest, root, [&](std::uint64_t done, std::uint64_t) { return (last = done), true; }, 0);
  EXPECT_EQ(last, tree.manifest.expanded_length);
}

TEST(SnapshotVerification, EachFailureHasItsCodeAndMessage) {
  struct Row {
    const char* name;
    std::function<void(const std::filesystem::path& root)> damage;
    const char* code;
    const char* message;
  };
  const std::vector<Row> rows{
      {"foreign file", [](const auto& root) { testing::write_text(root / "bin/extra", "x"); }, "unexpected_file",
       "Game tree contains an unmanaged file"},
      {"foreign fifo", [](const auto& root) { ::mkfifo((root / "fifo").c_str(), 0600); }, "unexpected_file",
       "Game tree contains an unmanaged file"},
      {"foreign unsafe name", [](const auto& root) { testing::write_text(root / "a:b", "x"); }, "unsafe_path",
       "Path contains an unsafe component"},
      {"missing file", [](const auto& root) { std::filesystem::remove(root / "data/empty"); }, "missing_file",
       "Game content is incomplete; repair is available"},
      {"file became a directory",
       [](const auto& root) {
         std::filesystem::remove(root / "data/empty");
         std::filesystem::create_directory(root / "data/empty");
       },
       "missing_file", "Game content is incomplete; repair is available"},
      {"changed bytes", [](const auto& root) { testing::write_text(root / "README", "read mE\n"); }, "content_mismatch",
       "Game content differs from the verified manifest: README"},
      {"changed length", [](const auto& root) { testing::write_text(root / "README", "read me!\n"); },
       "content_mismatch", "Game content differs from the verified manifest: README"},
      {"execute bit lost",
       [](const auto& root) {
         std::filesystem::permissions(root / "bin/game", std::filesystem::perms::owner_exec,
                                      std::filesystem::perm_options::remove);
       },
       "content_mode", "Game executable permission is missing"},
      {"root is a link",
       [](const auto& root) {
         std::filesystem::rename(root, root.parent_path() / "real");
         std::filesystem::create_directory_symlink(root.parent_path() / "real", root);
       },
       "unsafe_path", "Game content directory is missing or linked"},
      {"root missing", [](const auto& root) { std::filesystem::remove_all(root); }, "unsafe_path",
       "Game content directory is missing or linked"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Extracted tree;
    row.damage(tree.staging);
    expect_error([&] { verify_snapshot_tree(tree.manifest, tree.staging, Progress()); }, row.code, row.message);
  }
}

TEST(SnapshotVerification, SymbolicLinksRaiseInBothOperations) {
  for (const char* link : {"bin/link", "data/levels/deeper"}) {
    Extracted tree;
    std::filesystem::create_symlink("/etc/passwd", tree.staging / link);
    expect_error([&] { verify_snapshot_tree(tree.manifest, tree.staging, Progress()); }, "unsafe_path",
                 "Game tree contains a symbolic link");
    expect_error([&] { damaged_snapshot_files(tree.manifest, tree.staging, Progress(), 10); }, "unsafe_path",
                 "Game tree contains a symbolic link");
  }
}

TEST(SnapshotVerification, CancellationInsideALargeFileIsNeverDamage) {
  Extracted tree;
  // Files in path order put one.pak at [1028, 201028): the first report past
  // 1028 + 65536 comes from inside its digest.
  const Progress stops_inside_one_pak = [](std::uint64_t done, std::uint64_t) { return done <= 1028 + 65536; };
  expect_error([&] { verify_snapshot_tree(tree.manifest, tree.staging, stops_inside_one_pak); }, "cancelled",
               "Operation cancelled at a safe boundary");
  expect_error([&] { damaged_snapshot_files(tree.manifest, tree.staging, stops_inside_one_pak, 10); }, "cancelled",
               "Operation cancelled at a safe boundary");
}

}  // namespace
}  // namespace zorvi
