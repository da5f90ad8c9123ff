#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "client/domain/crypto.hpp"
#include "client/domain/json.hpp"
#include "client/domain/manifest.hpp"
#include "client/platform/allocated_file.hpp"

namespace zorvi {

// Device and inode of a directory.
using DirectoryIdentity = std::pair<std::uint64_t, std::uint64_t>;
using RootObserver = std::function<void(const DirectoryIdentity&)>;

// A private root holding one reserved, still empty file for every file of a
// snapshot, made before any download starts so that filling it later cannot
// run out of space.
class ReservedTree {
 public:
  // `root_observer` (may be empty) sees the root's identity once, after the
  // root is durable and before any file exists.
  ReservedTree(const SnapshotManifest& manifest, const std::filesystem::path& root, const Progress& progress,
               const RootObserver& root_observer);

  // The reservation of one file, if the inventory holds it with this length.
  FileReservation file(const std::string& path, std::uint64_t length) const;
  // Proves that the tree was reserved for this snapshot at this root.
  void validate(const SnapshotManifest& manifest, const std::filesystem::path& root) const;
  json summary() const;

  const std::filesystem::path& root() const { return root_; }
  const DirectoryIdentity& identity() const { return identity_; }

 private:
  void reserve_files(const SnapshotManifest& manifest, const Progress& progress);

  std::filesystem::path root_;
  DirectoryIdentity identity_;
  std::map<std::string, FileReservation> files_;
  std::uint64_t requested_bytes_ = 0;
  std::uint64_t reserved_bytes_ = 0;
};

}  // namespace zorvi
