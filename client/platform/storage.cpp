#include "client/platform/storage.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <limits>
#include <set>
#include <string_view>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/file_identity.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

constexpr std::uint64_t all_ones = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t unreported_count = 0xFFFFFFFFu;
constexpr std::uint64_t install_margin_bytes = 16777216;
constexpr std::uint64_t payload_margin_bytes = 20971520;
constexpr std::uint64_t margin_file_entries = 64;

[[noreturn]] void overflow() { throw Error("size_limit", "Peak storage calculation overflowed"); }

std::uint64_t subtract(std::uint64_t first, std::uint64_t second) {
  if (second > first) overflow();
  return first - second;
}

std::uint64_t round_up(std::uint64_t length, std::uint64_t unit) {
  const std::uint64_t units = length / unit + (length % unit != 0 ? 1 : 0);
  return multiply(units, unit);
}

void validate_volume(const StorageVolume& volume) {
  require(volume.path.has_root_directory() && !volume.id.empty() && volume.allocation_unit != 0 &&
              volume.capacity_bytes != all_ones && volume.available_bytes <= volume.capacity_bytes,
          "volume_query", "Storage capacity or allocation geometry is unavailable");
  require(volume.inode_capacity.has_value() == volume.available_inodes.has_value(), "volume_query",
          "Storage file-entry counters are incomplete");
  if (!volume.inode_capacity) return;
  require(*volume.inode_capacity != 0 && *volume.inode_capacity != all_ones &&
              *volume.available_inodes <= *volume.inode_capacity,
          "volume_query", "Storage file-entry counters are invalid");
}

// A budget is written by this file, but it may come back from a stored
// record: a field that is no longer a plain count means the record lost the
// geometry it was computed from.
std::uint64_t count_field(const json& budget, const char* key) {
  const auto field = budget.find(key);
  require(budget.is_object() && field != budget.end() && field->is_number_unsigned(), "volume_query",
          "Storage capacity or allocation geometry is unavailable");
  return field->get<std::uint64_t>();
}

std::uint64_t tree_entries(const SnapshotManifest& manifest) {
  std::set<std::string_view> directories;
  for (const auto& entry : manifest.files) {
    const std::string_view path = entry.first;
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/', slash + 1))
      directories.insert(path.substr(0, slash));
  }
  return add(add(manifest.files.size(), directories.size()), 1);
}

std::uint64_t tree_allocation(const SnapshotManifest& manifest, std::uint64_t unit) {
  std::uint64_t total = 0;
  for (const auto& entry : manifest.files) total = add(total, round_up(entry.second.length, unit));
  return add(total, multiply(tree_entries(manifest), unit));
}

std::optional<std::uint64_t> optional_field(const json& budget, const char* key) {
  const auto field = budget.find(key);
  if (field != budget.end() && field->is_null()) return std::nullopt;
  return count_field(budget, key);
}

}  // namespace

std::uint64_t add(std::uint64_t first, std::uint64_t second) {
  if (first > all_ones - second) overflow();
  return first + second;
}

std::uint64_t multiply(std::uint64_t first, std::uint64_t second) {
  if (second != 0 && first > all_ones / second) overflow();
  return first * second;
}

StorageVolume inspect_storage_volume(const std::filesystem::path& path) {
  struct stat link{};
  require(path.has_root_directory() && ::lstat(path.c_str(), &link) == 0 && S_ISDIR(link.st_mode), "unsafe_path",
          "Storage needs an ordinary absolute directory");
  const UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status{};
  struct statvfs geometry{};
  require(directory && ::fstatvfs(directory.get(), &geometry) == 0 && ::fstat(directory.get(), &status) == 0,
          "volume_query", "Cannot inspect storage volume allocation geometry");

  // statvfs counts blocks in fragments; a file system that reports no
  // fragment size counts them in its block size.
  const std::uint64_t unit = geometry.f_frsize != 0 ? geometry.f_frsize : geometry.f_bsize;
  StorageVolume volume;
  volume.path = path;
  volume.id = "device:" + std::to_string(static_cast<std::uint64_t>(status.st_dev));
  volume.allocation_unit = unit;
  volume.capacity_bytes = multiply(geometry.f_blocks, unit);
  volume.available_bytes = multiply(geometry.f_bavail, unit);
  const std::uint64_t files = geometry.f_files;
  const std::uint64_t available_files = geometry.f_favail;
  if (files != 0 && files != unreported_count && available_files != unreported_count) {
    volume.inode_capacity = files;
    volume.available_inodes = available_files;
  }
  validate_volume(volume);
  return volume;
}

std::pair<std::uint64_t, std::uint64_t> inspect_storage_directory(const std::filesystem::path& path) {
  const UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat opened{};
  require(directory && ::fstat(directory.get(), &opened) == 0 && S_ISDIR(opened.st_mode), "unsafe_path",
          "Cannot inspect prepared directory identity");
  struct stat named{};
  require(::lstat(path.c_str(), &named) == 0 && S_ISDIR(named.st_mode) && same_entry(named, opened), "unsafe_path",
          "Prepared directory is linked, replaced or unavailable");
  return {static_cast<std::uint64_t>(opened.st_dev), static_cast<std::uint64_t>(opened.st_ino)};
}

