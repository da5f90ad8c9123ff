#include "client/domain/snapshot.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "client/domain/bounded_zstd.hpp"
#include "client/domain/error.hpp"
#include "client/domain/flush_and_hash_pool.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/ordered_file_digests.hpp"
#include "client/platform/allocated_file.hpp"
#include "client/platform/directory_chain.hpp"
#include "client/platform/directory_handle.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/reserved_tree.hpp"
#include "client/platform/tree_walk.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

constexpr std::uint64_t max_walk_entries = 250000;
constexpr std::size_t max_tar_entries = 100000;
constexpr std::size_t data_chunk = 65536;
constexpr std::uint64_t tar_overhead_per_file = 8192;
constexpr std::uint64_t tar_overhead = 10240;

void report(const Progress& progress, std::uint64_t done, std::uint64_t total) {
  if (progress && !progress(done, total)) throw Error("cancelled", "Operation cancelled at a safe boundary");
}

bool status_of(const std::filesystem::path& path, struct stat& status) { return ::lstat(path.c_str(), &status) == 0; }

// ---- Verification -------------------------------------------------------

constexpr TreeWalkWording game_walk{"Game directory entry count exceeds bounds", "Cannot walk game content directory"};

DirectoryHandle open_game_root(const std::filesystem::path& root) {
  struct stat top{};
  require(status_of(root, top) && S_ISDIR(top.st_mode), "unsafe_path", "Game content directory is missing or linked");
  DirectoryHandle handle = DirectoryHandle::open_existing(root);
  require(handle.is(top), "unsafe_path", "Game content directory is missing or linked");
  return handle;
}

// Walks the tree without following links. Every entry must have a safe
// name; `foreign` is told of each entry that is neither a directory nor a
// listed regular file. Returns the number of listed files found.
template <typename Foreign>
std::uint64_t walk_tree(const SnapshotManifest& manifest, const DirectoryHandle& root, Foreign foreign) {
  std::uint64_t files = 0;
  BoundedTreeWalk walk(root, max_walk_entries, game_walk);
  while (walk.next()) {
    require(walk.type() != S_IFLNK, "unsafe_path", "Game tree contains a symbolic link");
    // The path rules of safe_join; its link probe of every prefix would only
    // repeat what this walk, which follows no link, has just seen.
    validate_relative_path(walk.relative(), true);
    if (walk.type() == S_IFDIR) continue;
    if (walk.type() != S_IFREG || !manifest.files.contains(walk.relative())) {
      foreign(walk.relative());
      continue;
    }
    require(++files <= manifest.files.size(), "size_limit", "Game tree contains too many files");
  }
  return files;
}

// Reports inside one file as the bytes before it, `done` when the report is
// made, plus the file's own.
FileReport file_reports(const Progress& progress, const std::uint64_t& done, std::uint64_t total) {
  if (!progress) return {};
  return [&progress, &done, total](std::uint64_t file_done) { report(progress, done + file_done, total); };
}

// A digest that failed is damage, unless it was cancelled or failed with
// something other than an Error: those go on to the caller.
void pass_on_cancellation(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const Error& error) {
    if (error.code == "cancelled") throw;
  }
}

