#include "client/platform/allocated_file.hpp"

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <functional>
#include <limits>
#include <optional>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

using testing::caught;
using testing::expect_error;
using testing::TempDir;

struct stat status_of(const std::filesystem::path& path) {
  struct stat status{};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

// Puts a different private file at the path while the original stays open.
void replace_at(const std::filesystem::path& path, const std::string& content) {
  const std::filesystem::path stranger = path.string() + ".stranger";
  testing::write_text(stranger, content);
  ::chmod(stranger.c_str(), 0600);
  std::filesystem::rename(stranger, path);
}

TEST(AllocatedFile, NewFileIsRecordedBeforeSpaceAndFinishedDurably) {
  TempDir dir;
  const auto path = dir / "download.partial";
  std::optional<FileReservation> seen;
  AllocatedFile file(path, 10, [&](const FileReservation& reservation) {
    seen = reservation;
    EXPECT_EQ(std::filesystem::file_size(path), 0u);  // nothing is claimed yet
  });
  ASSERT_TRUE(seen);
  const struct stat status = status_of(path);
  EXPECT_EQ(seen->path, path);
  EXPECT_EQ(seen->length, 10u);
  EXPECT_EQ(seen->device, static_cast<std::uint64_t>(status.st_dev));
  EXPECT_EQ(seen->inode, static_cast<std::uint64_t>(status.st_ino));
  EXPECT_FALSE(seen->preallocated);
  EXPECT_TRUE(file.reservation().preallocated);
  EXPECT_EQ(status.st_size, 10);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_GE(file.allocated_bytes(), 10u);

  file.write("hello");
  file.write("world");
  EXPECT_EQ(file.written(), 10u);
  expect_error([&] { file.write("!"); }, "size_limit", "Write exceeds the authenticated file length");
  file.set_executable(true);
  file.finish(true);
  EXPECT_EQ(testing::read_text(path), "helloworld");
  EXPECT_EQ(status_of(path).st_mode & 07777, 0700u);
}

TEST(AllocatedFile, ZeroLengthIsPreallocatedAtOnce) {
  TempDir dir;
  AllocatedFile file(dir / "empty", 0, ReservationObserver());
  EXPECT_TRUE(file.reservation().preallocated);
  EXPECT_EQ(file.allocated_bytes(), 0u);
  file.finish(true);
  EXPECT_EQ(std::filesystem::file_size(dir / "empty"), 0u);
}

TEST(AllocatedFile, OnlyAnAbandonedOwnedFileIsRemoved) {
  TempDir dir;
  {
    AllocatedFile abandoned(dir / "abandoned", 4, ReservationObserver());
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "abandoned"));
  {
    AllocatedFile kept(dir / "kept", 4, ReservationObserver());
    kept.write("ab");
    kept.preserve();
  }
  EXPECT_EQ(std::filesystem::file_size(dir / "kept"), 4u);
  {
    AllocatedFile done(dir / "done", 4, ReservationObserver());
    done.write("abcd");
    done.finish(true);
  }
  EXPECT_EQ(testing::read_text(dir / "done"), "abcd");
  {
    AllocatedFile discarded(dir / "discarded", 4, ReservationObserver());
    discarded.discard();
    EXPECT_FALSE(std::filesystem::exists(dir / "discarded"));
  }
}

TEST(AllocatedFile, FinishChecksLengthAndTruncatesToWritten) {
  TempDir dir;
  AllocatedFile file(dir / "f", 8, ReservationObserver());
  file.write("1234567");
  expect_error([&] { file.finish(true); }, "length_mismatch", "File data is shorter than its authenticated length");
  EXPECT_EQ(std::filesystem::file_size(dir / "f"), 8u);  // untouched by the refusal
  file.finish(false);
  EXPECT_EQ(testing::read_text(dir / "f"), "1234567");
}

TEST(AllocatedFile, ReplacedFileIsPreservedAndReported) {
  TempDir dir;
  const auto path = dir / "f";
  {
    AllocatedFile file(path, 6, ReservationObserver());
    file.write("mine");
    // Ours moves aside, keeping its one link; a stranger takes the name.
    std::filesystem::rename(path, dir / "moved");
    testing::write_text(path, "stranger's");
    expect_error([&] { file.discard(); }, "allocation_changed", "Cannot discard a replaced partial file");
    expect_error([&] { file.preserve(); }, "allocation_changed", "Cannot preserve a replaced partial file");
    expect_error([&] { file.restart(); }, "allocation_changed", "Cannot restart a replaced partial file");
    expect_error([&] { file.retain_reservation(); }, "allocation_changed", "Cannot retain a changed allocation");
    expect_error([&] { file.synchronize(); }, "allocation_changed", "Partial file changed before synchronization");
    expect_error([&] { file.set_executable(true); }, "allocation_changed",
                 "Allocated file changed before setting executable permissions");
    expect_error([&] { file.finish(false); }, "allocation_changed", "Allocated file changed before completion");
    expect_error([&] { file.reserve_remaining(); }, "allocation_changed", "Resume allocation changed");
  }
  EXPECT_EQ(testing::read_text(path), "stranger's");
  EXPECT_TRUE(std::filesystem::exists(dir / "moved"));
}

