#include "client/platform/files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/durable_steps.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/file_identity.hpp"
#include "client/platform/full_io.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/posix_native_files.hpp"
#include "client/platform/private_mode.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

constexpr std::size_t read_chunk = 65536;

// The system would read a path only up to its first NUL byte: another file.
void require_no_nul(const std::filesystem::path& path) {
  require(path.native().find('\0') == std::string::npos, "unsafe_path", "Native path contains a NUL byte");
}

std::string read_bounded(const std::filesystem::path& path, std::uint64_t limit, bool tail, std::uint64_t* size_out) {
  require_no_nul(path);
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
  if (!file) {
    throw Error(errno == ELOOP ? "unsafe_path" : "file_read", "Cannot open file: " + path_utf8(path));
  }
  struct stat status{};
  require(::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size >= 0, "unsafe_path",
          "Expected an ordinary file: " + path_utf8(path));
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (size_out != nullptr) *size_out = size;
  std::uint64_t offset = 0;
  if (tail && size > limit) {
    offset = size - limit;
    require(::lseek(file.get(), static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(offset), "file_read",
            "Cannot read file");
  }
  const std::uint64_t count = size - offset;
  require(count <= limit, "size_limit", "File exceeds read limit");

  std::string bytes(count, '\0');
  std::size_t done = 0;
  while (done < count) {
    const std::size_t piece = std::min<std::size_t>(read_chunk, count - done);
    const ssize_t got = retry_on_eintr([&] { return ::read(file.get(), bytes.data() + done, piece); });
    require(got >= 0, "file_read", "Cannot read file");
    require(got > 0, "file_read", "File changed while reading");
    done += static_cast<std::size_t>(got);
  }
  char probe = 0;
  const ssize_t extra = retry_on_eintr([&] { return ::read(file.get(), &probe, 1); });
  require(extra >= 0, "file_read", "Cannot finish reading file");
  require(extra == 0, "file_read", "File changed while reading");
  return bytes;
}

}  // namespace

bool entry_present(const std::filesystem::path& path) {
  std::error_code error;
  const auto status = std::filesystem::symlink_status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) return false;
  if (error) throw Error("file_read", with_errno("Cannot inspect " + path_utf8(path), error.value()));
  return true;
}