// Children before their parents and `root` last, each from the walk's order.
void sync_tree_directories(const std::filesystem::path& root) {
  const DirectoryHandle top = DirectoryHandle::open_existing(root);
  require(static_cast<bool>(top), "file_sync", "Cannot open directory for synchronization");
  std::vector<std::string> directories;
  BoundedTreeWalk walk(top, max_walk_entries, game_walk);
  while (walk.next()) {
    if (walk.type() == S_IFDIR) directories.push_back(walk.relative());
  }
  for (auto directory = directories.rbegin(); directory != directories.rend(); ++directory) {
    const UniqueFd opened(::openat(top.get(), directory->c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    require(static_cast<bool>(opened), "file_sync", "Cannot open directory for synchronization");
    require(posix_files::sync(opened.get()) == 0, "file_sync", "Could not durably synchronize directory");
  }
  require(posix_files::sync(top.get()) == 0, "file_sync", "Could not durably synchronize directory");
}

// ---- Extraction ---------------------------------------------------------

struct ReaderFree {
  void operator()(struct archive* reader) const { archive_read_free(reader); }
};
using TarReader = std::unique_ptr<struct archive, ReaderFree>;

// A failure the decoder saw inside libarchive's callback explains the
// reader's failure better than the reader can; raise it first.
[[noreturn]] void reader_failure(BoundedZstd& decoder, const char* code, const char* message) {
  if (decoder.failed()) decoder.finish();
  throw Error(code, message);
}

// The archive is opened once: the file proved here by its type, length and
// digest is the one the decoder reads, whatever happens to the path later.
UniqueFd open_authenticated_archive(const SnapshotManifest& manifest, const std::filesystem::path& archive) {
  UniqueFd file(::open(archive.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status{};
  const bool matches = file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                       static_cast<std::uint64_t>(status.st_size) == manifest.archive_length &&
                       digest_open_file(file, "sha256", Progress()) == manifest.archive_sha256;
  require(matches, "content_mismatch", "Snapshot differs from its verified application manifest");
  return file;
}

void prepare_staging(const SnapshotManifest& manifest, const std::filesystem::path& staging,
                     const ReservedTree* reserved_tree) {
  if (reserved_tree != nullptr) {
    reserved_tree->validate(manifest, staging);
    return;
  }
  struct stat existing{};
  require(!status_of(staging, existing) && errno == ENOENT, "staging_exists", "A fresh staging directory is required");
  private_directory(staging);
}

TarReader open_tar_reader(BoundedZstd& decoder) {
  TarReader reader(archive_read_new());
  require(reader != nullptr, "archive", "Cannot allocate archive decoder");
  if (archive_read_support_filter_none(reader.get()) != ARCHIVE_OK ||
      archive_read_support_format_tar(reader.get()) != ARCHIVE_OK ||
      archive_read_open(reader.get(), &decoder, nullptr, BoundedZstd::callback, nullptr) != ARCHIVE_OK)
    reader_failure(decoder, "archive", "Cannot open snapshot archive");
  return reader;
}

// Steps that judge one tar entry before a byte of it is read.
const PackageFile& admit_entry(const SnapshotManifest& manifest, struct archive_entry* entry, const std::string& path,
                               std::set<std::string>& seen) {
  const bool ordinary = archive_entry_filetype(entry) == AE_IFREG && archive_entry_symlink(entry) == nullptr &&
                        archive_entry_hardlink(entry) == nullptr && archive_entry_sparse_count(entry) == 0 &&
                        archive_entry_xattr_count(entry) == 0;
  require(ordinary, "archive_type", "Only ordinary files are accepted in snapshots");
  const auto listed = manifest.files.find(path);
  require(seen.size() < max_tar_entries && listed != manifest.files.end() && seen.insert(path).second,
          "archive_inventory", "Archive contains an unexpected or duplicate file");
  const PackageFile& file = listed->second;
  const bool shaped = archive_entry_size_is_set(entry) && archive_entry_size(entry) >= 0 &&
                      static_cast<std::uint64_t>(archive_entry_size(entry)) == file.length &&
                      archive_entry_perm(entry) == (file.executable ? 0755 : 0644);
  require(shaped, "archive_inventory", "Archive file length or mode differs from manifest");
  return file;
}

struct Extraction {
  const SnapshotManifest& manifest;
  const std::filesystem::path& staging;
  const Progress& progress;
  const ReservedTree* reserved_tree;
  BoundedZstd& decoder;
  struct archive* reader;
  FlushAndHashPool& flushing;
  std::vector<char> buffer = std::vector<char>(data_chunk);
  std::uint64_t done = 0;
  // Entries come in path order, so most share the directory just proved
  // private; each directory is looked up once from the one above it.
  DirectoryChain chain = DirectoryChain(DirectoryHandle::private_directory(staging), staging);

  void copy_data(AllocatedFile& file, std::uint64_t length) {
    std::uint64_t remaining = length;
    while (true) {
      const la_ssize_t count = archive_read_data(reader, buffer.data(), buffer.size());
      if (count == 0) break;
      if (count < 0) reader_failure(decoder, "archive", "Snapshot decompression failed");
      const auto piece = static_cast<std::uint64_t>(count);
      require(piece <= remaining, "size_limit", "Archive expands beyond authenticated file length");
      file.write(std::string_view(buffer.data(), static_cast<std::size_t>(count)));
      remaining -= piece;
      done += piece;
      report(progress, done, manifest.expanded_length);
    }
    require(remaining == 0, "archive", "Snapshot file is truncated");
  }

  void extract_entry(struct archive_entry* entry, std::set<std::string>& seen) {
    const char* name = archive_entry_pathname_utf8(entry);
    require(name != nullptr, "archive_path", "Archive path is not valid UTF-8");
    const std::string path(name);
    chain.join(path, true);
    const PackageFile& listed = admit_entry(manifest, entry, path, seen);
    chain.make_private_parent();
    // Space for the whole file is claimed here, before its first byte.
    AllocatedFile file =
        reserved_tree != nullptr
            ? AllocatedFile(chain.parent(), chain.name(), reserved_tree->file(path, listed.length))
            : AllocatedFile(chain.parent(), chain.name(), chain.path(), listed.length, ReservationObserver());
    copy_data(file, listed.length);
    // The chain moves on to the next entry; the file keeps its own hold on
    // its directory until it is flushed and hashed.
    flushing.add(
        FinishedFile{std::move(file), listed.executable, chain.parent(), chain.name(), chain.path(), listed.sha256});
  }

  void run() {
    std::set<std::string> seen;
    struct archive_entry* entry = nullptr;
    int status;
    while ((status = archive_read_next_header(reader, &entry)) == ARCHIVE_OK) {
      report(progress, done, manifest.expanded_length);
      extract_entry(entry, seen);
    }
    if (status != ARCHIVE_EOF || seen.size() != manifest.files.size())
      reader_failure(decoder, "archive", "Snapshot is incomplete or malformed");
  }
};

// The tar reader stops at the tar's end blocks with more of the stream read
// ahead than it consumed, and leaves the rest of the frame undecoded. What it
// consumed is where the tar ends; everything after that, read ahead or still
// in the frame, must be zero padding, so that no signed byte goes unexamined.
void finish_after_tar(BoundedZstd& decoder, struct archive* reader) {
  const la_int64_t tar_end = archive_filter_bytes(reader, 0);
  decoder.finish();
  require(tar_end >= 0 && decoder.content_end() <= static_cast<std::uint64_t>(tar_end), "archive",
          "Snapshot carries data after the end of its tar archive");
}

}  // namespace

void verify_snapshot_tree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                          const Progress& progress) {
  const DirectoryHandle top = open_game_root(root);
  const std::uint64_t files = walk_tree(manifest, top, [](const std::string&) {
    throw Error("unexpected_file", "Game tree contains an unmanaged file");
  });
  require(files == manifest.files.size(), "missing_file", "Game content is incomplete; repair is available");
  std::uint64_t done = 0;
  OrderedFileDigests digests(manifest, top, root, file_reports(progress, done, manifest.expanded_length));
  for (const auto& [path, file] : manifest.files) {
    report(progress, done, manifest.expanded_length);
    const FileCheck check = digests.next();
    if (check.failure) std::rethrow_exception(check.failure);
    require(check.found && check.digest == file.sha256, "content_mismatch",
            "Game content differs from the verified manifest: " + path);
    require(!file.executable || (check.status.st_mode & S_IXUSR) != 0, "content_mode",
            "Game executable permission is missing");
    done += file.length;
  }
  report(progress, done, manifest.expanded_length);
}

DamagedFiles damaged_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                                    const Progress& progress, std::size_t limit) {
  DamagedFiles damaged;
  const auto add_damage = [&](const std::string& path) {
    ++damaged.count;
    if (damaged.paths.size() < limit) damaged.paths.push_back(path);
  };
  const DirectoryHandle top = open_game_root(root);
  walk_tree(manifest, top, add_damage);
  std::uint64_t done = 0;
  OrderedFileDigests digests(manifest, top, root, file_reports(progress, done, manifest.expanded_length));
  for (const auto& [path, file] : manifest.files) {
    report(progress, done, manifest.expanded_length);
    const FileCheck check = digests.next();
    if (check.failure) pass_on_cancellation(check.failure);
    const bool intact = check.found && !check.failure && check.digest == file.sha256;
    if (!intact || (file.executable && (check.status.st_mode & S_IXUSR) == 0)) add_damage(path);
    done += file.length;
  }
  report(progress, done, manifest.expanded_length);
  return damaged;
}

void extract_snapshot(const SnapshotManifest& manifest, const std::filesystem::path& archive,
                      const std::filesystem::path& staging, const Progress& progress,
                      const ReservedTree* reserved_tree) {
  UniqueFd file = open_authenticated_archive(manifest, archive);
  prepare_staging(manifest, staging, reserved_tree);
  const std::uint64_t limit = manifest.expanded_length + tar_overhead_per_file * manifest.files.size() + tar_overhead;
  BoundedZstd decoder(std::move(file), limit);
  const TarReader reader = open_tar_reader(decoder);
  // Enough overlapping flushes for the journal to group them; more only adds
  // open files and threads.
  constexpr std::size_t flushing_files = 8;
  FlushAndHashPool flushing(flushing_files);
  try {
    Extraction{manifest, staging, progress, reserved_tree, decoder, reader.get(), flushing}.run();
  } catch (...) {
    flushing.drain(std::current_exception());
  }
  flushing.drain();
  finish_after_tar(decoder, reader.get());
  verify_snapshot_tree(manifest, staging, progress);
  sync_tree_directories(staging);
}

bool has_listed_length(const SnapshotManifest& manifest, const std::string& name, const std::filesystem::path& path) {
  const auto listed = manifest.files.find(name);
  struct stat status{};
  return listed != manifest.files.end() && ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         static_cast<std::uint64_t>(status.st_size) == listed->second.length;
}

}  // namespace zorvi
