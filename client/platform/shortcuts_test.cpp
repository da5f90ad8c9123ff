#include "client/platform/shortcuts.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "client/platform/launch_documents.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

// A desktop in a temporary folder that HOME and XDG_DATA_HOME point at, with
// an installed tree in a folder whose name needs quoting. Its bootstrap and
// helper are scripts that record their arguments and the opened document.
struct DesktopHome {
  testing::TempDir dir;
  fs::path path() const { return dir.path(); }
  fs::path root() const { return dir / "Zorvi \"Data\" $HOME"; }
  fs::path bootstrap() const { return root() / "native/bootstrap/bin/zorvi-bootstrap"; }
  DesktopShortcut shortcut(const std::string& game, const std::string& name = "Z") const {
    return {bootstrap(), root(), game, name};
  }
  DesktopHome() {
    ::setenv("HOME", path().c_str(), 1);
    ::setenv("XDG_DATA_HOME", (dir / "share").c_str(), 1);
    install(root().filename().native() + "/native/bootstrap");
  }
  fs::path install(const std::string& folder) const {
    const fs::path bin = dir / folder / "bin";
    fs::create_directories(bin / "ZorviShortcut.app/Contents/MacOS");
    testing::write_text(bin / "ZorviShortcut.app/Contents/Info.plist", "");
    for (const fs::path& program : {bin / "zorvi-bootstrap", bin / "ZorviShortcut.app/Contents/MacOS/zorvi-shortcut"}) {
      testing::write_text(program, "#!/bin/sh\nprintf '%s\\n' \"$@\" \"$ZORVI_LAUNCH_DOCUMENT\" > \"${0%/*}/ran\"\n");
      fs::permissions(program, fs::perms(0755));
    }
    return bin / "zorvi-bootstrap";
  }
};

