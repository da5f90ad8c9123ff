#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>

#include "client/domain/crypto.hpp"
#include "client/domain/json.hpp"

namespace zorvi {

// The pure checks under the TUF client. Times are signed microseconds since
// 1970-01-01T00:00:00Z.

// The exact shape of a TUF 1.x document whose `signed._type` must be `role`;
// a delegated role's document is checked as "targets".
void shape(const json& document, std::string_view role);
// `keyids` and `threshold` of one signing authority, against its keys.
void authority_shape(const json& role, const json& keys);
void hashes_shape(const json& hashes);
// Shape, size and identifier of every key in a `keys` object.
void verify_keys(const json& keys);
// At least `role.threshold` distinct authorised keys signed `document.signed`.
void verify_threshold(const json& document, const json& keys, const json& role);
// The `length` of a file description.
std::uint64_t length(const json& file);
std::int64_t parse_tuf_time(std::string_view text);
// The document expires strictly after `now`.
void unexpired(const json& document, std::int64_t now);
// TUF path patterns (`*`, `?`, `[...]`), never crossing "/"; linear in
// pattern times path, whatever the pattern.
bool path_pattern_matches(std::string_view pattern, std::string_view path);
// A finished file against its signed length and every signed hash.
void verify_target_file(const std::filesystem::path& path, const json& file, const Progress& progress);
// The keys of the two online roles, "timestamp" and "snapshot"; a change
// between two roots means a rotation of online keys.
json online_keys(const json& root);

inline constexpr std::size_t max_role_name = 4096;
inline constexpr std::size_t max_path_pattern = 4096;
inline constexpr std::size_t max_public_key = 16384;

}  // namespace zorvi
