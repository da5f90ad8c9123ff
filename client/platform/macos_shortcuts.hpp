#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace zorvi {

// What a launch document says: which bootstrap to start, for which data
// folder, and which game (empty: open the launcher).
struct DesktopShortcut {
  std::filesystem::path bootstrap;
  std::filesystem::path data_root;
  std::string game_id;
  std::string name;
};

inline constexpr std::size_t max_launch_document = 32768;
inline constexpr std::size_t max_shortcut_name = 512;
inline constexpr std::size_t max_shortcut_path = 4096;

// 1 to `limit` bytes of valid UTF-8 with no control character.
void bounded_text(std::string_view text, std::size_t limit);

// Absolute, lexically normal, not the file-system root.
void absolute_path(const std::filesystem::path& path);

// Checks a shortcut and writes it in the compact document form.
std::string macos_launch_document(const DesktopShortcut& shortcut);

// The strict reader of an opened document's bytes.
DesktopShortcut parse_macos_launch_document(std::string_view text);

}  // namespace zorvi
