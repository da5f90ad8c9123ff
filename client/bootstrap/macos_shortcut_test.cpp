// Runs the built zorvi-shortcut from an installed tree, with a recording
// stand-in as its bootstrap.

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <sstream>

#include "client/domain/error.hpp"
#include "client/platform/native_lock.hpp"
#include "tests/support/helper_install.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::eventually;
using testing::HelperInstall;
using testing::HelperProcess;
using testing::run_helper;
using testing::shown_lines;

using Lines = std::vector<std::string>;

constexpr const char* child_failed =
    "Zorvi could not complete this shortcut launch. Open Zorvi to inspect the game and operation history.";
constexpr const char* ordinary = "Choose an ordinary Zorvi launch document";

std::string setup_unfinished(const fs::path& folder) {
  return "Zorvi setup did not finish in " + folder.native() + ". Run the Zorvi installer again to repair it.";
}

NativeFileLock update_lock(const HelperInstall& install) {
  return NativeFileLock(install.root() / ".native-bootstrap.lock", false, NativeLockSharing::exclusive_install,
                        LockMode::exclusive);
}

// A path of exactly `length` bytes below `base` ending in `name_end`; none
// of it exists.
std::string path_of_length(const fs::path& base, std::size_t length, const std::string& name_end) {
  std::string path = base.native();
  while (path.size() + 1 + 200 + 1 + 200 < length) path += "/" + std::string(200, 'a');
  path += "/" + std::string(length - path.size() - 1 - name_end.size(), 'b') + name_end;
  return path;
}

// A profile seeded but never started has a candidate and nothing active.
TEST(ShortcutHelper, StartsTheBootstrapForEachKindOfDocument) {
  for (const char* game : {"star-harbor", ""}) {
    SCOPED_TRACE(game);
    HelperInstall install("zorvi-shortcut", *game != '\0' ? "active" : "candidate");
    const std::string root = install.root().native();
    const fs::path document = install.document("game.zorvi-launch", game);
    const auto run = run_helper(install, {{"ZORVI_LAUNCH_DOCUMENT", document}, {"LD_ZORVI_PROBE", "1"}});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(shown_lines(run.err), Lines{});
    const std::vector<json> runs = install.runs();
    ASSERT_EQ(runs.size(), 1u);
    const json arguments = *game != '\0' ? json::array({"--data-dir", root, "--gui", "--game", game})
                                         : json::array({"--data-dir", root, "--gui"});
    EXPECT_EQ(runs[0]["arguments"], arguments);
    EXPECT_EQ(runs[0]["directory"], root);
    EXPECT_EQ(runs[0]["group"], runs[0]["pid"]) << "the bootstrap leads a process group of its own";
    EXPECT_FALSE(runs[0]["environment"].contains("LD_ZORVI_PROBE"));
    EXPECT_FALSE(runs[0]["environment"].contains("ZORVI_LAUNCH_DOCUMENT"));
  }
}

// SDL turns SIGTERM and SIGINT into SDL_EVENT_QUIT, which must not end the
// helper while its child runs; the child's failure then gives the fixed box.
TEST(ShortcutHelper, OutlivesQuitWhileAChildRunsAndReportsItsFailure) {
  HelperInstall install;
  HelperProcess helper(install.helper(), {},
                       install.environment({{"ZORVI_LAUNCH_DOCUMENT", install.document("g.zorvi-launch", "g")},
                                            {"ZORVI_STAND_IN_HOLD", install.hold()},
                                            {"ZORVI_STAND_IN_STATUS", "3"}}));
  ASSERT_TRUE(eventually([&] { return install.runs().size() == 1; })) << helper.err();
  // The running helper holds the installation's lifetime lock shared.
  EXPECT_THROW(update_lock(install), Error);
  helper.signal(SIGTERM);
  helper.signal(SIGINT);
  EXPECT_FALSE(eventually([&] { return !helper.running(); }, 300ms));
  fs::remove(install.hold());
  EXPECT_EQ(helper.wait(), 0) << helper.err();
  EXPECT_EQ(shown_lines(helper.err()), Lines{child_failed});
  EXPECT_NO_THROW(update_lock(install));
}

