#include "client/platform/posix_files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <string>
#include <vector>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/file_identity.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_native_files.hpp"
#include "client/platform/private_mode.hpp"

namespace zorvi {
namespace {

constexpr int directory_open = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct WalkPath {
  std::filesystem::path full;  // absolute, normal, no trailing separator
  std::vector<std::string> parts;
};

WalkPath walk_path(const std::filesystem::path& resolved) {
  WalkPath result;
  result.full = "/";
  for (const auto& part : resolved.relative_path()) {
    if (part.empty()) continue;
    result.parts.push_back(part.native());
    result.full /= part;
  }
  return result;
}

bool has_nul(const std::filesystem::path& path) { return path.native().find('\0') != std::string::npos; }

bool traverses_parents(const std::filesystem::path& path) {
  for (const auto& part : path)
    if (part == "..") return true;
  return false;
}

[[noreturn]] void not_private() {
  throw Error("permissions", "macOS private storage must be ordinary, owned and accessible only to this user");
}

void require_private_directory_path(const std::filesystem::path& path, WalkPath& target) {
  require(!path.empty() && !has_nul(path), "unsafe_path", "macOS private directory needs a bounded path below a root");
  target = walk_path(resolve_system_links(path));
  require(!target.parts.empty() && target.full.native().size() <= max_absolute_path, "unsafe_path",
          "macOS private directory needs a bounded path below a root");
  require(!traverses_parents(path), "unsafe_path", "macOS private directory cannot traverse parents");
}

}  // namespace

namespace posix_files {

UniqueFd enter_private_directory(int anchor, const std::string& name, bool last) {
  UniqueFd next(::openat(anchor, name.c_str(), directory_open));
  bool created = false;
  if (!next && errno == ENOENT) {
    if (::mkdirat(anchor, name.c_str(), 0700) == 0) {
      created = true;
    } else if (errno != EEXIST) {
      throw Error("permissions", "Cannot reserve a new macOS private directory");
    }
    next.reset(::openat(anchor, name.c_str(), directory_open));
  }
  require(static_cast<bool>(next), "unsafe_path", "macOS directory ancestry is missing or linked");
  struct stat opened{};
  struct stat named{};
  require(::fstat(next.get(), &opened) == 0 && ::fstatat(anchor, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
              S_ISDIR(opened.st_mode) && S_ISDIR(named.st_mode) && same_entry(opened, named),
          "unsafe_path", "macOS directory ancestry changed");
  if (created) {
    posix_files::secure_new_private(next.get(), true);
    require(posix_files::sync(anchor) == 0, "file_sync", "Cannot synchronize new macOS directory ownership");
  }
  if (last) {
    if (!created && opened.st_uid == ::geteuid() && (opened.st_mode & 07777) != 0700)
      require(::fchmod(next.get(), 0700) == 0, "permissions", "Cannot restrict macOS directory permissions");
    posix_files::require_private_node(next.get(), true);
  }
  return next;
}

int sync(int descriptor) { return native_files::flush(descriptor); }

int reserve(int descriptor, std::uint64_t size) {
  if (size > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return EFBIG;
  if (size == 0) return 0;
  struct stat status{};
  if (::fstat(descriptor, &status) != 0) return errno;
  if (!S_ISREG(status.st_mode) || status.st_size < 0 || status.st_blocks < 0) return EINVAL;
  const auto blocks = static_cast<std::uint64_t>(status.st_blocks);
  if ((blocks >> 55) != 0) return EOVERFLOW;
  if (size > blocks * 512) {
    if (const int error = native_files::allocate(descriptor, size); error != 0) return error;
  }
  const int result = retry_on_eintr([&] { return ::ftruncate(descriptor, static_cast<off_t>(size)); });
  return result == 0 ? 0 : errno;
}

void secure_new_private(int descriptor, bool directory) {
  struct stat status{};
  const bool fresh =
      ::fstat(descriptor, &status) == 0 && status.st_uid == ::geteuid() &&
      (directory ? S_ISDIR(status.st_mode) : S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_size == 0);
  require(fresh, "permissions", "New macOS private storage ownership changed");
  require(native_files::clear_acl(descriptor, directory) == 0 && ::fchmod(descriptor, directory ? 0700 : 0600) == 0,
          "permissions", "Cannot make new macOS storage private");
  require_private_node(descriptor, directory);
}

void require_private_acl(int descriptor) { native_files::require_owner_only_acl(descriptor); }

void require_private_node(int descriptor, bool directory) {
  struct stat status{};
  if (::fstat(descriptor, &status) != 0 || !(directory ? owned_private_directory(status) : owned_private_file(status)))
    not_private();
  require_private_acl(descriptor);
}

void require_private_path(const std::filesystem::path& path, bool directory) {
  require(path.has_root_directory() && path.native().size() <= max_absolute_path && !has_nul(path), "unsafe_path",
          "macOS private storage needs a bounded absolute path");
  UniqueFd entry(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | (directory ? O_DIRECTORY : 0)));
  require(static_cast<bool>(entry), "permissions", "Cannot open ordinary macOS private storage");
  require_private_node(entry.get(), directory);
  struct stat opened{};
  struct stat named{};
  require(
      ::fstat(entry.get(), &opened) == 0 && ::lstat(path.c_str(), &named) == 0 && same_entry_and_type(opened, named),
      "permissions", "macOS private storage path changed during inspection");
}

DirectoryWalk open_ordinary_directory(const std::filesystem::path& absolute) {
  DirectoryWalk walk;
  walk.directory.reset(::open("/", directory_open));
  if (!walk.directory) {
    walk.failure = WalkFailure::root;
    return walk;
  }
  const WalkPath target = walk_path(absolute);
  if (target.parts.size() > max_ancestry) {
    walk.directory.reset();
    walk.failure = WalkFailure::depth;
    return walk;
  }
  for (const auto& part : target.parts) {
    walk.directory.reset(::openat(walk.directory.get(), part.c_str(), directory_open));
    if (!walk.directory) {
      walk.failure = WalkFailure::component;
      return walk;
    }
  }
  return walk;
}

void private_directory(const std::filesystem::path& path) { private_directory_anchor(path); }

UniqueFd private_directory_anchor(const std::filesystem::path& path) {
  WalkPath target;
  require_private_directory_path(path, target);
  UniqueFd anchor(::open("/", directory_open));
  require(static_cast<bool>(anchor), "unsafe_path", "Cannot anchor macOS directory ancestry");
  require(target.parts.size() <= max_ancestry, "size_limit", "macOS directory ancestry exceeds its bound");
  for (std::size_t index = 0; index < target.parts.size(); ++index)
    anchor = enter_private_directory(anchor.get(), target.parts[index], index + 1 == target.parts.size());
  struct stat opened{};
  struct stat named{};
  require(::fstat(anchor.get(), &opened) == 0 && ::lstat(target.full.c_str(), &named) == 0 && same_entry(opened, named),
          "unsafe_path", "macOS private directory path changed");
  return anchor;
}

}  // namespace posix_files

void private_directory(const std::filesystem::path& path) { posix_files::private_directory(path); }

namespace {

[[noreturn]] void staging_path_changed() {
  throw Error("native_install_commit", "New private staging directory path changed");
}

UniqueFd open_staging_parent(const std::filesystem::path& parent) {
  posix_files::DirectoryWalk walk = posix_files::open_ordinary_directory(parent);
  switch (walk.failure) {
    case posix_files::WalkFailure::none:
      return std::move(walk.directory);
    case posix_files::WalkFailure::root:
      throw Error("unsafe_path", "Cannot open new private directory ancestry");
    case posix_files::WalkFailure::depth:
      throw Error("size_limit", "New private directory ancestry exceeds its bound");
    case posix_files::WalkFailure::component:
      break;
  }
  throw Error("unsafe_path", "New private directory requires ordinary existing parents");
}

}  // namespace

void private_directory_new(const std::filesystem::path& path) {
  require(!path.empty() && path.native().size() <= max_absolute_path && !has_nul(path), "unsafe_path",
          "New private directory requires a bounded path without NUL bytes");
  require(!traverses_parents(path), "unsafe_path", "New private directory cannot traverse parents");
  const WalkPath target = walk_path(resolve_system_links(path));
  require(!target.parts.empty() && target.full.native().size() <= max_absolute_path, "unsafe_path",
          "New private directory cannot be a filesystem root or exceed its absolute path bound");
  const std::filesystem::path parent_path = target.full.parent_path();
  const std::string& name = target.parts.back();

  const UniqueFd parent = open_staging_parent(parent_path);
  require(::mkdirat(parent.get(), name.c_str(), 0700) == 0, "native_install_commit",
          "Cannot reserve new private staging directory");
  const UniqueFd created(::openat(parent.get(), name.c_str(), directory_open));
  require(static_cast<bool>(created), "permissions", "Cannot anchor new macOS staging directory");
  posix_files::secure_new_private(created.get(), true);
  struct stat status{};
  require(::fstat(created.get(), &status) == 0 && owned_private_directory(status), "permissions",
          "New private staging directory permissions changed");

  // The same ancestry, walked again, must still lead to what was created.
  posix_files::DirectoryWalk again = posix_files::open_ordinary_directory(parent_path);
  struct stat first_parent{};
  struct stat second_parent{};
  struct stat named{};
  if (again.failure != posix_files::WalkFailure::none || ::fstat(parent.get(), &first_parent) != 0 ||
      ::fstat(again.directory.get(), &second_parent) != 0 || !same_entry(first_parent, second_parent) ||
      ::fstatat(again.directory.get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
      !owned_private_directory(named) || !same_entry(named, status))
    staging_path_changed();
}

}  // namespace zorvi
