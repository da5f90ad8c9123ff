#pragma once

#include <string_view>

#include "client/domain/manifest.hpp"

namespace zorvi {

inline constexpr std::string_view bootstrap_release_kind = "zorvi-bootstrap-release";

// The fixed entry points of a bootstrap release.
inline constexpr std::string_view bootstrap_executable_posix = "bin/zorvi-bootstrap";
inline constexpr std::string_view bootstrap_executable_windows = "bin/zorvi-bootstrap.exe";
inline constexpr std::string_view bootstrap_gui_executable = "bin/zorvi-bootstrap-gui.exe";
inline constexpr std::string_view bootstrap_shortcut_executable = "bin/ZorviShortcut.app/Contents/MacOS/zorvi-shortcut";
inline constexpr std::string_view bootstrap_shortcut_info_plist = "bin/ZorviShortcut.app/Contents/Info.plist";

// The stable entry point of a bootstrap built for `platform`.
std::string_view bootstrap_executable(std::string_view platform);

// Proves that a bootstrap release can serve as this client's stable entry:
// known schema and ABI, the exact entry points for its platform, and no
// executable file that none of them names. Raises or returns.
void validate_bootstrap_contract(const SnapshotManifest& manifest);

}  // namespace zorvi