TEST(ShortcutHelper, RefusesArgumentsAndWaitsOnlyFiveSecondsForADocument) {
  HelperInstall install;
  // A video driver that does not exist proves that SDL is never asked.
  const auto usage =
      run_helper(install, {{"SDL_VIDEODRIVER", "no-such-driver"}}, {install.document("g.zorvi-launch", "g")});
  EXPECT_EQ(usage.status, 2);
  EXPECT_EQ(usage.err, "Open a Zorvi launch document with this helper.\n");
  const auto none = run_helper(install, {});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(shown_lines(none.err), Lines{"No launch document arrived"});
  EXPECT_TRUE(install.runs().empty());

  // The lifetime lock comes before the arguments: while an update holds it,
  // even a usage mistake is refused by the lock.
  const NativeFileLock update = update_lock(install);
  const auto locked = run_helper(install, {}, {"x"});
  EXPECT_EQ(locked.status, 1);
  EXPECT_EQ(locked.err, "Another worker owns this native installation\n");
}

TEST(ShortcutHelper, RefusesDocumentsWithoutStartingAChild) {
  HelperInstall install;
  const fs::path folder = install.folder();
  const fs::path wide = install.document("wide.zorvi-launch", "star-harbor");
  fs::permissions(wide, fs::perms::group_read, fs::perm_options::add);
  const fs::path large = folder / "documents/large.zorvi-launch";
  testing::write_text(large, std::string(32769, ' '));
  fs::permissions(large, fs::perms::owner_read | fs::perms::owner_write);
  const fs::path unfinished = folder / "unfinished";
  fs::create_directories(unfinished);
  testing::write_text(unfinished / ".zorvi-setup-incomplete", "");
  // A data folder reached through a link anyone could have made.
  fs::create_directory_symlink(install.root(), folder / "root-link");
  ASSERT_EQ(::lchown((folder / "root-link").c_str(), 65534, 65534), 0);
  const HelperInstall rollback_only("zorvi-shortcut", "rollback");

  const std::string bound = "Launch-document path exceeds its bound";
  const std::pair<std::string, std::string> cases[] = {
      {path_of_length(folder, 4097, ".zorvi-launch"), bound},
      // 4096 bytes pass the length check; the file does not exist.
      {path_of_length(folder, 4096, ".zorvi-launch"), "Cannot open ordinary macOS private storage"},
      {"documents/game.zorvi-launch", ordinary},
      {install.document("game.Zorvi-Launch", "star-harbor"), ordinary},
      {(folder / "documents/../documents/game.zorvi-launch").native(), ordinary},
      {wide, "macOS private storage must be ordinary, owned and accessible only to this user"},
      {large, "File exceeds read limit"},
      {install.document("unfinished.zorvi-launch", "g", unfinished), setup_unfinished(unfinished)},
      {install.document("linked.zorvi-launch", "g", folder / "root-link"),
       "macOS setup ancestry is linked, unavailable or changed"},
      {install.document("rollback.zorvi-launch", "g", rollback_only.root()),
       "Install a verified launcher in this profile before opening its shortcut"},
  };
  for (const auto& [document, message] : cases) {
    SCOPED_TRACE(document);
    const auto run = run_helper(install, {{"ZORVI_LAUNCH_DOCUMENT", document}});
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_EQ(shown_lines(run.err), Lines{message});
  }
  EXPECT_TRUE(install.runs().empty());
}

// Each case arranges the installation and gives the image to run with what
// it must print. Failures before SDL starts have no "zorvi: " prefix.
TEST(ShortcutHelper, RefusesAnImageOutsideAFinishedInstallation) {
  using Outcome = std::pair<fs::path, std::string>;
  const std::function<Outcome(const HelperInstall&)> cases[] = {
      [](const HelperInstall& install) {
        testing::write_text(install.folder() / ".zorvi-setup-incomplete", "");
        return Outcome{install.helper(), setup_unfinished(install.folder()) + "\n"};
      },
      [](const HelperInstall& install) {
        testing::write_text(install.helper().parent_path() / ".zorvi-initial-package-incomplete.json", "");
        return Outcome{install.helper(), "This image belongs to an unfinished package; it cannot start\n"};
      },
      [](const HelperInstall& install) {
        const fs::path renamed = install.bin() / "ZorviShortcut 2.app/Contents/MacOS/zorvi-shortcut";
        fs::create_directories(renamed.parent_path());
        fs::copy_file(install.helper(), renamed);
        return Outcome{renamed, "Unknown installed bootstrap entry\n"};
      },
      [](const HelperInstall& install) {
        // The bootstrap's own shape passes the installation check, not the bundle check.
        fs::remove(install.bootstrap());
        fs::copy_file(install.helper(), install.bootstrap());
        return Outcome{install.bootstrap(), "zorvi: Launch-document handler needs its installed app bundle\n"};
      },
      [](const HelperInstall& install) {
        fs::rename(install.bootstrap(), install.bin() / "real-bootstrap");
        fs::create_symlink("real-bootstrap", install.bootstrap());
        return Outcome{install.helper(), "zorvi: The signed helper's stable bootstrap is missing\n"};
      },
  };
  for (const auto& arrange : cases) {
    HelperInstall install;
    const fs::path document = install.document("g.zorvi-launch", "g");
    const auto [image, err] = arrange(install);
    SCOPED_TRACE(err);
    const auto run = run_helper(install, {{"ZORVI_LAUNCH_DOCUMENT", document}}, {}, image);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, err);
    EXPECT_TRUE(install.runs().empty());
  }
}

