#pragma once

#include <sys/stat.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/domain/crypto.hpp"
#include "client/domain/manifest.hpp"
#include "client/platform/directory_chain.hpp"
#include "client/platform/directory_handle.hpp"

namespace zorvi {

// What checking one listed file found.
struct FileCheck {
  // A regular file of the listed length, the only kind that is hashed.
  bool found = false;
  struct stat status{};
  // Empty when the file was exchanged between its lookup and its opening.
  std::string digest;
  // What hashing raised instead of a digest.
  std::exception_ptr failure;
};

// Told the bytes of the current file hashed so far; raises to cancel.
using FileReport = std::function<void(std::uint64_t file_done)>;

// Checks a manifest's files in path order on two threads: a worker hashes
// small files ahead in a bounded window while the caller takes the results
// in order, and hashes files itself whenever the next result is still being
// made. The caller sees what a check of one file after the other would show:
// each file's reports inside it, a failure only when its file is reached.
class OrderedFileDigests {
 public:
  // `root` is the held directory of `root_path`; the worker looks files up
  // from a descriptor of its own. `report` is empty to report nothing.
  OrderedFileDigests(const SnapshotManifest& manifest, const DirectoryHandle& root,
                     const std::filesystem::path& root_path, FileReport report);
  ~OrderedFileDigests();
  OrderedFileDigests(const OrderedFileDigests&) = delete;
  OrderedFileDigests& operator=(const OrderedFileDigests&) = delete;

  // The check of the next file in path order, its reports made first.
  // Raises what looking the file up raises, and what a report raises.
  FileCheck next();

 private:
  // Files claimed but not yet taken. Enough small files for the caller to
  // keep hashing ahead through a scheduler slice in which the worker is
  // preempted; little memory and little wasted work when a failure stops all.
  static constexpr std::size_t window = 64;
  enum class SlotState : std::uint8_t { free, working, done, for_caller };
  struct Slot {
    SlotState state = SlotState::free;
    FileCheck check;
    std::vector<std::uint64_t> reports;
    std::exception_ptr lookup_failure;
  };
  using Entry = std::map<std::string, PackageFile>::const_iterator;

  bool claimable() const;
  void work_ahead(DirectoryChain& chain, std::unique_lock<std::mutex>& lock);
  FileCheck check_in_turn(const std::string& path, const PackageFile& file);
  FileCheck replay(Slot& slot) const;
  void run(DirectoryChain& chain);

  const std::uint64_t count_;
  const FileReport report_;
  DirectoryChain chain_;  // the caller's
  Entry current_;         // the caller's next file
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t taken_ = 0;    // files handed to the caller
  std::uint64_t claimed_ = 0;  // files claimed by either thread, in order
  Entry claim_at_;
  std::array<Slot, window> slots_;
  std::atomic<bool> stopping_ = false;
  std::thread worker_;
};

}  // namespace zorvi
