#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace zorvi {

// Game and build identifiers: 1 to 80 bytes of [a-z0-9.-], never "." or "..".
void validate_identifier(std::string_view value);

// A relative path in protocol text, '/'-separated. `portable` adds the rules
// that keep a name valid on every supported platform; it is false only for
// repository-side names that never become file names by themselves.
void validate_relative_path(std::string_view text, bool portable);

// Native paths carry UTF-8 bytes unchanged; NUL is the one byte refused.
std::filesystem::path path_from_utf8(std::string_view text);
std::string path_utf8(const std::filesystem::path& path);
std::size_t native_length(std::string_view text);

// The longest prefix of `text` within `limit` bytes that does not end inside
// a UTF-8 sequence.
std::string_view utf8_prefix(std::string_view text, std::size_t limit);

inline constexpr std::size_t max_relative_path = 4096;
inline constexpr std::size_t max_component = 255;
inline constexpr std::size_t max_absolute_path = 4096;

}  // namespace zorvi
