#include "client/platform/tree.hpp"

#include <sys/stat.h>

#include <functional>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

void plain_tree(const fs::path& root) {
  testing::write_tree(root, {{"bin/game", "12345", true}, {"data/a/b", "123"}, {"data/empty", ""}});
}

const SnapshotManifest retired = testing::manifest_of_lengths({{"bin/game", 5}, {"data/a/b", 3}, {"data/empty", 0}});

// Retirement removes the snapshot's files once and keeps what the user added;
// a fully retired root goes, and an absent one needs nothing.
TEST(ManagedTree, CountsRemovesAndRetiresPlainTrees) {
  TempDir dir;
  plain_tree(dir / "tree");
  EXPECT_EQ(tree_bytes(dir / "absent", 10) + tree_bytes(dir / "tree", 6), 8u);  // 6 entries: the bound met exactly
  plain_tree(dir / "version");
  plain_tree(dir / "whole");
  testing::write_text(dir / "version/data/a/saved-game", "mine");
  int calls = 0;  // 1 before any removal, 10 on a tree with nothing left to remove
  for (int round = 0; round < 2; ++round)
    retire_snapshot_files(retired, dir / "version", [&] { calls += fs::exists(dir / "version/bin/game") ? 1 : 10; });
  retire_snapshot_files(retired, dir / "whole", std::function<void()>());
  retire_snapshot_files(retired, dir / "whole", [&] { ++calls; });
  remove_plain_tree(dir / "tree");
  remove_plain_tree(dir / "tree");
  plain_tree(dir / "exited");
  native_files::remove_after_exit(dir / "exited");
  testing::write_text(dir / "new", "new");
  native_files::rename_replace(dir / "new", dir / "whole");  // the retired root is gone by now
  native_files::remove_or_trash(dir / "whole", dir / "trash");
  EXPECT_EQ(testing::modes(dir.path()),
            "./version 755\n./version/data 755\n./version/data/a 755\n./version/data/a/saved-game 644\n");
  EXPECT_EQ(calls, 11);
}

// One row per refusal; each leaves the tree as it was.
TEST(ManagedTree, FailureTable) {
  TempDir dir;
  const fs::path root = dir / "version";
  for (const char* name : {"version", "linked", "piped", "changed", "relinked"}) plain_tree(dir / name);
  // Each tree but the first with one link, special file or changed entry.
  testing::shell("cd '" + dir.path().string() +
                 "' && echo x > file && ln -s \"$PWD/version\" link && ln -s /etc linked/data/a/etc && "
                 "mkfifo piped/data/a/pipe && rm changed/data/empty relinked/data/empty && mkdir changed/data/empty && "
                 "ln -s /etc/hostname relinked/data/empty");
  const auto fifo_at_b = [&] {
    fs::remove(root / "data/a/b");
    ::mkfifo((root / "data/a/b").c_str(), 0600);
  };
  const std::string before = testing::tree_state(dir.path()), unsafe = "unsafe_path: ";
  for (const auto& [action, expected] : std::vector<std::pair<std::function<void()>, std::string>>{
           {[&] { tree_bytes(root, 5); }, "size_limit: Directory entry count exceeds bounds"},
           {[&] { tree_bytes(dir / "link", 10); }, unsafe + "Expected a plain directory"},
           {[&] { tree_bytes(dir / "piped", 100); }, unsafe + "Tree contains a link or special file"},
           {[&] { remove_plain_tree(dir / "linked"); }, unsafe + "Managed path contains a symbolic link"},
           {[&] { remove_plain_tree(dir / "file"); }, unsafe + "Tree cleanup requires an ordinary directory"},
           {[&] { native_files::rename_replace(dir / "new", dir / "file"); },
            "file_write: Cannot move " + (dir / "new").string() + " into place"},
           {[&] { native_files::remove_or_trash(dir / "linked", dir / "trash"); },
            "file_remove: Cannot remove " + (dir / "linked").string()},
           {[&] { retire_snapshot_files(retired, dir / "changed", {}); },
            unsafe + "A managed snapshot path became a link or special file; it was preserved"},
           {[&] { validate_snapshot_retirement(retired, dir / "file"); },
            unsafe + "Managed snapshot retirement requires an ordinary directory"},
           {[&] { validate_snapshot_retirement(retired, dir / "relinked"); },
            unsafe + "Managed path contains a symbolic link"}})
    EXPECT_EQ(testing::outcome(action), expected);
  EXPECT_EQ(testing::tree_state(dir.path()), before);
  // A path changed after validation is preserved with the rest of the tree.
  EXPECT_EQ(testing::outcome([&] { retire_snapshot_files(retired, root, fifo_at_b); }),
            unsafe + "Changed managed paths were preserved");
  EXPECT_EQ(fs::status(root / "data/a/b").type(), fs::file_type::fifo);
}

}  // namespace
}  // namespace zorvi
