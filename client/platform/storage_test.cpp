#include "client/platform/storage.hpp"

#include <sys/stat.h>

#include <functional>
#include <limits>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/snapshot_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using testing::caught;
using testing::TempDir;

constexpr std::uint64_t unit = 4096;
constexpr std::uint64_t mib16 = 16777216;

SnapshotManifest manifest_of(const std::vector<std::pair<std::string, std::uint64_t>>& files,
                             std::uint64_t archive_length = 10000) {
  return testing::manifest_of_lengths(files, archive_length);
}

StorageVolume volume_of(std::uint64_t capacity, std::uint64_t available, std::optional<std::uint64_t> inodes = {},
                        std::optional<std::uint64_t> free_inodes = {}) {
  return StorageVolume{"/srv/games", "device:42", unit, capacity, available, inodes, free_inodes};
}

// Worked by hand with a 4 KiB unit:
//   files      a (0) -> 0, b/c (1) -> 4096, b/d (4096) -> 4096, b/e/f (5000) -> 8192: 16384 data bytes
//   entries    4 files + directories b, b/e + root = 7 -> 7 x 4096 = 28672
//   staging    16384 + 28672 = 45056
//   download   10000 rounded to 12288, plus one unit for the new file's entry = 16384, 1 entry
//   additional 16384 + 45056 + 16777216 = 16838656 bytes; 1 + 7 + 64 = 72 entries
TEST(StoragePlan, MatchesHandWorkedPeak) {
  const SnapshotManifest manifest = manifest_of({{"a", 0}, {"b/c", 1}, {"b/d", 4096}, {"b/e/f", 5000}});
  EXPECT_EQ(snapshot_storage_file_entries(manifest), 7u);
  const json plan = plan_install_storage(manifest, volume_of(100 * 1048576, 16838656 - 1, 1000, 100), false, 0, false);
  EXPECT_EQ(plan["schema_version"], 1);
  EXPECT_EQ(plan["reserved"], false);
  EXPECT_EQ(plan["verified_archive_cached"], false);
  EXPECT_EQ(plan["existing_partial"], false);
  EXPECT_EQ(plan["existing_archive_allocation_bytes"], 0);
  const json& volume = plan["volume"];
  EXPECT_EQ(volume["path"], "/srv/games");
  EXPECT_EQ(volume["download_bytes"], 16384);
  EXPECT_EQ(volume["download_file_entries"], 1);
  EXPECT_EQ(volume["staging_bytes"], 45056);
  EXPECT_EQ(volume["staging_file_entries"], 7);
  EXPECT_EQ(volume["control_margin_bytes"], mib16);
  EXPECT_EQ(volume["additional_bytes"], 16838656);
  EXPECT_EQ(volume["existing_or_unavailable_bytes"], 100 * 1048576 - (16838656 - 1));
  EXPECT_EQ(volume["peak_capacity_bytes"], 100 * 1048576 + 1);
  EXPECT_EQ(volume["shortfall_bytes"], 1);
  EXPECT_EQ(volume["additional_file_entries"], 72);
  EXPECT_EQ(volume["existing_or_unavailable_inodes"], 900);
  EXPECT_EQ(volume["peak_inodes"], 972);
  EXPECT_EQ(volume["shortfall_file_entries"], 0);

  const Error error = caught([&] { require_install_storage(plan, ""); });
  EXPECT_EQ(error.code, "insufficient_space");
  EXPECT_STREQ(error.what(), "Storage at /srv/games needs 1 more byte before installation; free space first");
  EXPECT_EQ(error.details, std::vector<std::string>{"zorvi-install --status --data-dir PATH"});
}

TEST(StoragePlan, EntryChargesPerFile) {
  // Staging bytes minus the root's and the margin's share leave each file's cost.
  const auto file_cost = [](std::uint64_t length) {
    const json plan = plan_install_storage(manifest_of({{"f", length}}), volume_of(1u << 30, 1u << 30), true, 0, false);
    return plan["volume"]["staging_bytes"].get<std::uint64_t>() - unit;
  };
  EXPECT_EQ(file_cost(0), unit);
  EXPECT_EQ(file_cost(1), 2 * unit);
  EXPECT_EQ(file_cost(unit), 2 * unit);
  EXPECT_EQ(file_cost(unit + 1), 3 * unit);
}

