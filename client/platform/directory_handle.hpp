#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>

#include "client/platform/unique_fd.hpp"

namespace zorvi {

// An open directory, proved to be what its name showed when it was opened.
// Entries below it are reached relative to it, so a lookup never goes back
// through the names above it, and a link put in their place later is not
// crossed. Copies share the one descriptor.
class DirectoryHandle {
 public:
  DirectoryHandle() = default;

  // `private_directory(path)`, keeping the proved directory open.
  static DirectoryHandle private_directory(const std::filesystem::path& path);
  // An existing directory opened without following a link at its last name;
  // empty when there is none.
  static DirectoryHandle open_existing(const std::filesystem::path& path);

  // The child directory `name`, opened without following a link; empty when
  // it is missing, a link or something else.
  DirectoryHandle open_child(const std::string& name) const;
  // The child directory `name` as the private walk enters it: created private
  // when missing, proved to be what the name shows, and when `last` narrowed
  // to and proved private.
  DirectoryHandle make_private_child(const std::string& name, bool last) const;

  // The entry at `relative` below this directory, a last link not followed.
  // False when there is none.
  bool entry_status(const std::string& relative, struct stat& status) const;
  // Whether `status` shows this directory.
  bool is(const struct stat& status) const;

  int get() const { return descriptor_ ? descriptor_->get() : -1; }
  explicit operator bool() const { return descriptor_ != nullptr; }

 private:
  explicit DirectoryHandle(UniqueFd descriptor);

  std::shared_ptr<const UniqueFd> descriptor_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace zorvi
