#include "client/platform/native_lock.hpp"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <thread>

#include "client/platform/files.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;
using testing::ProgramChild;

const std::string busy = "busy: Another Zorvi operation is using this state";

// The other process is files_probe, holding its lock until it is killed.
TEST(Locks, ExclusiveAndSharedBetweenProcessesAndAWaiterGetsTheLockOnRelease) {
  testing::TempDir dir;
  for (const bool native : {false, true}) {
    const fs::path path = dir / (native ? "native.lock" : "file.lock");
    const std::string held = native ? "busy: Another worker owns this native installation" : busy;
    const auto attempt = [&](LockMode mode) {
      return outcome([&] {
        if (native) NativeFileLock lock(path, true, NativeLockSharing::shared_install, mode);
        else FileLock lock(path, false, mode);
      });
    };
    for (const std::string holding : {"exclusive", "shared"}) {
      ProgramChild holder("files_probe", {native ? "hold_native_lock" : "hold_lock", path.string(), holding});
      ASSERT_EQ(holder.read_line(), "locked");
      EXPECT_EQ(attempt(LockMode::exclusive) + "|" + attempt(LockMode::shared),
                held + "|" + (holding == "shared" ? "ok" : held));
    }
    EXPECT_EQ(attempt(LockMode::exclusive), "ok");
    // The lock file stays, private and empty.
    EXPECT_TRUE(fs::status(path).permissions() == (fs::perms::owner_read | fs::perms::owner_write) &&
                fs::file_size(path) == 0);
  }
  const fs::path path = dir / "file.lock";
  ProgramChild holder("files_probe", {"hold_lock", path.string(), "exclusive"});
  ASSERT_EQ(holder.read_line(), "locked");
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    holder.kill(SIGKILL);
  });
  FileLock waited(path, true, LockMode::exclusive);
  releaser.join();
  EXPECT_TRUE(waited.matches_path(path));
}

// The locked file moves aside, still linked once, and an equal one takes its
// name: only the file's identity tells them apart.
TEST(Locks, MatchPathOnlyWhileTheFileIsTheLockedOneAndARetainedLockOutlivesItsObject) {
  testing::TempDir dir;
  const fs::path path = dir / ".lock";
  const auto replace = [&] {
    fs::rename(path, dir / "moved");
    atomic_write(path, "");
  };
  {
    FileLock lock(path, false, LockMode::exclusive);
    EXPECT_TRUE(lock.matches_path(path) && !lock.matches_path(dir / "other"));
    replace();
    EXPECT_FALSE(lock.matches_path(path));
    EXPECT_EQ(outcome([&] { FileLock fresh(path, false, LockMode::exclusive); }), "ok");
  }
  {
    NativeFileLock lock(path, false, NativeLockSharing::exclusive_install, LockMode::exclusive);
    EXPECT_TRUE(lock.matches_path(path));
    replace();
    EXPECT_FALSE(lock.matches_path(path));
  }
  auto lock = std::make_unique<FileLock>(path, false, LockMode::exclusive);
  lock->retain_until_process_exit();
  EXPECT_FALSE(lock->matches_path(path));
  lock.reset();
  EXPECT_EQ(outcome([&] { FileLock again(path, false, LockMode::shared); }), busy);
}

TEST(Locks, RefuseLockFilesTheyCannotTrustAndLeaveThem) {
  testing::TempDir dir;
  // A readable lock file, a lock file with content, and a user's links to one and to a folder.
  testing::shell("cd '" + dir.path().string() +
                 "' && umask 027 && touch open && printf x > one-byte && chmod 600 one-byte && mkdir directory && "
                 "ln -s \"$PWD/open\" symlink && ln -s \"$PWD/directory\" linked-parent && "
                 "chown -h 65534:65534 symlink linked-parent");
  const auto file = [](const fs::path& path) { return [=] { FileLock lock(path, false, LockMode::exclusive); }; };
  const auto native = [](const fs::path& path, int sharing = 0) {
    return [=] { NativeFileLock lock(path, true, static_cast<NativeLockSharing>(sharing), LockMode::exclusive); };
  };
  const std::string range = "lock_failed: Native ownership requires a bounded lock path and known sharing";
  testing::expect_rows(
      {{file(dir / "open"), "lock_failed: Operation lock must be an ordinary private owned file"},
       {file(dir / "symlink"), "lock_failed: Cannot open operation lock"},
       {native(dir / "new", 2), range},
       {native(std::string("/tmp/a\0b", 8)), range},
       {native(dir / "linked-parent" / ".lock"), "lock_failed: Native ownership requires ordinary existing parents"},
       {native(dir / "one-byte"), "lock_failed: Native ownership requires an ordinary empty private file"}},
      dir.path());
}

}  // namespace
}  // namespace zorvi