TEST(StoragePlan, ShortfallWordingAndPrecedence) {
  const SnapshotManifest manifest = manifest_of({{"f", 0}});  // 2 entries, 8192 staging bytes
  const std::uint64_t additional = 2 * unit + mib16;
  struct Row {
    StorageVolume volume;
    const char* message;
  };
  const std::vector<Row> rows{
      {volume_of(1u << 30, additional, 1000, 66), ""},
      {volume_of(1u << 30, additional - 1, 1000, 66), "needs 1 more byte "},
      {volume_of(1u << 30, additional - 7, 1000, 0), "needs 7 more bytes "},
      {volume_of(1u << 30, additional, 1000, 65), "needs 1 more file entry "},
      {volume_of(1u << 30, additional, 1000, 64), "needs 2 more file entries "},
      {volume_of(1u << 30, additional), ""},
  };
  for (const Row& row : rows) {
    const json plan = plan_install_storage(manifest, row.volume, true, 0, false);
    if (std::string(row.message).empty()) {
      EXPECT_NO_THROW(require_install_storage(plan, "")) << plan.dump();
      continue;
    }
    const Error error = caught([&] { require_install_storage(plan, "/srv/games, /home/p"); });
    EXPECT_EQ(error.code, "insufficient_space");
    EXPECT_EQ(std::string(error.what()),
              std::string("Storage at /srv/games ") + row.message + "before installation; free space first");
    EXPECT_EQ(error.details, std::vector<std::string>{"locations /srv/games, /home/p"});
  }
}

TEST(StoragePlan, VolumeWithoutCountersHasNullEntryFields) {
  const json plan = plan_install_storage(manifest_of({{"f", 0}}), volume_of(1u << 30, 1u << 30), false, 0, false);
  const json& volume = plan["volume"];
  EXPECT_TRUE(volume["inode_capacity"].is_null());
  EXPECT_TRUE(volume["available_inodes"].is_null());
  EXPECT_TRUE(volume["existing_or_unavailable_inodes"].is_null());
  EXPECT_TRUE(volume["peak_inodes"].is_null());
  EXPECT_TRUE(volume["shortfall_file_entries"].is_null());
  EXPECT_EQ(volume["additional_file_entries"], 1 + 2 + 64);
}

TEST(StoragePlan, DownloadShareFollowsCacheAndPartial) {
  const SnapshotManifest manifest = manifest_of({{"f", 0}}, 10000);  // archive needs 12288
  const StorageVolume volume = volume_of(1u << 30, 1u << 30);
  using Share = std::pair<std::uint64_t, std::uint64_t>;
  const auto download = [&](bool cached, std::uint64_t existing, bool partial) {
    const json plan = plan_install_storage(manifest, volume, cached, existing, partial);
    return std::pair(plan["volume"]["download_bytes"].get<std::uint64_t>(),
                     plan["volume"]["download_file_entries"].get<std::uint64_t>());
  };
  EXPECT_EQ(download(true, 0, false), Share(0, 0));
  EXPECT_EQ(download(false, 0, false), Share(12288 + unit, 1));
  EXPECT_EQ(download(false, 0, true), Share(12288, 0));
  EXPECT_EQ(download(false, 8192, true), Share(4096, 0));
  EXPECT_EQ(download(false, 1u << 20, true), Share(0, 0));

  const Error error = caught([&] { plan_install_storage(manifest, volume_of(0, 1), false, 4096, false); });
  EXPECT_EQ(error.code, "volume_query");
  EXPECT_STREQ(error.what(), "Existing allocation needs an owned partial file");
}

TEST(StoragePlan, PayloadPlanCountsBothTreesAndItsOwnMargin) {
  const SnapshotManifest first = manifest_of({{"a", 1}});        // 2 entries: 3 units
  const SnapshotManifest second = manifest_of({{"x/y", 4097}});  // 3 entries: 5 units
  const json plan = plan_native_payload_storage(first, second, volume_of(1u << 30, 1u << 30, 100, 100), 4);
  EXPECT_EQ(plan, (json{{"schema_version", 1}, {"reserved", false}, {"volume", plan["volume"]}}));
  const json& volume = plan["volume"];
  EXPECT_EQ(volume["staging_bytes"], (3 + 5 + 4) * unit);
  EXPECT_EQ(volume["staging_file_entries"], 2 + 3 + 4);
  EXPECT_EQ(volume["control_margin_bytes"], 20971520);
  EXPECT_EQ(volume["download_bytes"], 0);
  EXPECT_EQ(volume["additional_bytes"], 12 * unit + 20971520);
  EXPECT_EQ(volume["additional_file_entries"], 2 + 3 + 4 + 64);
  EXPECT_EQ(volume["shortfall_file_entries"], 0);
}

