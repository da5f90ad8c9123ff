#include "client/app/install_guards.hpp"

#include <sys/stat.h>

#include <array>
#include <string_view>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"

namespace zorvi {
namespace {

constexpr std::size_t max_image_levels = 256;

constexpr std::array<std::string_view, 3> image_markers = {".zorvi-native-bundle-incomplete.json",
                                                           ".zorvi-initial-package-incomplete.json",
                                                           ".zorvi-launcher-package-incomplete.json"};

// Only presence counts; a link is an entry too.
bool entry_exists(const std::filesystem::path& path) {
  struct stat status{};
  return ::lstat(path.c_str(), &status) == 0;
}

std::size_t depth(const std::filesystem::path& path) {
  std::size_t count = 0;
  for (const auto& part : path.relative_path()) count += part.empty() ? 0 : 1;
  return count;
}

// Whether `path` ends in `names`, compared exactly, last name first.
bool ends_with_names(std::filesystem::path path, std::initializer_list<std::string_view> names,
                     std::filesystem::path& above) {
  for (auto name = std::rbegin(names); name != std::rend(names); ++name) {
    if (!path.has_relative_path() || path.filename() != *name) return false;
    path = path.parent_path();
  }
  above = path;
  return true;
}

}  // namespace

void require_complete_native_install(const std::filesystem::path& data_root) {
  if (entry_exists(data_root / ".zorvi-setup-incomplete")) {
    throw Error(
        "native_install_incomplete",
        "Zorvi setup did not finish in " + path_utf8(data_root) + ". Run the Zorvi installer again to repair it.",
        {"Run the Zorvi installer and choose Repair"});
  }
}

void require_complete_native_install_image(const std::filesystem::path& image) {
  const std::filesystem::path folder = std::filesystem::absolute(image).lexically_normal().parent_path();
  // The folder itself and every folder above it, the root included.
  require(depth(folder) + 1 <= max_image_levels, "unsafe_path", "Native image path is too deep");
  for (std::filesystem::path level = folder;; level = level.parent_path()) {
    require_complete_native_install(level);
    for (std::string_view marker : image_markers) {
      require(!entry_exists(level / marker), "native_install_incomplete",
              "This image belongs to an unfinished package; it cannot start");
    }
    if (!level.has_relative_path()) return;
  }
}

std::filesystem::path installed_data_root(const std::filesystem::path& image) {
  // Compared as text: a doubled separator counts as a difference.
  require(image.has_root_directory() && image.native() == image.lexically_normal().native(), "unsafe_path",
          "Bootstrap image path must be absolute and normalized");
  std::filesystem::path root;
  const bool known =
      ends_with_names(image, {"native", "bootstrap", "bin", "zorvi-bootstrap"}, root) ||
      ends_with_names(image, {"native", "bootstrap", "bin", "ZorviShortcut.app", "Contents", "MacOS", "zorvi-shortcut"},
                      root);
  require(known, "native_install_trust", "Unknown installed bootstrap entry");
  return root;
}

std::unique_ptr<NativeFileLock> bootstrap_lifetime(const std::filesystem::path& image) {
  const std::filesystem::path root = installed_data_root(image);
  require_complete_native_install(root);
  return std::make_unique<NativeFileLock>(root / ".native-bootstrap.lock", true, NativeLockSharing::exclusive_install,
                                          LockMode::shared);
}

}  // namespace zorvi
