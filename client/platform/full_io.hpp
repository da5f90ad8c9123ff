#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zorvi {

// What one read_full got: `count` bytes, and `error` 0 or the error number of
// the read that failed. No error with a count short of the size means the
// stream ended.
struct FullRead {
  std::size_t count = 0;
  int error = 0;
};

// Reads until `size` bytes are in `buffer`, the stream ends, or a read fails;
// interrupted reads are retried. Allocates nothing, so a caller may keep its
// reads in fixed blocks whatever sizes the kernel hands out.
FullRead read_full(int descriptor, void* buffer, std::size_t size) noexcept;

// The whole rest of a stream of at most `limit` bytes, read in bounded pieces
// so that a short stream costs little memory. Nothing when a read fails, with
// its error number in `error`, or when the stream holds more than `limit`
// bytes, with EFBIG.
std::optional<std::string> read_to_end(int descriptor, std::size_t limit, int& error);

// Writes all of `bytes`, retrying interrupted writes; 0, or the error number
// of the write that failed. A write that makes no progress is EIO.
int write_full(int descriptor, std::string_view bytes) noexcept;

}  // namespace zorvi
