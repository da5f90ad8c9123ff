#include "client/domain/snapshot.hpp"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <random>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "client/domain/bounded_zstd.hpp"
#include "client/domain/error.hpp"
#include "client/platform/reserved_tree.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

using namespace testing;

namespace fs = std::filesystem;

std::string random_bytes(std::size_t count, unsigned seed) {
  std::string bytes(count, '\0');
  std::ranges::generate(bytes, [generator = std::mt19937(seed)]() mutable { return static_cast<char>(generator()); });
  return bytes;
}

const std::vector<TreeFile> one_game{{"bin/game", "#!/bin/sh\n", true}};
const std::vector<TreeFile> game_and_data{{"bin/game", "#!/bin/sh\n", true}, {"data/a", "alpha"}};
// Ten small files: room in the expansion bound for more than one decoder
// buffer of zeros behind their tar, which `tar_of_ten` writes unpadded.
std::vector<TreeFile> ten_files() {
  std::vector<TreeFile> files{{"bin/game", "#!/bin/sh\n", true}};
  for (int index = 0; index < 9; ++index) files.push_back({"data/f" + std::to_string(index), "x"});
  return files;
}
const std::string tar_of_ten = "cd tree && { tar --format=gnu -b 1 -cf - bin/game data/f* && head -c 70000 /dev/zero";
const std::string zstd = " | zstd -q -c > \"$1\"";

// A snapshot made by GNU tar and the zstd command, with its manifest from Python.
struct Packed {
  TempDir dir;
  fs::path tree = dir / "tree", archive = dir / "snapshot.tar.zst", staging = dir / "out" / "staging";
  SnapshotManifest manifest;

  explicit Packed(const std::vector<TreeFile>& files, const std::string& zstd_options = "") {
    write_tree(tree, files);
    pack_tree(tree, archive, zstd_options);
    manifest = parsed_manifest(tree, archive);
    fs::create_directory(dir / "out");
  }
  void extract(const Progress& progress = {}) { extract_snapshot(manifest, archive, staging, progress, nullptr); }
  // After the archive was rewritten: under a manifest of its new bytes.
  void extract_anew() { manifest = parsed_manifest(tree, archive), extract(); }
};

// Directories are held open between files; one exchanged for a link after
// its first file was written is still seen at the next file, by name.
TEST(SnapshotExtraction, DirectorySwappedForALinkBetweenTwoFilesIsRefused) {
  Packed packed({{"bin/game", "x", true}, {"data/a", "first", false}, {"data/b", "second", false}});
  const fs::path data = packed.staging / "data", aside = packed.dir / "out" / "aside";
  const Progress swap = [&](std::uint64_t done, std::uint64_t) {
    // Once data/a is complete and data/b not begun.
    if (done == 6 && !fs::exists(aside)) fs::rename(data, aside), fs::create_directory_symlink(aside, data);
    return true;
  };
  expect_error([&] { packed.extract(swap); }, "unsafe_path", "Managed path contains a symbolic link");
  EXPECT_FALSE(fs::exists(aside / "b"));
}

TEST(SnapshotExtraction, ArchiveExchangedAtAnyMomentYieldsOnlyTheAuthenticatedBytes) {
  // Two archives of the same shape whose bytes differ everywhere; the
  // manifest vouches for the first, and a thread keeps exchanging the two.
  const std::vector<TreeFile> files{{"bin/game", "#!/bin/sh\n", true}, {"data/a", random_bytes(300000, 12)}};
  Packed authentic(files);
  Packed other({files[0], {"data/a", random_bytes(300000, 22)}});
  // Stopped and joined as it goes out of scope, before either archive.
  const std::jthread exchanger([&](const std::stop_token& stop) {
    while (!stop.stop_requested())
      ::renameat2(AT_FDCWD, authentic.archive.c_str(), AT_FDCWD, other.archive.c_str(), RENAME_EXCHANGE);
  });
  for (int round = 0; round < 40; ++round) {
    fs::remove_all(authentic.staging);
    const std::string result = outcome([&] { authentic.extract(); });
    // Either the authenticated bytes, or a refusal before staging exists.
    EXPECT_TRUE(result == "ok"
                    ? read_text(authentic.staging / "data/a") == files[1].content
                    : result == "content_mismatch: Snapshot differs from its verified application manifest" &&
                          !fs::exists(authentic.staging))
        << result;
  }
}

