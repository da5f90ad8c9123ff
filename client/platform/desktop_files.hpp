#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

// The Linux desktop's side of shortcuts: where the user's desktop data
// lives, the text rules of desktop entries, and the registration of the
// launch-document handler (a desktop entry plus a shared-mime-info package).
namespace zorvi::desktop_files {

// "$XDG_DATA_HOME" when it holds an absolute path, else "$HOME/.local/share".
std::filesystem::path data_home();

// A desktop-entry string value: backslashes doubled, a leading blank kept.
std::string string_value(std::string_view text);

// The Exec value of a program and its arguments, each argument quoted so
// that blanks, quotes and field-code characters in paths stay literal.
std::string exec_line(const std::vector<std::string>& arguments);

// The MIME type the desktop gives ".zorvi-launch" documents.
inline constexpr std::string_view launch_document_type = "application/x-zorvi-launch";

// Makes the desktop open launch documents with the helper executable
// `helper`; `bin_key` tells installations apart so that one never replaces
// another's registration. Raises `shortcut_api` when it cannot.
void register_launch_document_handler(const std::filesystem::path& helper, std::string_view bin_key);

}  // namespace zorvi::desktop_files