bool directory_present(const std::filesystem::path& path) {
  struct stat status{};
  return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string read_file(const std::filesystem::path& path, std::uint64_t limit) {
  return read_bounded(path, limit, false, nullptr);
}

std::string read_file_tail(const std::filesystem::path& path, std::uint64_t limit, std::uint64_t* size) {
  return read_bounded(path, limit, true, size);
}

namespace {

constexpr int directory_open = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool bounded_path(const std::filesystem::path& path) {
  const std::string& text = path.native();
  return !text.empty() && text.size() <= max_absolute_path && text.find('\0') == std::string::npos;
}

// Absolute and lexically normal, without a trailing separator.
std::filesystem::path normal_absolute(const std::filesystem::path& path) {
  std::filesystem::path result = std::filesystem::absolute(path).lexically_normal();
  if (result.filename().empty() && result.has_relative_path()) result = result.parent_path();
  return result;
}

bool is_root(const std::filesystem::path& normal) { return !normal.has_relative_path(); }

// An empty path has no parent, and the parent checks refuse it.
std::filesystem::path parent_of(const std::filesystem::path& path) {
  if (path.has_parent_path() || path.empty()) return path.parent_path();
  return ".";
}

// Space failures tell the user what to do; every other failure names its step.
[[noreturn]] void transaction_failure(int error, const std::string& message) {
  if (error == ENOSPC || error == EDQUOT)
    throw Error("insufficient_space", "Local storage cannot save data; free space and try again");
  throw Error("file_write", with_errno(message, error));
}

// The transaction file of one write; removed unless the commit consumed it.
class TransactionFile {
 public:
  explicit TransactionFile(std::filesystem::path path) : path_(std::move(path)) {}
  ~TransactionFile() {
    if (!committed_) ::unlink(path_.c_str());
  }
  TransactionFile(const TransactionFile&) = delete;
  TransactionFile& operator=(const TransactionFile&) = delete;
  void committed() { committed_ = true; }

 private:
  std::filesystem::path path_;
  bool committed_ = false;
};

void require_writable_parent(const std::filesystem::path& parent, bool is_private) {
  if (is_private) {
    private_directory(parent);
    return;
  }
  struct stat status{};
  require(::lstat(parent.c_str(), &status) == 0 && S_ISDIR(status.st_mode), "unsafe_path",
          "Export parent must be an existing plain directory");
}

void commit_transaction(const std::filesystem::path& temporary, const std::filesystem::path& target, bool replace,
                        TransactionFile& transaction) {
  if (replace) {
    if (::rename(temporary.c_str(), target.c_str()) != 0) transaction_failure(errno, "Cannot commit transaction file");
    transaction.committed();
    durable_step();
    return;
  }
  // A rename that refuses an existing target commits in one step. Where the
  // file system lacks it, link and unlink do the same with a window between
  // them in which the document has two names.
  if (::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) {
    transaction.committed();
    durable_step();
    return;
  }
  if (errno != EINVAL && errno != ENOSYS)
    transaction_failure(errno, "Cannot create export; the destination may already exist");
  if (::link(temporary.c_str(), target.c_str()) != 0)
    transaction_failure(errno, "Cannot create export; the destination may already exist");
  durable_step();
  if (::unlink(temporary.c_str()) != 0) transaction_failure(errno, "Cannot finish export transaction");
  transaction.committed();
}

void atomic_file(const std::filesystem::path& path, std::string_view bytes, bool replace, bool is_private,
                 bool durable) {
  require_no_nul(path);
  const std::filesystem::path parent = parent_of(path);
  require_writable_parent(parent, is_private);
  struct stat existing{};
  require(!(::lstat(path.c_str(), &existing) == 0 && S_ISLNK(existing.st_mode)), "unsafe_path",
          "Refusing to replace a symbolic link");

  const std::filesystem::path temporary = path.native() + "." + random_id() + ".tmp";
  UniqueFd file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) transaction_failure(errno, "Cannot create transaction file " + path_utf8(temporary));
  TransactionFile transaction(temporary);
  if (is_private) posix_files::secure_new_private(file.get(), false);
  if (const int error = write_full(file.get(), bytes); error != 0)
    transaction_failure(error, "Cannot write transaction file");
  const int flush_error = durable && posix_files::sync(file.get()) != 0 ? errno : 0;
  const int close_error = file.close() != 0 ? errno : 0;
  if (flush_error != 0) transaction_failure(flush_error, "Cannot synchronize transaction file");
  if (close_error != 0) transaction_failure(close_error, "Cannot write transaction file");

  commit_transaction(temporary, path, replace, transaction);
  if (durable) sync_directory(parent);
}

}  // namespace

void sync_file(const std::filesystem::path& path) {
  require(bounded_path(path), "file_sync", "File synchronization requires a bounded path without NUL bytes");
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat opened{};
  require(file && ::fstat(file.get(), &opened) == 0 && S_ISREG(opened.st_mode) && opened.st_nlink == 1, "file_sync",
          "Synchronization requires an ordinary single-link file");
  require(posix_files::sync(file.get()) == 0, "file_sync", "Could not durably synchronize file");
  struct stat named{};
  require(
      ::lstat(path.c_str(), &named) == 0 && S_ISREG(named.st_mode) && named.st_nlink == 1 && same_entry(opened, named),
      "file_sync", "Synchronized file path changed");
}

void sync_directory(const std::filesystem::path& path) {
  require_no_nul(path);
  const UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  require(static_cast<bool>(directory), "file_sync", "Cannot open directory for synchronization");
  require(posix_files::sync(directory.get()) == 0, "file_sync", "Could not durably synchronize directory");
}

void atomic_write(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, true, true, true);
}

void atomic_create(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, false, false, true);
}

void atomic_private_create(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, false, true, true);
}

void replace_private_file(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, true, true, false);
}

namespace {

bool same_commit_source(const struct stat& before, const struct stat& after) {
  return same_entry(before, after) && before.st_mode == after.st_mode && before.st_uid == after.st_uid &&
         (S_ISDIR(after.st_mode) || after.st_nlink == 1);
}

}  // namespace

