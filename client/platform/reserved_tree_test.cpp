#include "client/platform/reserved_tree.hpp"

#include <sys/stat.h>

#include <functional>
#include <optional>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

using testing::expect_error;
using testing::TempDir;

const SnapshotManifest sample =
    testing::manifest_of_lengths({{"bin/game", 100}, {"data/a", 0}, {"data/deep/b", 70000}});

TEST(ReservedTree, ReservesEveryFileBeforeAnyData) {
  TempDir dir;
  const auto root = dir / "staging";
  std::optional<DirectoryIdentity> observed;
  const ReservedTree tree(sample, root, Progress(), [&](const DirectoryIdentity& identity) {
    observed = identity;
    EXPECT_TRUE(std::filesystem::is_empty(root));
  });
  struct stat status{};
  ASSERT_EQ(::stat(root.c_str(), &status), 0);
  EXPECT_EQ(observed, DirectoryIdentity(status.st_dev, status.st_ino));
  EXPECT_EQ(tree.identity(), *observed);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  EXPECT_EQ(tree.summary(),
            (json{{"requested_bytes", 70100}, {"reserved_bytes", 70100}, {"file_count", 3}, {"data_reserved", true}}));
  EXPECT_EQ(std::filesystem::file_size(root / "data/deep/b"), 70000u);
  EXPECT_EQ(std::filesystem::file_size(root / "data/a"), 0u);

  const FileReservation game = tree.file("bin/game", 100);
  EXPECT_EQ(game.path, root / "bin/game");
  EXPECT_TRUE(game.preallocated);
  EXPECT_NO_THROW(tree.validate(sample, root));
  expect_error([&] { tree.file("bin/game", 99); }, "allocation_changed", "File differs from the prepared inventory");
  expect_error([&] { tree.file("bin/other", 100); }, "allocation_changed", "File differs from the prepared inventory");
  const std::string differs = "Prepared tree differs from the requested snapshot";
  expect_error([&] { tree.validate(sample, dir / "elsewhere"); }, "allocation_changed", differs);
  expect_error([&] { tree.validate(testing::manifest_of_lengths({{"bin/game", 100}}), root); }, "allocation_changed",
               differs);
  // Same count and total, different inventory.
  expect_error(
      [&] {
        tree.validate(testing::manifest_of_lengths({{"bin/game", 100}, {"data/a", 70000}, {"data/deep/b", 0}}), root);
      },
      "allocation_changed", "File differs from the prepared inventory");
  std::filesystem::rename(root, dir / "moved");
  std::filesystem::create_directory(root);
  expect_error([&] { tree.validate(sample, root); }, "allocation_changed", differs);
}

TEST(ReservedTree, RootMustBeFresh) {
  TempDir dir;
  std::filesystem::create_directory(dir / "taken");
  expect_error([&] { ReservedTree(sample, dir / "taken", Progress(), RootObserver()); }, "staging_exists",
               "A fresh reservation directory is required");
  expect_error([&] { ReservedTree(sample, dir / "absent/staging", Progress(), RootObserver()); }, "staging_exists",
               "A fresh reservation directory is required");
}

TEST(ReservedTree, CancellationTakesBackOnlyAnEmptyRoot) {
  TempDir dir;
  const std::string cancelled = "Storage preparation cancelled before download";
  expect_error([&] { ReservedTree(sample, dir / "first", [](auto, auto) { return false; }, RootObserver()); },
               "cancelled", cancelled);
  EXPECT_FALSE(std::filesystem::exists(dir / "first"));

  int calls = 0;
  expect_error([&] { ReservedTree(sample, dir / "second", [&](auto, auto) { return ++calls < 3; }, RootObserver()); },
               "cancelled", cancelled);
  // Two files were made: their records, not this run, decide their fate.
  EXPECT_TRUE(std::filesystem::exists(dir / "second/bin/game"));
  EXPECT_TRUE(std::filesystem::exists(dir / "second/data/a"));
}

TEST(ReservedTree, RootReplacedWhileRecordingIsLeftAlone) {
  TempDir dir;
  const auto root = dir / "staging";
  expect_error(
      [&] {
        ReservedTree(sample, root, Progress(), [&](const DirectoryIdentity&) {
          std::filesystem::rename(root, dir / "moved");
          std::filesystem::create_directory(root);
        });
      },
      "allocation_changed", "Prepared root changed while recording ownership");
  EXPECT_TRUE(std::filesystem::exists(root));
  EXPECT_TRUE(std::filesystem::exists(dir / "moved"));
}

TEST(ReservedTree, RootReplacedDuringReservationIsReported) {
  TempDir dir;
  const auto root = dir / "staging";
  const auto swap_at_end = [&](std::uint64_t done, std::uint64_t total) {
    if (done == total) {
      std::filesystem::rename(root, dir / "moved");
      std::filesystem::create_directory(root);
    }
    return true;
  };
  expect_error([&] { ReservedTree(sample, root, swap_at_end, RootObserver()); }, "allocation_changed",
               "Prepared directory changed during reservation");
  EXPECT_TRUE(std::filesystem::exists(dir / "moved/data/deep/b"));
}

TEST(ReservedTreeSpace, TreeThatCannotFitFailsAtReservation) {
  TempDir dir;
  testing::write_text(dir / "manifest.json",
                      testing::manifest_of_lengths({{"big", 3000000}, {"small", 10}}).document.dump());
  const std::string mount = (dir / "mnt").string();
  std::filesystem::create_directory(mount);
  const auto result = testing::run_in_private_mounts(
      "mount -t tmpfs -o size=2m tmpfs '" + mount + "' && \"$TOOL\" reserve '" + (dir / "manifest.json").string() +
      "' '" + mount + "/staging'; ls -A '" + mount + "'; df --output=used -B1 '" + mount + "' | tail -1 | tr -d ' '");
  EXPECT_EQ(result.out,
            "error insufficient_space: Cannot reserve file data; free space or choose other game storage\n0\n")
      << result.err;
}

}  // namespace
}  // namespace zorvi
