// Runs the built zorvi-shortcut from an installed tree, with a recording
// stand-in as its bootstrap.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
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

constexpr const char* usage_line = "Open a Zorvi launch document with this helper.\n";
constexpr const char* child_failed =
    "Zorvi could not complete this shortcut launch. Open Zorvi to inspect the game and operation history.";
constexpr const char* ordinary = "Choose an ordinary Zorvi launch document";

// A path of exactly `length` bytes below `base` ending in `name_end`; none
// of it exists.
std::string path_of_length(const fs::path& base, std::size_t length, const std::string& name_end) {
  std::string path = base.native();
  while (path.size() + 1 + 200 + 1 + 200 < length) path += "/" + std::string(200, 'a');
  path += "/" + std::string(length - path.size() - 1 - name_end.size(), 'b') + name_end;
  return path;
}

void lchown_to_nobody(const fs::path& path) { ASSERT_EQ(::lchown(path.c_str(), 65534, 65534), 0); }

TEST(ShortcutHelper, StartsTheBootstrapForEachKindOfDocument) {
  HelperInstall install;
  const std::string root = install.root().native();
  struct Case {
    const char* game;
    json arguments;
  };
  const Case cases[] = {
      {"star-harbor", json::array({"--data-dir", root, "--gui", "--game", "star-harbor"})},
      {"", json::array({"--data-dir", root, "--gui"})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.game);
    fs::remove_all(install.records());
    fs::create_directories(install.records());
    const fs::path document = install.document("game.zorvi-launch", c.game);
    const auto run = run_helper(install, {{"ZORVI_LAUNCH_DOCUMENT", document}, {"LD_ZORVI_PROBE", "1"}});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(shown_lines(run.err), Lines{});
    const std::vector<json> runs = install.runs();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0]["arguments"], c.arguments);
    EXPECT_EQ(runs[0]["directory"], root);
    EXPECT_EQ(runs[0]["group"], runs[0]["pid"]) << "the bootstrap leads a process group of its own";
    const json& environment = runs[0]["environment"];
    EXPECT_FALSE(environment.contains("LD_ZORVI_PROBE"));
    EXPECT_FALSE(environment.contains("ZORVI_LAUNCH_DOCUMENT"));
    EXPECT_EQ(environment["ZORVI_STAND_IN_RECORDS"], install.records().native());
  }
}

TEST(ShortcutHelper, ShowsOneFixedTextWhenTheBootstrapFails) {
  HelperInstall install;
  const auto run = run_helper(install, {{"ZORVI_LAUNCH_DOCUMENT", install.document("g.zorvi-launch", "g")},
                                        {"ZORVI_STAND_IN_STATUS", "3"}});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(shown_lines(run.err), Lines{child_failed});
  EXPECT_EQ(install.runs().size(), 1u);
}

TEST(ShortcutHelper, RefusesEveryArgumentBeforeSdlStarts) {
  HelperInstall install;
  for (const Lines& arguments : {Lines{"x"}, Lines{""}, Lines{install.document("g.zorvi-launch", "g")}}) {
    // A video driver that does not exist proves that SDL is never asked.
    const auto run = run_helper(install, {{"SDL_VIDEODRIVER", "no-such-driver"}}, arguments);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, usage_line);
  }
  EXPECT_TRUE(install.runs().empty());

  // The lifetime lock comes first: while an update holds it, even a usage
  // mistake is refused by the lock.
  NativeFileLock update(install.root() / ".native-bootstrap.lock", false, NativeLockSharing::exclusive_install,
                        LockMode::exclusive);
  const auto run = run_helper(install, {}, {"x"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "Another worker owns this native installation\n");
}

TEST(ShortcutHelper, GivesUpWhenNoDocumentArrives) {
  HelperInstall install;
  const auto run = run_helper(install, {});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(shown_lines(run.err), Lines{"No launch document arrived"});
}