TEST(AllocatedFile, FileRenamedOverIsNoLongerOrdinary) {
  TempDir dir;
  const auto path = dir / "f";
  {
    AllocatedFile file(path, 6, ReservationObserver());
    replace_at(path, "stranger's");  // the open file loses its last link
    expect_error([&] { file.synchronize(); }, "unsafe_path", "Allocation requires an ordinary single-link file");
    expect_error([&] { file.discard(); }, "allocation_changed", "Cannot discard a replaced partial file");
  }
  EXPECT_EQ(testing::read_text(path), "stranger's");
}

TEST(AllocatedFile, PathChangedWhileRecordingOwnershipLeavesTheStranger) {
  TempDir dir;
  const auto path = dir / "f";
  expect_error(
      [&] {
        AllocatedFile(path, 6, [&](const FileReservation&) {
          std::filesystem::rename(path, dir / "moved");
          testing::write_text(path, "other");
        });
      },
      "allocation_changed", "New allocation changed while recording ownership");
  EXPECT_EQ(testing::read_text(path), "other");
}

TEST(AllocatedFile, ReservationReopensOnlyTheSameFileInTheSameShape) {
  TempDir dir;
  const auto path = dir / "f";
  FileReservation reservation = AllocatedFile(path, 6, ReservationObserver()).retain_reservation();
  EXPECT_TRUE(reservation.preallocated);
  EXPECT_EQ(std::filesystem::file_size(path), 6u);
  {
    AllocatedFile reopened(reservation);
    reopened.write("abc");
    reopened.preserve();
  }
  {
    AllocatedFile resumed(reservation, 3);
    EXPECT_EQ(resumed.written(), 3u);
    std::string prefix;
    std::vector<std::uint64_t> reports;
    resumed.read_prefix(
        3, [&](std::string_view bytes) { prefix += bytes; },
        [&](std::uint64_t done, std::uint64_t total) {
          reports.push_back(done);
          EXPECT_EQ(total, 3u);
          return true;
        });
    EXPECT_EQ(prefix, "abc");
    EXPECT_EQ(reports, std::vector<std::uint64_t>{3});
    expect_error([&] { resumed.read_prefix(4, [](std::string_view) {}, Progress()); }, "allocation_changed",
                 "Recorded prefix changed");
    expect_error([&] { resumed.read_prefix(3, [](std::string_view) {}, [](auto, auto) { return false; }); },
                 "cancelled", "Partial verification cancelled");
    resumed.reserve_remaining();
    resumed.write("def");
    resumed.finish(true);
  }
  EXPECT_EQ(testing::read_text(path), "abcdef");

  // A preallocated reservation whose size is no longer its length is somebody else's.
  ::truncate(path.c_str(), 5);
  expect_error([&] { AllocatedFile again(reservation); }, "allocation_changed",
               "Prepared file was replaced or changed; reserved content was preserved");
  replace_at(path, "abcdef");
  expect_error([&] { AllocatedFile again(reservation, 2); }, "allocation_changed",
               "Prepared file was replaced or changed; reserved content was preserved");
  EXPECT_EQ(testing::read_text(path), "abcdef");
}

TEST(AllocatedFile, PrivateSingleLinkRuleHoldsAtEveryStep) {
  TempDir dir;
  {
    AllocatedFile file(dir / "shared", 4, ReservationObserver());
    ::chmod((dir / "shared").c_str(), 0644);
    expect_error([&] { file.synchronize(); }, "permissions", "macOS allocation must remain private and owned");
    ::chmod((dir / "shared").c_str(), 0600);
    std::filesystem::create_hard_link(dir / "shared", dir / "second");
    expect_error([&] { file.synchronize(); }, "unsafe_path", "Allocation requires an ordinary single-link file");
  }
  // With a second link the destructor still proves identity by path and removes only its own name.
  EXPECT_TRUE(std::filesystem::exists(dir / "second"));
}

