#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "client/domain/crypto.hpp"
#include "client/domain/manifest.hpp"

namespace zorvi {

class ReservedTree;

// What is wrong with a tree on disk: `count` counts every damaged or foreign
// entry, `paths` names them until the caller's limit.
struct DamagedFiles {
  std::uint64_t count = 0;
  std::vector<std::string> paths;
};

// Whether `path`, a link not followed, is a regular file of the length the
// manifest lists for `name`: the cheap check of every start, no hash taken.
bool has_listed_length(const SnapshotManifest& manifest, const std::string& name, const std::filesystem::path& path);

// Proves that `root` holds exactly the manifest's files, no more, with their
// lengths, digests and execute bits. Raises at the first difference.
void verify_snapshot_tree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                          const Progress& progress);

// The same proof as an inventory, for a repair to act on. Raises only for an
// unsafe tree (a symbolic link, an unsafe name), a bound or cancellation.
DamagedFiles damaged_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                                    const Progress& progress, std::size_t limit);

// Unpacks an authenticated `tar.zst-v1` archive into a fresh private staging
// tree, or into the files of `reserved_tree` (may be null), holding every
// entry and every byte to the manifest. A failure leaves staging as it is.
void extract_snapshot(const SnapshotManifest& manifest, const std::filesystem::path& archive,
                      const std::filesystem::path& staging, const Progress& progress,
                      const ReservedTree* reserved_tree);

}  // namespace zorvi
