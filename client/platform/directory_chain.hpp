#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "client/platform/directory_handle.hpp"

namespace zorvi {

// The directories on the way from a proved root to one relative path, held
// open. A run of paths in order (a tar's entries, a manifest's files) looks
// each directory up once and proves each again only by one lookup of its own
// name in its held parent, never by a walk from the root.
class DirectoryChain {
 public:
  DirectoryChain(DirectoryHandle root, std::filesystem::path root_path);

  // The rules of `safe_join(root, text, portable)`, from the held
  // directories: the path rules, then no component below the root a link.
  // A held directory whose name now shows another entry is let go.
  void join(std::string_view text, bool portable);
  // `private_directory` of the joined path's parent: missing directories are
  // made private, the parent is narrowed to and proved private, and the
  // root's own path must still lead to the held root. Does nothing when the
  // parent is the one proved last.
  void make_private_parent();
  // Opens the joined path's parent without creating anything; false when a
  // directory on the way is missing, a link or no directory.
  bool open_parent();

  // The joined path's parent, after `make_private_parent` or `open_parent`.
  const DirectoryHandle& parent() const { return held_.empty() ? root_ : held_.back(); }
  // The last component of the joined path.
  const std::string& name() const { return parts_.back(); }
  // `root_path` joined with the path, for messages and records.
  std::filesystem::path path() const;

 private:
  const DirectoryHandle& held_parent(std::size_t depth) const { return depth == 0 ? root_ : held_[depth - 1]; }
  std::size_t directories() const { return parts_.size() - 1; }
  void let_go(std::size_t depth);
  void reprove_root();

  DirectoryHandle root_;
  std::filesystem::path root_path_;
  std::filesystem::path resolved_root_;  // found on first use
  std::vector<std::string> parts_;
  std::vector<DirectoryHandle> held_;  // held_[i]: the directory of held_names_[0..i]
  std::vector<std::string> held_names_;
  std::size_t proved_depth_;  // depth of the parent proved private last, or none
};

}  // namespace zorvi
