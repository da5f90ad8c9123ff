#include "client/platform/macos_paths.hpp"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/files_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using macos_paths::directory_key;
using macos_paths::path_key;

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

  // What it cannot vouch for: a link any user could have made, a file or
  // fifo where a folder belongs, names beyond their bounds or not UTF-8, and
  // the kernel's own file systems.
  testing::user_symlink(later, dir / "link");
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  fs::path deep = dir.path();
  const fs::path relative = deep.relative_path();
  for (auto depth = std::distance(relative.begin(), relative.end()); depth < 256; ++depth) deep /= "d";
  const std::string linked = "unsafe_path: macOS setup ancestry is linked, unavailable or changed";
  testing::expect_outcomes({
      {[&] { path_key(dir / "link" / "missing"); }, linked},
      {[&] { path_key(dir / "fifo"); }, linked},
      {[] { path_key("/" + std::string(4096, 'a')); }, "unsafe_path: macOS setup needs a bounded ordinary destination"},
      // Relative to the working directory, a path within the bound can grow beyond it.
      {[] { path_key(std::string(4095, 'a')); }, "unsafe_path: macOS setup needs a bounded absolute destination"},
      {[&] { directory_key(deep); }, "ok"},
      {[&] { directory_key(deep / "d"); }, "unsafe_path: macOS setup ancestry exceeds its bound"},
      {[&] { directory_key(dir / "bad\xff"); }, "unsafe_path: macOS setup names must be valid UTF-8"},
      {[&] { directory_key(dir / "\xf0\x9f\x8e\xae"); }, "ok"},
      {[] { directory_key("/proc/self"); }, "unsafe_path: macOS setup control storage requires a local Linux volume"},
  });
}

}  // namespace
}  // namespace zorvi
