#pragma once

// The stable bootstrap's whole logic: which launcher version runs, a new
// version tried under supervision, and the fall back to what worked before.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/app/launcher.hpp"
#include "client/domain/json.hpp"
#include "client/domain/launcher_contract.hpp"
#include "client/platform/native_lock.hpp"
#include "client/platform/process.hpp"

namespace zorvi {

// The caller's limit on a candidate's startup, in milliseconds.
inline constexpr std::int64_t max_startup_limit_ms = 30000;
// Bound of the start marker.
inline constexpr std::size_t max_start_marker_bytes = 4096;
// A marker younger than this belongs to a start that may still be under way.
inline constexpr std::int64_t start_marker_settle_seconds = 30;
// A version whose GUI start went unconfirmed this often is skipped.
inline constexpr std::int64_t max_unconfirmed_starts = 2;

inline constexpr std::string_view start_marker_name = "start-attempt.json";

// The GUI's record of the version it last replaced itself with.
struct StartMarker {
  std::string manifest_sha256;
  std::int64_t started_at = 0;  // Unix seconds
  std::int64_t attempts = 0;    // unconfirmed starts in a row, the last included
};

// Runs the bootstrap for `interface` "cli" or "gui". Returns only when the
// bootstrap stayed as a candidate's parent (the child's status) or answered
// the command itself; otherwise its image is replaced or it raises `Error`.
// `lifetime` is the caller's bootstrap lifetime lock, held for the call.
int run_launcher_bootstrap(const std::filesystem::path& data_dir, std::string_view interface,
                           const std::vector<std::string>& arguments, std::int64_t startup_limit_ms,
                           const NativeFileLock& lifetime);

// Called by a launcher that started well: removes the start marker, quietly.
void confirm_launcher_start(const std::filesystem::path& data_dir);

// "--data-dir", the data directory (absolute, lexically normal, UTF-8), then
// the forwarded arguments.
std::vector<std::string> launcher_arguments(const std::filesystem::path& data_dir,
                                            const std::vector<std::string>& forwarded);

// The entry point of a stored version for `interface`, proved present with
// the size its manifest names: else `launcher_damaged`.
std::filesystem::path present_entry(const LauncherStore& store, const json& reference, const LauncherManifest& manifest,
                                    std::string_view interface);

// The startup variables, each empty, so that a start outside an attempt
// cannot inherit an attempt's authority.
EnvironmentOverrides cleared_startup_environment();

// launcher/start-attempt.json below the data directory.
std::filesystem::path start_marker_path(const std::filesystem::path& data_dir);

// Writes the marker with the current time.
void mark_start(const std::filesystem::path& data_dir, std::string_view manifest_sha256, std::int64_t attempts);

// The marker, or nothing when it is absent, unreadable or malformed.
std::optional<StartMarker> read_start_marker(const std::filesystem::path& data_dir);

}  // namespace zorvi
