#include "client/domain/read_ahead.hpp"

#include <utility>

namespace zorvi {

ReadAhead::ReadAhead(std::size_t slots, std::size_t slot_bytes, Fill fill)
    : fill_(std::move(fill)), slots_(slots, std::vector<char>(slot_bytes)), sizes_(slots) {
  thread_ = std::thread([this] { run(); });
}

ReadAhead::~ReadAhead() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

std::string_view ReadAhead::next() {
  std::unique_lock lock(mutex_);
  if (taken_) {
    ++consumed_;
    taken_ = false;
    changed_.notify_all();
  }
  changed_.wait(lock, [this] { return produced_ > consumed_ || finished_; });
  if (produced_ == consumed_) {
    if (failure_) std::rethrow_exception(failure_);
    return {};
  }
  taken_ = true;
  const auto index = static_cast<std::size_t>(consumed_ % slots_.size());
  return {slots_[index].data(), sizes_[index]};
}

void ReadAhead::run() {
  std::exception_ptr failure;
  try {
    while (true) {
      std::size_t index = 0;
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return produced_ - consumed_ < slots_.size() || stopping_; });
        if (stopping_) return;
        index = static_cast<std::size_t>(produced_ % slots_.size());
      }
      // The slot is this thread's until it is counted as produced.
      const std::size_t size = fill_(slots_[index].data(), slots_[index].size());
      if (size == 0) break;
      sizes_[index] = size;
      {
        const std::lock_guard lock(mutex_);
        ++produced_;
      }
      changed_.notify_all();
    }
  } catch (...) {
    failure = std::current_exception();
  }
  {
    const std::lock_guard lock(mutex_);
    failure_ = failure;
    finished_ = true;
  }
  changed_.notify_all();
}

}  // namespace zorvi
