#include "client/platform/allocated_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <vector>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/directory_handle.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/files.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/private_mode.hpp"
#include "client/platform/storage.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

constexpr std::size_t io_piece = 65536;
// A long file starts the write-back of each finished window while its later
// bytes still arrive, so that its flush waits for little more than the last
// window instead of the whole file.
constexpr std::uint64_t writeback_window = std::uint64_t{8} << 20;
constexpr int open_flags = O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void changed(const char* message) { throw Error("allocation_changed", message); }

// Space failures read the same wherever they happen; anything else keeps its
// own code and error number.
[[noreturn]] void storage_failure(int error, const char* code, const std::string& message) {
  if (error == ENOSPC || error == EDQUOT)
    throw Error("insufficient_space", "Cannot allocate game storage; free space or choose another location");
  throw Error(code, with_errno(message, error));
}

bool is_space_error(int error) { return error == ENOSPC || error == EDQUOT; }

}  // namespace

struct AllocatedFile::Impl {
  FileReservation reservation;
  std::uint64_t written = 0;
  // Whole write-back windows whose write-back has been started.
  std::uint64_t written_back = 0;
  bool owned = false;
  bool identified = false;
  bool private_file = true;
  UniqueFd descriptor;
  // With a parent, the file is looked up as `name` in it, never by path.
  DirectoryHandle parent;
  std::string name;

  int base() const { return parent ? parent.get() : AT_FDCWD; }
  const char* entry() const { return parent ? name.c_str() : reservation.path.c_str(); }

