#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/platform/allocated_file.hpp"
#include "client/platform/directory_handle.hpp"

namespace zorvi {

// A file whose bytes are all written. What is left is to set its mode, to
// bring it to stable storage and to prove, from what storage now holds, that
// it has its listed digest.
struct FinishedFile {
  AllocatedFile file;
  bool executable;
  DirectoryHandle parent;  // keeps the directory open after its writer moved on
  std::string name;        // the file's entry in `parent`
  std::filesystem::path path;
  std::string sha256;
};

// Flushes and hashes finished files on a few threads while the caller writes
// the next ones. One flush waits for its own journal commit; flushes that
// overlap are joined into one commit, which is what makes many small files
// cheap. At most `limit` files are in hand at once: `add` waits for room, so
// descriptors and memory stay bounded.
//
// Failures keep the order of `add`: `drain` raises the failure of the
// earliest file that failed, before any failure of the caller's own, which
// always comes after every file it added. So the caller sees the failure that
// handling the files one by one would have raised first. The destructor
// waits for every file and joins every thread; nothing outlives the pool.
class FlushAndHashPool {
 public:
  explicit FlushAndHashPool(std::size_t limit);
  ~FlushAndHashPool();
  FlushAndHashPool(const FlushAndHashPool&) = delete;
  FlushAndHashPool& operator=(const FlushAndHashPool&) = delete;

  // Hands `file` over. Raises a failure already seen instead of taking more
  // work; the caller then drains, which settles which failure comes first.
  void add(FinishedFile file);
  // Waits until every file added is done. Raises the earliest file's failure
  // if one failed, else `caller` if set.
  void drain(const std::exception_ptr& caller = nullptr);

 private:
  struct Task {
    std::uint64_t order;
    FinishedFile file;
  };

  // False when no thread runs and none could be started.
  bool start_thread();
  void work();
  // Runs outside the lock, and so does closing or removing the file when
  // `task` goes at its end.
  static std::exception_ptr run(Task task, bool reached);

  const std::size_t limit_;
  std::mutex mutex_;
  std::condition_variable queued_;  // a task waits, or the pool stops
  std::condition_variable ended_;   // a task ended
  std::deque<Task> queue_;
  std::size_t pending_ = 0;  // queued or running
  std::uint64_t next_order_ = 0;
  std::uint64_t failed_order_ = UINT64_MAX;  // order of `failure_`
  std::exception_ptr failure_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace zorvi