TEST(StoragePlan, OverflowIsAFailureNeverAWrap) {
  const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
  const auto expect_overflow = [](const std::function<void()>& action) {
    const Error error = caught(action);
    EXPECT_EQ(error.code, "size_limit");
    EXPECT_STREQ(error.what(), "Peak storage calculation overflowed");
  };
  EXPECT_EQ(add(max - 1, 1), max);
  EXPECT_EQ(multiply(max / 2, 2), max - 1);
  expect_overflow([&] { add(max, 1); });
  expect_overflow([&] { multiply(std::uint64_t{1} << 32, std::uint64_t{1} << 32); });
  const SnapshotManifest big = manifest_of({{"f", std::uint64_t{1} << 42}}, std::uint64_t{1} << 42);
  expect_overflow([&] { plan_install_storage(big, volume_of(max - 1, 0), false, 0, false); });
  // A unit so large that charging entries in it overflows.
  StorageVolume huge = volume_of(1u << 30, 1u << 30);
  huge.allocation_unit = std::uint64_t{1} << 62;
  expect_overflow([&] { plan_install_storage(manifest_of({{"a/b", 1}}), huge, true, 0, false); });
}

TEST(StorageVolumeRules, ValidationRefusesInconsistentGeometry) {
  struct Row {
    StorageVolume volume;
    const char* message;
  };
  const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
  StorageVolume relative = volume_of(10, 5);
  relative.path = "games";
  StorageVolume no_id = volume_of(10, 5);
  no_id.id.clear();
  StorageVolume no_unit = volume_of(10, 5);
  no_unit.allocation_unit = 0;
  const std::vector<Row> rows{
      {relative, "Storage capacity or allocation geometry is unavailable"},
      {no_id, "Storage capacity or allocation geometry is unavailable"},
      {no_unit, "Storage capacity or allocation geometry is unavailable"},
      {volume_of(max, 5), "Storage capacity or allocation geometry is unavailable"},
      {volume_of(10, 11), "Storage capacity or allocation geometry is unavailable"},
      {volume_of(10, 5, 100, std::nullopt), "Storage file-entry counters are incomplete"},
      {volume_of(10, 5, std::nullopt, 100), "Storage file-entry counters are incomplete"},
      {volume_of(10, 5, 0, 0), "Storage file-entry counters are invalid"},
      {volume_of(10, 5, max, 1), "Storage file-entry counters are invalid"},
      {volume_of(10, 5, 100, 101), "Storage file-entry counters are invalid"},
  };
  for (const Row& row : rows) {
    const Error error = caught([&] { make_storage_volume_budget(row.volume); });
    EXPECT_EQ(error.code, "volume_query");
    EXPECT_EQ(std::string(error.what()), row.message);
  }
}

TEST(StorageVolumeRules, InspectsARealDirectoryLikeStatvfs) {
  TempDir dir;
  const StorageVolume volume = inspect_storage_volume(dir.path());
  const std::string expected = testing::run_python(
      "import os,sys\n"
      "v=os.statvfs(sys.argv[1]); u=v.f_frsize or v.f_bsize\n"
      "print('device:%d %d %d' % (os.stat(sys.argv[1]).st_dev, u, v.f_blocks*u))",
      {dir.path().string()});
  EXPECT_EQ(
      volume.id + " " + std::to_string(volume.allocation_unit) + " " + std::to_string(volume.capacity_bytes) + "\n",
      expected);
  EXPECT_EQ(volume.path, dir.path());
  EXPECT_LE(volume.available_bytes, volume.capacity_bytes);
  EXPECT_EQ(volume.inode_capacity.has_value(), volume.available_inodes.has_value());
}

TEST(StorageVolumeRules, RefusesLinksFilesAndRelativePaths) {
  TempDir dir;
  std::filesystem::create_directory(dir / "real");
  std::filesystem::create_directory_symlink(dir / "real", dir / "link");
  testing::write_text(dir / "file", "x");
  for (const std::filesystem::path& path :
       {dir / "link", dir / "file", dir / "absent", std::filesystem::path("real")}) {
    const Error error = caught([&] { inspect_storage_volume(path); });
    EXPECT_EQ(error.code, "unsafe_path") << path;
    EXPECT_STREQ(error.what(), "Storage needs an ordinary absolute directory");
  }
}

TEST(StorageVolumeRules, DirectoryIdentityIsDeviceAndInode) {
  TempDir dir;
  std::filesystem::create_directory(dir / "real");
  std::filesystem::create_directory_symlink(dir / "real", dir / "link");
  struct stat status{};
  ASSERT_EQ(::stat((dir / "real").c_str(), &status), 0);
  EXPECT_EQ(inspect_storage_directory(dir / "real"),
            std::pair(static_cast<std::uint64_t>(status.st_dev), static_cast<std::uint64_t>(status.st_ino)));
  for (const auto& path : {dir / "link", dir / "absent"}) {
    const Error error = caught([&] { inspect_storage_directory(path); });
    EXPECT_EQ(error.code, "unsafe_path");
    EXPECT_STREQ(error.what(), "Cannot inspect prepared directory identity");
  }
}

}  // namespace
}  // namespace zorvi