std::string ran_by(const fs::path& program) {
  const fs::path ran = program.parent_path() / "ran";
  for (int i = 0; i < 500 && !fs::exists(ran); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return testing::read_text(ran);
}

void write_ledger(const fs::path& root, const json& entries, int version = 1) {
  fs::create_directories(root / "native");
  testing::write_text(root / "native/shortcuts.json",
                      json{{"schema_version", version}, {"kind", "zorvi-shortcuts"}, {"entries", entries}}.dump());
}

TEST(LaunchDocumentCreation, EachRefusalLeavesEverythingAsItWas) {
  DesktopHome home;
  const fs::path desk = home.path() / "Desktop";
  for (const char* folder : {"Desktop", "launcher/versions/1.0", "versions", "share"})
    fs::create_directories(home.path() / folder);
  testing::write_text(desk / "taken.zorvi-launch", "mine");
  testing::write_text(home.path() / "versions/taken.zorvi-launch", "mine");
  testing::user_symlink(desk / "gone", desk / "dangling.zorvi-launch");
  testing::write_text(home.bootstrap().parent_path() / "other", "");
  fs::remove(home.install("bare").parent_path() / "ZorviShortcut.app/Contents/Info.plist");
  const auto create = [&home](const fs::path& destination, const fs::path& bootstrap = {}) {
    const DesktopShortcut shortcut{bootstrap.empty() ? home.bootstrap() : bootstrap, home.root(), "", "Z"};
    return [=] { create_macos_launch_document(shortcut, destination); };
  };
  const std::string inputs = "shortcut_path|Shortcut inputs need existing ordinary files and directories";
  const std::string exists = "already_exists|Launch-document destination already exists; it was preserved";
  testing::expect_rows(
      {
          {create(desk / "star.txt"), "shortcut_path|macOS launch documents must end in .zorvi-launch"},
          {create("Desktop/x.zorvi-launch"),
           "shortcut_path|Shortcut paths must be absolute and normalized below a filesystem root"},
          {create(desk / "missing/x.zorvi-launch"), inputs},
          {create(home.root() / "x.zorvi-launch"), "shortcut_path|Launch documents must be outside application data"},
          {create(home.path() / "launcher/versions/1.0/x.zorvi-launch"),
           "shortcut_path|Launch documents must be outside managed launcher payloads"},
          {create(desk / "taken.zorvi-launch"), exists},
          {create(home.path() / "versions/taken.zorvi-launch"), exists},
          {create(desk / "dangling.zorvi-launch"),
           "unsafe_path|macOS setup ancestry is linked, unavailable or changed"},
          {create(desk / "x.zorvi-launch", home.bootstrap().parent_path() / "other"),
           "shortcut_bootstrap|macOS shortcuts require the stable native bootstrap"},
          {create(desk / "x.zorvi-launch", home.path() / "bare/bin/zorvi-bootstrap"), inputs},
      },
      home.path());
  testing::write_text(home.path() / "share/applications", "not a folder");
  testing::expect_rows(
      {{create(desk / "x.zorvi-launch"), "shortcut_api|Cannot register the installed Zorvi launch-document handler"}},
      home.path());
}

TEST(LaunchDocumentCreation, TheDesktopOpensTheDocumentWithTheRegisteredHelper) {
  if (testing::run_command({"sh", "-c", "command -v update-mime-database update-desktop-database gio"}).status != 0)
    GTEST_SKIP() << "shared-mime-info, desktop-file-utils or gio is not installed";
  DesktopHome home;
  const fs::path document = home.path() / "Star Harbor.zorvi-launch";
  create_macos_launch_document(home.shortcut("star-harbor"), document);
  // What a file manager does on a double click: the type from the name, the
  // handler from the type, then the handler's command line.
  const auto type = testing::run_command({"gio", "info", "-a", "standard::content-type", document.native()});
  EXPECT_NE(type.out.find("application/x-zorvi-launch"), std::string::npos) << type.out << type.err;
  const std::string handler = testing::run_command({"gio", "mime", "application/x-zorvi-launch"}).out;
  const std::size_t start = handler.find("zorvi-shortcut-");
  ASSERT_NE(start, std::string::npos) << handler;
  const fs::path entry =
      home.path() / "share/applications" / handler.substr(start, handler.find(".desktop", start) + 8 - start);
  EXPECT_EQ(testing::run_command({"desktop-file-validate", entry.native()}).status, 0);
  // The freedesktop tools a desktop without GLib asks give the same answers.
  EXPECT_EQ(testing::run_command({"xdg-mime", "query", "filetype", document.native()}).out,
            "application/x-zorvi-launch\n");
  EXPECT_EQ(testing::run_command({"xdg-mime", "query", "default", "application/x-zorvi-launch"}).out,
            entry.filename().native() + "\n");
  ASSERT_EQ(testing::run_command({"gio", "launch", entry.native(), document.native()}).status, 0);
  EXPECT_EQ(ran_by(home.bootstrap().parent_path() / "ZorviShortcut.app/Contents/MacOS/x"), document.native() + "\n");
}

TEST(Shortcuts, EachRefusalLeavesEverythingAsItWas) {
  DesktopHome home;
  fs::create_directories(home.path() / "Desktop");
  testing::user_symlink(home.path() / "Desktop", home.path() / "link");
  write_ledger(home.path() / "old", json::array(), 2);
  write_ledger(home.path() / "bad",
               json::array({{{"path", "relative.desktop"}, {"game", ""}, {"name", "Z"}, {"sha256", ""}}}));
  const DesktopShortcut sc = home.shortcut("");
  const auto native = [&home, sc](const char* place) {
    return [&home, sc, place] { create_native_shortcut(sc, home.path() / place); };
  };
  const std::string normalized = "shortcut_path|Shortcut paths must be absolute and normalized";
  testing::expect_rows(
      {
          {[] { native_menu_entry("/a/../b", "", ""); }, normalized},
          {[] { linux_menu_entry("", "", ""); }, "shortcut_path|Application menu entry needs its selected profile"},
          {[&] { create_owned_native_shortcut(sc, home.root() / "x.desktop"); },
           "shortcut_path|Shortcuts must be outside the data folder"},
          {native("missing/x.desktop"),
           "shortcut_path|Custom shortcut destinations require an existing parent directory"},
          {native("missing/deeper/x.desktop"),
           "shortcut_path|Shortcut paths need existing plain files and directories"},
          {native("link/x.desktop"), "unsafe_path|Shortcut path contains a symbolic link"},
          {native("Desktop/x.txt"), "shortcut_path|Linux desktop entries must end in .desktop"},
          {[&] { owned_native_shortcuts(home.path() / "old"); },
           "shortcut_ledger|Unsupported shortcut list " + (home.path() / "old/native/shortcuts.json").native()},
          {[&] { owned_native_shortcuts(home.path() / "bad"); },
           "shortcut_ledger|Shortcut list is malformed: " + (home.path() / "bad/native/shortcuts.json").native()},
      },
      home.path());
  ::unsetenv("XDG_DATA_HOME");
  ::unsetenv("HOME");
  testing::expect_error([] { native_menu_directory(); }, "user_path", "Cannot locate the user's Desktop");
}

TEST(Shortcuts, LedgerRemovesOnlyWhatItMadeUnchanged) {
  DesktopHome home;
  const fs::path launcher = native_menu_entry(home.root(), "", "Zorvi");
  const fs::path game = native_menu_entry(home.root(), "star-harbor", "");
  const fs::path custom = home.path() / "Desktop/star.desktop";
  EXPECT_TRUE(create_owned_native_shortcut(home.shortcut(""), launcher)["created"]);
  const std::string menu = testing::tree_state(launcher.parent_path());
  EXPECT_FALSE(create_owned_native_shortcut(home.shortcut(""), launcher)["created"]);
  EXPECT_EQ(testing::tree_state(launcher.parent_path()), menu);
  create_owned_native_shortcut(home.shortcut("star-harbor"), game);
  fs::create_directories(custom.parent_path());
  create_owned_native_shortcut(home.shortcut("star-harbor"), custom);
  ASSERT_EQ(owned_native_shortcuts(home.root()).size(), 3u);
  // The menu runs the entry's command line with every path intact.
  const auto launched = testing::run_command({"gio", "launch", game.native()});
  ASSERT_EQ(launched.status, 0) << launched.err;
  EXPECT_EQ(ran_by(home.bootstrap()), "--data-dir\n" + home.root().native() + "\n--gui\n--game\nstar-harbor\n\n");

  testing::write_text(game, testing::read_text(game) + "Comment=mine\n");
  fs::remove(custom);
  const fs::path moved = home.install("moved");
  EXPECT_EQ(restore_owned_native_shortcuts(home.root(), moved), std::vector<fs::path>{launcher});
  EXPECT_NE(testing::read_text(launcher).find(moved.native()), std::string::npos);
  const ShortcutRemoval removal = remove_owned_native_shortcuts(home.root());
  EXPECT_EQ(removal.removed, std::vector<fs::path>{launcher});
  EXPECT_EQ(removal.changed, std::vector<fs::path>{game});
  EXPECT_TRUE(fs::exists(game));
  EXPECT_FALSE(fs::exists(launcher) || fs::exists(home.root() / "native/shortcuts.json"));
}

TEST(Shortcuts, ConcurrentWritersShareTheBoundedLedger) {
  DesktopHome home;
  json fake = json::array();
  for (int i = 0; i < 126; ++i)
    fake.push_back({{"path", (home.path() / ("f" + std::to_string(i) + ".desktop")).native()},
                    {"game", ""},
                    {"name", "Z"},
                    {"sha256", ""}});
  write_ledger(home.root(), fake);
  // The menu folder exists, as on any desktop: a key of a path whose missing
  // folders another process creates meanwhile is refused, by design.
  fs::create_directories(home.path() / "share/applications");
  std::vector<pid_t> children;
  for (const char* game : {"one", "two"}) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      const std::string result = testing::outcome(
          [&] { create_owned_native_shortcut(home.shortcut(game), native_menu_entry(home.root(), game, "")); });
      if (result != "ok") std::fprintf(stderr, "child: %s\n", result.c_str());
      _exit(result == "ok" ? 0 : 1);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(owned_native_shortcuts(home.root()).size(), 128u);
  testing::expect_error([&] { create_owned_native_shortcut(home.shortcut(""), home.path() / "new.desktop"); },
                        "size_limit", "Too many recorded shortcuts");
  EXPECT_TRUE(create_owned_native_shortcut(home.shortcut(""), home.path() / "f7.desktop")["created"]);
}

}  // namespace
}  // namespace zorvi
