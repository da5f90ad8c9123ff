#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "client/domain/crypto.hpp"
#include "client/domain/manifest.hpp"
#include "client/tuf/tuf.hpp"

namespace zorvi {

inline constexpr std::size_t max_bootstrap_update_manifest = 524288;
inline constexpr std::size_t max_bootstrap_update_files = 4096;
inline constexpr std::uint64_t max_bootstrap_update_bytes = std::uint64_t{1} << 30;

// Every place the self-update uses, below one data directory.
struct BootstrapPaths {
  explicit BootstrapPaths(const std::filesystem::path& data_dir);

  std::filesystem::path root, native, tree, manifest, update, partial, update_manifest, downloads, rejected, lock,
      old_files, lifetime, incomplete, installation;
};

// The signed name of this platform's bootstrap release manifest.
std::string bootstrap_manifest_target();

// Refuses a bootstrap release this client cannot take as its update.
void validate_bootstrap_update(const SnapshotManifest& manifest);

// The manifest bytes of an update, parsed and validated.
SnapshotManifest parse_bootstrap_update(std::string_view bytes);

// Fetches, unpacks and stages the published bootstrap release for the next
// bootstrap start: "pending", "current", "rejected", "staged" or
// "not_published".
std::string stage_bootstrap_update(const std::filesystem::path& data_dir, TufClient& tuf, const Progress& progress);

// Called first thing by a bootstrap's main: answers the start check of an
// updater, and puts a pending update in place when no other bootstrap image
// runs, keeping it only if the new image proves that it starts.
void apply_pending_bootstrap_update(const std::filesystem::path& image);

// Removes the `.old` files a replacement left in the installed tree; leaves
// the marker when some stay. Never raises.
void remove_bootstrap_old_files(const BootstrapPaths& paths) noexcept;

// Whether a staged bootstrap update waits for the next bootstrap start.
bool bootstrap_update_pending(const std::filesystem::path& data_dir);

}  // namespace zorvi