void commit_private_path_new(const std::filesystem::path& source_path, const std::filesystem::path& destination_path,
                             const VerifyCallback& verify) {
  require(!source_path.empty() && !destination_path.empty(), "unsafe_path",
          "Directory commit requires distinct bounded paths");
  const std::filesystem::path source = normal_absolute(resolve_system_links(normal_absolute(source_path)));
  const std::filesystem::path destination = normal_absolute(resolve_system_links(normal_absolute(destination_path)));
  require(!is_root(source) && !is_root(destination) && source != destination && bounded_path(source) &&
              bounded_path(destination),
          "unsafe_path", "Directory commit requires distinct bounded paths");
  for (const auto& parent : {source.parent_path(), destination.parent_path()})
    require(posix_files::open_ordinary_directory(parent).failure == posix_files::WalkFailure::none, "unsafe_path",
            "Directory commit requires ordinary existing ancestry");

  const UniqueFd entry(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat opened{};
  require(entry && ::fstat(entry.get(), &opened) == 0 &&
              (owned_private_directory(opened) || owned_private_file_0600(opened)),
          "native_install_commit", "Commit source must be private and owned by this user");
  posix_files::require_private_acl(entry.get());
  if (verify) verify();
  posix_files::require_private_acl(entry.get());
  struct stat named{};
  require(::lstat(source.c_str(), &named) == 0 && same_commit_source(opened, named), "native_install_commit",
          "Source identity changed during verification");

  const int error = native_files::rename_no_replace(source, destination);
  if (error != 0)
    throw Error(error == EEXIST ? "already_installed" : "native_install_commit",
                "Cannot atomically install without replacing an existing destination");
}

namespace {

struct ExchangeHandle {
  std::filesystem::path path;
  UniqueFd directory;
  struct stat status{};
};

ExchangeHandle open_exchange_handle(const std::filesystem::path& path) {
  safe_join(path, "exchange-ancestry", true);
  ExchangeHandle handle{path, UniqueFd(::open(path.c_str(), directory_open)), {}};
  require(handle.directory && ::fstat(handle.directory.get(), &handle.status) == 0 &&
              owned_private_directory(handle.status),
          "native_install_commit", "Directory exchange requires private owned roots and parents");
  posix_files::require_private_acl(handle.directory.get());
  return handle;
}

// The path now shows `expected`'s recorded entry, still a private directory of this user.
bool shows(const std::filesystem::path& path, const struct stat& expected) {
  struct stat named{};
  return ::lstat(path.c_str(), &named) == 0 && owned_private_directory(named) && same_entry(named, expected) &&
         named.st_uid == expected.st_uid;
}

}  // namespace

void exchange_private_directories(const std::filesystem::path& first_path, const std::filesystem::path& second_path,
                                  const VerifyCallback& verify) {
  require(!first_path.empty() && !second_path.empty(), "unsafe_path",
          "Directory exchange needs distinct bounded paths");
  const std::filesystem::path first_target = normal_absolute(first_path);
  const std::filesystem::path second_target = normal_absolute(second_path);
  require(!is_root(first_target) && !is_root(second_target) && first_target != second_target &&
              bounded_path(first_target) && bounded_path(second_target),
          "unsafe_path", "Directory exchange needs distinct bounded paths");

  const ExchangeHandle first = open_exchange_handle(first_target);
  const ExchangeHandle second = open_exchange_handle(second_target);
  const ExchangeHandle first_parent = open_exchange_handle(first_target.parent_path());
  const ExchangeHandle second_parent = open_exchange_handle(second_target.parent_path());
  require(first.status.st_dev == second.status.st_dev && first.status.st_ino != second.status.st_ino,
          "native_install_commit", "Directory exchange requires distinct roots on one volume");

  if (verify) verify();
  const std::initializer_list<const ExchangeHandle*> handles{&first, &second, &first_parent, &second_parent};
  for (const ExchangeHandle* handle : handles) posix_files::require_private_acl(handle->directory.get());
  for (const ExchangeHandle* handle : handles)
    require(shows(handle->path, handle->status), "native_install_commit",
            "Directory exchange identities changed during verification");

  require(native_files::exchange_entries(first_parent.directory.get(), first_target.filename().native(),
                                         second_parent.directory.get(), second_target.filename().native()) == 0,
          "native_install_commit", "Cannot atomically exchange native directories");
  require(posix_files::sync(first_parent.directory.get()) == 0 && posix_files::sync(second_parent.directory.get()) == 0,
          "file_sync", "Cannot synchronize exchanged native directories");
  require(shows(first_target, second.status) && shows(second_target, first.status) &&
              shows(first_parent.path, first_parent.status) && shows(second_parent.path, second_parent.status),
          "native_install_commit",
          "Native directory exchange committed with changed ownership; recover its recorded identities");
}

}  // namespace zorvi