TEST(ShortcutHelper, RefusesDocumentsWithoutStartingAChild) {
  HelperInstall install;
  const fs::path good = install.document("game.zorvi-launch", "star-harbor");
  const fs::path folder = install.folder();

  const fs::path upper = install.document("game.Zorvi-Launch", "star-harbor");
  const fs::path wide = install.document("wide.zorvi-launch", "star-harbor");
  fs::permissions(wide, fs::perms::group_read, fs::perm_options::add);
  const fs::path large = folder / "documents/large.zorvi-launch";
  testing::write_text(large, std::string(32769, ' '));
  fs::permissions(large, fs::perms::owner_read | fs::perms::owner_write);
  const fs::path extra = folder / "documents/extra.zorvi-launch";
  json seven = json::parse(testing::read_text(good));
  seven["extra"] = 1;
  testing::write_text(extra, seven.dump());
  fs::permissions(extra, fs::perms::owner_read | fs::perms::owner_write);
  fs::create_directory_symlink(folder / "documents", folder / "linked");
  lchown_to_nobody(folder / "linked");

  const fs::path unfinished = folder / "unfinished";
  fs::create_directories(unfinished);
  testing::write_text(unfinished / ".zorvi-setup-incomplete", "");
  const fs::path unfinished_document = install.document("unfinished.zorvi-launch", "g", unfinished);
  fs::create_directory_symlink(install.root(), folder / "root-link");
  lchown_to_nobody(folder / "root-link");
  const fs::path linked_root_document = install.document("linked-root.zorvi-launch", "g", folder / "root-link");

  const std::string bound = "Launch-document path exceeds its bound";
  struct Case {
    std::string document;
    std::string message;
  };
  const Case cases[] = {
      {"", bound},
      {path_of_length(folder, 4097, ".zorvi-launch"), bound},
      // 4096 bytes pass the length check; the file does not exist.
      {path_of_length(folder, 4096, ".zorvi-launch"), "Cannot open ordinary macOS private storage"},
      {"documents/game.zorvi-launch", ordinary},
      {upper, ordinary},
      {(folder / "documents/../documents/game.zorvi-launch").native(), ordinary},
      {(folder / "documents/./game.zorvi-launch").native(), ordinary},
      {folder.native() + "//documents/game.zorvi-launch", ordinary},
      {(folder / "documents").native(), ordinary},
      {(folder / "linked/game.zorvi-launch").native(), "macOS setup ancestry is linked, unavailable or changed"},
      {wide, "macOS private storage must be ordinary, owned and accessible only to this user"},
      {(folder / "documents/missing.zorvi-launch").native(), "Cannot open ordinary macOS private storage"},
      {large, "File exceeds read limit"},
      {extra, "Unknown launch document fields"},
      {unfinished_document,
       "Zorvi setup did not finish in " + unfinished.native() + ". Run the Zorvi installer again to repair it."},
      {linked_root_document, "macOS setup ancestry is linked, unavailable or changed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.document);
    const auto run = run_helper(install, {{"ZORVI_LAUNCH_DOCUMENT", c.document}});
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_EQ(shown_lines(run.err), Lines{c.message});
  }
  EXPECT_TRUE(install.runs().empty());
}

TEST(ShortcutHelper, RefusesAnImageBelowAnyUnfinishedLevel) {
  const char* unfinished_package = "This image belongs to an unfinished package; it cannot start";
  struct Case {
    const char* level;  // below the temporary folder
    const char* marker;
  };
  const Case cases[] = {
      {"", ".zorvi-setup-incomplete"},
      {"Zorvi Data", ".zorvi-setup-incomplete"},
      {"Zorvi Data/native/bootstrap/bin", ".zorvi-setup-incomplete"},
      {"Zorvi Data/native/bootstrap/bin/ZorviShortcut.app/Contents/MacOS", ".zorvi-setup-incomplete"},
      {"", ".zorvi-native-bundle-incomplete.json"},
      {"Zorvi Data/native", ".zorvi-initial-package-incomplete.json"},
      {"Zorvi Data/native/bootstrap/bin/ZorviShortcut.app", ".zorvi-launcher-package-incomplete.json"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.level) + "/" + c.marker);
    HelperInstall install;
    const fs::path level = *c.level != '\0' ? install.folder() / c.level : install.folder();
    testing::write_text(level / c.marker, "");
    const std::string expected = std::string(c.marker) == ".zorvi-setup-incomplete"
                                     ? "Zorvi setup did not finish in " + level.native() +
                                           ". Run the Zorvi installer again to repair it.\n"
                                     : std::string(unfinished_package) + "\n";
    const auto run = run_helper(install, {{"ZORVI_LAUNCH_DOCUMENT", install.document("g.zorvi-launch", "g")}});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, expected);
    EXPECT_TRUE(install.runs().empty());
  }
}

