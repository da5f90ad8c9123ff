#include "client/platform/reserved_tree.hpp"

#include <sys/stat.h>

#include <functional>
#include <optional>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

const SnapshotManifest sample =
    testing::manifest_of_lengths({{"bin/game", 100}, {"data/a", 0}, {"data/deep/b", 70000}});

TEST(ReservedTree, ReservesEveryFileBeforeAnyData) {
  testing::TempDir dir;
  const auto root = dir / "staging";
  std::optional<DirectoryIdentity> observed;
  const ReservedTree tree(sample, root, Progress(), [&](const DirectoryIdentity& identity) {
    observed = identity;
    EXPECT_TRUE(fs::is_empty(root));
  });
  struct stat status{};
  ASSERT_EQ(::stat(root.c_str(), &status), 0);
  EXPECT_EQ(std::tuple(observed, tree.identity(), status.st_mode & 07777),
            std::tuple(DirectoryIdentity(status.st_dev, status.st_ino), *observed, 0700u));
  EXPECT_EQ(tree.summary(),
            (json{{"requested_bytes", 70100}, {"reserved_bytes", 70100}, {"file_count", 3}, {"data_reserved", true}}));
  EXPECT_EQ(fs::file_size(root / "data/deep/b") + fs::file_size(root / "data/a"), 70000u);
  EXPECT_TRUE(tree.file("bin/game", 100).path == root / "bin/game" && tree.file("bin/game", 100).preallocated);
  tree.validate(sample, root);

  // One row per refusal.
  const auto swapped = [&](const fs::path& at) {
    return [&, at](std::uint64_t done, std::uint64_t total) {
      if (done == total) fs::rename(at, at.string() + "-moved"), fs::create_directory(at);
      return true;
    };
  };
  int calls = 0;
  const std::string changed = "allocation_changed: ", differs = "Prepared tree differs from the requested snapshot",
                    cancelled = "cancelled: Storage preparation cancelled before download";
  for (const auto& [action, expected] : std::vector<std::pair<std::function<void()>, std::string>>{
           {[&] { tree.validate(testing::manifest_of_lengths({{"bin/game", 100}}), root); }, changed + differs},
           // Same count and total, different inventory.
           {[&] {
              tree.validate(testing::manifest_of_lengths({{"bin/game", 100}, {"data/a", 70000}, {"data/deep/b", 0}}),
                            root);
            },
            changed + "File differs from the prepared inventory"},
           {[&] { ReservedTree(sample, root, Progress(), RootObserver()); },
            "staging_exists: A fresh reservation directory is required"},
           {[&] { ReservedTree(sample, dir / "first", [](auto, auto) { return false; }, RootObserver()); }, cancelled},
           {[&] { ReservedTree(sample, dir / "second", [&](auto, auto) { return ++calls < 3; }, RootObserver()); },
            cancelled},
           {[&] {
              ReservedTree(sample, dir / "recorded", Progress(), [&](const DirectoryIdentity&) {
                fs::rename(dir / "recorded", dir / "recorded-moved"), fs::create_directory(dir / "recorded");
              });
            },
            changed + "Prepared root changed while recording ownership"},
           {[&] { ReservedTree(sample, dir / "swapped", swapped(dir / "swapped"), RootObserver()); },
            changed + "Prepared directory changed during reservation"},
           {[&] {
              fs::rename(root, dir / "moved"), fs::create_directory(root);
              tree.validate(sample, root);
            },
            changed + differs}})
    EXPECT_EQ(testing::outcome(action), expected);
  // An empty root is taken back; files already made are left for their records to decide.
  EXPECT_FALSE(fs::exists(dir / "first"));
  EXPECT_TRUE(fs::exists(dir / "second/bin/game") && fs::exists(dir / "second/data/a"));
  EXPECT_TRUE(fs::exists(dir / "recorded") && fs::exists(dir / "recorded-moved"));
  EXPECT_TRUE(fs::exists(dir / "swapped-moved/data/deep/b"));
}

}  // namespace
}  // namespace zorvi