TEST(AllocatedFile, OpeningFailures) {
  TempDir dir;
  std::filesystem::create_directory(dir / "real");
  std::filesystem::create_directory_symlink(dir / "real", dir / "link");
  testing::write_text(dir / "taken", "");
  const std::uint64_t too_long = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + 1;
  expect_error([&] { AllocatedFile(dir / "f", too_long, ReservationObserver()); }, "size_limit",
               "File allocation exceeds native length bounds");
  expect_error([&] { AllocatedFile(dir / "link/f", 1, ReservationObserver()); }, "unsafe_path",
               "Allocation requires an ordinary parent directory");
  expect_error([&] { AllocatedFile(dir / "absent/f", 1, ReservationObserver()); }, "unsafe_path",
               "Allocation requires an ordinary parent directory");
  expect_error([&] { AllocatedFile(dir / "taken", 1, ReservationObserver()); }, "unsafe_path",
               "Cannot exclusively create or reopen a prepared allocation (17)");
  FileReservation gone{dir / "gone", 1, 1, 1, false};
  expect_error([&] { AllocatedFile reopened(gone); }, "unsafe_path",
               "Cannot exclusively create or reopen a prepared allocation (2)");
}

TEST(AllocatedFile, IdentityOfRecordedAndCacheFiles) {
  TempDir dir;
  const auto path = dir / "cache";
  AllocatedFile file(path, 5, ReservationObserver());
  file.write("12345");
  file.finish(true);
  const FileReservation cached = AllocatedFile::inspect_file(path);
  EXPECT_EQ(cached.length, 5u);
  EXPECT_NO_THROW(AllocatedFile::verify_identity(cached));

  FileReservation shorter = cached;
  shorter.length = 4;
  expect_error([&] { AllocatedFile::verify_identity(shorter); }, "allocation_changed",
               "Owned partial file identity or bounds changed");
  replace_at(path, "12345");
  expect_error([&] { AllocatedFile::verify_identity(cached); }, "allocation_changed",
               "Prepared allocation identity changed");
  std::filesystem::remove(path);
  expect_error([&] { AllocatedFile::verify_identity(cached); }, "unsafe_path",
               "Cannot inspect owned partial file identity");

  std::filesystem::create_symlink(dir / "elsewhere", dir / "linked");
  expect_error([&] { AllocatedFile::inspect_file(dir / "linked"); }, "unsafe_path",
               "Cannot inspect cache file identity");
  testing::write_text(dir / "public", "x");
  ::chmod((dir / "public").c_str(), 0644);
  expect_error([&] { AllocatedFile::inspect_file(dir / "public"); }, "permissions",
               "macOS allocation must remain private and owned");
}

TEST(AllocatedFile, ReservationRefusedForAnotherReasonKeepsItsNumber) {
  TempDir dir;
  struct statfs volume{};
  ASSERT_EQ(::statfs(dir.path().c_str(), &volume), 0);
  if (volume.f_type != EXT4_SUPER_MAGIC) GTEST_SKIP() << "needs ext4, whose files stop below 16 TiB";
  // ext4 refuses to reserve past its largest file with EFBIG: not a lack of space.
  expect_error([&] { AllocatedFile(dir / "huge", std::uint64_t{1} << 45, ReservationObserver()); }, "space_reservation",
               "Native file allocation failed (27)");
  EXPECT_FALSE(std::filesystem::exists(dir / "huge"));
}

// ---- Space, on small file systems mounted where nobody else sees them ------

TEST(AllocatedFileSpace, FileThatCannotFitFailsBeforeAnyByte) {
  TempDir dir;
  const auto result = testing::run_in_private_mounts(
      "mount -t tmpfs -o size=1m tmpfs '" + dir.path().string() + "' && cd '" + dir.path().string() +
      "' && \"$TOOL\" allocate \"$PWD/big\" 2000000 2000000; ls -A; df --output=used -B1 . | tail -1 | tr -d ' '");
  EXPECT_EQ(result.out,
            "error insufficient_space: Cannot reserve file data; free space or choose other game storage\n0\n")
      << result.err;
}

TEST(AllocatedFileSpace, FileSystemWithoutReservationStillWorks) {
  TempDir dir;
  const auto result = testing::run_in_private_mounts(
      "mount -t ramfs ramfs '" + dir.path().string() + "' && cd '" + dir.path().string() +
      "' && \"$TOOL\" allocate \"$PWD/f\" 100000 100000 && stat -c %s f");
  EXPECT_EQ(result.out, "preallocated=0 allocated=0\nok\n100000\n") << result.err;
}

}  // namespace
}  // namespace zorvi
