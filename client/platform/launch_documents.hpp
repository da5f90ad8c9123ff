#pragma once

#include <filesystem>
#include <string_view>

#include "client/domain/json.hpp"
#include "client/platform/macos_shortcuts.hpp"

namespace zorvi {

// Checks the installed handler application beside the stable bootstrap and
// registers it with the desktop, so that opened launch documents reach it.
void register_macos_shortcut_handler(const std::filesystem::path& bootstrap);

// Writes a launch document at `destination`, which must not exist in any
// form; the handler is registered before the document appears.
json create_macos_launch_document(const DesktopShortcut& shortcut, const std::filesystem::path& destination);

// The common tail of every shortcut file the client writes: `text` (already
// serialised from `shortcut`) goes to a destination that has passed the path
// and extension checks of its format. Checks the inputs and the placement,
// registers the handler, creates the file without replacing anything and
// returns the creation record.
json create_shortcut_file(const DesktopShortcut& shortcut, const std::filesystem::path& destination,
                          std::string_view text);

}  // namespace zorvi
