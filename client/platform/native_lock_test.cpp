#include "client/platform/native_lock.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/platform/files.hpp"
#include "client/platform/posix_files.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::entry_state;
using testing::error_of;
using testing::ProgramChild;
using testing::shell;
using testing::TempDir;
using testing::user_symlink;

const std::string busy = "busy|Another Zorvi operation is using this state";
const std::string native_busy = "busy|Another worker owns this native installation";

// Another process holding a lock until it is told to let go.
class Holder {
public:
  Holder(const std::string& kind, const fs::path& path, const std::string& mode, const std::string& extra = "")
      : child_("lock_holder", extra.empty() ? std::vector<std::string>{kind, path.string(), mode}
                                            : std::vector<std::string>{kind, path.string(), mode, extra}) {
    reply_ = child_.read_line();
  }
  const std::string& reply() const { return reply_; }
  void release() {
    child_.close_input();
    EXPECT_EQ(child_.wait(), 0);
  }

private:
  ProgramChild child_;
  std::string reply_;
};

std::string file_lock(const fs::path& path, LockMode mode) {
  return error_of([&] { FileLock lock(path, false, mode); });
}

std::string native_lock(const fs::path& path, LockMode mode, bool create = true) {
  return error_of([&] { NativeFileLock lock(path, create, NativeLockSharing::shared_install, mode); });
}

TEST(FileLock, ExclusiveAndSharedBetweenProcesses) {
  TempDir dir;
  const fs::path path = dir / "state" / ".lock";
  {
    Holder holder("file", path, "exclusive");
    ASSERT_EQ(holder.reply(), "locked");
    EXPECT_EQ(file_lock(path, LockMode::exclusive), busy);
    EXPECT_EQ(file_lock(path, LockMode::shared), busy);
    holder.release();
  }
  EXPECT_EQ(file_lock(path, LockMode::exclusive), "no error");
  {
    Holder holder("file", path, "shared");
    ASSERT_EQ(holder.reply(), "locked");
    EXPECT_EQ(file_lock(path, LockMode::shared), "no error");
    EXPECT_EQ(file_lock(path, LockMode::exclusive), busy);
    holder.release();
  }
  {
    FileLock mine(path, false, LockMode::exclusive);
    Holder holder("file", path, "shared");
    EXPECT_EQ(holder.reply(), "error|" + busy);
  }
  // The lock file stays, private and empty.
  EXPECT_EQ(fs::file_size(path), 0u);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(fs::status(dir / "state").permissions(), fs::perms::owner_all);
}

TEST(FileLock, WaitingLockIsGrantedWhenTheHolderLetsGo) {
  TempDir dir;
  const fs::path path = dir / ".lock";
  Holder holder("file", path, "exclusive");
  ASSERT_EQ(holder.reply(), "locked");
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    holder.release();
  });
  FileLock lock(path, true, LockMode::exclusive);
  releaser.join();
  EXPECT_TRUE(lock.matches_path(path));
}

TEST(FileLock, RetainedLockOutlivesItsObject) {
  TempDir dir;
  const fs::path path = dir / ".lock";
  {
    Holder holder("file", path, "exclusive", "retain");
    ASSERT_EQ(holder.reply(), "locked");  // the object is gone by now
    EXPECT_EQ(file_lock(path, LockMode::shared), busy);
    holder.release();
  }
  EXPECT_EQ(file_lock(path, LockMode::exclusive), "no error");

  // In this process too: another open of the file meets the retained lock.
  auto lock = std::make_unique<FileLock>(path, false, LockMode::exclusive);
  lock->retain_until_process_exit();
  EXPECT_FALSE(lock->matches_path(path));
  lock.reset();
  EXPECT_EQ(file_lock(path, LockMode::exclusive), busy);
}

TEST(FileLock, MatchesPathOnlyWhileTheFileIsTheLockedOne) {
  TempDir dir;
  const fs::path path = dir / ".lock";
  FileLock lock(path, false, LockMode::exclusive);
  EXPECT_TRUE(lock.matches_path(path));
  EXPECT_FALSE(lock.matches_path(dir / "other"));
  atomic_write(dir / "replacement", "");
  fs::rename(dir / "replacement", path);
  EXPECT_FALSE(lock.matches_path(path));
  fs::remove(path);
  EXPECT_FALSE(lock.matches_path(path));
  // A fresh lock file under the same name is a new lock, not the old one.
  EXPECT_EQ(file_lock(path, LockMode::exclusive), "no error");
}

