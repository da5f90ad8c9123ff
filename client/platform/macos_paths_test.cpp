#include "client/platform/macos_paths.hpp"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>

#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

std::string refusal(const std::function<void()>& action) {
  try {
    action();
  } catch (const Error& error) {
    EXPECT_EQ(error.code, "unsafe_path") << error.what();
    return error.what();
  }
  return "accepted";
}

std::string file_system_identity(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev));
}

TEST(MacosPaths, NamesTheFileSystemAndThePathBelowItsRoot) {
  TempDir dir;
  const std::string key = macos_paths::directory_key(dir.path());
  const std::string scheme = "linux-v1/" + file_system_identity(dir.path()) + "/s/";
  EXPECT_TRUE(key.starts_with(scheme)) << key;
  // Below the root of the file system, which may sit above the process's own root.
  EXPECT_TRUE(key.ends_with(dir.path().relative_path().native())) << key;
  EXPECT_EQ(macos_paths::path_key(dir.path()), key);
  EXPECT_EQ(macos_paths::directory_key(dir.path() / "." / "sub" / ".."), key);
}

TEST(MacosPaths, KeepsTheKeyOfAPathThatIsCreatedLater) {
  TempDir dir;
  const std::string base = macos_paths::directory_key(dir.path());
  const fs::path later = dir / "later" / "deeper";
  const std::string before = macos_paths::directory_key(later);
  EXPECT_EQ(before, base + "/later/deeper");
  fs::create_directories(later);
  EXPECT_EQ(macos_paths::directory_key(later), before);
  testing::write_text(later / "file", "x");
  EXPECT_EQ(macos_paths::path_key(later / "file"), before + "/file");
}

TEST(MacosPaths, ComparesNamesByTheirBytes) {
  TempDir dir;
  fs::create_directories(dir / "Folder");
  EXPECT_NE(macos_paths::directory_key(dir / "Folder"), macos_paths::directory_key(dir / "folder"));
  const std::string composed = "caf\xc3\xa9";
  const std::string decomposed = "cafe\xcc\x81";
  EXPECT_NE(macos_paths::directory_key(dir / composed), macos_paths::directory_key(dir / decomposed));
}

TEST(MacosPaths, ResolvesOnlySystemLinks) {
  // Merged /usr: /lib is a link the system placed, and it is followed.
  struct stat status {};
  if (::lstat("/lib", &status) != 0 || !S_ISLNK(status.st_mode)) GTEST_SKIP() << "/lib is no system link here";
  EXPECT_EQ(macos_paths::directory_key("/lib/zorvi-missing"), macos_paths::directory_key("/usr/lib/zorvi-missing"));

  // A link any user could have made (here: owned by nobody) is refused,
  // wherever it stands and whether or not its target exists.
  TempDir dir;
  fs::create_directories(dir / "real");
  fs::create_directory_symlink(dir / "real", dir / "link");
  ASSERT_EQ(::lchown((dir / "link").c_str(), 65534, 65534), 0);
  const char* linked = "macOS setup ancestry is linked, unavailable or changed";
  EXPECT_EQ(refusal([&] { macos_paths::directory_key(dir / "link"); }), linked);
  EXPECT_EQ(refusal([&] { macos_paths::path_key(dir / "link" / "missing"); }), linked);
}

TEST(MacosPaths, RefusesFilesWhereDirectoriesBelong) {
  TempDir dir;
  testing::write_text(dir / "file", "x");
  const char* linked = "macOS setup ancestry is linked, unavailable or changed";
  EXPECT_NO_THROW(macos_paths::path_key(dir / "file"));
  EXPECT_EQ(refusal([&] { macos_paths::directory_key(dir / "file"); }), linked);
  EXPECT_EQ(refusal([&] { macos_paths::path_key(dir / "file" / "below"); }), linked);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(refusal([&] { macos_paths::path_key(dir / "fifo"); }), linked);
}

TEST(MacosPaths, BoundsThePath) {
  const char* ordinary = "macOS setup needs a bounded ordinary destination";
  EXPECT_EQ(refusal([] { macos_paths::path_key(""); }), ordinary);
  EXPECT_EQ(refusal([] { macos_paths::path_key(std::string("/tmp/a\0b", 8)); }), ordinary);
  EXPECT_EQ(refusal([] { macos_paths::path_key("/" + std::string(4096, 'a')); }), ordinary);
  // Relative to the working directory, a path within the bound can grow beyond it.
  EXPECT_EQ(refusal([] { macos_paths::path_key(std::string(4095, 'a')); }),
            "macOS setup needs a bounded absolute destination");

  TempDir dir;
  fs::path deep = dir.path();
  const fs::path relative = deep.relative_path();
  const auto depth = static_cast<std::size_t>(std::distance(relative.begin(), relative.end()));
  for (std::size_t i = depth; i < 256; ++i) deep /= "d";
  EXPECT_NO_THROW(macos_paths::directory_key(deep));
  EXPECT_EQ(refusal([&] { macos_paths::directory_key(deep / "d"); }), "macOS setup ancestry exceeds its bound");
}

