#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "client/domain/json.hpp"
#include "client/domain/manifest.hpp"

namespace zorvi {

// What one volume can take, seen from one directory on it.
struct StorageVolume {
  std::filesystem::path path;
  std::string id;  // "device:" and the decimal device number
  std::uint64_t allocation_unit = 0;
  std::uint64_t capacity_bytes = 0;
  std::uint64_t available_bytes = 0;
  // Set together, and only when the volume reports usable counts.
  std::optional<std::uint64_t> inode_capacity;
  std::optional<std::uint64_t> available_inodes;
};

// Sums and products of storage sizes; a result beyond 64 bits raises
// `size_limit` instead of wrapping.
std::uint64_t add(std::uint64_t first, std::uint64_t second);
std::uint64_t multiply(std::uint64_t first, std::uint64_t second);

StorageVolume inspect_storage_volume(const std::filesystem::path& path);

// Device and inode of an existing plain directory.
std::pair<std::uint64_t, std::uint64_t> inspect_storage_directory(const std::filesystem::path& path);

// A budget is the JSON record of one volume's peak use, stored with the
// operation so that a later process can see what was promised.
json make_storage_volume_budget(const StorageVolume& volume);
void finish_storage_volume_budget(json& budget);

// Files, distinct directories and the root of a snapshot's tree.
std::uint64_t snapshot_storage_file_entries(const SnapshotManifest& manifest);

json plan_native_payload_storage(const SnapshotManifest& first, const SnapshotManifest& second,
                                 const StorageVolume& volume, std::uint64_t extra_entries);
json plan_install_storage(const SnapshotManifest& manifest, const StorageVolume& volume, bool verified_archive_cached,
                          std::uint64_t existing_archive_allocation_bytes, bool existing_partial);

// Raises `insufficient_space` when the plan's volume falls short.
void require_install_storage(const json& plan, const std::string& locations);

}  // namespace zorvi
