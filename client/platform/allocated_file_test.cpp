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
#include "client/platform/directory_handle.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::expect_error;
using testing::TempDir;

const ReservationObserver none;

// Puts a different private file at the path while the original stays open.
void replace_at(const fs::path& path, const std::string& content) {
  testing::write_text(path.string() + ".stranger", content);
  fs::permissions(path.string() + ".stranger", fs::perms::owner_read | fs::perms::owner_write);
  fs::rename(path.string() + ".stranger", path);
}

TEST(AllocatedFile, RecordedBeforeSpaceFinishedDurablyAndReopenedOnlyWhenTheSame) {
  TempDir dir;
  const auto path = dir / "download.partial";
  std::optional<FileReservation> seen;
  AllocatedFile file(path, 10, [&](const FileReservation& reservation) {
    seen = reservation;
    EXPECT_EQ(fs::file_size(path), 0u);  // nothing is claimed yet
  });
  struct stat status{};
  ASSERT_EQ(::lstat(path.c_str(), &status), 0);
  EXPECT_EQ(std::tuple(seen->path, seen->length, seen->device, seen->inode, seen->preallocated, status.st_mode & 07777),
            std::tuple(path, 10u, static_cast<std::uint64_t>(status.st_dev), status.st_ino, false, 0600u));
  EXPECT_TRUE(file.reservation().preallocated && file.allocated_bytes() >= 10 && status.st_size == 10);
  file.write("hello");
  file.write("wor");
  expect_error([&] { file.finish(true); }, "length_mismatch", "File data is shorter than its authenticated length");
  EXPECT_EQ(fs::file_size(path), 10u);  // untouched by the refusal
  file.write("ld");
  expect_error([&] { file.write("!"); }, "size_limit", "Write exceeds the authenticated file length");
  file.set_executable(true);
  file.finish(true);
  EXPECT_EQ(testing::read_text(path) + std::to_string(static_cast<int>(fs::status(path).permissions())),
            "helloworld448");  // 0700

  AllocatedFile(dir / "abandoned", 4, none);
  AllocatedFile(dir / "discarded", 4, none).discard();
  AllocatedFile kept(dir / "kept", 4, none);
  kept.write("ab");
  kept.preserve();
  AllocatedFile shorter(dir / "short", 4, none);
  shorter.write("abc");
  shorter.finish(false);
  AllocatedFile empty(dir / "empty", 0, none);
  EXPECT_TRUE(empty.reservation().preallocated && empty.allocated_bytes() == 0);
  empty.finish(true);
  EXPECT_EQ(testing::modes(dir.path()), "./download.partial 700\n./empty 600\n./kept 600\n./short 600\n");
  EXPECT_EQ(testing::read_text(dir / "short") + std::to_string(fs::file_size(dir / "kept")), "abc4");

  // A retained reservation reopens the same file, and resumes after its verified prefix.
  FileReservation reservation = AllocatedFile(dir / "f", 6, none).retain_reservation();
  AllocatedFile reopened(reservation);
  reopened.write("abc");
  reopened.preserve();
  AllocatedFile resumed(reservation, 3);
  std::string prefix;  // the bytes, then each progress report as done and total
  resumed.read_prefix(
      3, [&](std::string_view bytes) { prefix += bytes; },
      [&](std::uint64_t done, std::uint64_t total) { return prefix += std::to_string(done * 10 + total), true; });
  EXPECT_EQ(prefix, "abc33");
  expect_error([&] { resumed.read_prefix(4, [](std::string_view) {}, Progress()); }, "allocation_changed",
               "Recorded prefix changed");
  expect_error([&] { resumed.read_prefix(3, [](std::string_view) {}, [](auto, auto) { return false; }); }, "cancelled",
               "Partial verification cancelled");
  resumed.reserve_remaining();
  resumed.write("def");
  resumed.finish(true);
  EXPECT_EQ(testing::read_text(dir / "f"), "abcdef");
  // The same through a held parent directory.
  const DirectoryHandle parent = DirectoryHandle::private_directory(dir / "held");
  const FileReservation held = AllocatedFile(parent, "file", dir / "held" / "file", 1, none).retain_reservation();
  AllocatedFile(parent, "file", held).discard();
  EXPECT_TRUE(fs::is_empty(dir / "held"));
  struct stat held_status{};
  EXPECT_TRUE(parent.entry_status(".", held_status) && parent.is(held_status) && !DirectoryHandle().is(held_status));
}

