#include "client/platform/native_platform.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

// Root owns everything the tests make, so a link is a "system link" exactly
// when its folder is root-owned and closed to group and others.
void make_link(const fs::path& target, const fs::path& link) { fs::create_symlink(target, link); }

class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~ScopedEnv() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(NativePlatform, PlatformKeyAndDataRoot) {
  EXPECT_EQ(native_platform(), "linux-x86_64");
  {
    ScopedEnv home("HOME", "/home/player");
    ScopedEnv xdg("XDG_DATA_HOME", nullptr);
    EXPECT_EQ(user_data_root(), fs::path("/home/player/.local/share/zorvi"));
  }
  {
    ScopedEnv home("HOME", "/home/player");
    ScopedEnv xdg("XDG_DATA_HOME", "/data/share");
    EXPECT_EQ(user_data_root(), fs::path("/data/share/zorvi"));
  }
  {
    ScopedEnv home("HOME", "/home/player");
    ScopedEnv xdg("XDG_DATA_HOME", "relative/share");
    EXPECT_EQ(user_data_root(), fs::path("/home/player/.local/share/zorvi"));
  }
  for (const char* bad : {static_cast<const char*>(nullptr), "", "relative/home"}) {
    ScopedEnv home("HOME", bad);
    ScopedEnv xdg("XDG_DATA_HOME", "/data/share");
    try {
      user_data_root();
      ADD_FAILURE();
    } catch (const Error& error) {
      EXPECT_EQ(error.code, "user_path");
      EXPECT_STREQ(error.what(), "HOME must identify an absolute user directory");
    }
  }
}

TEST(ResolveSystemLinks, ResolvesOnlyLinksInClosedRootFolders) {
  testing::TempDir dir;
  fs::create_directories(dir / "real/inner");
  fs::create_directory(dir / "closed");
  fs::permissions(dir / "closed", fs::perms(0755));
  fs::create_directory(dir / "open");
  fs::permissions(dir / "open", fs::perms(0777));
  make_link(dir / "real", dir / "closed/sys");
  make_link(dir / "real", dir / "open/user");
  make_link("../real", dir / "closed/relative");

  EXPECT_EQ(resolve_system_links(dir / "closed/sys/inner"), dir.path() / "real/inner");
  EXPECT_EQ(resolve_system_links(dir / "closed/relative/inner"), dir.path() / "real/inner");
  // A link in a folder anyone may write to could be anyone's: it stays.
  EXPECT_EQ(resolve_system_links(dir / "open/user/inner"), dir.path() / "open/user/inner");
  // The missing tail is appended as written.
  EXPECT_EQ(resolve_system_links(dir / "closed/sys/missing/x/../y"), dir.path() / "real/missing/y");

  // Not owned by root: stays visible.
  fs::create_directory(dir / "mine");
  make_link(dir / "real", dir / "mine/link");
  ASSERT_EQ(::lchown((dir / "mine/link").c_str(), 65534, 65534), 0);
  EXPECT_EQ(resolve_system_links(dir / "mine/link/inner"), dir.path() / "mine/link/inner");
}

TEST(ResolveSystemLinks, BoundsExpansionsAndCycles) {
  testing::TempDir dir;
  fs::permissions(dir.path(), fs::perms(0755));
  fs::create_directory(dir / "end");
  // l1 -> l2 -> ... -> l16 -> end: sixteen expansions.
  for (int i = 1; i <= 16; ++i) {
    const fs::path target = i == 16 ? fs::path("end") : fs::path("l" + std::to_string(i + 1));
    make_link(target, dir / ("l" + std::to_string(i)));
  }
  EXPECT_EQ(resolve_system_links(dir / "l1"), dir.path() / "end");
  make_link("l1", dir / "l0");
  try {
    resolve_system_links(dir / "l0");
    FAIL();
  } catch (const Error& error) {
    EXPECT_EQ(error.code, "unsafe_path");
    EXPECT_STREQ(error.what(), "Too many system links in a path");
  }
  make_link("cycle-b", dir / "cycle-a");
  make_link("cycle-a", dir / "cycle-b");
  EXPECT_THROW(resolve_system_links(dir / "cycle-a/x"), Error);
}

TEST(SafeJoin, RefusesLinksBelowTheBase) {
  testing::TempDir dir;
  fs::create_directories(dir / "base/sub");
  make_link(dir / "base", dir / "base-link");
  make_link("sub", dir / "base/inside");
  EXPECT_EQ(safe_join(dir / "base-link", "sub/new/file", true), dir.path() / "base-link/sub/new/file");
  for (const char* text : {"inside", "inside/x"}) {
    try {
      safe_join(dir / "base", text, true);
      ADD_FAILURE() << text;
    } catch (const Error& error) {
      EXPECT_EQ(error.code, "unsafe_path");
      EXPECT_STREQ(error.what(), "Managed path contains a symbolic link");
    }
  }
  EXPECT_THROW(safe_join(dir / "base", "../x", true), Error);
}

}  // namespace
}  // namespace zorvi
