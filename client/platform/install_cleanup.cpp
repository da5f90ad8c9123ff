// Cleanup of an install that a crash interrupted. A staging or activated tree
// is removed only after its recorded volume and directory identity still hold
// and every entry in it is something the manifest could have put there; a
// partly written file passes, anything changed, linked or foreign keeps the
// whole tree in place.
#include "client/platform/install_readiness.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <set>
#include <string>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/storage.hpp"
#include "client/platform/tree.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_cleanup_entries = 250000;

DirectoryIdentity recorded_identity(const json& document) {
  const json& pair = document["staging_identity"];
  return {pair[0].get<std::uint64_t>(), pair[1].get<std::uint64_t>()};
}

// A root that is no longer a plain directory (a link or a file in its place)
// fails inside the inspection itself.
bool same_directory(const fs::path& path, const DirectoryIdentity& identity) {
  return inspect_storage_directory(path) == identity;
}

bool on_device(const fs::path& directory, const DirectoryIdentity& identity) {
  return inspect_storage_directory(directory).first == identity.first;
}

// The directories that the manifest's files imply, the root excluded.
std::set<std::string> implied_directories(const SnapshotManifest& manifest) {
  std::set<std::string> directories;
  for (const auto& entry : manifest.files) {
    const std::string& path = entry.first;
    for (std::size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      directories.insert(path.substr(0, slash));
      require(directories.size() <= max_cleanup_entries, "size_limit",
              "Prepared directory inventory exceeds its bound");
    }
  }
  return directories;
}

// A special file, or an entry that vanished while the walk saw it, is as
// unmanaged as a foreign file: the tree stays.
void require_known_entry(const SnapshotManifest& manifest, const std::set<std::string>& directories,
                         const fs::path& root, const std::string& relative) {
  struct stat status{};
  const fs::path path = safe_join(root, relative, true);
  if (::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
    require(directories.contains(relative), "unexpected_file", "Prepared cleanup preserves unmanaged directories");
    return;
  }
  const auto listed = manifest.files.find(relative);
  require(S_ISREG(status.st_mode) && listed != manifest.files.end() && status.st_nlink == 1 &&
              static_cast<std::uint64_t>(status.st_size) <= listed->second.length,
          "unexpected_file", "Prepared cleanup preserves unmanaged, linked or oversized files");
}

// Whether the tree at `root` exists and is provably the recorded one, filled
// with nothing but (possibly partial) files of the manifest.
bool ready_tree(const SnapshotManifest& manifest, const fs::path& root, const DirectoryIdentity& identity) {
  require(on_device(root.parent_path(), identity), "allocation_changed", "Prepared storage volume changed");
  if (!entry_present(root)) return false;
  require(same_directory(root, identity), "allocation_changed",
          "Prepared directory identity changed; preserve its replacement");
  const std::set<std::string> directories = implied_directories(manifest);
  std::size_t entries = 0;
  std::error_code error;
  for (auto walk = fs::recursive_directory_iterator(root, error); !error && walk != fs::recursive_directory_iterator();
       walk.increment(error)) {
    require(++entries <= max_cleanup_entries, "size_limit", "Prepared cleanup entry count exceeds its bound");
    require_known_entry(manifest, directories, root, path_utf8(walk->path().lexically_relative(root)));
  }
  if (error) throw Error("file_read", with_errno("Cannot walk prepared directory", error.value()));
  require(same_directory(root, identity), "allocation_changed", "Prepared directory changed during cleanup validation");
  return true;
}

void dispose_install_root(const fs::path& root, const std::optional<DirectoryIdentity>& identity, bool present) {
  if (present) {
    require(identity && same_directory(root, *identity), "allocation_changed",
            "Prepared directory changed before disposal");
    remove_plain_tree(root);
  }
  sync_directory(root.parent_path());
}

// The caller's staging root is named after the version, and the destination
// is the version below the recorded versions path.
bool names_operation(const json& document, const fs::path& staging, const fs::path& destination) {
  const std::string version = document["reference"]["version"].get<std::string>();
  const fs::path expected = path_from_utf8(document["versions_path"].get<std::string>()) / version;
  return staging.is_absolute() && staging.filename() == version && destination == expected && staging != destination;
}

}  // namespace

void cleanup_prepared_install(const SnapshotManifest& manifest, const json& preparation, const fs::path& staging,
                              const fs::path& destination) {
  validate_install_preparation(preparation, nullptr);
  require(install_document_binds(preparation, manifest) && names_operation(preparation, staging, destination),
          "install_preparation_state", "Preparation no longer binds this manifest, operation or storage");
  require(!entry_present(destination), "allocation_changed",
          "An activation destination appeared before readiness; preserve all roots");
  if (preparation["staging_identity"].is_null()) {
    require(!entry_present(staging), "allocation_changed", "Unrecorded preparation root was preserved");
    dispose_install_root(staging, std::nullopt, false);
    return;
  }
  const DirectoryIdentity identity = recorded_identity(preparation);
  dispose_install_root(staging, identity, ready_tree(manifest, staging, identity));
}

void cleanup_ready_install(const SnapshotManifest& manifest, const json& ready, const fs::path& staging,
                           const fs::path& destination, bool keep_destination) {
  validate_install_ready(ready);
  require(install_document_binds(ready, manifest) && names_operation(ready, staging, destination),
          "install_ready_state", "Readiness no longer binds this manifest, operation or storage");
  const DirectoryIdentity identity = recorded_identity(ready);
  const bool present = ready_tree(manifest, staging, identity);
  require(on_device(destination.parent_path(), identity), "allocation_changed", "Activation storage volume changed");
  const bool activated = entry_present(destination);
  if (activated) {
    // A rename keeps the inode: the activated tree is the staged one.
    require(same_directory(destination, identity), "allocation_changed",
            "Activation directory identity changed; preserve its replacement");
    if (!keep_destination) ready_tree(manifest, destination, identity);
    require(!present, "allocation_changed", "Prepared source reappeared after activation");
  }
  dispose_install_root(staging, identity, present);
  if (!keep_destination) dispose_install_root(destination, identity, activated);
}

bool cleanup_install_preparation(const fs::path& first, const fs::path& second) {
  bool remains = false;
  if (!first.empty()) {
    try {
      remove_plain_tree(first);
    } catch (const std::exception&) {
      remains = true;
    }
  }
  for (const fs::path& path : {first, second}) {
    struct stat status{};
    if (!path.empty() && (::lstat(path.c_str(), &status) == 0 || errno != ENOENT)) remains = true;
  }
  return remains;
}

}  // namespace zorvi
