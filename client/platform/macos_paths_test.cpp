#include "client/platform/macos_paths.hpp"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/files_support.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using macos_paths::directory_key;
using macos_paths::path_key;
using testing::outcome;

std::string file_system_identity(const fs::path& path) {
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0) return "unknown";
  return std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev));
}

TEST(MacosPaths, GivesOneTextPerPlaceBeforeAndAfterItExistsAndRefusesWhatItCannotVouchFor) {
  testing::TempDir dir;
  const std::string key = directory_key(dir.path());
  // Below the root of the file system, which may sit above the process's own root.
  EXPECT_TRUE(key.starts_with("linux-v1/" + file_system_identity(dir.path()) + "/s/")) << key;
  EXPECT_TRUE(key.ends_with(dir.path().relative_path().native())) << key;
  EXPECT_EQ(directory_key(dir.path() / "." / "sub" / ".."), key);
  const fs::path later = dir / "later" / "deeper";
  EXPECT_EQ(directory_key(later), key + "/later/deeper");
  fs::create_directories(later);
  testing::write_text(later / "file", "x");
  EXPECT_EQ(path_key(later / "file"), key + "/later/deeper/file");
  // Names compare by their bytes: neither case nor Unicode form is folded.
  fs::create_directories(dir / "Folder");
  EXPECT_NE(directory_key(dir / "Folder"), directory_key(dir / "folder"));
  EXPECT_NE(directory_key(dir / "caf\xc3\xa9"), directory_key(dir / "cafe\xcc\x81"));
  // Merged /usr: /lib is a link the system placed, and it is followed.
  if (fs::is_symlink("/lib")) {
    EXPECT_EQ(directory_key("/lib/zorvi-missing"), directory_key("/usr/lib/zorvi-missing"));
  }

  // What it cannot vouch for: a link any user could have made, a file or
  // fifo where a folder belongs, names beyond their bounds or not UTF-8, and
  // the kernel's own file systems.
  testing::user_symlink(later, dir / "link");
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  fs::path deep = dir.path();
  const fs::path relative = deep.relative_path();
  for (auto depth = std::distance(relative.begin(), relative.end()); depth < 256; ++depth) deep /= "d";
  const std::string linked = "unsafe_path: macOS setup ancestry is linked, unavailable or changed";
  const std::string ordinary = "unsafe_path: macOS setup needs a bounded ordinary destination";
  const std::string utf8 = "unsafe_path: macOS setup names must be valid UTF-8";
  const std::string local = "unsafe_path: macOS setup control storage requires a local Linux volume";
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[&] { path_key(dir / "link" / "missing"); }, linked},
      {[&] { directory_key(later / "file"); }, linked},
      {[&] { path_key(later / "file" / "below"); }, linked},
      {[&] { path_key(dir / "fifo"); }, linked},
      {[] { path_key(""); }, ordinary},
      {[] { path_key(std::string("/tmp/a\0b", 8)); }, ordinary},
      {[] { path_key("/" + std::string(4096, 'a')); }, ordinary},
      // Relative to the working directory, a path within the bound can grow beyond it.
      {[] { path_key(std::string(4095, 'a')); }, "unsafe_path: macOS setup needs a bounded absolute destination"},
      {[&] { directory_key(deep); }, "ok"},
      {[&] { directory_key(deep / "d"); }, "unsafe_path: macOS setup ancestry exceeds its bound"},
      {[&] { directory_key(dir / "bad\xff"); }, utf8},
      {[&] { directory_key(dir / "\xc0\xaf"); }, utf8},
      {[&] { directory_key(dir / "\xf0\x9f\x8e\xae"); }, "ok"},
      {[] { directory_key("/proc/self"); }, local},
      {[] { directory_key("/dev/zorvi-missing"); }, local},
  };
  for (std::size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(outcome(rows[i].first), rows[i].second) << "row " << i;
}

// In a mount namespace of its own: a bind mount of a folder shares the
// folder's keys, a whole mounted file system is keyed from its own root, and
// an overlay is refused like any file system this machine cannot vouch for.
TEST(MacosPaths, FollowsMountsToTheFileSystemBelow) {
  testing::TempDir dir;
  for (const char* name : {"source/inner", "view dir", "memory", "lower", "upper", "work", "merged"})
    fs::create_directories(dir / name);
  const std::string text = testing::in_subprocess([&]() -> std::string {
    const std::string overlay = "lowerdir=" + (dir / "lower").native() + ",upperdir=" + (dir / "upper").native() +
                                ",workdir=" + (dir / "work").native();
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount((dir / "source").c_str(), (dir / "view dir").c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        ::mount("tmpfs", (dir / "memory").c_str(), "tmpfs", 0, nullptr) != 0)
      return "unavailable";
    std::string wrong;
    const std::string source = directory_key(dir / "source/inner/new");
    if (!source.ends_with("/source/inner/new") || directory_key(dir / "view dir/inner/new") != source) wrong += " bind";
    const std::string memory = "linux-v1/" + file_system_identity(dir / "memory") + "/s";
    if (directory_key(dir / "memory") != memory || directory_key(dir / "memory/a") != memory + "/a") wrong += " tmpfs";
    if (::mount("overlay", (dir / "merged").c_str(), "overlay", 0, overlay.c_str()) == 0)
      wrong += " " + outcome([&] { directory_key(dir / "merged/x"); });
    return wrong;
  });
  if (text == "unavailable") GTEST_SKIP() << "cannot mount here";
  EXPECT_TRUE(text.empty() || text == " unsafe_path: macOS setup control storage requires a local Linux volume")
      << text;
}

}  // namespace
}  // namespace zorvi
