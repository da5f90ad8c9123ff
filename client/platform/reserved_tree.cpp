#include "client/platform/reserved_tree.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "client/domain/error.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/storage.hpp"

namespace zorvi {
namespace {

bool fresh_root(const std::filesystem::path& root) {
  struct stat parent{};
  struct stat existing{};
  return ::lstat(root.parent_path().c_str(), &parent) == 0 && S_ISDIR(parent.st_mode) &&
         ::lstat(root.c_str(), &existing) != 0 && errno == ENOENT;
}

void require_root_unchanged(const std::filesystem::path& root, const DirectoryIdentity& identity, const char* message) {
  require(inspect_storage_directory(root) == identity, "allocation_changed", message);
}

// A failed reservation takes its root back only while the root is still the
// one it made and holds nothing; files made on the way belong to the caller's
// recovery, which removes them by their records.
void remove_if_empty(const std::filesystem::path& root, const DirectoryIdentity& identity) noexcept {
  try {
    std::error_code error;
    if (inspect_storage_directory(root) != identity || !std::filesystem::is_empty(root, error) || error) return;
    if (::rmdir(root.c_str()) == 0) sync_directory(root.parent_path());
  } catch (...) {
  }
}

}  // namespace

ReservedTree::ReservedTree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const Progress& progress, const RootObserver& root_observer)
    : root_(std::filesystem::absolute(root)) {
  require(fresh_root(root_), "staging_exists", "A fresh reservation directory is required");
  private_directory_new(root_);
  identity_ = inspect_storage_directory(root_);
  try {
    if (root_observer) {
      sync_directory(root_);
      sync_directory(root_.parent_path());
      root_observer(identity_);
      require_root_unchanged(root_, identity_, "Prepared root changed while recording ownership");
    }
    reserve_files(manifest, progress);
    require_root_unchanged(root_, identity_, "Prepared directory changed during reservation");
  } catch (...) {
    remove_if_empty(root_, identity_);
    throw;
  }
}

void ReservedTree::reserve_files(const SnapshotManifest& manifest, const Progress& progress) {
  const auto report = [&] {
    if (progress && !progress(requested_bytes_, manifest.expanded_length))
      throw Error("cancelled", "Storage preparation cancelled before download");
  };
  for (const auto& [path, entry] : manifest.files) {
    report();
    const std::filesystem::path target = safe_join(root_, path, true);
    private_directory(target.parent_path());
    FileReservation reservation = AllocatedFile(target, entry.length, ReservationObserver()).retain_reservation();
    requested_bytes_ = add(requested_bytes_, entry.length);
    if (reservation.preallocated) reserved_bytes_ = add(reserved_bytes_, entry.length);
    files_.emplace(path, std::move(reservation));
  }
  report();
}

FileReservation ReservedTree::file(const std::string& path, std::uint64_t length) const {
  const auto found = files_.find(path);
  require(found != files_.end() && found->second.length == length, "allocation_changed",
          "File differs from the prepared inventory");
  return found->second;
}

void ReservedTree::validate(const SnapshotManifest& manifest, const std::filesystem::path& root) const {
  require(std::filesystem::absolute(root) == root_ && files_.size() == manifest.files.size() &&
              requested_bytes_ == manifest.expanded_length,
          "allocation_changed", "Prepared tree differs from the requested snapshot");
  require_root_unchanged(root_, identity_, "Prepared tree differs from the requested snapshot");
  for (const auto& [path, entry] : manifest.files) file(path, entry.length);
}

json ReservedTree::summary() const {
  bool all_reserved = true;
  for (const auto& entry : files_) all_reserved = all_reserved && entry.second.preallocated;
  return {{"requested_bytes", requested_bytes_},
          {"reserved_bytes", reserved_bytes_},
          {"file_count", files_.size()},
          {"data_reserved", all_reserved}};
}

}  // namespace zorvi
