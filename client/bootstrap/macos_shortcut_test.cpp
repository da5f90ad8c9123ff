// Runs the built zorvi-shortcut from an installed tree, with a recording
// stand-in as its bootstrap.

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <set>
#include <sstream>

#include "client/domain/error.hpp"
#include "client/platform/native_lock.hpp"
#include "tests/support/helper_install.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace testing;
using Lines = std::vector<std::string>;

constexpr const char* child_failed =
    "Zorvi could not complete this shortcut launch. Open Zorvi to inspect the game and operation history.";

NativeFileLock update_lock(const HelperInstall& install) {
  return NativeFileLock(install.root() / ".native-bootstrap.lock", false, NativeLockSharing::exclusive_install,
                        LockMode::exclusive);
}

// A path of exactly `length` bytes below `base` ending in `name_end`; none of it exists.
std::string path_of_length(const fs::path& base, std::size_t length, const std::string& name_end) {
  std::string path = base.native();
  while (path.size() + 1 + 200 + 1 + 200 < length) path += "/" + std::string(200, 'a');
  return path + "/" + std::string(length - path.size() - 1 - name_end.size(), 'b') + name_end;
}

// The exit status and each line the helper showed: "1 | message".
std::string ended(const HelperRun& run) {
  std::string text = std::to_string(run.status);
  for (const std::string& line : shown_lines(run.err)) text += " | " + line;
  return text;
}

// The checks the helper makes itself, each once; the storage and installation
// checks it calls have their own tests beside their code, and the path at the
// bound shows the storage check is made.
TEST(ShortcutHelper, RefusesArgumentsDocumentsAndImagesWithoutStartingAChild) {
  HelperInstall install;
  const std::string document = install.document("g.zorvi-launch", "g");
  // A video driver that does not exist proves that SDL is never asked.
  const auto usage = run_helper(install, {{"SDL_VIDEODRIVER", "no-such-driver"}}, {document});
  EXPECT_EQ(std::to_string(usage.status) + " " + usage.err, "2 Open a Zorvi launch document with this helper.\n");
  EXPECT_EQ(ended(run_helper(install, {})), "1 | No launch document arrived");  // after five seconds
  const HelperInstall rollback_only("zorvi-shortcut", "rollback");
  // 4096 bytes pass the length check; that file does not exist.
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {
      {path_of_length(install.folder(), 4097, ".zorvi-launch"), "Launch-document path exceeds its bound"},
      {path_of_length(install.folder(), 4096, ".zorvi-launch"), "Cannot open ordinary macOS private storage"},
      {install.document("rollback.zorvi-launch", "g", rollback_only.root()), "Install a verified launcher in this profile before opening its shortcut"},
  };
  // clang-format on
  for (const auto& [path, message] : cases)
    EXPECT_EQ(ended(run_helper(install, {{"ZORVI_LAUNCH_DOCUMENT", path}})), "1 | " + message) << path;
  // The bootstrap's own image passes the installation check, not the bundle check.
  fs::rename(install.bootstrap(), install.bin() / "real-bootstrap");
  fs::copy_file(install.helper(), install.bootstrap());
  EXPECT_EQ(ended(run_helper(install, {{"ZORVI_LAUNCH_DOCUMENT", document}}, {}, install.bootstrap())),
            "1 | Launch-document handler needs its installed app bundle");
  fs::remove(install.bootstrap());
  fs::create_symlink("real-bootstrap", install.bootstrap());
  EXPECT_EQ(ended(run_helper(install, {{"ZORVI_LAUNCH_DOCUMENT", document}})),
            "1 | The signed helper's stable bootstrap is missing");
  EXPECT_TRUE(install.runs().empty());
}

