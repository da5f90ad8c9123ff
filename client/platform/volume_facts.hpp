#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

// What the operating system tells about the volume that holds an open entry.
// Path keys are composed from these facts; everything platform-bound about a
// key lives behind these few calls.
namespace zorvi::macos_paths {

struct VolumeFacts {
  std::string type;                  // file-system type name
  bool local = false;                // a local disk file system this build accepts
  std::filesystem::path mount_path;  // where the volume is mounted
  std::filesystem::path mount_root;  // the folder of the file system seen at the mount path ("/" for all of it)
  std::uint64_t mount_id = 0;        // which mount holds the entry

  bool operator==(const VolumeFacts&) const = default;
};

struct VolumeAttributes {
  std::string identity;  // stable text naming the file system
  bool case_sensitive = true;

  bool operator==(const VolumeAttributes&) const = default;
};

// Each gives nothing when the system cannot answer.
std::optional<VolumeFacts> volume_facts(int descriptor);
std::optional<VolumeAttributes> volume_attributes(int descriptor);
std::optional<std::string> physical_path(int descriptor);

// The line of a mount table (the text of /proc/self/mountinfo) that
// describes mount `id`; nothing when no well-formed line does.
std::optional<VolumeFacts> find_mount(std::string_view table, std::uint64_t id);

// The names of a path below a file system's root as that file system
// compares them; nothing when the result would exceed `limit` bytes.
std::optional<std::string> name_key(std::string_view names, bool case_sensitive, std::size_t limit);

// The leading text of every key this build makes.
std::string_view key_scheme();

}  // namespace zorvi::macos_paths
