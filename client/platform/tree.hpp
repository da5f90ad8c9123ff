#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>

#include "client/domain/manifest.hpp"

namespace zorvi {

// Total size of the regular files below `path`, 0 when it does not exist.
// A link or special file anywhere stops the walk: such a tree is not plain.
std::uint64_t tree_bytes(const std::filesystem::path& path, std::uint64_t max_entries);

// Removes a directory tree of plain content; an absent path is success.
void remove_plain_tree(const std::filesystem::path& path);

// Best-effort removal that never fails.
void remove_path_quietly(const std::filesystem::path& path) noexcept;

// Checks, changing nothing, that the snapshot's files under `root` may go.
void validate_snapshot_retirement(const SnapshotManifest& manifest, const std::filesystem::path& root);

// Removes the manifest's files and the directories they leave empty. A file
// somebody else put into a managed directory keeps it, and the root, alive.
// `before` (may be empty) runs once, before the first removal.
void retire_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const std::function<void()>& before);

namespace native_files {

void rename_replace(const std::filesystem::path& from, const std::filesystem::path& to);
// `trash` is for platforms where a running image can only be moved aside; a
// POSIX system unlinks an open file and never needs it.
void remove_or_trash(const std::filesystem::path& path, const std::filesystem::path& trash);
void remove_after_exit(const std::filesystem::path& path) noexcept;
std::filesystem::path temporary_directory(const std::filesystem::path& path);

}  // namespace native_files
}  // namespace zorvi
