#include "client/app/install_guards.hpp"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <functional>

#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

const fs::path bootstrap_image = "native/bootstrap/bin/zorvi-bootstrap";
const fs::path helper_image = "native/bootstrap/bin/ZorviShortcut.app/Contents/MacOS/zorvi-shortcut";

Error failure(const std::function<void()>& action) {
  try {
    action();
  } catch (const Error& error) {
    return error;
  }
  return Error("none", "accepted");
}

TEST(InstallGuards, RefusesAFolderWithAnUnfinishedSetup) {
  TempDir root;
  EXPECT_NO_THROW(require_complete_native_install(root.path()));
  testing::write_text(root / ".zorvi-setup-incomplete", "");
  const Error error = failure([&] { require_complete_native_install(root.path()); });
  EXPECT_EQ(error.code, "native_install_incomplete");
  EXPECT_EQ(std::string(error.what()),
            "Zorvi setup did not finish in " + root.path().native() + ". Run the Zorvi installer again to repair it.");
  EXPECT_EQ(error.details, std::vector<std::string>{"Run the Zorvi installer and choose Repair"});

  // Presence is judged by the entry's own status: a dangling link counts.
  TempDir linked;
  fs::create_symlink("/nonexistent", linked / ".zorvi-setup-incomplete");
  EXPECT_EQ(failure([&] { require_complete_native_install(linked.path()); }).code, "native_install_incomplete");
}

TEST(InstallGuards, RefusesAnImageBelowAnyUnfinishedLevel) {
  const char* unfinished = "This image belongs to an unfinished package; it cannot start";
  struct Case {
    const char* level;  // relative to the temporary folder; "" is the folder itself, above the installation
    const char* marker;
    const char* message;
  };
  const Case cases[] = {
      {"", ".zorvi-native-bundle-incomplete.json", unfinished},
      {"install/native/bootstrap/bin", ".zorvi-initial-package-incomplete.json", unfinished},
      {"install/native", ".zorvi-launcher-package-incomplete.json", unfinished},
      {"install", ".zorvi-native-bundle-incomplete.json", unfinished},
      {"install/native/bootstrap/bin", ".zorvi-setup-incomplete", nullptr},
      {"", ".zorvi-setup-incomplete", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.level) + " " + c.marker);
    TempDir dir;
    const fs::path image = dir / "install" / bootstrap_image;
    fs::create_directories(image.parent_path());
    testing::write_text(image, "");
    EXPECT_NO_THROW(require_complete_native_install_image(image));
    testing::write_text(dir.path() / c.level / c.marker, "");
    const Error error = failure([&] { require_complete_native_install_image(image); });
    EXPECT_EQ(error.code, "native_install_incomplete");
    const std::string expected = c.message != nullptr ? c.message : "Zorvi setup did not finish in ";
    EXPECT_TRUE(std::string(error.what()).starts_with(expected)) << error.what();
  }
}

TEST(InstallGuards, BoundsTheImageDepth) {
  fs::path image = "/";
  for (int i = 0; i < 255; ++i) image /= "d";
  EXPECT_NO_THROW(require_complete_native_install_image(image / "image"));
  const Error error = failure([&] { require_complete_native_install_image(image / "d" / "image"); });
  EXPECT_EQ(error.code, "unsafe_path");
  EXPECT_STREQ(error.what(), "Native image path is too deep");
}

TEST(InstallGuards, KnowsTheDataFolderOfTheTwoImageShapes) {
  EXPECT_EQ(installed_data_root("/data" / bootstrap_image), "/data");
  EXPECT_EQ(installed_data_root("/home/p/.local/share/zorvi" / helper_image), "/home/p/.local/share/zorvi");
  const char* renamed[] = {
      "/data/native/bootstrap/bin/zorvi-bootstrap-copy",
      "/data/native/bootstrap/bin/Zorvi-bootstrap",
      "/data/native/bootstrap/sbin/zorvi-bootstrap",
      "/data/native/boot/bin/zorvi-bootstrap",
      "/data/Native/bootstrap/bin/zorvi-bootstrap",
      "/data/native/bootstrap/bin/ZorviShortcut-2.app/Contents/MacOS/zorvi-shortcut",
      "/data/native/bootstrap/bin/ZorviShortcut.app/Contents/MacOS/zorvi-bootstrap",
      "/data/native/bootstrap/bin/ZorviShortcut.app/Contents/Resources/zorvi-shortcut",
      "/data/bin/ZorviShortcut.app/Contents/MacOS/zorvi-shortcut",
      "/bootstrap/bin/zorvi-bootstrap",
  };
  for (const char* image : renamed) {
    const Error error = failure([&] { installed_data_root(image); });
    EXPECT_EQ(error.code, "native_install_trust") << image;
    EXPECT_STREQ(error.what(), "Unknown installed bootstrap entry");
  }
  for (const char* image : {"data/native/bootstrap/bin/zorvi-bootstrap", "/data/x/../native/bootstrap/bin/zorvi-bootstrap",
                            "/data//native/bootstrap/bin/zorvi-bootstrap"}) {
    const Error error = failure([&] { installed_data_root(image); });
    EXPECT_EQ(error.code, "unsafe_path") << image;
    EXPECT_STREQ(error.what(), "Bootstrap image path must be absolute and normalized");
  }
}

TEST(InstallGuards, HoldsTheLifetimeLockShared) {
  TempDir root;
  fs::create_directories(root / "native/bootstrap/bin");
  {
    const auto first = bootstrap_lifetime(root.path() / bootstrap_image);
    const auto second = bootstrap_lifetime(root.path() / helper_image);
    struct stat status {};
    ASSERT_EQ(::lstat((root / ".native-bootstrap.lock").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    // A replacement of the image needs the lock exclusively, and must wait.
    const Error busy = failure([&] {
      NativeFileLock(root / ".native-bootstrap.lock", false, NativeLockSharing::exclusive_install, LockMode::exclusive);
    });
    EXPECT_EQ(busy.code, "busy");
  }
  EXPECT_NO_THROW(
      NativeFileLock(root / ".native-bootstrap.lock", false, NativeLockSharing::exclusive_install, LockMode::exclusive));

  EXPECT_EQ(failure([&] { bootstrap_lifetime(root / "native/bootstrap/bin/zorvi-bootstrap.old"); }).code,
            "native_install_trust");
  testing::write_text(root / ".zorvi-setup-incomplete", "");
  EXPECT_EQ(failure([&] { bootstrap_lifetime(root.path() / bootstrap_image); }).code, "native_install_incomplete");
}

}  // namespace
}  // namespace zorvi