// Several documents in one run need the helper's test build, which takes
// them from the environment as if the desktop had opened them one by one.
TEST(ShortcutHelper, RunsSixteenLaunchesAtOnceAfterARefusedDocumentAndRefusesTheSeventeenth) {
  HelperInstall install("zorvi-shortcut-test-intake");
  const std::string good = install.document("g.zorvi-launch", "g");
  std::string more = good;
  for (int i = 1; i < 17; ++i) more += "\n" + good;
  HelperProcess helper(install.helper(), {},
                       install.environment({{"ZORVI_LAUNCH_DOCUMENT", "relative.zorvi-launch"},
                                            {"ZORVI_SHORTCUT_TEST_DOCUMENTS", more},
                                            {"ZORVI_STAND_IN_HOLD", install.hold()}}));
  ASSERT_TRUE(eventually([&] { return install.runs().size() == 16 && shown_lines(helper.err()).size() == 2; }))
      << helper.err();
  EXPECT_EQ(shown_lines(helper.err()), (Lines{ordinary, "Too many Zorvi shortcut launches are still running"}));
  EXPECT_TRUE(helper.running());
  fs::remove(install.hold());
  EXPECT_EQ(helper.wait(), 0) << helper.err();
  EXPECT_EQ(install.runs().size(), 16u);
  EXPECT_EQ(shown_lines(helper.err()).size(), 2u);
}

// The number of distinct colours in a PNG; 0 when it cannot be read.
int colours(const fs::path& png) {
  const auto result = testing::run_command({"convert", png.native(), "-format", "%k", "info:"});
  return result.status == 0 ? std::atoi(result.out.c_str()) : 0;
}

// Under a real X server the box appears and blocks; a screenshot of it is
// kept in the build folder for a person to look at.
TEST(ShortcutHelper, ShowsItsBoxOnARealDisplay) {
  if (::access("/usr/bin/Xvfb", X_OK) != 0 || ::access("/usr/bin/import", X_OK) != 0) {
    GTEST_SKIP() << "Xvfb and ImageMagick are needed";
  }
  HelperInstall install;
  // Xvfb picks a free display and tells its number on the descriptor given.
  HelperProcess server("/usr/bin/Xvfb", {"-displayfd", "1", "-screen", "0", "800x600x24", "-nolisten", "tcp"},
                       {{"PATH", "/usr/bin:/bin"}});
  std::string display;
  ASSERT_TRUE(eventually([&] {
    std::istringstream out(server.err());
    for (std::string line; std::getline(out, line) && !out.eof();) {
      if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos) display = ":" + line;
    }
    return !display.empty();
  })) << server.err();

  HelperProcess helper(install.helper(), {},
                       install.environment({{"ZORVI_LAUNCH_DOCUMENT", install.document("g.zorvi-launch", "g")},
                                            {"SDL_VIDEODRIVER", "x11"},
                                            {"DISPLAY", display},
                                            {"ZORVI_STAND_IN_STATUS", "3"}}));
  ASSERT_TRUE(eventually([&] { return !shown_lines(helper.err()).empty(); })) << helper.err();
  EXPECT_EQ(shown_lines(helper.err()), Lines{child_failed});

  const fs::path artifacts = testing::binary_dir() / "artifacts";
  fs::create_directories(artifacts);
  const fs::path screenshot = artifacts / "shortcut_error_box.png";
  // The root window is one colour until the box is drawn on it.
  EXPECT_TRUE(eventually([&] {
    testing::run_command({"import", "-display", display, "-window", "root", screenshot.native()});
    return colours(screenshot) > 2;
  })) << helper.err();
  EXPECT_TRUE(helper.running()) << "the box should wait for the user";
  helper.signal(SIGKILL);
  helper.wait();
  server.signal(SIGTERM);
  server.wait();
}

}  // namespace
}  // namespace zorvi
