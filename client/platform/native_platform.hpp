#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace zorvi {

// The platform key this build answers to in manifests and contracts.
std::string native_platform();

// The per-user data folder; not created here.
std::filesystem::path user_data_root();

// An absolute, lexically normal path in which only links the operating system
// itself placed (root-owned links in root-owned, not group/other-writable
// directories) are resolved; links a user could have made stay visible.
std::filesystem::path resolve_system_links(const std::filesystem::path& path);

// Lets a platform with a short path limit refuse a deep tree early; Linux has
// no such limit to enforce.
void require_path_room(const std::filesystem::path& base, const std::filesystem::path& relative, std::size_t extra);

// `base` joined with a validated relative path, refusing a symbolic link at
// any component below `base`.
std::filesystem::path safe_join(const std::filesystem::path& base, std::string_view text, bool portable);

}  // namespace zorvi
