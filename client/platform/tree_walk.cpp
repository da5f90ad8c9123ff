#include "client/platform/tree_walk.hpp"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

constexpr int directory_open = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

mode_t type_of(unsigned char entry_type) {
  switch (entry_type) {
    case DT_DIR:
      return S_IFDIR;
    case DT_REG:
      return S_IFREG;
    case DT_LNK:
      return S_IFLNK;
    case DT_FIFO:
      return S_IFIFO;
    case DT_SOCK:
      return S_IFSOCK;
    case DT_CHR:
      return S_IFCHR;
    case DT_BLK:
      return S_IFBLK;
    default:
      return 0;
  }
}

}  // namespace

// One open directory of the walk: its stream owns the descriptor.
struct BoundedTreeWalk::Level {
  DIR* stream = nullptr;
  std::string prefix;  // the directory's relative path with its trailing `/`, empty at the root
  ~Level() {
    if (stream != nullptr) ::closedir(stream);
  }
};

BoundedTreeWalk::BoundedTreeWalk(const DirectoryHandle& root, std::uint64_t max_entries, TreeWalkWording wording)
    : max_entries_(max_entries), wording_(wording) {
  auto level = std::make_unique<Level>();
  const int descriptor = root ? ::openat(root.get(), ".", directory_open) : -1;
  if (descriptor >= 0) level->stream = ::fdopendir(descriptor);
  if (level->stream == nullptr) {
    const int error = errno;
    if (descriptor >= 0) ::close(descriptor);
    throw Error("file_read", with_errno(wording_.cannot_walk, error));
  }
  levels_.push_back(std::move(level));
}

BoundedTreeWalk::~BoundedTreeWalk() = default;

void BoundedTreeWalk::enter(const std::string& relative) {
  auto level = std::make_unique<Level>();
  const int descriptor = ::openat(::dirfd(levels_.back()->stream), name_.c_str(), directory_open);
  if (descriptor >= 0) level->stream = ::fdopendir(descriptor);
  if (level->stream == nullptr) {
    const int error = errno;
    if (descriptor >= 0) ::close(descriptor);
    throw Error("file_read", with_errno(wording_.cannot_walk, error));
  }
  level->prefix = relative + '/';
  levels_.push_back(std::move(level));
}

bool BoundedTreeWalk::next() {
  // The directory handed out last is entered only now, after its caller saw it.
  if (type_ == S_IFDIR) enter(relative_);
  type_ = 0;
  while (!levels_.empty()) {
    Level& level = *levels_.back();
    errno = 0;
    const struct dirent* entry = ::readdir(level.stream);
    if (entry == nullptr) {
      if (errno != 0) throw Error("file_read", with_errno(wording_.cannot_walk, errno));
      levels_.pop_back();
      continue;
    }
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    require(++entries_ <= max_entries_, "size_limit", wording_.too_many);
    name_ = entry->d_name;
    relative_ = level.prefix + name_;
    stated_ = false;
    type_ = type_of(entry->d_type);
    if (type_ == 0) type_ = status().st_mode & S_IFMT;
    return true;
  }
  return false;
}

const struct stat& BoundedTreeWalk::status() {
  if (!stated_) {
    if (::fstatat(::dirfd(levels_.back()->stream), name_.c_str(), &status_, AT_SYMLINK_NOFOLLOW) != 0)
      throw Error("file_read", with_errno(wording_.cannot_walk, errno));
    stated_ = true;
  }
  return status_;
}

}  // namespace zorvi
