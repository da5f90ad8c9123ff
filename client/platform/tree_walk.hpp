#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "client/platform/directory_handle.hpp"

namespace zorvi {

// How a walk's caller words its two failures (codes `size_limit` and `file_read`).
struct TreeWalkWording {
  const char* too_many;     // the entry bound was passed
  const char* cannot_walk;  // a directory could not be opened or read; the error number is appended
};

// Walks the tree below an open directory depth first, following no link:
// every entry is counted against the bound before anyone looks at it, and the
// entries of a directory come right after the directory itself. Directories
// are entered relative to their open parent, never by path.
class BoundedTreeWalk {
 public:
  BoundedTreeWalk(const DirectoryHandle& root, std::uint64_t max_entries, TreeWalkWording wording);
  ~BoundedTreeWalk();
  BoundedTreeWalk(const BoundedTreeWalk&) = delete;
  BoundedTreeWalk& operator=(const BoundedTreeWalk&) = delete;

  // Moves to the next entry; false at the end.
  bool next();

  // The entry's path below the root, `/` between components.
  const std::string& relative() const { return relative_; }
  // The entry's type bits (S_IFMT), a link not followed.
  mode_t type() const { return type_; }
  // The entry's attributes, a link not followed; read on first use.
  const struct stat& status();

 private:
  struct Level;
  void enter(const std::string& relative);

  std::vector<std::unique_ptr<Level>> levels_;
  std::uint64_t max_entries_;
  std::uint64_t entries_ = 0;
  TreeWalkWording wording_;
  std::string relative_;
  std::string name_;
  mode_t type_ = 0;
  bool stated_ = false;
  struct stat status_{};
};

}  // namespace zorvi
