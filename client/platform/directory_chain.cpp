#include "client/platform/directory_chain.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"

namespace zorvi {
namespace {

constexpr std::size_t none = std::numeric_limits<std::size_t>::max();

[[noreturn]] void linked() { throw Error("unsafe_path", "Managed path contains a symbolic link"); }

}  // namespace

DirectoryChain::DirectoryChain(DirectoryHandle root, std::filesystem::path root_path)
    : root_(std::move(root)), root_path_(std::move(root_path)), proved_depth_(none) {}

std::filesystem::path DirectoryChain::path() const {
  std::filesystem::path result = root_path_;
  for (const std::string& part : parts_) result /= part;
  return result;
}

void DirectoryChain::let_go(std::size_t depth) {
  held_.resize(depth);
  held_names_.resize(depth);
  if (proved_depth_ != none && proved_depth_ > depth) proved_depth_ = none;
}

void DirectoryChain::join(std::string_view text, bool portable) {
  validate_relative_path(text, portable);
  parts_.clear();
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t slash = std::min(text.find('/', start), text.size());
    parts_.emplace_back(text.substr(start, slash - start));
    start = slash + 1;
  }
  std::size_t kept = 0;
  while (kept < held_.size() && kept < directories() && held_names_[kept] == parts_[kept]) {
    // A held directory must still be what its name shows; one replaced by
    // another directory is let go and looked up again below.
    struct stat status{};
    const bool named = held_parent(kept).entry_status(parts_[kept], status);
    if (named && S_ISLNK(status.st_mode)) linked();
    if (!named || !held_[kept].is(status)) break;
    ++kept;
  }
  let_go(kept);
  // Below the held directories each prefix is looked at as safe_join would.
  std::string prefix;
  for (std::size_t index = kept; index < parts_.size(); ++index) {
    if (!prefix.empty()) prefix += '/';
    prefix += parts_[index];
    struct stat status{};
    if (held_parent(kept).entry_status(prefix, status) && S_ISLNK(status.st_mode)) linked();
  }
}

void DirectoryChain::reprove_root() {
  if (resolved_root_.empty()) resolved_root_ = resolve_system_links(root_path_);
  const posix_files::DirectoryWalk walk = posix_files::open_ordinary_directory(resolved_root_);
  require(walk.failure == posix_files::WalkFailure::none, "unsafe_path",
          "macOS directory ancestry is missing or linked");
  struct stat status{};
  require(::fstat(walk.directory.get(), &status) == 0 && root_.is(status), "unsafe_path",
          "macOS private directory path changed");
}

void DirectoryChain::make_private_parent() {
  const std::size_t depth = directories();
  if (held_.size() == depth && proved_depth_ == depth) return;
  reprove_root();
  if (depth == 0) {
    // The root itself is the parent: the full proof by its path, as for any
    // other parent, and it must still be the held root.
    const DirectoryHandle again = DirectoryHandle::private_directory(root_path_);
    struct stat status{};
    require(::fstat(again.get(), &status) == 0 && root_.is(status), "unsafe_path",
            "macOS private directory path changed");
  } else if (held_.size() == depth) {
    // A held parent not yet proved as a parent: entered again as the walk's last step.
    held_.back() = held_parent(depth - 1).make_private_child(parts_[depth - 1], true);
  }
  for (std::size_t index = held_.size(); index < depth; ++index) {
    held_.push_back(held_parent(index).make_private_child(parts_[index], index + 1 == depth));
    held_names_.push_back(parts_[index]);
  }
  proved_depth_ = depth;
}

bool DirectoryChain::open_parent() {
  for (std::size_t index = held_.size(); index < directories(); ++index) {
    DirectoryHandle next = held_parent(index).open_child(parts_[index]);
    if (!next) return false;
    held_.push_back(std::move(next));
    held_names_.push_back(parts_[index]);
  }
  return true;
}

}  // namespace zorvi
