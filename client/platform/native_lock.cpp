#include "client/platform/native_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/file_identity.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/private_mode.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

int flock_operation(LockMode mode) { return mode == LockMode::shared ? LOCK_SH : LOCK_EX; }

// Creates the lock file private, or opens the one already there. Lock files
// are never removed, so most opens find an existing file.
UniqueFd open_lock_file(const std::filesystem::path& path, int flags) {
  UniqueFd file(::open(path.c_str(), flags | O_CREAT | O_EXCL, 0600));
  if (file) {
    posix_files::secure_new_private(file.get(), false);
  } else if (errno == EEXIST) {
    file.reset(::open(path.c_str(), flags | O_NONBLOCK));
  }
  return file;
}

bool bounded_lock_path(const std::filesystem::path& path) {
  const std::string& text = path.native();
  return !text.empty() && text.size() <= max_absolute_path && text.find('\0') == std::string::npos;
}

bool known_sharing(NativeLockSharing sharing, LockMode mode) {
  const int sharing_value = static_cast<int>(sharing);
  const int mode_value = static_cast<int>(mode);
  return (sharing_value == 0 || sharing_value == 1) && (mode_value == 0 || mode_value == 1);
}

// The folder holding an installation's lock need not be private, but nothing
// on the way to it may be a link that a user could have placed.
bool ordinary_parent(const std::filesystem::path& path) {
  try {
    std::filesystem::path resolved = resolve_system_links(path);
    if (resolved.filename().empty() && resolved.has_relative_path()) resolved = resolved.parent_path();
    return posix_files::open_ordinary_directory(resolved.parent_path()).failure == posix_files::WalkFailure::none;
  } catch (const std::exception&) {
    return false;
  }
}

bool private_lock_file(const struct stat& status) { return owned_private_file_0600(status) && status.st_size == 0; }

}  // namespace

FileLock::FileLock(const std::filesystem::path& path, bool wait, LockMode mode) {
  private_directory(path.empty() ? path : std::filesystem::absolute(path).parent_path());
  UniqueFd file = open_lock_file(path, O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  require(static_cast<bool>(file), "lock_failed", "Cannot open operation lock");
  struct stat status{};
  require(::fstat(file.get(), &status) == 0 && owned_private_file_0600(status), "lock_failed",
          "Operation lock must be an ordinary private owned file");
  posix_files::require_private_acl(file.get());
  const int operation = flock_operation(mode) | (wait ? 0 : LOCK_NB);
  require(retry_on_eintr([&] { return ::flock(file.get(), operation); }) == 0, "busy",
          "Another Zorvi operation is using this state");
  descriptor_ = file.release();
}

FileLock::~FileLock() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

void FileLock::retain_until_process_exit() { descriptor_ = -1; }

bool FileLock::matches_path(const std::filesystem::path& path) const {
  if (descriptor_ < 0) return false;
  try {
    posix_files::require_private_acl(descriptor_);
    posix_files::require_private_path(std::filesystem::absolute(path), false);
  } catch (const std::exception&) {
    return false;
  }
  struct stat opened{};
  struct stat named{};
  return ::fstat(descriptor_, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 && S_ISREG(named.st_mode) &&
         opened.st_nlink == 1 && named.st_nlink == 1 && same_entry(opened, named);
}

NativeFileLock::NativeFileLock(const std::filesystem::path& path, bool create, NativeLockSharing sharing,
                               LockMode mode) {
  require(bounded_lock_path(path) && known_sharing(sharing, mode), "lock_failed",
          "Native ownership requires a bounded lock path and known sharing");
  require(ordinary_parent(path), "lock_failed", "Native ownership requires ordinary existing parents");
  constexpr int flags = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
  UniqueFd file = create ? open_lock_file(path, flags) : UniqueFd(::open(path.c_str(), flags));
  struct stat status{};
  require(file && ::fstat(file.get(), &status) == 0 && private_lock_file(status), "lock_failed",
          "Native ownership requires an ordinary empty private file");
  posix_files::require_private_acl(file.get());
  if (retry_on_eintr([&] { return ::flock(file.get(), flock_operation(mode) | LOCK_NB); }) != 0) {
    if (errno == EWOULDBLOCK) throw Error("busy", "Another worker owns this native installation");
    throw Error("lock_failed", "Cannot acquire native installation ownership");
  }
  descriptor_ = file.release();
  if (!matches_path(path)) {
    ::close(descriptor_);
    descriptor_ = -1;
    throw Error("lock_failed", "Native ownership path changed while locking");
  }
}

NativeFileLock::~NativeFileLock() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

bool NativeFileLock::matches_path(const std::filesystem::path& path) const {
  if (!bounded_lock_path(path) || !ordinary_parent(path) || descriptor_ < 0) return false;
  try {
    posix_files::require_private_acl(descriptor_);
  } catch (const std::exception&) {
    return false;
  }
  struct stat opened{};
  struct stat named{};
  return ::fstat(descriptor_, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 && private_lock_file(opened) &&
         private_lock_file(named) && same_entry(opened, named);
}

}  // namespace zorvi
