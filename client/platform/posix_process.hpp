#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "client/platform/unique_fd.hpp"

// The Linux answers to the process questions that have no POSIX form: where
// the running image lives, which boot this is, when a process was born, how
// to watch a process end and how to wake a watching thread.
namespace zorvi::posix_process {

// The text of the running executable's path, or nothing when the system
// cannot give it within `limit` bytes.
std::optional<std::string> executable_link(std::size_t limit);

// The kernel's boot identity text without its line end; nothing when it is
// unavailable or its length is outside 1 to 127 bytes.
std::optional<std::string> boot_identity();

enum class BirthStatus : std::uint8_t { alive, gone, unreadable, malformed };

// A process's creation time as decimal microseconds since boot. `gone`
// covers a pid without a process and a process that has already exited but
// not been reaped: neither is alive any more.
struct BirthReading {
  BirthStatus status = BirthStatus::unreadable;
  std::string birth;
};
BirthReading process_birth(std::uint32_t pid);

// A descriptor that becomes readable when the process ends (pidfd). On
// failure it is empty and `error` holds errno.
UniqueFd open_exit_watch(std::uint32_t pid, int& error);

// The program that shows a folder to the user, looked up on PATH.
inline constexpr const char* directory_opener = "xdg-open";

// A counter descriptor that wakes a thread blocked in poll.
class WakeEvent {
 public:
  // Throws `process_watch` errors when it cannot be created or protected.
  WakeEvent();
  int descriptor() const { return event_.get(); }
  void signal() noexcept;
  // Empties the counter; false when it cannot be read.
  bool drain() noexcept;

 private:
  UniqueFd event_;
};

}  // namespace zorvi::posix_process
