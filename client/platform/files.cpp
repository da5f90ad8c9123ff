#include "client/platform/files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

constexpr std::size_t read_chunk = 65536;

ssize_t read_retrying(int descriptor, char* buffer, std::size_t count) {
  ssize_t result;
  do {
    result = ::read(descriptor, buffer, count);
  } while (result < 0 && errno == EINTR);
  return result;
}

std::string read_bounded(const std::filesystem::path& path, std::uint64_t limit, bool tail,
                         std::uint64_t* size_out) {
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
  if (!file) {
    throw Error(errno == ELOOP ? "unsafe_path" : "file_read", "Cannot open file: " + path_utf8(path));
  }
  struct stat status {};
  require(::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size >= 0, "unsafe_path",
          "Expected an ordinary file: " + path_utf8(path));
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (size_out != nullptr) *size_out = size;
  std::uint64_t offset = 0;
  if (tail && size > limit) {
    offset = size - limit;
    require(::lseek(file.get(), static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(offset),
            "file_read", "Cannot read file");
  }
  const std::uint64_t count = size - offset;
  require(count <= limit, "size_limit", "File exceeds read limit");

  std::string bytes(count, '\0');
  std::size_t done = 0;
  while (done < count) {
    const ssize_t got = read_retrying(file.get(), bytes.data() + done, std::min<std::size_t>(read_chunk, count - done));
    require(got >= 0, "file_read", "Cannot read file");
    require(got > 0, "file_read", "File changed while reading");
    done += static_cast<std::size_t>(got);
  }
  char probe = 0;
  const ssize_t extra = read_retrying(file.get(), &probe, 1);
  require(extra >= 0, "file_read", "Cannot finish reading file");
  require(extra == 0, "file_read", "File changed while reading");
  return bytes;
}

}  // namespace

std::string read_file(const std::filesystem::path& path, std::uint64_t limit) {
  return read_bounded(path, limit, false, nullptr);
}

std::string read_file_tail(const std::filesystem::path& path, std::uint64_t limit, std::uint64_t* size) {
  return read_bounded(path, limit, true, size);
}

}  // namespace zorvi
