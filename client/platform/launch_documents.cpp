#include "client/platform/launch_documents.hpp"

#include <sys/stat.h>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/desktop_files.hpp"
#include "client/platform/files.hpp"
#include "client/platform/macos_paths.hpp"

namespace zorvi {
namespace {

constexpr std::string_view launch_extension = ".zorvi-launch";

// The key walk refuses linked or foreign ancestry; the entry itself must
// then be of the asked kind, and a link never is.
void ordinary(const std::filesystem::path& path, bool directory) {
  (void)(directory ? macos_paths::directory_key(path) : macos_paths::path_key(path));
  struct stat status{};
  const bool kind =
      ::lstat(path.c_str(), &status) == 0 && (directory ? S_ISDIR(status.st_mode) : S_ISREG(status.st_mode));
  require(kind, "shortcut_path", "Shortcut inputs need existing ordinary files and directories");
}

bool inside(const std::string& key, const std::string& folder_key) {
  return key == folder_key || key.starts_with(folder_key + "/");
}

// Launcher versions and staging trees are replaced wholesale by updates; a
// shortcut there would vanish or, worse, ride into a verified tree.
void outside_launcher_payloads(const std::filesystem::path& destination) {
  for (std::filesystem::path folder = destination.parent_path(); folder.has_relative_path();
       folder = folder.parent_path()) {
    const std::filesystem::path name = folder.filename();
    const bool managed = (name == "versions" || name == "staging") && folder.parent_path().has_relative_path() &&
                         folder.parent_path().filename() == "launcher";
    require(!managed, "shortcut_path", "Launch documents must be outside managed launcher payloads");
  }
}

}  // namespace

void register_macos_shortcut_handler(const std::filesystem::path& bootstrap) {
  absolute_path(bootstrap);
  ordinary(bootstrap, false);
  const std::filesystem::path bin = bootstrap.parent_path();
  require(bootstrap.filename() == "zorvi-bootstrap" && bin.filename() == "bin", "shortcut_bootstrap",
          "macOS shortcuts require the stable native bootstrap");
  const std::filesystem::path app = bin / "ZorviShortcut.app";
  ordinary(app, true);
  ordinary(app / "Contents/Info.plist", false);
  ordinary(app / "Contents/MacOS/zorvi-shortcut", false);
  desktop_files::register_launch_document_handler(app / "Contents/MacOS/zorvi-shortcut",
                                                  macos_paths::directory_key(bin));
}

json create_shortcut_file(const DesktopShortcut& shortcut, const std::filesystem::path& destination,
                          std::string_view text) {
  ordinary(shortcut.bootstrap, false);
  ordinary(shortcut.data_root, true);
  ordinary(destination.parent_path(), true);
  require(!inside(macos_paths::path_key(destination), macos_paths::directory_key(shortcut.data_root)), "shortcut_path",
          "Launch documents must be outside application data");
  outside_launcher_payloads(destination);
  require(!entry_present(destination), "already_exists",
          "Launch-document destination already exists; it was preserved");
  register_macos_shortcut_handler(shortcut.bootstrap);
  // Never replaces: a racing writer of the same name makes this fail.
  atomic_create(destination, text);
  return json{{"schema_version", 1},
              {"created", true},
              {"path", path_utf8(destination)},
              {"game_id", shortcut.game_id},
              {"bootstrap", path_utf8(shortcut.bootstrap)},
              {"data_root", path_utf8(shortcut.data_root)},
              {"shortcut_abi", 1}};
}

json create_macos_launch_document(const DesktopShortcut& shortcut, const std::filesystem::path& destination) {
  const std::string text = macos_launch_document(shortcut);
  absolute_path(destination);
  require(destination.extension() == launch_extension, "shortcut_path",
          "macOS launch documents must end in .zorvi-launch");
  return create_shortcut_file(shortcut, destination, text);
}

}  // namespace zorvi