  ~Impl() {
    descriptor.reset();
    if (!owned || !identified) return;
    // Only the entry this object created may go; a stranger at the path stays.
    struct stat named{};
    if (::fstatat(base(), entry(), &named, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(named.st_mode) && matches(named))
      ::unlinkat(base(), entry(), 0);
  }

  bool matches(const struct stat& status) const {
    return static_cast<std::uint64_t>(status.st_dev) == reservation.device &&
           static_cast<std::uint64_t>(status.st_ino) == reservation.inode;
  }

  // The descriptor still shows the same private, single-link regular file;
  // returns its size.
  std::uint64_t inspect() {
    struct stat status{};
    require(::fstat(descriptor.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
                status.st_size >= 0,
            "unsafe_path", "Allocation requires an ordinary single-link file");
    if (private_file) {
      require(owned_private_file(status), "permissions", "macOS allocation must remain private and owned");
      posix_files::require_private_acl(descriptor.get());
    }
    if (identified) {
      if (!matches(status)) changed("Prepared allocation identity changed");
    } else {
      reservation.device = static_cast<std::uint64_t>(status.st_dev);
      reservation.inode = static_cast<std::uint64_t>(status.st_ino);
      identified = true;
    }
    return static_cast<std::uint64_t>(status.st_size);
  }

  bool path_proof() const {
    struct stat named{};
    return ::fstatat(base(), entry(), &named, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(named.st_mode) && matches(named);
  }

  // `inspect` and the path proof, with the size inside [low, high].
  void prove(std::uint64_t low, std::uint64_t high, const char* message) {
    const std::uint64_t current = inspect();
    if (current < low || current > high || !path_proof()) changed(message);
  }

  void allocate() {
    reservation.preallocated = false;
    if (reservation.length == 0) {
      reservation.preallocated = true;
      return;
    }
    const int result = posix_files::reserve(descriptor.get(), reservation.length);
    if (result == 0) {
      reservation.preallocated = true;
      return;
    }
    if (is_space_error(result))
      throw Error("insufficient_space", "Cannot reserve file data; free space or choose other game storage");
    if (result == EOPNOTSUPP || result == ENOSYS) return;  // a file system that cannot preallocate
    throw Error("space_reservation", with_errno("Native file allocation failed", result));
  }

  void seek(std::uint64_t offset) {
    require(::lseek(descriptor.get(), static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(offset), "file_write",
            "Cannot position allocated file");
  }

  void truncate(std::uint64_t length) {
    const int result = retry_on_eintr([&] { return ::ftruncate(descriptor.get(), static_cast<off_t>(length)); });
    if (result != 0) storage_failure(errno, "file_write", "Cannot set allocated file length");
  }

  // Opening steps shared by every constructor.
  void open(const std::filesystem::path& path, std::uint64_t length, bool create, int access) {
    require(length <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()), "size_limit",
            "File allocation exceeds native length bounds");
    reservation.path = std::filesystem::absolute(path);
    reservation.length = length;
    // A held parent is an open directory already; only a path needs the look.
    struct stat directory{};
    require(parent || (::lstat(reservation.path.parent_path().c_str(), &directory) == 0 && S_ISDIR(directory.st_mode)),
            "unsafe_path", "Allocation requires an ordinary parent directory");
    descriptor.reset(::openat(base(), entry(), access | open_flags | (create ? O_CREAT | O_EXCL : 0), 0600));
    if (!descriptor) storage_failure(errno, "unsafe_path", "Cannot exclusively create or reopen a prepared allocation");
    owned = create;
    private_file = true;
    if (create) posix_files::secure_new_private(descriptor.get(), false);
  }

  void create_new(const ReservationObserver& observer) {
    require(inspect() == 0, "unsafe_path", "A new allocation must begin empty");
    if (!path_proof()) changed("New allocation path changed before recording ownership");
    if (observer) observer(reservation);
    prove(0, 0, "New allocation changed while recording ownership");
    allocate();
    const std::uint64_t expected = reservation.preallocated ? reservation.length : 0;
    prove(expected, expected, "New allocation changed during preparation");
  }

  void reopen(const FileReservation& recorded, const std::uint64_t* resume_at) {
    const std::uint64_t current = inspect();
    const bool same = reservation.device == recorded.device && reservation.inode == recorded.inode;
    const bool sized = resume_at != nullptr ? *resume_at <= current && current <= reservation.length
                                            : current == (recorded.preallocated ? reservation.length : 0);
    if (!same || !sized) changed("Prepared file was replaced or changed; reserved content was preserved");
    reservation.preallocated = recorded.preallocated;
    if (!path_proof()) changed("Prepared allocation path changed");
    if (resume_at != nullptr) {
      written = *resume_at;
      seek(written);
    }
  }
};

AllocatedFile::AllocatedFile(const std::filesystem::path& path, std::uint64_t length,
                             const ReservationObserver& observer)
    : impl_(std::make_unique<Impl>()) {
  impl_->open(path, length, true, O_RDWR);
  impl_->create_new(observer);
}

AllocatedFile::AllocatedFile(const DirectoryHandle& parent, const std::string& name, const std::filesystem::path& path,
                             std::uint64_t length, const ReservationObserver& observer)
    : impl_(std::make_unique<Impl>()) {
  impl_->parent = parent;
  impl_->name = name;
  impl_->open(path, length, true, O_RDWR);
  impl_->create_new(observer);
}

AllocatedFile::AllocatedFile(const DirectoryHandle& parent, const std::string& name, const FileReservation& reservation)
    : impl_(std::make_unique<Impl>()) {
  impl_->parent = parent;
  impl_->name = name;
  impl_->open(reservation.path, reservation.length, false, O_RDWR);
  impl_->reopen(reservation, nullptr);
}

AllocatedFile::AllocatedFile(const FileReservation& reservation) : impl_(std::make_unique<Impl>()) {
  impl_->open(reservation.path, reservation.length, false, O_RDWR);
  impl_->reopen(reservation, nullptr);
}

AllocatedFile::AllocatedFile(const FileReservation& reservation, std::uint64_t written)
    : impl_(std::make_unique<Impl>()) {
  impl_->open(reservation.path, reservation.length, false, O_RDWR);
  impl_->reopen(reservation, &written);
}

AllocatedFile::~AllocatedFile() = default;
AllocatedFile::AllocatedFile(AllocatedFile&&) noexcept = default;
AllocatedFile& AllocatedFile::operator=(AllocatedFile&&) noexcept = default;

void AllocatedFile::verify_identity(const FileReservation& reservation) {
  Impl record;
  record.reservation = reservation;
  record.reservation.path = std::filesystem::absolute(reservation.path);
  record.identified = true;
  record.descriptor.reset(::open(record.reservation.path.c_str(), O_RDONLY | open_flags));
  require(static_cast<bool>(record.descriptor), "unsafe_path", "Cannot inspect owned partial file identity");
  if (record.inspect() > reservation.length || !record.path_proof())
    changed("Owned partial file identity or bounds changed");
}

FileReservation AllocatedFile::inspect_file(const std::filesystem::path& path) {
  Impl record;
  record.reservation.path = std::filesystem::absolute(path);
  record.descriptor.reset(::open(record.reservation.path.c_str(), O_RDONLY | open_flags));
  require(static_cast<bool>(record.descriptor), "unsafe_path", "Cannot inspect cache file identity");
  record.reservation.length = record.inspect();
  if (!record.path_proof()) changed("Cache file changed during inspection");
  return record.reservation;
}

FileReservation AllocatedFile::reservation() const { return impl_->reservation; }
std::uint64_t AllocatedFile::written() const { return impl_->written; }
std::uint64_t AllocatedFile::size() const { return impl_->reservation.length; }

std::uint64_t AllocatedFile::allocated_bytes() const {
  impl_->inspect();
  struct stat status{};
  require(::fstat(impl_->descriptor.get(), &status) == 0 && status.st_blocks >= 0, "volume_query",
          "Cannot inspect existing file allocation");
  return multiply(static_cast<std::uint64_t>(status.st_blocks), 512);
}

void AllocatedFile::write(std::string_view bytes) {
  Impl& file = *impl_;
  require(bytes.size() <= file.reservation.length - file.written, "size_limit",
          "Write exceeds the authenticated file length");
  while (!bytes.empty()) {
    const std::size_t piece = std::min(bytes.size(), io_piece);
    const ssize_t result = retry_on_eintr([&] { return ::write(file.descriptor.get(), bytes.data(), piece); });
    if (result < 0) storage_failure(errno, "file_write", "Cannot write staged file data");
    require(result > 0, "file_write", "Cannot advance staged file data");
    file.written += static_cast<std::uint64_t>(result);
    bytes.remove_prefix(static_cast<std::size_t>(result));
  }
  const std::uint64_t windows = file.written / writeback_window;
  if (windows != file.written_back) {
    // Only a request to start: whether the bytes reached storage is the
    // flush's to prove and report.
    ::sync_file_range(file.descriptor.get(), static_cast<off_t>(file.written_back * writeback_window),
                      static_cast<off_t>((windows - file.written_back) * writeback_window), SYNC_FILE_RANGE_WRITE);
    file.written_back = windows;
  }
}

void AllocatedFile::read_prefix(std::uint64_t count, const std::function<void(std::string_view)>& consumer,
                                const Progress& progress) {
  Impl& file = *impl_;
  if (count > file.written) changed("Recorded prefix changed");
  file.prove(count, file.reservation.length, "Recorded prefix changed");
  std::vector<char> buffer(io_piece);
  for (std::uint64_t done = 0; done < count;) {
    const std::size_t piece = static_cast<std::size_t>(std::min<std::uint64_t>(io_piece, count - done));
    const ssize_t got =
        retry_on_eintr([&] { return ::pread(file.descriptor.get(), buffer.data(), piece, static_cast<off_t>(done)); });
    require(got > 0, "file_read", "Cannot read recorded partial prefix");
    done += static_cast<std::uint64_t>(got);
    consumer(std::string_view(buffer.data(), static_cast<std::size_t>(got)));
    if (progress && !progress(done, count)) throw Error("cancelled", "Partial verification cancelled");
  }
  file.prove(count, file.reservation.length, "Partial file changed during prefix verification");
}

void AllocatedFile::reserve_remaining() {
  Impl& file = *impl_;
  file.prove(file.written, file.reservation.length, "Resume allocation changed");
  file.allocate();
  file.seek(file.written);
}

void AllocatedFile::restart() {
  if (!impl_->path_proof()) changed("Cannot restart a replaced partial file");
  impl_->seek(0);
  impl_->written = 0;
}

void AllocatedFile::preserve() {
  if (!impl_->path_proof()) changed("Cannot preserve a replaced partial file");
  impl_->owned = false;
}

void AllocatedFile::discard() {
  Impl& file = *impl_;
  if (!file.path_proof()) changed("Cannot discard a replaced partial file");
  file.owned = true;
  file.descriptor.reset();
  // The path may have been replaced while the file was still open.
  if (!file.path_proof()) changed("Partial path changed before disposal");
  require(::unlinkat(file.base(), file.entry(), 0) == 0, "file_remove",
          "Cannot remove " + path_utf8(file.reservation.path));
  file.owned = false;
  if (!file.parent) {
    sync_directory(file.reservation.path.parent_path());
    return;
  }
  require(posix_files::sync(file.parent.get()) == 0, "file_sync", "Could not durably synchronize directory");
}

void AllocatedFile::synchronize() {
  Impl& file = *impl_;
  file.prove(file.written, file.reservation.length, "Partial file changed before synchronization");
  require(posix_files::sync(file.descriptor.get()) == 0, "file_sync", "Cannot synchronize reserved file data");
}

FileReservation AllocatedFile::retain_reservation() {
  Impl& file = *impl_;
  if (file.written != 0 || !file.path_proof()) changed("Cannot retain a changed allocation");
  file.owned = false;
  file.descriptor.reset();
  return file.reservation;
}

void AllocatedFile::set_executable(bool flag) {
  Impl& file = *impl_;
  file.prove(0, file.reservation.length, "Allocated file changed before setting executable permissions");
  require(::fchmod(file.descriptor.get(), flag ? 0700 : 0600) == 0, "file_permissions",
          "Cannot set private allocated file permissions");
  file.prove(0, file.reservation.length, "Allocated file changed while setting executable permissions");
}

void AllocatedFile::finish(bool require_full) {
  Impl& file = *impl_;
  require(!require_full || file.written == file.reservation.length, "length_mismatch",
          "File data is shorter than its authenticated length");
  file.prove(file.written, file.reservation.length, "Allocated file changed before completion");
  file.truncate(file.written);
  file.prove(file.written, file.written, "Allocated file changed during writing");
  synchronize();
  file.owned = false;
  file.descriptor.reset();
}

}  // namespace zorvi
