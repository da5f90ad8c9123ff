#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

namespace zorvi {

// Produces a stream's blocks on a thread of its own, up to `slots` blocks
// ahead of the reader, so that producing the next block overlaps what the
// reader does with this one. Blocks reach the reader in the order they were
// produced, and a failure of the producer reaches it in its place: after
// every block before it.
class ReadAhead {
 public:
  // Fills `bytes` (room for `capacity`) with the next block and returns its
  // length; 0 ends the stream. Whatever it throws ends the stream too. It
  // runs on the read-ahead thread, one call at a time.
  using Fill = std::function<std::size_t(char* bytes, std::size_t capacity)>;

  ReadAhead(std::size_t slots, std::size_t slot_bytes, Fill fill);
  // Stops the thread and waits for it, whatever block it is on.
  ~ReadAhead();
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  // The next block, valid until the following call; empty once the stream
  // has ended. The producer's failure is raised in its place, and again on
  // every later call.
  std::string_view next();

 private:
  void run();

  Fill fill_;
  std::vector<std::vector<char>> slots_;
  std::vector<std::size_t> sizes_;
  std::mutex mutex_;
  std::condition_variable changed_;
  // Under `mutex_`: blocks produced and blocks the reader has handed back,
  // counted from the start.
  std::uint64_t produced_ = 0;
  std::uint64_t consumed_ = 0;
  bool taken_ = false;
  bool finished_ = false;
  bool stopping_ = false;
  std::exception_ptr failure_;
  std::thread thread_;
};

}  // namespace zorvi