json make_storage_volume_budget(const StorageVolume& volume) {
  validate_volume(volume);
  const auto optional = [](const std::optional<std::uint64_t>& value) { return value ? json(*value) : json(); };
  return {{"path", path_utf8(volume.path)},
          {"allocation_unit", volume.allocation_unit},
          {"capacity_bytes", volume.capacity_bytes},
          {"available_bytes", volume.available_bytes},
          {"inode_capacity", optional(volume.inode_capacity)},
          {"available_inodes", optional(volume.available_inodes)},
          {"download_bytes", 0u},
          {"staging_bytes", 0u},
          {"download_file_entries", 0u},
          {"staging_file_entries", 0u},
          {"control_margin_bytes", install_margin_bytes},
          {"control_margin_file_entries", margin_file_entries}};
}

void finish_storage_volume_budget(json& budget) {
  const std::uint64_t additional = add(add(count_field(budget, "download_bytes"), count_field(budget, "staging_bytes")),
                                       count_field(budget, "control_margin_bytes"));
  const std::uint64_t available = count_field(budget, "available_bytes");
  const std::uint64_t existing = subtract(count_field(budget, "capacity_bytes"), available);
  budget["additional_bytes"] = additional;
  budget["existing_or_unavailable_bytes"] = existing;
  budget["peak_capacity_bytes"] = add(existing, additional);
  budget["shortfall_bytes"] = additional > available ? additional - available : 0;

  const std::uint64_t entries =
      add(add(count_field(budget, "download_file_entries"), count_field(budget, "staging_file_entries")),
          count_field(budget, "control_margin_file_entries"));
  budget["additional_file_entries"] = entries;
  const std::optional<std::uint64_t> available_inodes = optional_field(budget, "available_inodes");
  if (!available_inodes) {
    budget["existing_or_unavailable_inodes"] = nullptr;
    budget["peak_inodes"] = nullptr;
    budget["shortfall_file_entries"] = nullptr;
    return;
  }
  const std::uint64_t existing_inodes = subtract(count_field(budget, "inode_capacity"), *available_inodes);
  budget["existing_or_unavailable_inodes"] = existing_inodes;
  budget["peak_inodes"] = add(existing_inodes, entries);
  budget["shortfall_file_entries"] = entries > *available_inodes ? entries - *available_inodes : 0;
}

std::uint64_t snapshot_storage_file_entries(const SnapshotManifest& manifest) { return tree_entries(manifest); }

json plan_native_payload_storage(const SnapshotManifest& first, const SnapshotManifest& second,
                                 const StorageVolume& volume, std::uint64_t extra_entries) {
  json budget = make_storage_volume_budget(volume);
  const std::uint64_t unit = volume.allocation_unit;
  budget["staging_bytes"] =
      add(add(tree_allocation(first, unit), tree_allocation(second, unit)), multiply(extra_entries, unit));
  budget["staging_file_entries"] = add(add(tree_entries(first), tree_entries(second)), extra_entries);
  budget["control_margin_bytes"] = payload_margin_bytes;
  finish_storage_volume_budget(budget);
  return {{"schema_version", 1}, {"reserved", false}, {"volume", std::move(budget)}};
}

json plan_install_storage(const SnapshotManifest& manifest, const StorageVolume& volume, bool verified_archive_cached,
                          std::uint64_t existing_archive_allocation_bytes, bool existing_partial) {
  require(existing_archive_allocation_bytes == 0 || existing_partial, "volume_query",
          "Existing allocation needs an owned partial file");
  json budget = make_storage_volume_budget(volume);
  const std::uint64_t unit = volume.allocation_unit;
  if (!verified_archive_cached) {
    budget["download_file_entries"] = existing_partial ? 0u : 1u;
    const std::uint64_t needed = round_up(manifest.archive_length, unit);
    const std::uint64_t missing =
        needed > existing_archive_allocation_bytes ? needed - existing_archive_allocation_bytes : 0;
    budget["download_bytes"] = existing_partial ? missing : add(missing, unit);
  }
  budget["staging_bytes"] = tree_allocation(manifest, unit);
  budget["staging_file_entries"] = tree_entries(manifest);
  finish_storage_volume_budget(budget);
  return {{"schema_version", 1},
          {"reserved", false},
          {"verified_archive_cached", verified_archive_cached},
          {"existing_partial", existing_partial},
          {"existing_archive_allocation_bytes", existing_archive_allocation_bytes},
          {"volume", std::move(budget)}};
}

void require_install_storage(const json& plan, const std::string& locations) {
  require(plan.is_object() && plan.contains("volume"), "volume_query",
          "Storage capacity or allocation geometry is unavailable");
  const json& volume = plan["volume"];
  const std::uint64_t bytes = count_field(volume, "shortfall_bytes");
  const auto entries_field = volume.find("shortfall_file_entries");
  const std::uint64_t entries =
      entries_field != volume.end() && entries_field->is_number() ? count_field(volume, "shortfall_file_entries") : 0;
  if (bytes == 0 && entries == 0) return;

  const std::uint64_t amount = bytes != 0 ? bytes : entries;
  const char* unit = bytes != 0 ? (amount == 1 ? " more byte" : " more bytes")
                                : (amount == 1 ? " more file entry" : " more file entries");
  const auto path = volume.find("path");
  const std::string where = path != volume.end() && path->is_string() ? path->get<std::string>() : std::string();
  throw Error(
      "insufficient_space",
      "Storage at " + where + " needs " + std::to_string(amount) + unit + " before installation; free space first",
      {locations.empty() ? std::string("zorvi-install --status --data-dir PATH") : "locations " + locations});
}

}  // namespace zorvi
