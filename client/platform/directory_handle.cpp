#include "client/platform/directory_handle.hpp"

#include <fcntl.h>

#include "client/domain/error.hpp"
#include "client/platform/posix_files.hpp"

namespace zorvi {
namespace {

constexpr int directory_open = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

}  // namespace

DirectoryHandle::DirectoryHandle(UniqueFd descriptor) {
  struct stat status{};
  if (!descriptor || ::fstat(descriptor.get(), &status) != 0 || !S_ISDIR(status.st_mode)) return;
  device_ = status.st_dev;
  inode_ = status.st_ino;
  descriptor_ = std::make_shared<const UniqueFd>(std::move(descriptor));
}

DirectoryHandle DirectoryHandle::private_directory(const std::filesystem::path& path) {
  DirectoryHandle handle(posix_files::private_directory_anchor(path));
  require(static_cast<bool>(handle), "unsafe_path", "macOS private directory path changed");
  return handle;
}

DirectoryHandle DirectoryHandle::open_existing(const std::filesystem::path& path) {
  return DirectoryHandle(UniqueFd(::open(path.c_str(), directory_open)));
}

DirectoryHandle DirectoryHandle::open_child(const std::string& name) const {
  return DirectoryHandle(UniqueFd(::openat(get(), name.c_str(), directory_open)));
}

DirectoryHandle DirectoryHandle::make_private_child(const std::string& name, bool last) const {
  DirectoryHandle handle(posix_files::enter_private_directory(get(), name, last));
  require(static_cast<bool>(handle), "unsafe_path", "macOS directory ancestry changed");
  return handle;
}

bool DirectoryHandle::entry_status(const std::string& relative, struct stat& status) const {
  return ::fstatat(get(), relative.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool DirectoryHandle::is(const struct stat& status) const {
  return descriptor_ != nullptr && status.st_dev == device_ && status.st_ino == inode_;
}

}  // namespace zorvi
