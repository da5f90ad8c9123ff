#include "client/app/install_guards.hpp"

#include <gtest/gtest.h>

#include <functional>

#include "client/domain/error.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;
using testing::TempDir;

const fs::path bootstrap_image = "native/bootstrap/bin/zorvi-bootstrap";
const fs::path helper_image = "native/bootstrap/bin/ZorviShortcut.app/Contents/MacOS/zorvi-shortcut";

std::string setup_unfinished(const fs::path& folder) {
  return "native_install_incomplete: Zorvi setup did not finish in " + folder.native() +
         ". Run the Zorvi installer again to repair it.";
}

TEST(InstallGuards, RefusesAnImageBelowAnyUnfinishedLevel) {
  TempDir dir;
  const fs::path image = dir / "install" / bootstrap_image;
  const fs::path bin = image.parent_path();
  fs::create_directories(bin);
  testing::write_text(image, "");
  const std::string unfinished =
      "native_install_incomplete: This image belongs to an unfinished package; it cannot start";
  const std::pair<fs::path, std::string> cases[] = {
      {dir / ".zorvi-native-bundle-incomplete.json", unfinished},
      {bin / ".zorvi-setup-incomplete", setup_unfinished(bin)},
      {dir / ".zorvi-setup-incomplete", setup_unfinished(dir.path())},
  };
  for (const auto& [marker, expected] : cases) {
    EXPECT_EQ(outcome([&] { require_complete_native_install_image(image); }), "ok");
    // Only presence counts: a dangling link is a marker too.
    fs::create_symlink("/nonexistent", marker);
    EXPECT_EQ(outcome([&] { require_complete_native_install_image(image); }), expected);
    fs::remove(marker);
  }

  testing::write_text(dir / ".zorvi-setup-incomplete", "");
  EXPECT_EQ(testing::caught([&] { require_complete_native_install(dir.path()); }).details,
            std::vector<std::string>{"Run the Zorvi installer and choose Repair"});
}

TEST(InstallGuards, KnowsExactlyTheTwoImageShapesWithinTheirBounds) {
  EXPECT_EQ(installed_data_root("/data" / bootstrap_image), "/data");
  EXPECT_EQ(installed_data_root("/home/p/.local/share/zorvi" / helper_image), "/home/p/.local/share/zorvi");

  fs::path deep = "/";
  for (int i = 0; i < 255; ++i) deep /= "d";
  const std::string unnormal = "unsafe_path: Bootstrap image path must be absolute and normalized";
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { require_complete_native_install_image(deep / "image"); }, "ok"},
      {[&] { require_complete_native_install_image(deep / "d/image"); }, "unsafe_path: Native image path is too deep"},
      {[] { installed_data_root("/data/native/bootstrap/bin/zorvi-bootstrap-copy"); },
       "native_install_trust: Unknown installed bootstrap entry"},
      {[] { installed_data_root("data/native/bootstrap/bin/zorvi-bootstrap"); }, unnormal},
  };
  for (const auto& [call, expected] : cases) EXPECT_EQ(outcome(call), expected) << expected;
}

// Bootstraps and the shortcut helper share the lifetime lock; only a
// replacement of the image takes it alone.
TEST(InstallGuards, HoldsTheLifetimeLockSharedInAFinishedInstallation) {
  TempDir root;
  fs::create_directories(root / "native/bootstrap/bin");
  {
    const auto first = bootstrap_lifetime(root.path() / bootstrap_image);
    EXPECT_EQ(outcome([&] { bootstrap_lifetime(root.path() / helper_image); }), "ok");
  }
  testing::write_text(root / ".zorvi-setup-incomplete", "");
  EXPECT_EQ(outcome([&] { bootstrap_lifetime(root.path() / bootstrap_image); }), setup_unfinished(root.path()));
}

}  // namespace
}  // namespace zorvi
