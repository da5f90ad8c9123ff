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
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(fs::file_size(path), 0u);
  }
  const fs::path path = dir / "file.lock";
  {
    FileLock mine(path, false, LockMode::exclusive);
    EXPECT_EQ(ProgramChild("files_probe", {"hold_lock", path.string(), "shared"}).read_line(), busy);
  }
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

// An installation's lock lives in an ordinary shared folder but is itself private.
TEST(Locks, RefuseLockFilesTheyCannotTrustAndLeaveThem) {
  testing::TempDir dir;
  fs::create_directory(dir / "shared-folder");
  fs::permissions(dir / "shared-folder", static_cast<fs::perms>(0777));
  testing::shell("setfacl -d -m u:65534:rw " + (dir / "shared-folder").string());
  NativeFileLock installed(dir / "shared-folder/.lock", true, NativeLockSharing::exclusive_install,
                           LockMode::exclusive);
  EXPECT_EQ(testing::run_command({"getfacl", "-cpE", (dir / "shared-folder/.lock").string()}).out,
            "user::rw-\ngroup::---\nother::---\n\n");
  EXPECT_EQ(fs::status(dir / "shared-folder").permissions(), static_cast<fs::perms>(0777));

  for (const char* name : {"open", "shared", "one-byte"}) {
    testing::write_text(dir / name, name == std::string("one-byte") ? "x" : "");
    fs::permissions(dir / name, fs::perms::owner_read | fs::perms::owner_write);
  }
  fs::permissions(dir / "open", fs::perms::group_read, fs::perm_options::add);
  testing::shell("setfacl -n -m u:65534:rw " + (dir / "shared").string());
  testing::user_symlink(dir / "open", dir / "symlink");
  fs::create_directory(dir / "directory");
  testing::user_symlink(dir / "directory", dir / "linked-parent");
  const auto file = [](const fs::path& path) { return [=] { FileLock lock(path, false, LockMode::exclusive); }; };
  const auto native = [](const fs::path& path, bool create = true, int sharing = 0, int mode = 0) {
    return [=] {
      NativeFileLock lock(path, create, static_cast<NativeLockSharing>(sharing), static_cast<LockMode>(mode));
    };
  };
  const std::string range = "lock_failed: Native ownership requires a bounded lock path and known sharing",
                    parents = "lock_failed: Native ownership requires ordinary existing parents",
                    not_empty_private = "lock_failed: Native ownership requires an ordinary empty private file";
  testing::expect_rows(
      {{file(dir / "open"), "lock_failed: Operation lock must be an ordinary private owned file"},
       {file(dir / "shared"), "permissions: Existing macOS storage grants another identity access; preserve it"},
       {file(dir / "symlink"), "lock_failed: Cannot open operation lock"},
       {file(dir / "linked-parent" / ".lock"), "unsafe_path: macOS directory ancestry is missing or linked"},
       {native(dir / "new", true, 2, 0), range},
       {native(dir / "new", true, 0, -1), range},
       {native(std::string("/tmp/a\0b", 8)), range},
       {native(dir / "missing" / ".lock"), parents},
       {native(dir / "linked-parent" / ".lock"), parents},
       {native(dir / "absent", false), not_empty_private},
       {native(dir / "one-byte"), not_empty_private},
       {native(dir / "open"), not_empty_private}},
      dir.path());
}

}  // namespace
}  // namespace zorvi
