#pragma once

#include <sys/stat.h>

namespace zorvi {

// Two looks at one file-system entry saw the same entry: device and inode.
inline bool same_entry(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The same entry and still of the same file type, for walks that accept more
// than one type at a step and must not let a freed inode come back as another.
inline bool same_entry_and_type(const struct stat& a, const struct stat& b) {
  return same_entry(a, b) && (a.st_mode & S_IFMT) == (b.st_mode & S_IFMT);
}

}  // namespace zorvi
