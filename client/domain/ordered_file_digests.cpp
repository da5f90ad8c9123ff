#include "client/domain/ordered_file_digests.hpp"

#include <fcntl.h>

#include <system_error>
#include <utility>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/file_identity.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

constexpr int file_open = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
// Larger files are hashed by the caller in turn, so that their progress is
// live and a cancellation stops them at once; smaller ones finish quickly.
constexpr std::uint64_t ahead_bound = 4ULL << 20;

// Inside a file, progress stays within its listed length.
void require_within(const PackageFile& file, std::uint64_t file_done, std::uint64_t file_total) {
  require(file_total == file.length && file_done <= file.length, "content_mismatch",
          "File changed beyond its declared verification bound");
}

// The digest of the file the chain has just found, opened from its held
// directory; a file that is no longer the one looked at hashes to nothing.
std::string open_digest(const DirectoryChain& chain, const struct stat& status, const Progress& inner) {
  const UniqueFd opened(::openat(chain.parent().get(), chain.name().c_str(), file_open));
  require(static_cast<bool>(opened), "file_read", "Could not open file for verification: " + path_utf8(chain.path()));
  struct stat now{};
  if (::fstat(opened.get(), &now) != 0 || !same_entry(now, status)) return {};
  return digest_open_file(opened, "sha256", inner);
}

// Looks the listed file up by the rules of safe_join from the held
// directories, a link not followed, and hashes it when it is a regular file
// of the listed length. A failing lookup raises; a failing digest is kept.
FileCheck check_file(DirectoryChain& chain, const std::string& path, const PackageFile& file, const Progress& inner) {
  FileCheck check;
  chain.join(path, true);
  check.found = chain.open_parent() && chain.parent().entry_status(chain.name(), check.status) &&
                S_ISREG(check.status.st_mode) && static_cast<std::uint64_t>(check.status.st_size) == file.length;
  if (!check.found) return check;
  try {
    check.digest = open_digest(chain, check.status, inner);
  } catch (...) {
    check.failure = std::current_exception();
  }
  return check;
}

}  // namespace

OrderedFileDigests::OrderedFileDigests(const SnapshotManifest& manifest, const DirectoryHandle& root,
                                       const std::filesystem::path& root_path, FileReport report)
    : count_(manifest.files.size()),
      report_(std::move(report)),
      chain_(root, root_path),
      current_(manifest.files.begin()),
      claim_at_(manifest.files.begin()) {
  // Without a descriptor or a thread of its own the caller checks every
  // file itself, as it does whenever the worker has not got there first.
  DirectoryHandle own = root.open_child(".");
  if (!own) return;
  try {
    worker_ = std::thread([this, chain = DirectoryChain(std::move(own), root_path)]() mutable { run(chain); });
  } catch (const std::system_error&) {
    // No thread to be had: the caller goes on alone.
  }
}

OrderedFileDigests::~OrderedFileDigests() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (worker_.joinable()) worker_.join();
}

bool OrderedFileDigests::claimable() const { return claimed_ < count_ && claimed_ < taken_ + window; }

// Claims the next file nobody has and checks it ahead of its turn, its
// reports recorded for the caller to make in turn. A large file is left to
// the caller.
void OrderedFileDigests::work_ahead(DirectoryChain& chain, std::unique_lock<std::mutex>& lock) {
  Slot& slot = slots_[claimed_++ % window];
  const auto& [path, file] = *claim_at_++;
  if (file.length > ahead_bound) {
    slot.state = SlotState::for_caller;
    return;
  }
  slot.state = SlotState::working;
  lock.unlock();
  Slot result{SlotState::done, {}, {}, {}};
  Progress inner;
  if (report_) {
    inner = [&](std::uint64_t file_done, std::uint64_t file_total) {
      require_within(file, file_done, file_total);
      result.reports.push_back(file_done);
      return !stopping_.load(std::memory_order_relaxed);
    };
  }
  try {
    result.check = check_file(chain, path, file, inner);
  } catch (...) {
    result.lookup_failure = std::current_exception();
  }
  lock.lock();
  slot = std::move(result);
  changed_.notify_all();
}

FileCheck OrderedFileDigests::check_in_turn(const std::string& path, const PackageFile& file) {
  Progress inner;
  if (report_) {
    inner = [&](std::uint64_t file_done, std::uint64_t file_total) {
      require_within(file, file_done, file_total);
      report_(file_done);
      return true;
    };
  }
  return check_file(chain_, path, file, inner);
}

FileCheck OrderedFileDigests::replay(Slot& slot) const {
  if (slot.lookup_failure) std::rethrow_exception(slot.lookup_failure);
  for (const std::uint64_t file_done : slot.reports) report_(file_done);
  return std::move(slot.check);
}

FileCheck OrderedFileDigests::next() {
  const auto& [path, file] = *current_++;
  std::unique_lock lock(mutex_);
  while (true) {
    Slot& slot = slots_[taken_ % window];
    if (claimed_ == taken_ || slot.state == SlotState::done || slot.state == SlotState::for_caller) {
      Slot taken = std::exchange(slot, Slot{});
      if (claimed_ == taken_) {
        ++claimed_;
        ++claim_at_;
        taken.state = SlotState::for_caller;
      }
      ++taken_;
      lock.unlock();
      changed_.notify_all();
      return taken.state == SlotState::done ? replay(taken) : check_in_turn(path, file);
    }
    // The file in turn is the worker's: rather than wait, hash one further on.
    if (claimable()) {
      work_ahead(chain_, lock);
    } else {
      changed_.wait(lock);
    }
  }
}

void OrderedFileDigests::run(DirectoryChain& chain) {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return stopping_ || claimable(); });
    if (stopping_) return;
    work_ahead(chain, lock);
  }
}

}  // namespace zorvi