// The game exchanged, over and over, with a file of the same bytes that may
// not be run: a check that catches the exchange between looking the file up
// and opening it refuses the file rather than pass it on the other's mode.
TEST(Snapshot, FileExchangedBetweenItsLookupAndItsOpeningIsRefused) {
  Packed packed(one_game);
  packed.extract();
  const fs::path game = packed.staging / "bin/game", spare = packed.dir / "spare";
  write_text(spare, one_game[0].content);
  const std::string exchanged = "content_mismatch: Game content differs from the verified manifest: bin/game";
  std::string result;
  const std::jthread exchanger([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) ::renameat2(AT_FDCWD, game.c_str(), AT_FDCWD, spare.c_str(), RENAME_EXCHANGE);
  });
  for (int round = 0; round < 100000 && result != exchanged; ++round)
    result = outcome([&] { verify_snapshot_tree(packed.manifest, packed.staging, {}); });
  EXPECT_EQ(result, exchanged);
}

// On a small file system mounted where nobody else sees it. The big file
// comes first in the tar, so a refusal there means no file data at all
// reached the volume, whether extraction reserves itself or fills a reserved tree.
TEST(SnapshotExtraction, SpaceIsClaimedBeforeTheFirstByte) {
  Packed packed({{"a/big.bin", std::string(2 << 20, 'q')}, {"bin/game", "#!/bin/sh\n", true}, {"z", "last"}});
  write_text(packed.dir / "manifest.json", packed.manifest.document.dump());
  const std::string mount = (packed.dir / "mnt").string();
  fs::create_directory(mount);
  for (const std::string options : {"", "--reserve"}) {
    const auto result =
        run_in_private_mounts("mount -t tmpfs -o size=1m tmpfs '" + mount + "' && \"$TOOL\" extract '" +
                              (packed.dir / "manifest.json").string() + "' '" + packed.archive.string() + "' '" +
                              mount + "/staging' " + options + "; echo files=$(find '" + mount +
                              "' -type f | wc -l) used=$(df --output=used -B1 '" + mount + "' | tail -1 | tr -d ' ')");
    EXPECT_EQ(result.out,
              "error insufficient_space: Cannot reserve file data; free space or choose other game storage\n"
              "files=0 used=0\n")
        << options << result.err;
  }
}

// ---- Failures: hostile archives, then damaged trees ----------------------

using Action = std::function<void(Packed&)>;

// Rewrites the archive with a shell script ($1 is the archive, the working
// folder holds `tree`), then extracts it under a manifest of its own bytes.
Action shell(const std::string& script) {
  return [script](Packed& p) {
    const auto result =
        run_command({"sh", "-c", "cd '" + p.dir.path().string() + "' && " + script, "sh", p.archive.string()});
    ASSERT_EQ(result.status, 0) << result.err;
    p.extract_anew();
  };
}
// The same with a tar crafted by Python's tarfile.
Action crafted(const json& entries) {
  return [entries](Packed& p) {
    craft_tar(p.dir / "crafted.tar", entries);
    compress(p.dir / "crafted.tar", p.archive);
    p.extract_anew();
  };
}
json file_entry(const std::string& name, const std::string& content, int mode = 0644) {
  return {{"name", name}, {"content", content}, {"mode", mode}};
}
// Extracts, damages the tree, verifies it.
Action damaged(const std::function<void(const fs::path&)>& damage) {
  return [damage](Packed& p) { p.extract(), damage(p.staging), verify_snapshot_tree(p.manifest, p.staging, {}); };
}
void remove_exec(const fs::path& file) { fs::permissions(file, fs::perms::owner_exec, fs::perm_options::remove); }