TEST(FileLock, RefusesLockFilesItCannotTrustAndLeavesThem) {
  TempDir dir;
  const auto lock_file = [&](const std::string& name, fs::perms mode) {
    testing::write_text(dir / name, "");
    fs::permissions(dir / name, mode);
    return dir / name;
  };
  const fs::path open = lock_file("open", static_cast<fs::perms>(0644));
  const fs::path linked = lock_file("linked", fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_EQ(::link(linked.c_str(), (dir / "second").c_str()), 0);
  const fs::path foreign = lock_file("foreign", fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
  const fs::path shared = lock_file("shared", fs::perms::owner_read | fs::perms::owner_write);
  shell("setfacl -n -m u:65534:rw " + shared.string());
  user_symlink(open, dir / "symlink");
  fs::create_directory(dir / "directory");
  user_symlink(dir / "directory", dir / "linked-parent");

  const std::string not_ordinary = "lock_failed|Operation lock must be an ordinary private owned file";
  const struct {
    fs::path path;
    std::string expected;
  } cases[] = {
      {open, not_ordinary},
      {linked, not_ordinary},
      {foreign, not_ordinary},
      {shared, "permissions|Existing macOS storage grants another identity access; preserve it"},
      {dir / "symlink", "lock_failed|Cannot open operation lock"},
      {dir / "directory", "lock_failed|Cannot open operation lock"},
      {dir / "linked-parent" / ".lock", "unsafe_path|macOS directory ancestry is missing or linked"},
      {"", "unsafe_path|macOS private directory needs a bounded path below a root"},
  };
  for (const auto& item : cases) {
    const std::string before = entry_state(item.path);
    EXPECT_EQ(file_lock(item.path, LockMode::exclusive), item.expected) << item.path;
    EXPECT_EQ(entry_state(item.path), before);
  }
  EXPECT_TRUE(fs::is_empty(dir / "directory"));
}

TEST(NativeFileLock, ExclusiveAndSharedBetweenProcesses) {
  TempDir dir;
  const fs::path path = dir / ".native-bootstrap.lock";
  {
    Holder holder("native", path, "exclusive");
    ASSERT_EQ(holder.reply(), "locked");
    EXPECT_EQ(native_lock(path, LockMode::exclusive), native_busy);
    EXPECT_EQ(native_lock(path, LockMode::shared, false), native_busy);
    holder.release();
  }
  {
    Holder holder("native", path, "shared");
    ASSERT_EQ(holder.reply(), "locked");
    EXPECT_EQ(native_lock(path, LockMode::shared, false), "no error");
    EXPECT_EQ(native_lock(path, LockMode::exclusive), native_busy);
    holder.release();
  }
  NativeFileLock lock(path, false, NativeLockSharing::exclusive_install, LockMode::exclusive);
  EXPECT_TRUE(lock.matches_path(path));
  atomic_write(dir / "replacement", "");
  fs::rename(dir / "replacement", path);
  EXPECT_FALSE(lock.matches_path(path));
}

TEST(NativeFileLock, LivesInAnOrdinaryFolderButIsItselfPrivate) {
  TempDir dir;
  fs::permissions(dir.path(), static_cast<fs::perms>(0755));
  fs::create_directory(dir / "install");
  fs::permissions(dir / "install", static_cast<fs::perms>(0777));
  shell("setfacl -d -m u:65534:rw " + (dir / "install").string());
  const fs::path path = dir / "install" / ".lock";
  NativeFileLock lock(path, true, NativeLockSharing::exclusive_install, LockMode::exclusive);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(testing::run_command({"getfacl", "-cpE", path.string()}).out, "user::rw-\ngroup::---\nother::---\n\n");
  EXPECT_NE(testing::run_command({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "cat", path.string()})
                .status,
            0);
  EXPECT_EQ(fs::status(dir / "install").permissions(), static_cast<fs::perms>(0777));
}

TEST(NativeFileLock, RefusalRows) {
  TempDir dir;
  testing::write_text(dir / "one-byte", "x");
  fs::permissions(dir / "one-byte", fs::perms::owner_read | fs::perms::owner_write);
  testing::write_text(dir / "open", "");
  fs::permissions(dir / "open", static_cast<fs::perms>(0644));
  fs::create_directory(dir / "real");
  user_symlink(dir / "real", dir / "linked");
  const std::string range = "lock_failed|Native ownership requires a bounded lock path and known sharing";
  const std::string parents = "lock_failed|Native ownership requires ordinary existing parents";
  const std::string not_private = "lock_failed|Native ownership requires an ordinary empty private file";
  const auto with = [](const fs::path& path, int sharing, int mode, bool create = true) {
    return error_of([&] {
      NativeFileLock lock(path, create, static_cast<NativeLockSharing>(sharing), static_cast<LockMode>(mode));
    });
  };
  const struct {
    std::string outcome;
    std::string expected;
  } cases[] = {
      {with(dir / "lock", 2, 0), range},
      {with(dir / "lock", 0, 2), range},
      {with(dir / "lock", -1, 1), range},
      {with("", 0, 0), range},
      {with(std::string("/tmp/a\0b", 8), 0, 0), range},
      {with("/" + std::string(4096, 'a'), 0, 0), range},
      {with(dir / "missing" / "lock", 0, 0), parents},
      {with(dir / "linked" / "lock", 0, 0), parents},
      {with(dir / "absent", 0, 0, false), not_private},
      {with(dir / "one-byte", 0, 0), not_private},
      {with(dir / "open", 0, 0), not_private},
      {with(dir / "real", 0, 0), not_private},
  };
  for (const auto& item : cases) EXPECT_EQ(item.outcome, item.expected);
  EXPECT_FALSE(fs::exists(dir / "absent"));
  EXPECT_TRUE(fs::is_empty(dir / "real"));
  EXPECT_EQ(testing::read_text(dir / "one-byte"), "x");
  EXPECT_EQ(fs::status(dir / "open").permissions(), static_cast<fs::perms>(0644));
}

}  // namespace
}  // namespace zorvi
