#pragma once

#include <sys/stat.h>
#include <unistd.h>

namespace zorvi {

// Owner, type and mode of private storage as seen by one stat; the ACL is the
// caller's to check on a descriptor.

// A directory of the effective user with all twelve mode bits exactly 0700.
inline bool owned_private_directory(const struct stat& status) {
  return S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() && (status.st_mode & 07777) == 0700;
}

// A single-link regular file of the effective user with no set-user, set-group
// or sticky bit and no group or other bits; the owner's own bits are free.
inline bool owned_private_file(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == ::geteuid() &&
         (status.st_mode & 07077) == 0;
}

// The stricter form for files this system created itself and never loosens:
// a private file whose mode is exactly 0600.
inline bool owned_private_file_0600(const struct stat& status) {
  return owned_private_file(status) && (status.st_mode & 07777) == 0600;
}

}  // namespace zorvi
