#include "client/platform/storage.hpp"

#include <sys/stat.h>

#include <functional>
#include <limits>
#include <sstream>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/snapshot_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

constexpr std::uint64_t unit = 4096, mib16 = 16777216, max = std::numeric_limits<std::uint64_t>::max();

// Every snapshot here has a 10000-byte archive.
SnapshotManifest manifest_of(const std::vector<std::pair<std::string, std::uint64_t>>& files) {
  return testing::manifest_of_lengths(files, 10000);
}

StorageVolume volume_of(std::uint64_t capacity, std::uint64_t available, std::optional<std::uint64_t> inodes = {},
                        std::optional<std::uint64_t> free_inodes = {}) {
  return StorageVolume{"/srv/games", "device:42", unit, capacity, available, inodes, free_inodes};
}

// Each "key=value" of `expected` against the field's JSON text.
void expect_fields(const json& actual, const std::string& expected) {
  std::istringstream fields(expected);
  for (std::string field; fields >> field;) {
    const std::size_t equals = field.find('=');
    EXPECT_EQ(actual[field.substr(0, equals)].dump(), field.substr(equals + 1)) << field;
  }
}

// Worked by hand with a 4 KiB unit:
//   files      a (0) -> 0, b/c (1) -> 4096, b/d (4096) -> 4096, b/e/f (5000) -> 8192: 16384 data bytes
//   entries    4 files + directories b, b/e + root = 7 -> 7 x 4096 = 28672
//   staging    16384 + 28672 = 45056
//   download   10000 rounded to 12288, plus one unit for the new file's entry = 16384, 1 entry
//   additional 16384 + 45056 + 16777216 = 16838656 bytes; 1 + 7 + 64 = 72 entries
TEST(Storage, PlanMatchesHandWorkedPeak) {
  const SnapshotManifest manifest = manifest_of({{"a", 0}, {"b/c", 1}, {"b/d", 4096}, {"b/e/f", 5000}});
  const json plan = plan_install_storage(manifest, volume_of(100 * 1048576, 16838656 - 1, 1000, 100), false, 0, false);
  expect_fields(plan, "reserved=false verified_archive_cached=false existing_partial=false");
  expect_fields(
      plan["volume"],
      "path=\"/srv/games\" download_bytes=16384 download_file_entries=1 staging_bytes=45056 "
      "staging_file_entries=7 control_margin_bytes=16777216 additional_bytes=16838656 "
      "existing_or_unavailable_bytes=88018945 peak_capacity_bytes=104857601 shortfall_bytes=1 "
      "additional_file_entries=72 existing_or_unavailable_inodes=900 peak_inodes=972 shortfall_file_entries=0");
  EXPECT_EQ(testing::caught([&] { require_install_storage(plan, ""); }).details,
            std::vector<std::string>{"zorvi-install --status --data-dir PATH"});
}

// Each row is one volume or one download state against a one-file snapshot
// (2 entries, 8192 staging bytes; its 10000-byte archive needs 12288).
TEST(Storage, ShortfallAndDownloadShare) {
  const SnapshotManifest manifest = manifest_of({{"f", 0}});
  const std::uint64_t additional = 2 * unit + mib16;
  const std::string at = "insufficient_space: Storage at /srv/games needs ";
  for (const auto& [volume, expected] : std::vector<std::pair<StorageVolume, std::string>>{
           {volume_of(1u << 30, additional, 1000, 66), "ok"},
           {volume_of(1u << 30, additional - 1, 1000, 66), at + "1 more byte before installation; free space first"},
           {volume_of(1u << 30, additional, 1000, 64),
            at + "2 more file entries before installation; free space first"},
           {volume_of(1u << 30, additional), "ok"}}) {
    const json plan = plan_install_storage(manifest, volume, true, 0, false);
    EXPECT_EQ(testing::outcome([&] { require_install_storage(plan, "/srv/games, /home/p"); }), expected);
  }
  EXPECT_EQ(testing::caught([&] {
              require_install_storage(plan_install_storage(manifest, volume_of(1, 0), true, 0, false), "/a, /b");
            }).details,
            std::vector<std::string>{"locations /a, /b"});
  const json unknown = plan_install_storage(manifest, volume_of(1u << 30, 1u << 30), false, 0, false)["volume"];
  expect_fields(unknown,
                "inode_capacity=null available_inodes=null existing_or_unavailable_inodes=null "
                "peak_inodes=null shortfall_file_entries=null additional_file_entries=67");

  for (const auto& [cached, existing, partial, expected] : std::vector<std::tuple<bool, int, bool, std::string>>{
           {true, 0, false, "download_bytes=0 download_file_entries=0"},
           {false, 0, true, "download_bytes=12288 download_file_entries=0"},
           {false, 8192, true, "download_bytes=4096"},
           {false, 1 << 20, true, "download_bytes=0"}})
    expect_fields(plan_install_storage(manifest, volume_of(1u << 30, 1u << 30), cached, existing, partial)["volume"],
                  expected);
}