TEST(ShortcutHelper, NeedsItsAppBundleAndTheBootstrapBesideIt) {
  struct Case {
    std::function<fs::path(const HelperInstall&)> arrange;  // gives the image to run
    std::string err;
  };
  const Case cases[] = {
      {[](const HelperInstall& install) {
         const fs::path renamed = install.bin() / "ZorviShortcut 2.app/Contents/MacOS/zorvi-shortcut";
         fs::create_directories(renamed.parent_path());
         fs::copy_file(install.helper(), renamed);
         return renamed;
       },
       "Unknown installed bootstrap entry\n"},
      {[](const HelperInstall& install) {
         // The bootstrap's own shape passes the installation check, not the bundle check.
         fs::remove(install.bootstrap());
         fs::copy_file(install.helper(), install.bootstrap());
         return install.bootstrap();
       },
       "zorvi: Launch-document handler needs its installed app bundle\n"},
      {[](const HelperInstall& install) {
         fs::remove(install.bootstrap());
         return install.helper();
       },
       "zorvi: The signed helper's stable bootstrap is missing\n"},
      {[](const HelperInstall& install) {
         fs::rename(install.bootstrap(), install.bin() / "real-bootstrap");
         fs::create_symlink("real-bootstrap", install.bootstrap());
         return install.helper();
       },
       "zorvi: The signed helper's stable bootstrap is missing\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.err);
    HelperInstall install;
    const fs::path document = install.document("g.zorvi-launch", "g");
    const fs::path image = c.arrange(install);
    auto environment = testing::helper_environment(install);
    environment["ZORVI_LAUNCH_DOCUMENT"] = document;
    HelperProcess helper(image, {}, environment);
    EXPECT_EQ(helper.wait(), 1);
    EXPECT_EQ(helper.err(), c.err);
    EXPECT_TRUE(install.runs().empty());
  }
}

// Delivers `documents` to one helper as if the desktop had opened them one
// after another while it runs.
std::map<std::string, std::string> several(const HelperInstall& install, const std::vector<std::string>& documents) {
  auto environment = testing::helper_environment(install);
  environment["ZORVI_LAUNCH_DOCUMENT"] = documents.front();
  std::string more;
  for (std::size_t i = 1; i < documents.size(); ++i) more += (i > 1 ? "\n" : "") + documents[i];
  if (!more.empty()) environment["ZORVI_SHORTCUT_TEST_DOCUMENTS"] = more;
  return environment;
}

TEST(ShortcutHelper, RunsSixteenLaunchesAtOnceAndRefusesTheSeventeenth) {
  HelperInstall install;
  const std::vector<std::string> documents(17, install.document("g.zorvi-launch", "g"));
  auto environment = several(install, documents);
  environment["ZORVI_STAND_IN_HOLD"] = install.hold();
  HelperProcess helper(install.helper(), {}, environment);
  ASSERT_TRUE(eventually([&] { return install.runs().size() == 16 && !shown_lines(helper.err()).empty(); }))
      << helper.err();
  EXPECT_EQ(shown_lines(helper.err()), Lines{"Too many Zorvi shortcut launches are still running"});
  EXPECT_TRUE(helper.running());
  // The running helper holds the installation's lifetime lock shared.
  const fs::path lifetime = install.root() / ".native-bootstrap.lock";
  EXPECT_THROW(NativeFileLock(lifetime, false, NativeLockSharing::exclusive_install, LockMode::exclusive), Error);
  fs::remove(install.hold());
  EXPECT_EQ(helper.wait(), 0) << helper.err();
  EXPECT_EQ(install.runs().size(), 16u);
  EXPECT_EQ(shown_lines(helper.err()).size(), 1u);
  EXPECT_NO_THROW(NativeFileLock(lifetime, false, NativeLockSharing::exclusive_install, LockMode::exclusive));
}

TEST(ShortcutHelper, HandlesAQueuedDocumentAfterARefusedOne) {
  HelperInstall install;
  const auto environment = several(install, {"relative.zorvi-launch", install.document("g.zorvi-launch", "g")});
  HelperProcess helper(install.helper(), {}, environment);
  EXPECT_EQ(helper.wait(), 0) << helper.err();
  EXPECT_EQ(shown_lines(helper.err()), Lines{ordinary});
  EXPECT_EQ(install.runs().size(), 1u);
}

TEST(ShortcutHelper, StaysWhileAChildRunsEvenWhenAskedToQuit) {
  HelperInstall install;
  auto environment = several(install, {install.document("g.zorvi-launch", "g")});
  environment["ZORVI_STAND_IN_HOLD"] = install.hold();
  HelperProcess helper(install.helper(), {}, environment);
  ASSERT_TRUE(eventually([&] { return install.runs().size() == 1; }));
  // SDL turns both signals into SDL_EVENT_QUIT.
  helper.signal(SIGTERM);
  helper.signal(SIGINT);
  EXPECT_FALSE(eventually([&] { return !helper.running(); }, 300ms));
  fs::remove(install.hold());
  EXPECT_EQ(helper.wait(), 0) << helper.err();
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

  auto environment = several(install, {install.document("g.zorvi-launch", "g")});
  environment["SDL_VIDEODRIVER"] = "x11";
  environment["DISPLAY"] = display;
  environment["ZORVI_STAND_IN_STATUS"] = "3";
  HelperProcess helper(install.helper(), {}, environment);
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
