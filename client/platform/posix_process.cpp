#include "client/platform/posix_process.hpp"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <limits>
#include <string_view>
#include <vector>

#include "client/domain/error.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/full_io.hpp"

namespace zorvi::posix_process {
namespace {

// A stat line is a few hundred bytes; the command name inside is short but
// may hold any byte, so the bound leaves it generous room.
constexpr std::size_t max_stat_text = 4096;
constexpr std::size_t max_boot_text = 128;
// The creation time's seconds stay below this, so that microseconds fit.
constexpr std::uint64_t max_birth_seconds = 18446744073710ULL;

// Reads at most `limit` bytes; nothing when the file is larger or fails,
// with errno left for the caller.
std::optional<std::string> read_small_file(const char* path, std::size_t limit, int& error) {
  UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file) {
    error = errno;
    return std::nullopt;
  }
  return read_to_end(file.get(), limit, error);
}

bool parse_decimal(std::string_view text, std::uint64_t& value) {
  if (text.empty()) return false;
  const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
  return status == std::errc() && end == text.data() + text.size();
}

// Splits what follows the command name's closing parenthesis; the fields
// there are numbered from 3 on.
std::vector<std::string_view> fields_after_name(std::string_view line) {
  std::vector<std::string_view> fields;
  const auto close = line.rfind(')');
  if (close == std::string_view::npos) return fields;
  std::string_view rest = line.substr(close + 1);
  while (!rest.empty()) {
    const auto start = rest.find_first_not_of(" \n");
    if (start == std::string_view::npos) break;
    rest.remove_prefix(start);
    const auto end = rest.find_first_of(" \n");
    fields.push_back(rest.substr(0, end));
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end);
  }
  return fields;
}

std::optional<std::string> ticks_to_microseconds(std::uint64_t ticks) {
  const long rate = ::sysconf(_SC_CLK_TCK);
  if (rate <= 0 || rate > 1000000) return std::nullopt;
  const auto hertz = static_cast<std::uint64_t>(rate);
  const std::uint64_t seconds = ticks / hertz;
  const std::uint64_t micros = (ticks % hertz) * 1000000 / hertz;
  if (seconds >= max_birth_seconds) return std::nullopt;
  if (seconds > (std::numeric_limits<std::uint64_t>::max() - micros) / 1000000) return std::nullopt;
  return std::to_string(seconds * 1000000 + micros);
}

}  // namespace

std::optional<std::string> executable_link(std::size_t limit) {
  std::vector<char> buffer(limit, '\0');
  const ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
  if (length <= 0 || static_cast<std::size_t>(length) >= buffer.size()) return std::nullopt;
  return std::string(buffer.data(), static_cast<std::size_t>(length));
}

std::optional<std::string> boot_identity() {
  int error = 0;
  auto text = read_small_file("/proc/sys/kernel/random/boot_id", max_boot_text, error);
  if (!text) return std::nullopt;
  if (!text->empty() && text->back() == '\n') text->pop_back();
  // The terminator counts, as for a C string: 2 to 128 bytes with it.
  if (text->empty() || text->size() + 1 > max_boot_text) return std::nullopt;
  if (text->find('\0') != std::string::npos) return std::nullopt;
  return text;
}

BirthReading process_birth(std::uint32_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  int error = 0;
  const auto line = read_small_file(path.c_str(), max_stat_text, error);
  if (!line) return {error == ENOENT || error == ESRCH ? BirthStatus::gone : BirthStatus::unreadable, {}};
  std::uint64_t recorded_pid = 0;
  const auto blank = line->find(' ');
  if (blank == std::string::npos || !parse_decimal(std::string_view(*line).substr(0, blank), recorded_pid) ||
      recorded_pid != pid)
    return {BirthStatus::unreadable, {}};
  const auto fields = fields_after_name(*line);
  // Field 3 is the state, field 22 the start time in clock ticks since boot.
  if (fields.size() < 20 || fields[0].size() != 1) return {BirthStatus::unreadable, {}};
  if (fields[0] == "Z" || fields[0] == "X") return {BirthStatus::gone, {}};
  std::uint64_t ticks = 0;
  if (!parse_decimal(fields[19], ticks)) return {BirthStatus::malformed, {}};
  auto birth = ticks_to_microseconds(ticks);
  if (!birth) return {BirthStatus::malformed, {}};
  return {BirthStatus::alive, std::move(*birth)};
}

UniqueFd open_exit_watch(std::uint32_t pid, int& error) {
  // The descriptor is close-on-exec by the kernel's own rule for pidfds.
  const long descriptor = ::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0U);
  if (descriptor < 0) {
    error = errno;
    return UniqueFd();
  }
  return UniqueFd(static_cast<int>(descriptor));
}

WakeEvent::WakeEvent() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  require(static_cast<bool>(event_), "process_watch", "Cannot create native process notification interrupt");
  // Created with its flags at once so that no fork in another thread can
  // catch it unprotected; confirm that the kernel kept them.
  const int descriptor_flags = ::fcntl(event_.get(), F_GETFD);
  const int status_flags = ::fcntl(event_.get(), F_GETFL);
  require(descriptor_flags >= 0 && (descriptor_flags & FD_CLOEXEC) != 0 && status_flags >= 0 &&
              (status_flags & O_NONBLOCK) != 0,
          "process_watch", "Cannot protect native notification interrupt");
}

void WakeEvent::signal() noexcept {
  const std::uint64_t one = 1;
  retry_on_eintr([&] { return ::write(event_.get(), &one, sizeof one); });
}

bool WakeEvent::drain() noexcept {
  std::uint64_t count = 0;
  const ssize_t result = retry_on_eintr([&] { return ::read(event_.get(), &count, sizeof count); });
  if (result == static_cast<ssize_t>(sizeof count)) return true;
  return result < 0 && errno == EAGAIN;
}

}  // namespace zorvi::posix_process
