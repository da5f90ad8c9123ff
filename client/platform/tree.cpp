#include "client/platform/tree.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/directory_handle.hpp"
#include "client/platform/durable_steps.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/tree_walk.hpp"

namespace zorvi {
namespace {

constexpr std::uint64_t max_cleanup_entries = 250000;

enum class Kind : std::uint8_t { absent, directory, regular, other };

Kind kind_of(const std::filesystem::path& path) {
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT || errno == ENOTDIR ? Kind::absent : Kind::other;
  if (S_ISDIR(status.st_mode)) return Kind::directory;
  return S_ISREG(status.st_mode) ? Kind::regular : Kind::other;
}

bool is_empty_directory(const std::filesystem::path& path) {
  std::error_code error;
  return std::filesystem::is_empty(path, error) && !error;
}

// Parent directories of a relative path, without the root itself.
void add_parents(const std::string& relative, std::set<std::string>& directories) {
  for (std::size_t slash = relative.rfind('/'); slash != std::string::npos && slash > 0;
       slash = relative.rfind('/', slash - 1)) {
    directories.insert(relative.substr(0, slash));
  }
}

std::size_t depth(const std::string& relative) { return std::count(relative.begin(), relative.end(), '/'); }

}  // namespace

std::uint64_t tree_bytes(const std::filesystem::path& path, std::uint64_t max_entries) {
  const Kind top = kind_of(path);
  if (top == Kind::absent) return 0;
  require(top == Kind::directory, "unsafe_path", "Expected a plain directory");
  const DirectoryHandle root = DirectoryHandle::open_existing(path);
  require(static_cast<bool>(root), "unsafe_path", "Expected a plain directory");
  std::uint64_t total = 0;
  BoundedTreeWalk walk(root, max_entries, {"Directory entry count exceeds bounds", "Cannot walk directory tree"});
  while (walk.next()) {
    // safe_join's rules: the walk enters no link, so only the entry itself can be one.
    validate_relative_path(walk.relative(), false);
    require(walk.type() != S_IFLNK, "unsafe_path", "Managed path contains a symbolic link");
    require(walk.type() == S_IFDIR || walk.type() == S_IFREG, "unsafe_path", "Tree contains a link or special file");
    if (walk.type() != S_IFREG) continue;
    const auto size = static_cast<std::uint64_t>(walk.status().st_size);
    require(total <= std::numeric_limits<std::uint64_t>::max() - size, "size_limit", "Tree size overflowed");
    total += size;
  }
  return total;
}

void remove_plain_tree(const std::filesystem::path& path) {
  const Kind top = kind_of(path);
  if (top == Kind::absent) return;
  require(top == Kind::directory, "unsafe_path", "Tree cleanup requires an ordinary directory");
  tree_bytes(path, max_cleanup_entries);
  std::error_code error;
  std::filesystem::remove_all(path, error);
  require(!error, "file_remove", "Cannot remove " + path_utf8(path));
  sync_directory(path.parent_path());
}

void remove_path_quietly(const std::filesystem::path& path) noexcept {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

void validate_snapshot_retirement(const SnapshotManifest& manifest, const std::filesystem::path& root) {
  const Kind top = kind_of(root);
  require(top == Kind::absent || top == Kind::directory, "unsafe_path",
          "Managed snapshot retirement requires an ordinary directory");
  for (const auto& entry : manifest.files) {
    const Kind kind = kind_of(safe_join(root, entry.first, true));
    require(kind == Kind::absent || kind == Kind::regular, "unsafe_path",
            "A managed snapshot path became a link or special file; it was preserved");
  }
}

void retire_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const std::function<void()>& before) {
  validate_snapshot_retirement(manifest, root);
  if (kind_of(root) == Kind::absent) return;
  if (before) before();

  std::set<std::string> directories;
  for (const auto& entry : manifest.files) {
    const std::filesystem::path target = safe_join(root, entry.first, true);
    const Kind kind = kind_of(target);
    if (kind == Kind::absent) continue;
    require(kind == Kind::regular, "unsafe_path", "Changed managed paths were preserved");
    require(::unlink(target.c_str()) == 0, "file_remove", "Cannot remove a declared managed file");
    add_parents(entry.first, directories);
  }

  std::vector<std::string> deepest_first(directories.begin(), directories.end());
  std::stable_sort(deepest_first.begin(), deepest_first.end(),
                   [](const std::string& a, const std::string& b) { return depth(a) > depth(b); });
  for (const std::string& relative : deepest_first) {
    const std::filesystem::path directory = root / relative;
    const Kind kind = kind_of(directory);
    if (kind == Kind::absent) continue;
    require(kind == Kind::directory, "unsafe_path", "Changed managed directory was preserved");
    if (is_empty_directory(directory))
      require(::rmdir(directory.c_str()) == 0, "file_remove", "Cannot retire empty managed directory");
  }
  if (is_empty_directory(root))
    require(::rmdir(root.c_str()) == 0, "file_remove", "Cannot retire empty snapshot directory");
  sync_directory(root.parent_path());
}

namespace native_files {

void rename_replace(const std::filesystem::path& from, const std::filesystem::path& to) {
  require(::rename(from.c_str(), to.c_str()) == 0, "file_write", "Cannot move " + path_utf8(from) + " into place");
  durable_step();
}

void remove_or_trash(const std::filesystem::path& path, const std::filesystem::path&) {
  std::error_code error;
  std::filesystem::remove(path, error);
  require(!error, "file_remove", "Cannot remove " + path_utf8(path));
}

void remove_after_exit(const std::filesystem::path& path) noexcept { remove_path_quietly(path); }

std::filesystem::path temporary_directory(const std::filesystem::path& path) { return path; }

}  // namespace native_files
}  // namespace zorvi
