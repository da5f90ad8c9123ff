#include "client/platform/shortcuts.hpp"

#include <sys/stat.h>

#include <cstdint>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/desktop_files.hpp"
#include "client/platform/files.hpp"
#include "client/platform/launch_documents.hpp"
#include "client/platform/macos_paths.hpp"
#include "client/platform/posix_files.hpp"

namespace zorvi {
namespace {

enum class Component : std::uint8_t { directory, link, other };

Component component(const std::filesystem::path& path) {
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) return Component::other;
  if (S_ISLNK(status.st_mode)) return Component::link;
  return S_ISDIR(status.st_mode) ? Component::directory : Component::other;
}

// Every folder above the destination's parent must already be a plain
// directory; the parent itself is the caller's choice and gets its own
// message.
void plain_ancestry(const std::filesystem::path& destination) {
  const std::filesystem::path parent = destination.parent_path();
  std::filesystem::path walked = parent.root_path();
  std::size_t depth = 0;
  for (const auto& part : parent.relative_path()) {
    walked /= part;
    require(++depth <= posix_files::max_ancestry, "shortcut_path",
            "Shortcut paths need existing plain files and directories");
    const Component kind = component(walked);
    require(kind != Component::link, "unsafe_path", "Shortcut path contains a symbolic link");
    const bool is_parent = walked == parent;
    require(kind == Component::directory || is_parent, "shortcut_path",
            "Shortcut paths need existing plain files and directories");
    require(kind == Component::directory, "shortcut_path",
            "Custom shortcut destinations require an existing parent directory");
  }
}

}  // namespace

void normal_shortcut_path(const std::filesystem::path& path) {
  const std::string text = path_utf8(path);
  bounded_text(text, max_shortcut_path);
  // Compared as text: path equality would let "/a//b" pass as "/a/b".
  require(path.has_root_directory() && text == path.lexically_normal().native(), "shortcut_path",
          "Shortcut paths must be absolute and normalized");
}

std::string native_shortcut_extension() { return ".desktop"; }

std::filesystem::path native_menu_directory() { return linux_menu_directory(); }

std::filesystem::path native_menu_entry(const std::filesystem::path& data_root, const std::string& game_id,
                                        const std::string& folder) {
  return linux_menu_entry(data_root, game_id, folder);
}

json create_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& destination) {
  normal_shortcut_path(destination);
  const std::filesystem::path parent = destination.parent_path();
  if (parent == native_menu_directory() && !entry_present(parent)) private_directory(parent);
  plain_ancestry(destination);
  return create_linux_desktop_entry(shortcut, destination);
}

std::filesystem::path linux_menu_directory() {
  const std::filesystem::path folder = desktop_files::data_home() / "applications";
  normal_shortcut_path(folder);
  return folder;
}

std::filesystem::path linux_menu_entry(const std::filesystem::path& data_root, const std::string& game_id,
                                       const std::string&) {
  require(!data_root.empty(), "shortcut_path", "Application menu entry needs its selected profile");
  if (!game_id.empty()) validate_identifier(game_id);
  normal_shortcut_path(data_root);
  // The key, not the spelling, names the data folder, so every spelling of
  // one folder finds the same entries.
  const std::string suffix = game_id.empty() ? "-launcher" : "-game-" + game_id;
  const std::filesystem::path entry =
      linux_menu_directory() /
      ("zorvi-" + digest(macos_paths::directory_key(data_root), "sha256") + suffix + native_shortcut_extension());
  normal_shortcut_path(entry);
  return entry;
}

std::string linux_desktop_entry(const DesktopShortcut& shortcut) {
  // The launch-document writer holds the rules for every choice; its text
  // is not needed here.
  (void)macos_launch_document(shortcut);
  std::vector<std::string> command = {path_utf8(shortcut.bootstrap), "--data-dir", path_utf8(shortcut.data_root),
                                      "--gui"};
  if (!shortcut.game_id.empty()) {
    command.push_back("--game");
    command.push_back(shortcut.game_id);
  }
  return "[Desktop Entry]\nType=Application\nName=" + desktop_files::string_value(shortcut.name) +
         "\nExec=" + desktop_files::exec_line(command) + "\nTerminal=false\nCategories=Game;\n";
}

json create_linux_desktop_entry(const DesktopShortcut& shortcut, const std::filesystem::path& destination) {
  const std::string text = linux_desktop_entry(shortcut);
  absolute_path(destination);
  require(destination.extension() == native_shortcut_extension(), "shortcut_path",
          "Linux desktop entries must end in .desktop");
  return create_shortcut_file(shortcut, destination, text);
}

}  // namespace zorvi