// One row per refusal the extraction or the verification makes itself.
TEST(Snapshot, EachFailureHasItsCodeAndMessageAndWritesNothingOutsideStaging) {
  const json game = file_entry("bin/game", "#!/bin/sh\n", 0755);
  const std::string changed = "content_mismatch: Extracted file hash differs from manifest";
  const std::string tar_game = "tar --format=gnu -C tree -cf - bin/game";
  const std::string skippable = "printf '\\120\\52\\115\\030\\004\\000\\000\\000abcd'";
  const std::string behind_tar = "archive: Snapshot carries data after the end of its tar archive";
  const std::vector<std::tuple<std::vector<TreeFile>, Action, std::string>> rows{
      // A byte behind the tar, read ahead with the tar's end or decoded only
      // by the drain of the frame; zero padding, more than one decoder buffer
      // of it, is no trailing data.
      {one_game, shell("{ " + tar_game + "; printf x; }" + zstd), behind_tar},
      {ten_files(), shell(tar_of_ten + "; }" + zstd), "ok"},
      {ten_files(), shell(tar_of_ten + " && printf x; }" + zstd), behind_tar},
      // A skippable frame behind the snapshot's frame, or before it.
      {one_game, shell(tar_game + zstd + " && " + skippable + " >> \"$1\""),
       "archive: Trailing or concatenated Zstandard frames are forbidden"},
      {one_game, shell(skippable + " > \"$1\" && " + tar_game + " | zstd -q -c >> \"$1\""),
       "archive: Snapshot must contain exactly one ordinary Zstandard frame"},
      // The decoder's own bound has its test below; this row proves extraction sets one.
      {one_game, shell("mkdir -p bomb/bin && truncate -s 256M bomb/bin/game && tar -C bomb -cf - bin/game" + zstd),
       "size_limit: Decoded tar stream exceeds authenticated expansion bounds"},
      {one_game, shell(tar_game + " | zstd -q --long=27 -c > \"$1\""),
       "archive: Snapshot decoding failed or exceeds the 64 MiB window limit"},
      {one_game, shell(tar_game + " | zstd -q -c > full && head -c 40 full > \"$1\""),
       "archive: Snapshot frame is truncated"},
      {{{"bin/game", std::string(3000, 'g'), true}},
       shell(tar_game + " | head -c 2000" + zstd),
       "archive: Snapshot decompression failed"},
      {one_game, shell("head -c 3000 /dev/urandom" + zstd), "archive: Cannot open snapshot archive"},
      {one_game, crafted({{{"name", "bin/game"}, {"type", "symlink"}, {"link", "/bin/sh"}}}),
       "archive_type: Only ordinary files are accepted in snapshots"},
      {one_game, crafted({game, file_entry("../x", "escape")}), "unsafe_path: Path contains an unsafe component"},
      {one_game, crafted({{{"raw_name_hex", "6361668e"}, {"content", "x"}}, game}),
       "archive_path: Archive path is not valid UTF-8"},
      {one_game, crafted({game, game}), "archive_inventory: Archive contains an unexpected or duplicate file"},
      {game_and_data, crafted({game, file_entry("data/a", "alphabet")}),
       "archive_inventory: Archive file length or mode differs from manifest"},
      {game_and_data, crafted({game, file_entry("data/a", "ALPHA")}), changed},
      // A file is flushed and hashed while later entries are read; its
      // failure still comes before whatever a later entry raises.
      {one_game, crafted({file_entry("bin/game", "#!/bin/sX\n", 0755), file_entry("data/extra", "x")}), changed},
      {game_and_data, crafted(json::array({game})), "archive: Snapshot is incomplete or malformed"},
      {one_game, [](Packed& p) { p.manifest.archive_sha256 = std::string(64, '0'), p.extract(); },
       "content_mismatch: Snapshot differs from its verified application manifest"},
      {one_game, [](Packed& p) { fs::create_directory(p.staging), p.extract(); },
       "staging_exists: A fresh staging directory is required"},
      {game_and_data, [](Packed& p) { p.extract([calls = 0](auto, auto) mutable { return ++calls < 3; }); },
       "cancelled: Operation cancelled at a safe boundary"},
      {one_game, [](Packed& p) { BoundedZstd(p.dir.path(), 10); }, "archive: Snapshot read failed"},
      // Trees damaged after their extraction, then verified.
      {game_and_data, damaged([](auto& r) { ::mkfifo((r / "bin/fifo").c_str(), 0600); }),
       "unexpected_file: Game tree contains an unmanaged file"},
      {game_and_data, damaged([](auto& r) { write_text(r / "a:b", "x"); }),
       "unsafe_path: Path contains an unsafe component"},
      {game_and_data, damaged([](auto& r) { fs::remove(r / "data/a"); }),
       "missing_file: Game content is incomplete; repair is available"},
      {game_and_data, damaged([](auto& r) { remove_exec(r / "bin/game"); }),
       "content_mode: Game executable permission is missing"},
      {game_and_data, damaged([](auto& r) { fs::rename(r, r / "../../real"), fs::create_symlink("../real", r); }),
       "unsafe_path: Game content directory is missing or linked"},
  };
  for (const auto& [listed, action, expected] : rows) {
    SCOPED_TRACE(expected);
    Packed packed(listed);
    EXPECT_EQ(outcome([&] { action(packed); }), expected);
    // Nothing beside staging in its folder.
    EXPECT_EQ(std::distance(fs::directory_iterator(packed.dir / "out"), {}), fs::exists(packed.staging) ? 1 : 0);
    EXPECT_FALSE(fs::exists(packed.dir / "x"));
  }
}

