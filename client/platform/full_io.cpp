#include "client/platform/full_io.hpp"

#include <unistd.h>

#include <cerrno>

#include "client/platform/eintr.hpp"

namespace zorvi {
namespace {

// Growth step of read_to_end: one ordinary pipe's worth.
constexpr std::size_t read_piece = 65536;

}  // namespace

FullRead read_full(int descriptor, void* buffer, std::size_t size) noexcept {
  FullRead result;
  char* const bytes = static_cast<char*>(buffer);
  while (result.count < size) {
    const ssize_t got = retry_on_eintr([&] { return ::read(descriptor, bytes + result.count, size - result.count); });
    if (got < 0) {
      result.error = errno;
      break;
    }
    if (got == 0) break;
    result.count += static_cast<std::size_t>(got);
  }
  return result;
}

std::optional<std::string> read_to_end(int descriptor, std::size_t limit, int& error) {
  std::string text;
  // One byte past the limit shows that the stream is longer.
  while (true) {
    const std::size_t used = text.size();
    text.resize(used + (limit - used < read_piece ? limit - used + 1 : read_piece));
    const FullRead got = read_full(descriptor, text.data() + used, text.size() - used);
    if (got.error != 0) {
      error = got.error;
      return std::nullopt;
    }
    const bool ended = used + got.count < text.size();
    text.resize(used + got.count);
    if (text.size() > limit) {
      error = EFBIG;
      return std::nullopt;
    }
    if (ended) return text;
  }
}

int write_full(int descriptor, std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    const ssize_t written = retry_on_eintr([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
    if (written < 0) return errno;
    if (written == 0) return EIO;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

}  // namespace zorvi
