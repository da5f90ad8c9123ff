#include "client/platform/tree.hpp"

#include <sys/stat.h>

#include <functional>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

using testing::expect_error;
using testing::TempDir;

std::vector<std::string> listing(const std::filesystem::path& root) {
  std::vector<std::string> entries;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
    entries.push_back(entry.path().lexically_relative(root).string());
  std::sort(entries.begin(), entries.end());
  return entries;
}

void plain_tree(const std::filesystem::path& root) {
  testing::write_tree(root, {{"bin/game", "12345", true}, {"data/a/b", "123"}, {"data/empty", ""}});
}

TEST(ManagedTree, TreeBytesSumsPlainFiles) {
  TempDir dir;
  EXPECT_EQ(tree_bytes(dir / "absent", 10), 0u);
  std::filesystem::create_directory(dir / "empty");
  EXPECT_EQ(tree_bytes(dir / "empty", 10), 0u);
  plain_tree(dir / "tree");
  EXPECT_EQ(tree_bytes(dir / "tree", 10), 8u);
  EXPECT_EQ(tree_bytes(dir / "tree", 6), 8u);  // bin, bin/game, data, data/a, data/a/b, data/empty
  expect_error([&] { tree_bytes(dir / "tree", 5); }, "size_limit", "Directory entry count exceeds bounds");
}

TEST(ManagedTree, TreeBytesRefusesWhatIsNotPlain) {
  TempDir dir;
  plain_tree(dir / "tree");
  std::filesystem::create_directory_symlink(dir / "tree", dir / "link");
  expect_error([&] { tree_bytes(dir / "link", 10); }, "unsafe_path", "Expected a plain directory");
  expect_error([&] { tree_bytes(dir / "tree/bin/game", 10); }, "unsafe_path", "Expected a plain directory");
  ::mkfifo((dir / "tree/data/a/pipe").c_str(), 0600);
  expect_error([&] { tree_bytes(dir / "tree", 100); }, "unsafe_path", "Tree contains a link or special file");
}

TEST(ManagedTree, RemovePlainTreeRemovesNothingOfATreeWithALink) {
  TempDir dir;
  plain_tree(dir / "tree");
  std::filesystem::create_symlink("/etc", dir / "tree/data/a/etc");
  const std::vector<std::string> before = listing(dir / "tree");
  // The path rule sees the link first.
  expect_error([&] { remove_plain_tree(dir / "tree"); }, "unsafe_path", "Managed path contains a symbolic link");
  EXPECT_EQ(listing(dir / "tree"), before);

  std::filesystem::remove(dir / "tree/data/a/etc");
  remove_plain_tree(dir / "tree");
  EXPECT_FALSE(std::filesystem::exists(dir / "tree"));
  EXPECT_NO_THROW(remove_plain_tree(dir / "tree"));
  testing::write_text(dir / "file", "x");
  expect_error([&] { remove_plain_tree(dir / "file"); }, "unsafe_path", "Tree cleanup requires an ordinary directory");
}

const SnapshotManifest retired = testing::manifest_of_lengths({{"bin/game", 5}, {"data/a/b", 3}, {"data/empty", 0}});

TEST(ManagedTree, RetirementKeepsWhatTheUserAdded) {
  TempDir dir;
  const auto root = dir / "version";
  plain_tree(root);
  testing::write_text(root / "data/a/saved-game", "mine");
  int calls = 0;
  retire_snapshot_files(retired, root, [&] {
    ++calls;
    EXPECT_TRUE(std::filesystem::exists(root / "bin/game"));  // nothing removed yet
  });
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(listing(root), (std::vector<std::string>{"data", "data/a", "data/a/saved-game"}));

  // Retiring again changes nothing and does not fail.
  retire_snapshot_files(retired, root, [&] { ++calls; });
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(listing(root), (std::vector<std::string>{"data", "data/a", "data/a/saved-game"}));
}

TEST(ManagedTree, FullRetirementRemovesTheRoot) {
  TempDir dir;
  plain_tree(dir / "version");
  retire_snapshot_files(retired, dir / "version", std::function<void()>());
  EXPECT_FALSE(std::filesystem::exists(dir / "version"));
  bool called = false;
  retire_snapshot_files(retired, dir / "version", [&] { called = true; });
  EXPECT_FALSE(called);  // an absent root needs no removal
}

TEST(ManagedTree, ChangedPathsStopRetirementBeforeAnyRemoval) {
  TempDir dir;
  const auto root = dir / "version";
  plain_tree(root);
  std::filesystem::remove(root / "data/empty");
  std::filesystem::create_directory(root / "data/empty");
  const std::vector<std::string> before = listing(root);
  expect_error([&] { retire_snapshot_files(retired, root, std::function<void()>()); }, "unsafe_path",
               "A managed snapshot path became a link or special file; it was preserved");
  EXPECT_EQ(listing(root), before);

  testing::write_text(dir / "file", "x");
  expect_error([&] { validate_snapshot_retirement(retired, dir / "file"); }, "unsafe_path",
               "Managed snapshot retirement requires an ordinary directory");
  std::filesystem::remove(root / "data/empty");
  std::filesystem::create_symlink("/etc/hostname", root / "data/empty");
  expect_error([&] { validate_snapshot_retirement(retired, root); }, "unsafe_path",
               "Managed path contains a symbolic link");
}

TEST(ManagedTree, PathChangedAfterValidationIsPreserved) {
  TempDir dir;
  const auto root = dir / "version";
  plain_tree(root);
  expect_error(
      [&] {
        retire_snapshot_files(retired, root, [&] {
          std::filesystem::remove(root / "data/a/b");
          ::mkfifo((root / "data/a/b").c_str(), 0600);
        });
      },
      "unsafe_path", "Changed managed paths were preserved");
  EXPECT_EQ(std::filesystem::status(root / "data/a/b").type(), std::filesystem::file_type::fifo);
}

TEST(NativeFiles, RenameAndRemove) {
  TempDir dir;
  testing::write_text(dir / "new", "new");
  testing::write_text(dir / "old", "old");
  native_files::rename_replace(dir / "new", dir / "old");
  EXPECT_EQ(testing::read_text(dir / "old"), "new");
  expect_error([&] { native_files::rename_replace(dir / "new", dir / "old"); }, "file_write",
               "Cannot move " + (dir / "new").string() + " into place");

  native_files::remove_or_trash(dir / "old", dir / "trash");
  EXPECT_FALSE(std::filesystem::exists(dir / "old"));
  plain_tree(dir / "tree");
  expect_error([&] { native_files::remove_or_trash(dir / "tree", dir / "trash"); }, "file_remove",
               "Cannot remove " + (dir / "tree").string());
  native_files::remove_after_exit(dir / "tree");
  EXPECT_FALSE(std::filesystem::exists(dir / "tree"));
  EXPECT_NO_THROW(native_files::remove_after_exit(dir / "tree"));
  EXPECT_EQ(native_files::temporary_directory(dir / "x"), dir / "x");
}

}  // namespace
}  // namespace zorvi
