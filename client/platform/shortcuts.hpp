#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "client/domain/json.hpp"
#include "client/platform/macos_shortcuts.hpp"

namespace zorvi {

// One shortcut the client made, with the digest of the bytes it wrote: the
// proof that lets it remove the file again.
struct OwnedShortcut {
  std::filesystem::path path;
  std::string game;  // empty for the launcher itself
  std::string name;
  std::string sha256;
};

// What a removal did: files taken away, and files the user changed or
// replaced, which stay where they are.
struct ShortcutRemoval {
  std::vector<std::filesystem::path> removed;
  std::vector<std::filesystem::path> changed;
};

inline constexpr std::size_t max_owned_shortcuts = 128;
inline constexpr std::size_t max_shortcut_ledger = 262144;
inline constexpr std::size_t max_shortcut_file = 65536;

// The rule every path of the shortcut code passes: bounded UTF-8 text
// without control characters, absolute, and equal to its normal form.
void normal_shortcut_path(const std::filesystem::path& path);

// The native shortcut of this platform is a desktop entry in the user's
// application menu.
std::string native_shortcut_extension();
std::filesystem::path native_menu_directory();
// `folder` is a menu folder where a platform has one; the Linux menu is built
// from each entry's categories, so it plays no part here.
std::filesystem::path native_menu_entry(const std::filesystem::path& data_root, const std::string& game_id,
                                        const std::string& folder);

// Writes the native file; nothing is recorded.
json create_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& destination);
// Writes the native file and records it in the data folder's ledger.
json create_owned_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& destination);

std::vector<OwnedShortcut> owned_native_shortcuts(const std::filesystem::path& data_root);
ShortcutRemoval remove_owned_native_shortcuts(const std::filesystem::path& data_root);
// Writes every recorded shortcut that still stands anew for `bootstrap`.
std::vector<std::filesystem::path> restore_owned_native_shortcuts(const std::filesystem::path& data_root,
                                                                  const std::filesystem::path& bootstrap);

// The Linux forms: "$XDG_DATA_HOME/applications" (or the one below
// "$HOME/.local/share"), the entry's path there, its text, and its creation.
std::filesystem::path linux_menu_directory();
std::filesystem::path linux_menu_entry(const std::filesystem::path& data_root, const std::string& game_id,
                                       const std::string& folder);
std::string linux_desktop_entry(const DesktopShortcut& shortcut);
json create_linux_desktop_entry(const DesktopShortcut& shortcut, const std::filesystem::path& destination);

}  // namespace zorvi
