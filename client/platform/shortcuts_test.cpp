#include "client/platform/shortcuts.hpp"

#include <unistd.h>

#include <gtest/gtest.h>

#include "client/platform/launch_documents.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

// A desktop in a temporary folder that HOME and XDG_DATA_HOME point at, with
// an installed tree in a folder whose name needs quoting. Its bootstrap and
// helper are scripts that record their arguments and the opened document.
struct DesktopHome {
  testing::TempDir dir;
  fs::path root = dir / "Zorvi \"Data\" $HOME";
  fs::path bootstrap = install(root / "native/bootstrap");
  DesktopHome() {
    ::setenv("HOME", dir.path().c_str(), 1);
    ::setenv("XDG_DATA_HOME", (dir / "share").c_str(), 1);
    fs::create_directories(dir / "Desktop");
  }
  DesktopShortcut shortcut(const std::string& game) const { return {bootstrap, root, game, "Z"}; }
  static fs::path install(const fs::path& folder) {
    const fs::path helper = folder / "bin/ZorviShortcut.app/Contents/MacOS/zorvi-shortcut";
    fs::create_directories(helper.parent_path());
    testing::write_text(folder / "bin/ZorviShortcut.app/Contents/Info.plist", "");
    for (const fs::path& program : {folder / "bin/zorvi-bootstrap", helper}) {
      testing::write_text(program, "#!/bin/sh\nprintf '%s\\n' \"$@\" \"$ZORVI_LAUNCH_DOCUMENT\" > \"${0%/*}/ran\"\n");
      fs::permissions(program, fs::perms(0755));
    }
    return folder / "bin/zorvi-bootstrap";
  }
};

json ledger_entry(const fs::path& path) {
  return {{"path", path.native()}, {"game", ""}, {"name", "Z"}, {"sha256", ""}};
}

void write_ledger(const fs::path& root, const json& entries, int version = 1) {
  fs::create_directories(root / "native");
  testing::write_text(root / "native/shortcuts.json",
                      json{{"schema_version", version}, {"kind", "zorvi-shortcuts"}, {"entries", entries}}.dump());
}

TEST(Shortcuts, EachRefusalLeavesEverythingAsItWas) {
  DesktopHome home;
  const fs::path desk = home.dir / "Desktop";
  for (const char* folder : {"launcher/versions/1.0", "launcher/staging", "versions", "share"})
    fs::create_directories(home.dir / folder);
  testing::write_text(home.dir / "versions/taken.zorvi-launch", "mine");
  testing::user_symlink(desk, home.dir / "link");
  testing::write_text(home.bootstrap.parent_path() / "other", "");
  write_ledger(home.dir / "old", json::array(), 2);
  write_ledger(home.dir / "bad", json::array({ledger_entry("relative.desktop")}));
  // The deepest parent the walk accepts, and one below it.
  fs::path deep = "/";
  for (const auto& part : home.dir.path().relative_path()) deep /= part;
  while (std::distance(deep.begin(), deep.end()) < 129) deep /= "d";
  fs::create_directories(deep / "d");
  const auto document = [&home](const fs::path& destination, const fs::path& bootstrap = {}) {
    const DesktopShortcut shortcut{bootstrap.empty() ? home.bootstrap : bootstrap, home.root, "", "Z"};
    return [=] { create_macos_launch_document(shortcut, destination); };
  };
  const auto native = [&home](const fs::path& place) {
    return [&home, place] { create_native_shortcut(home.shortcut(""), place); };
  };
  const std::string payloads = "shortcut_path: Launch documents must be outside managed launcher payloads";
  testing::expect_rows(
      {
          {document(desk / "star.txt"), "shortcut_path: macOS launch documents must end in .zorvi-launch"},
          {document("Desktop/x.zorvi-launch"),
           "shortcut_path: Shortcut paths must be absolute and normalized below a filesystem root"},
          {document(desk / "missing/x.zorvi-launch"),
           "shortcut_path: Shortcut inputs need existing ordinary files and directories"},
          {document(home.root / "x.zorvi-launch"), "shortcut_path: Launch documents must be outside application data"},
          {document(home.dir / "launcher/versions/1.0/x.zorvi-launch"), payloads},
          {document(home.dir / "launcher/staging/x.zorvi-launch"), payloads},
          {document(home.dir / "versions/taken.zorvi-launch"),
           "already_exists: Launch-document destination already exists; it was preserved"},
          {document(desk / "x.zorvi-launch", home.bootstrap.parent_path() / "other"),
           "shortcut_bootstrap: macOS shortcuts require the stable native bootstrap"},
          {[] { native_menu_entry("/a/../b", "", ""); },
           "shortcut_path: Shortcut paths must be absolute and normalized"},
          {[] { linux_menu_entry("", "", ""); }, "shortcut_path: Application menu entry needs its selected profile"},
          {[&] { create_owned_native_shortcut(home.shortcut(""), home.root / "x.desktop"); },
           "shortcut_path: Shortcuts must be outside the data folder"},
          {native(home.dir / "missing/x.desktop"),
           "shortcut_path: Custom shortcut destinations require an existing parent directory"},
          {native(deep / "x.txt"), "shortcut_path: Linux desktop entries must end in .desktop"},
          {native(deep / "d/x.desktop"), "shortcut_path: Shortcut paths need existing plain files and directories"},
          {native(home.dir / "link/x.desktop"), "unsafe_path: Shortcut path contains a symbolic link"},
          {[&] { owned_native_shortcuts(home.dir / "old"); },
           "shortcut_ledger: Unsupported shortcut list " + (home.dir / "old/native/shortcuts.json").native()},
          {[&] { owned_native_shortcuts(home.dir / "bad"); },
           "shortcut_ledger: Shortcut list is malformed: " + (home.dir / "bad/native/shortcuts.json").native()},
      },
      home.dir.path());
  testing::write_text(home.dir / "share/applications", "not a folder");
  testing::expect_rows({{document(desk / "x.zorvi-launch"),
                         "shortcut_api: Cannot register the installed Zorvi launch-document handler"}},
                       home.dir.path());
  // A cache tool that fails: the desktop would not know the handler.
  fs::remove(home.dir / "share/applications");
  const std::string search = std::getenv("PATH");
  const fs::path tool = home.dir / "update-mime-database";
  testing::write_text(tool, "#!/bin/sh\nexit 1\n");
  fs::permissions(tool, fs::perms(0755));
  ::setenv("PATH", home.dir.path().c_str(), 1);
  testing::expect_error(document(desk / "x.zorvi-launch"), "shortcut_api",
                        "Cannot register the installed Zorvi launch-document handler");
  ::setenv("PATH", search.c_str(), 1);
  ::unsetenv("XDG_DATA_HOME");
  ::unsetenv("HOME");
  testing::expect_error([] { native_menu_directory(); }, "user_path", "Cannot locate the user's Desktop");
}