TEST(Storage, PayloadPlanCountsBothTreesAndItsOwnMargin) {
  const SnapshotManifest first = manifest_of({{"a", 1}});        // 2 entries: 3 units
  const SnapshotManifest second = manifest_of({{"x/y", 4097}});  // 3 entries: 5 units
  const json plan = plan_native_payload_storage(first, second, volume_of(1u << 30, 1u << 30, 100, 100), 4);
  EXPECT_EQ(add(max - 1, 1) - multiply(max / 2, 2), 1u);
  expect_fields(plan["volume"],
                "staging_bytes=49152 staging_file_entries=9 control_margin_bytes=20971520 download_bytes=0 "
                "additional_bytes=21020672 additional_file_entries=73");
}

// One row per refusal.
TEST(Storage, FailureTable) {
  testing::TempDir dir;
  std::filesystem::create_directory_symlink(dir.path(), dir / "link");
  const auto budget = [](StorageVolume volume) { return [=] { make_storage_volume_budget(volume); }; };
  StorageVolume relative = volume_of(10, 5), huge = volume_of(1u << 30, 1u << 30);
  relative.path = "games";
  huge.allocation_unit = std::uint64_t{1} << 62;  // charging entries in it overflows
  const std::string geometry = "volume_query: Storage capacity or allocation geometry is unavailable",
                    overflow = "size_limit: Peak storage calculation overflowed";
  for (const auto& [action, expected] : std::vector<std::pair<std::function<void()>, std::string>>{
           {budget(relative), geometry},
           {[] { require_install_storage(json::array(), ""); }, geometry},
           {budget(volume_of(10, 5, 100, std::nullopt)), "volume_query: Storage file-entry counters are incomplete"},
           {budget(volume_of(10, 5, 100, 101)), "volume_query: Storage file-entry counters are invalid"},
           {[] { add(max, 1); }, overflow},
           {[] { multiply(std::uint64_t{1} << 32, std::uint64_t{1} << 32); }, overflow},
           {[&] { plan_install_storage(manifest_of({{"a/b", 1}}), huge, true, 0, false); }, overflow},
           {[] { plan_install_storage(manifest_of({{"f", 0}}), volume_of(0, 1), false, 4096, false); },
            "volume_query: Existing allocation needs an owned partial file"},
           {[&] { inspect_storage_volume(dir / "link"); }, "unsafe_path: Storage needs an ordinary absolute directory"},
           {[&] { inspect_storage_directory(dir / "link"); },
            "unsafe_path: Cannot inspect prepared directory identity"}})
    EXPECT_EQ(testing::outcome(action), expected);
}

TEST(Storage, InspectsARealDirectoryLikeStatvfs) {
  testing::TempDir dir;
  const StorageVolume volume = inspect_storage_volume(dir.path());
  struct stat status{};
  ASSERT_EQ(::stat(dir.path().c_str(), &status), 0);
  EXPECT_EQ(inspect_storage_directory(dir.path()),
            std::pair(std::uint64_t{status.st_dev}, std::uint64_t{status.st_ino}));
  EXPECT_EQ(
      volume.id + " " + std::to_string(volume.allocation_unit) + " " + std::to_string(volume.capacity_bytes) + "\n",
      testing::run_python("import os,sys\nv=os.statvfs(sys.argv[1]); u=v.f_frsize or v.f_bsize\n"
                          "print('device:%d %d %d' % (os.stat(sys.argv[1]).st_dev, u, v.f_blocks*u))",
                          {dir.path().string()}));
  EXPECT_TRUE(volume.path == dir.path() && volume.available_bytes <= volume.capacity_bytes &&
              volume.inode_capacity.has_value() == volume.available_inodes.has_value());
}

}  // namespace
}  // namespace zorvi
