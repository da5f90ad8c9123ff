#pragma once

#include <unistd.h>

#include <utility>

namespace zorvi {

// Owns one file descriptor and closes it when it goes.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : descriptor_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }
  int release() { return std::exchange(descriptor_, -1); }
  void reset(int descriptor = -1) {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = descriptor;
  }
  // Closes now and reports close's own result, for writers that must know.
  int close() { return ::close(std::exchange(descriptor_, -1)); }

 private:
  int descriptor_ = -1;
};

}  // namespace zorvi