// One row per refusal. A file someone replaced is theirs: it is never removed.
TEST(AllocatedFile, FailureTable) {
  TempDir dir;
  fs::create_directory(dir / "real");
  fs::create_directory_symlink(dir / "real", dir / "link");
  testing::write_text(dir / "taken", "");
  {
    AllocatedFile moved(dir / "moved", 6, none), renamed_over(dir / "renamed", 6, none),
        shared(dir / "shared", 4, none);
    fs::rename(dir / "moved", dir / "aside");  // ours keeps its one link; a stranger takes the name
    testing::write_text(dir / "moved", "stranger's");
    replace_at(dir / "renamed", "stranger's");  // the open file loses its last link
    fs::permissions(dir / "shared", static_cast<fs::perms>(0644));
    const FileReservation reservation = AllocatedFile(dir / "kept", 5, none).retain_reservation();
    ::truncate((dir / "kept").c_str(), 4);  // preallocated, yet no longer its length
    replace_at(dir / "cache", "12");
    const FileReservation cached = AllocatedFile::inspect_file(dir / "cache");
    replace_at(dir / "cache2", "1");
    const FileReservation replaced_cache = AllocatedFile::inspect_file(dir / "cache2");
    replace_at(dir / "cache2", "1");
    FileReservation shorter = cached, gone{dir / "gone", 1, 1, 1, false};
    --shorter.length;
    const std::string changed = "allocation_changed: ", unsafe = "unsafe_path: ";
    const auto stranger_takes_name = [&](const FileReservation&) {
      fs::rename(dir / "new", dir / "new-aside");
      testing::write_text(dir / "new", "other");
    };
    testing::expect_outcomes({
        {[&] { moved.discard(); }, changed + "Cannot discard a replaced partial file"},
        {[&] { moved.preserve(); }, changed + "Cannot preserve a replaced partial file"},
        {[&] { moved.restart(); }, changed + "Cannot restart a replaced partial file"},
        {[&] { moved.retain_reservation(); }, changed + "Cannot retain a changed allocation"},
        {[&] { moved.synchronize(); }, changed + "Partial file changed before synchronization"},
        {[&] { moved.set_executable(true); }, changed + "Allocated file changed before setting executable permissions"},
        {[&] { moved.finish(false); }, changed + "Allocated file changed before completion"},
        {[&] { moved.reserve_remaining(); }, changed + "Resume allocation changed"},
        {[&] { renamed_over.synchronize(); }, unsafe + "Allocation requires an ordinary single-link file"},
        {[&] { shared.synchronize(); }, "permissions: macOS allocation must remain private and owned"},
        {[&] { AllocatedFile(dir / "new", 6, stranger_takes_name); },
         changed + "New allocation changed while recording ownership"},
        {[&] { AllocatedFile again(reservation); },
         changed + "Prepared file was replaced or changed; reserved content was preserved"},
        {[&] { AllocatedFile(dir / "f", std::uint64_t{1} << 63, none); },
         "size_limit: File allocation exceeds native length bounds"},
        {[&] { AllocatedFile(dir / "link/f", 1, none); }, unsafe + "Allocation requires an ordinary parent directory"},
        {[&] { AllocatedFile(dir / "taken", 1, none); },
         unsafe + "Cannot exclusively create or reopen a prepared allocation (17)"},
        {[&] { AllocatedFile::verify_identity(cached); }, "ok"},
        {[&] { AllocatedFile::verify_identity(shorter); }, changed + "Owned partial file identity or bounds changed"},
        {[&] { AllocatedFile::verify_identity(replaced_cache); }, changed + "Prepared allocation identity changed"},
        {[&] { AllocatedFile::verify_identity(gone); }, unsafe + "Cannot inspect owned partial file identity"},
        {[&] { AllocatedFile::inspect_file(dir / "link"); }, unsafe + "Cannot inspect cache file identity"},
    });
  }
  EXPECT_EQ(testing::read_text(dir / "moved") + testing::read_text(dir / "renamed") + testing::read_text(dir / "new"),
            "stranger'sstranger'sother");
  EXPECT_TRUE(fs::exists(dir / "aside") && fs::exists(dir / "new-aside"));
}

TEST(AllocatedFile, ReservationRefusedForAnotherReasonKeepsItsNumber) {
  TempDir dir;
  struct statfs volume{};
  ASSERT_EQ(::statfs(dir.path().c_str(), &volume), 0);
  if (volume.f_type != EXT4_SUPER_MAGIC) GTEST_SKIP() << "needs ext4, whose files stop below 16 TiB";
  // ext4 refuses to reserve past its largest file with EFBIG: not a lack of space.
  expect_error([&] { AllocatedFile(dir / "huge", std::uint64_t{1} << 45, none); }, "space_reservation",
               "Native file allocation failed (27)");
  EXPECT_FALSE(fs::exists(dir / "huge"));
}

// Small file systems mounted where nobody else sees them: a file that cannot
// fit fails before any byte; one without reservation still works.
TEST(AllocatedFile, SpaceOnSmallFileSystems) {
  TempDir dir;
  const std::string at = "'" + dir.path().string() + "'";
  auto result = testing::run_in_private_mounts(
      "mount -t tmpfs -o size=1m tmpfs " + at + " && cd " + at +
      " && \"$TOOL\" allocate \"$PWD/big\" 2000000 2000000; ls -A; df --output=used -B1 . | tail -1 | tr -d ' '");
  EXPECT_EQ(result.out,
            "error insufficient_space: Cannot reserve file data; free space or choose other game storage\n0\n")
      << result.err;
  result = testing::run_in_private_mounts("mount -t ramfs ramfs " + at + " && cd " + at +
                                          " && \"$TOOL\" allocate \"$PWD/f\" 100000 100000 && stat -c %s f");
  EXPECT_EQ(result.out, "preallocated=0 allocated=0\nok\n100000\n") << result.err;
}

}  // namespace
}  // namespace zorvi