TEST(MacosPaths, RequiresUtf8Names) {
  TempDir dir;
  EXPECT_EQ(refusal([&] { macos_paths::directory_key(dir / "bad\xff"); }), "macOS setup names must be valid UTF-8");
  EXPECT_EQ(refusal([&] { macos_paths::directory_key(dir / "\xc0\xaf"); }), "macOS setup names must be valid UTF-8");
  EXPECT_NO_THROW(macos_paths::directory_key(dir / "\xf0\x9f\x8e\xae"));
}

TEST(MacosPaths, RefusesPseudoFileSystems) {
  const char* local = "macOS setup control storage requires a local Linux volume";
  EXPECT_EQ(refusal([] { macos_paths::directory_key("/proc/self"); }), local);
  EXPECT_EQ(refusal([] { macos_paths::directory_key("/sys/kernel"); }), local);
  EXPECT_EQ(refusal([] { macos_paths::directory_key("/dev/zorvi-missing"); }), local);
}

// Runs `body` in a child with a mount namespace of its own, so that the test
// can mount freely; the child's output comes back as lines.
std::vector<std::string> in_mount_namespace(const std::function<std::vector<std::string>()>& body) {
  int channel[2];
  if (::pipe(channel) != 0) return {};
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(channel[0]);
    std::string out;
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      out = "unavailable\n";
    } else {
      for (const std::string& line : body()) out += line + "\n";
    }
    (void)!::write(channel[1], out.data(), out.size());
    ::_exit(0);
  }
  ::close(channel[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t got; (got = ::read(channel[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(got));
  ::close(channel[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  std::vector<std::string> lines;
  for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(text.substr(start, end - start));
  }
  return lines;
}

std::string key_or_refusal(const fs::path& path) {
  try {
    return macos_paths::directory_key(path);
  } catch (const Error& error) {
    return error.what();
  }
}

TEST(MacosPaths, GivesABindMountAndItsSourceOneKey) {
  TempDir dir;
  fs::create_directories(dir / "source" / "inner");
  fs::create_directories(dir / "view dir");
  fs::create_directories(dir / "memory");
  const std::vector<std::string> lines = in_mount_namespace([&]() -> std::vector<std::string> {
    if (::mount((dir / "source").c_str(), (dir / "view dir").c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        ::mount("tmpfs", (dir / "memory").c_str(), "tmpfs", 0, nullptr) != 0) {
      return {"unavailable"};
    }
    return {key_or_refusal(dir / "source" / "inner" / "new"), key_or_refusal(dir / "view dir" / "inner" / "new"),
            key_or_refusal(dir / "memory"), key_or_refusal(dir / "memory" / "a"), file_system_identity(dir / "memory")};
  });
  ASSERT_FALSE(lines.empty());
  if (lines[0] == "unavailable") GTEST_SKIP() << "cannot mount here";
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], lines[1]);
  EXPECT_TRUE(lines[0].ends_with("/source/inner/new")) << lines[0];
  // A mount of a whole file system: its root has the short key, with the
  // file system's own identity.
  EXPECT_EQ(lines[2], "linux-v1/" + lines[4] + "/s");
  EXPECT_EQ(lines[3], lines[2] + "/a");
}

TEST(MacosPaths, RefusesOverlayMounts) {
  TempDir dir;
  for (const char* name : {"lower", "upper", "work", "merged"}) fs::create_directories(dir / name);
  const std::vector<std::string> lines = in_mount_namespace([&]() -> std::vector<std::string> {
    const std::string options = "lowerdir=" + (dir / "lower").native() + ",upperdir=" + (dir / "upper").native() +
                                ",workdir=" + (dir / "work").native();
    if (::mount("overlay", (dir / "merged").c_str(), "overlay", 0, options.c_str()) != 0) return {"unavailable"};
    return {key_or_refusal(dir / "merged" / "x")};
  });
  ASSERT_EQ(lines.size(), 1u);
  if (lines[0] == "unavailable") GTEST_SKIP() << "overlay cannot be mounted here";
  EXPECT_EQ(lines[0], "macOS setup control storage requires a local Linux volume");
}

}  // namespace
}  // namespace zorvi