TEST(BoundedZstdDecoder, DeliversExactlyTheLimitAndNoMore) {
  TempDir dir;
  const std::string content = random_bytes(150000, 7);
  write_text(dir / "plain", content);
  compress(dir / "plain", dir / "plain.zst");
  BoundedZstd exact(dir / "plain.zst", content.size());
  std::string decoded;
  std::vector<std::size_t> blocks;
  for (std::size_t count = exact.read(); count != 0; count = exact.read())
    decoded += exact.output(), blocks.push_back(count);
  EXPECT_EQ(decoded, content);
  EXPECT_NO_THROW(exact.finish());
  // The decoding thread runs ahead; its failure still comes after every
  // block before it, and again on any later call.
  BoundedZstd short_by_one(dir / "plain.zst", content.size() - 1);
  std::vector<std::size_t> delivered;
  const auto drain = [&] {
    while (const std::size_t count = short_by_one.read()) delivered.push_back(count);
  };
  const std::string bound = "size_limit: Decoded tar stream exceeds authenticated expansion bounds";
  EXPECT_EQ(outcome(drain), bound);
  blocks.pop_back();
  EXPECT_EQ(delivered, blocks);
  EXPECT_EQ(outcome([&] { short_by_one.finish(); }), bound);
  // A decoder dropped while its thread waits for room in a full ring stops it.
  write_text(dir / "zeros", std::string(std::size_t{8} << 20, '\0'));
  compress(dir / "zeros", dir / "zeros.zst");
  for (int round = 0; round < 20; ++round) EXPECT_EQ(BoundedZstd(dir / "zeros.zst", 8u << 20).read(), 65536u);
}

// One large file first, hashed by the caller in turn, and many small ones
// behind it, of every length class: empty, one whole read, several reads.
std::vector<TreeFile> large_and_small() {
  std::vector<TreeFile> files{
      {"a.pak", random_bytes(5 << 20, 3)}, {"bin/game", "#!/bin/sh\n", true}, {"data/exact", std::string(65536, 'e')}};
  for (unsigned index = 0; index < 40; ++index)
    files.push_back({"data/f" + std::to_string(index), random_bytes(index * 4099 % 140000, index)});
  return files;
}

// What checking the files one after another reports: each file's offset,
// then inside it every 64 KiB read and its end (twice when it ends on a read
// boundary), and the total last.
std::vector<std::uint64_t> reports_in_turn(const SnapshotManifest& manifest) {
  std::vector<std::uint64_t> expected;
  std::uint64_t done = 0;
  for (const auto& [path, file] : manifest.files) {
    expected.push_back(done);
    for (std::uint64_t read = 0; read <= file.length; read += 65536) expected.push_back(done + read);
    expected.push_back(done += file.length);
  }
  expected.push_back(done);
  return expected;
}

// Records each report's done, or a marker when it came from another thread
// or with another total; stops after `limit`.
Progress recorder(std::vector<std::uint64_t>& calls, std::uint64_t total, std::uint64_t limit = ~0ULL) {
  return [&calls, total, limit, caller = std::this_thread::get_id()](std::uint64_t done, std::uint64_t of) {
    calls.push_back(std::this_thread::get_id() == caller && of == total ? done : ~0ULL);
    return done < limit;
  };
}

// A reserved directory opened to others is narrowed again when a file is
// written into it after one in a directory below it.
TEST(Snapshot, ADirectoryEnteredAgainAsAParentIsMadePrivate) {
  Packed packed({{"a/b/f", "1", true}, {"a/g", "2"}});
  const ReservedTree tree(packed.manifest, packed.staging, Progress(), RootObserver());
  fs::permissions(packed.staging / "a", fs::perms(0755));
  extract_snapshot(packed.manifest, packed.archive, packed.staging, Progress(), &tree);
  EXPECT_EQ(fs::status(packed.staging / "a").permissions(), fs::perms::owner_all);
}