TEST(Shortcuts, LedgerRemovesOnlyWhatItMadeUnchanged) {
  DesktopHome home;
  const fs::path launcher = native_menu_entry(home.root, "", "Zorvi");
  const fs::path game = native_menu_entry(home.root, "star-harbor", "");
  const fs::path custom = home.dir / "Desktop/star.desktop";
  EXPECT_TRUE(create_owned_native_shortcut(home.shortcut(""), launcher)["created"]);
  const std::string menu = testing::tree_state(launcher.parent_path());
  EXPECT_FALSE(create_owned_native_shortcut(home.shortcut(""), launcher)["created"]);
  EXPECT_EQ(testing::tree_state(launcher.parent_path()), menu);
  create_owned_native_shortcut(home.shortcut("star-harbor"), game);
  create_owned_native_shortcut(home.shortcut("star-harbor"), custom);
  ASSERT_EQ(owned_native_shortcuts(home.root).size(), 3u);
  // The menu runs the entry's command line with every path intact.
  const auto launched = testing::run_command({"gio", "launch", game.native()});
  ASSERT_EQ(launched.status, 0) << launched.err;
  const fs::path ran = home.bootstrap.parent_path() / "ran";
  ASSERT_TRUE(testing::eventually([&] { return fs::exists(ran); }));
  EXPECT_EQ(testing::read_text(ran), "--data-dir\n" + home.root.native() + "\n--gui\n--game\nstar-harbor\n\n");

  testing::write_text(game, testing::read_text(game) + "Comment=mine\n");
  fs::remove(custom);
  const fs::path moved = DesktopHome::install(home.dir / "moved");
  EXPECT_EQ(restore_owned_native_shortcuts(home.root, moved), std::vector<fs::path>{launcher});
  EXPECT_NE(testing::read_text(launcher).find(moved.native()), std::string::npos);
  const ShortcutRemoval removal = remove_owned_native_shortcuts(home.root);
  EXPECT_EQ(removal.removed, std::vector<fs::path>{launcher});
  EXPECT_EQ(removal.changed, std::vector<fs::path>{game});
  EXPECT_TRUE(fs::exists(game));
  EXPECT_FALSE(fs::exists(launcher) || fs::exists(home.root / "native/shortcuts.json"));
}

TEST(Shortcuts, ConcurrentWritersShareTheBoundedLedger) {
  DesktopHome home;
  json fake = json::array();
  for (int i = 0; i < 126; ++i) fake.push_back(ledger_entry(home.dir / ("f" + std::to_string(i) + ".desktop")));
  write_ledger(home.root, fake);
  // The menu folder exists, as on any desktop: a key of a path whose missing
  // folders another process creates meanwhile is refused, by design.
  fs::create_directories(home.dir / "share/applications");
  std::vector<pid_t> children;
  for (const char* game : {"one", "two"}) {
    children.push_back(::fork());
    if (children.back() == 0)
      _exit(testing::outcome([&] {
              create_owned_native_shortcut(home.shortcut(game), native_menu_entry(home.root, game, ""));
            }) == "ok"
                ? 0
                : 1);
  }
  for (pid_t pid : children) EXPECT_EQ(testing::wait_status(pid), 0);
  EXPECT_EQ(owned_native_shortcuts(home.root).size(), 128u);
  testing::expect_error([&] { create_owned_native_shortcut(home.shortcut(""), home.dir / "new.desktop"); },
                        "size_limit", "Too many recorded shortcuts");
  EXPECT_TRUE(create_owned_native_shortcut(home.shortcut(""), home.dir / "f7.desktop")["created"]);
}

}  // namespace
}  // namespace zorvi
