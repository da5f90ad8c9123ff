#include "client/platform/native_platform.hpp"

#include <gtest/gtest.h>

#include "tests/support/files_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;

void set_env(const char* name, const char* value) { value ? ::setenv(name, value, 1) : ::unsetenv(name); }

TEST(NativePlatform, DataRootTakesAnAbsoluteXdgDataHomeElseNeedsAnAbsoluteHome) {
  set_env("HOME", "/home/player");
  const std::pair<const char*, const char*> rows[] = {{"/data/share", "/data/share/zorvi"},
                                                      {"relative/share", "/home/player/.local/share/zorvi"},
                                                      {nullptr, "/home/player/.local/share/zorvi"}};
  for (const auto& [xdg, expected] : rows) {
    set_env("XDG_DATA_HOME", xdg);
    EXPECT_EQ(user_data_root(), expected);
  }
  set_env("XDG_DATA_HOME", "/data/share");
  for (const char* home : {static_cast<const char*>(nullptr), "relative/home"}) {
    set_env("HOME", home);
    EXPECT_EQ(outcome([] { user_data_root(); }), "user_path: HOME must identify an absolute user directory");
  }
}

// Root owns everything a test makes, so a link is one the system placed
// exactly when its folder is root-owned and closed to others.
TEST(ResolveSystemLinks, FollowsOnlySystemLinksAndAtMostSixteen) {
  testing::TempDir dir;
  // System links absolute and relative, a link in a folder anyone may write, a user's own link, and a
  // chain l0 -> l1 -> ... -> l16 -> real one link longer than the bound.
  testing::shell("cd '" + dir.path().string() +
                 "' && chmod 755 . && mkdir -p real/inner && mkdir -m 777 open && ln -s \"$PWD/real\" sys && "
                 "ln -s real relative && ln -s \"$PWD/real\" open/user && ln -s \"$PWD/real\" mine && "
                 "chown -h 65534:65534 mine && for i in $(seq 0 15); do ln -s l$((i + 1)) l$i; done && ln -s real l16");
  const std::pair<fs::path, fs::path> rows[] = {
      {dir / "sys/inner", dir / "real/inner"},
      {dir / "relative/inner", dir / "real/inner"},
      {dir / "open/user/inner", dir / "open/user/inner"},
      {dir / "mine/inner", dir / "mine/inner"},
      {dir / "sys/missing/x/../y", dir / "real/missing/y"},
      {dir / "l1", dir / "real"},
  };
  for (const auto& [path, expected] : rows) EXPECT_EQ(resolve_system_links(path), expected) << path;
  EXPECT_EQ(outcome([&] { resolve_system_links(dir / "l0"); }), "unsafe_path: Too many system links in a path");

  // Links above the base are the caller's; a link below it is refused.
  EXPECT_EQ(safe_join(dir / "sys", "inner/new/file", true), dir.path() / "sys/inner/new/file");
  fs::create_symlink("inner", dir / "real/inside");
  EXPECT_EQ(outcome([&] { safe_join(dir / "real", "inside/x", true); }),
            "unsafe_path: Managed path contains a symbolic link");
}

}  // namespace
}  // namespace zorvi