std::size_t threads() { return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/task"), {})); }

// Extracted from what real tools packed into a tree reserved beforehand, as an
// installation does (every other test extracts into a fresh staging
// directory), then checked: reports and failures come in path order whatever
// is hashed first.
TEST(Snapshot, ExtractsIntoAReservedTreeThenReportsFailuresAndDamageInPathOrder) {
  Packed packed(large_and_small(), "-19 -T2");
  const fs::path& root = packed.staging;
  const std::uint64_t total = packed.manifest.expanded_length;
  const ReservedTree tree(packed.manifest, root, Progress(), RootObserver());
  std::uint64_t reported = 0;
  const Progress progress = [&](std::uint64_t done, std::uint64_t of) { return (reported = done) <= of; };
  extract_snapshot(packed.manifest, packed.archive, root, progress, &tree);
  EXPECT_EQ(reported, total);
  const auto mode = [&](const std::string& path) { return fs::symlink_status(root / path).permissions(); };
  const fs::perms private_file = fs::perms::owner_read | fs::perms::owner_write;
  for (const TreeFile& file : large_and_small())
    EXPECT_TRUE(read_text(root / file.path) == file.content &&
                mode(file.path) == (file.executable ? fs::perms::owner_all : private_file))
        << file.path;
  EXPECT_EQ(mode("data"), fs::perms::owner_all);
  const std::vector<std::uint64_t> expected = reports_in_turn(packed.manifest);
  std::vector<std::uint64_t> verified, inventoried;
  verify_snapshot_tree(packed.manifest, root, recorder(verified, total));
  EXPECT_EQ(damaged_snapshot_files(packed.manifest, root, recorder(inventoried, total), 5).count, 0U);
  EXPECT_EQ(verified, expected);
  EXPECT_EQ(inventoried, expected);
  // Cancelled among the small files the worker hashed ahead: at the same
  // report, with the worker gone before the failure arrives.
  const std::size_t before = threads();
  std::vector<std::uint64_t> cancelled;
  const std::uint64_t stop = (5 << 20) + 300000;
  expect_error([&] { verify_snapshot_tree(packed.manifest, root, recorder(cancelled, total, stop)); }, "cancelled",
               "Operation cancelled at a safe boundary");
  const auto last = std::find_if(expected.begin(), expected.end(), [&](auto done) { return done >= stop; });
  EXPECT_EQ(cancelled, std::vector<std::uint64_t>(expected.begin(), last + 1));
  EXPECT_EQ(threads(), before);
  // The worker meets the damage in a small file while the caller still
  // hashes the large one: the large one, first in path order, is raised.
  std::string bytes = read_text(root / "a.pak");
  bytes.back() ^= 1;
  write_text(root / "a.pak", bytes);
  write_text(root / "data/f1", "changed");
  expect_error([&] { verify_snapshot_tree(packed.manifest, root, Progress()); }, "content_mismatch",
               "Game content differs from the verified manifest: a.pak");
  // The inventory lists damage of every kind instead, cut at its limit; a
  // digest cancelled inside the large file is no damage.
  fs::resize_file(root / "data/f2", 1);
  fs::remove(root / "data/exact");
  remove_exec(root / "bin/game");
  write_text(root / "data/notes.txt", "mine");
  const DamagedFiles all = damaged_snapshot_files(packed.manifest, root, Progress(), 100);
  EXPECT_EQ(std::set(all.paths.begin(), all.paths.end()),
            (std::set<std::string>{"a.pak", "bin/game", "data/exact", "data/f1", "data/f2", "data/notes.txt"}));
  const DamagedFiles two = damaged_snapshot_files(packed.manifest, root, Progress(), 2);
  EXPECT_TRUE(all.count == 6 && two.count == 6 && two.paths.size() == 2) << two.count;
  expect_error(
      [&] { damaged_snapshot_files(packed.manifest, root, [](auto done, auto) { return done < 100000; }, 10); },
      "cancelled", "Operation cancelled at a safe boundary");
  fs::create_symlink("/etc/passwd", root / "bin/link");
  expect_error([&] { damaged_snapshot_files(packed.manifest, root, Progress(), 10); }, "unsafe_path",
               "Game tree contains a symbolic link");
}

}  // namespace
}  // namespace zorvi