// Several documents in one run need the helper's test build, which takes
// them from the environment as if the desktop had opened them one by one. A
// profile seeded but never started has a candidate and nothing active. SDL
// turns SIGTERM and SIGINT into SDL_EVENT_QUIT, which must not end the helper
// while its children run; their failures then give the fixed box.
TEST(ShortcutHelper, RunsSixteenLaunchesRefusesTheSeventeenthAndOutlivesQuitUntilTheyEnd) {
  HelperInstall install("zorvi-shortcut-test-intake", "candidate");
  const std::string root = install.root().native(), game = install.document("g.zorvi-launch", "g");
  std::string more = install.document("any.zorvi-launch", "");
  for (int i = 1; i < 17; ++i) more += "\n" + game;
  HelperProcess helper(install.helper(), {},
                       install.environment({{"ZORVI_LAUNCH_DOCUMENT", "relative.zorvi-launch"},
                                            {"ZORVI_SHORTCUT_TEST_DOCUMENTS", more},
                                            {"LD_ZORVI_PROBE", "1"},
                                            {"ZORVI_STAND_IN_HOLD", install.hold()},
                                            {"ZORVI_STAND_IN_STATUS", "3"}}));
  Lines shown{"Choose an ordinary Zorvi launch document", "Too many Zorvi shortcut launches are still running"};
  ASSERT_TRUE(eventually([&] { return install.runs().size() == 16 && shown_lines(helper.err()) == shown; }))
      << helper.err();
  std::set<json> arguments;
  // Each bootstrap runs in the root, leads a process group of its own and sees none of the helper's own variables.
  for (const json& run : install.runs()) {
    arguments.insert(run["arguments"]);
    EXPECT_TRUE(run["directory"] == root && run["group"] == run["pid"] &&
                !run["environment"].contains("LD_ZORVI_PROBE") && !run["environment"].contains("ZORVI_LAUNCH_DOCUMENT"))
        << run.dump();
  }
  EXPECT_EQ(arguments,
            (std::set<json>{json({"--data-dir", root, "--gui"}), json({"--data-dir", root, "--gui", "--game", "g"})}));
  EXPECT_THROW(update_lock(install), Error);  // the running helper holds the installation's lifetime lock shared
  helper.signal(SIGTERM);
  helper.signal(SIGINT);
  EXPECT_FALSE(eventually([&] { return !helper.running(); }, 300ms));
  fs::remove(install.hold());
  EXPECT_EQ(helper.wait(), 0) << helper.err();
  EXPECT_EQ(install.runs().size(), 16u);
  shown.insert(shown.end(), 16, child_failed);
  EXPECT_EQ(shown_lines(helper.err()), shown);
  EXPECT_NO_THROW(update_lock(install));
}

// Under a real X server the box appears and blocks; a screenshot of it is
// kept in the build folder for a person to look at.
TEST(ShortcutHelper, ShowsItsBoxOnARealDisplay) {
  if (::access("/usr/bin/Xvfb", X_OK) != 0 || ::access("/usr/bin/import", X_OK) != 0)
    GTEST_SKIP() << "Xvfb and ImageMagick are needed";
  HelperInstall install;
  // Xvfb picks a free display and tells its number on the descriptor given.
  HelperProcess server("/usr/bin/Xvfb", {"-displayfd", "1", "-screen", "0", "800x600x24", "-nolisten", "tcp"},
                       {{"PATH", "/usr/bin:/bin"}});
  std::string display;  // the last whole line of digits
  ASSERT_TRUE(eventually([&] {
    std::istringstream out(server.err());
    for (std::string line; std::getline(out, line) && !out.eof();)
      if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos) display = ":" + line;
    return !display.empty();
  })) << server.err();
  HelperProcess helper(install.helper(), {},
                       install.environment({{"ZORVI_LAUNCH_DOCUMENT", install.document("g.zorvi-launch", "g")},
                                            {"SDL_VIDEODRIVER", "x11"},
                                            {"DISPLAY", display},
                                            {"ZORVI_STAND_IN_STATUS", "3"}}));
  fs::create_directories(binary_dir() / "artifacts");
  const fs::path screenshot = binary_dir() / "artifacts/shortcut_error_box.png";
  // The root window is one colour until the box is drawn on it.
  EXPECT_TRUE(eventually([&] {
    run_command({"import", "-display", display, "-window", "root", screenshot.native()});
    const auto colours = run_command({"convert", screenshot.native(), "-format", "%k", "info:"});
    return colours.status == 0 && std::atoi(colours.out.c_str()) > 2;
  })) << helper.err();
  EXPECT_TRUE(helper.running()) << "the box should wait for the user";
  // The helper is killed as it goes out of scope; a killed server would
  // leave its display's lock behind.
  server.signal(SIGTERM);
  server.wait();
}

}  // namespace
}  // namespace zorvi
