#include "client/domain/flush_and_hash_pool.hpp"

#include <fcntl.h>

#include <system_error>
#include <utility>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

void flush_and_hash(FinishedFile& finished) {
  finished.file.set_executable(finished.executable);
  finished.file.finish(true);
  // Hashed from what is on stable storage now, reached from its directory.
  const UniqueFd written(
      ::openat(finished.parent.get(), finished.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  require(static_cast<bool>(written), "file_read", "Could not open file for verification: " + path_utf8(finished.path));
  require(digest_open_file(written, "sha256", Progress()) == finished.sha256, "content_mismatch",
          "Extracted file hash differs from manifest");
}

}  // namespace

FlushAndHashPool::FlushAndHashPool(std::size_t limit) : limit_(limit == 0 ? 1 : limit) {}

FlushAndHashPool::~FlushAndHashPool() {
  {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [&] { return pending_ == 0; });
    stopping_ = true;
  }
  queued_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void FlushAndHashPool::add(FinishedFile file) {
  std::unique_lock lock(mutex_);
  ended_.wait(lock, [&] { return pending_ < limit_ || failure_; });
  if (failure_) std::rethrow_exception(failure_);
  // Threads start as work first needs them: a one-file tree costs one thread.
  if (threads_.size() <= pending_ && !start_thread()) {
    // Not even one thread: nothing is pending, so doing the work here keeps
    // the order of failures.
    lock.unlock();
    flush_and_hash(file);
    return;
  }
  queue_.push_back(Task{next_order_++, std::move(file)});
  ++pending_;
  queued_.notify_one();
}

bool FlushAndHashPool::start_thread() {
  try {
    threads_.emplace_back([this] { work(); });
  } catch (const std::system_error&) {
    // Fewer threads than files in hand only means fewer flushes overlap.
  }
  return !threads_.empty();
}

void FlushAndHashPool::drain(const std::exception_ptr& caller) {
  std::unique_lock lock(mutex_);
  ended_.wait(lock, [&] { return pending_ == 0; });
  if (failure_) std::rethrow_exception(failure_);
  if (caller) std::rethrow_exception(caller);
}

void FlushAndHashPool::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    queued_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
    if (queue_.empty()) return;
    Task task = std::move(queue_.front());
    queue_.pop_front();
    const std::uint64_t order = task.order;
    // A file after one that failed would not have been reached one by one:
    // it is let go unfinished, and removed if this extraction created it.
    const bool reached = order < failed_order_;
    lock.unlock();
    const std::exception_ptr failure = run(std::move(task), reached);
    lock.lock();
    if (failure && order < failed_order_) {
      failed_order_ = order;
      failure_ = failure;
    }
    --pending_;
    ended_.notify_all();
  }
}

std::exception_ptr FlushAndHashPool::run(Task task, bool reached) {
  if (!reached) return nullptr;
  try {
    flush_and_hash(task.file);
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

}  // namespace zorvi
