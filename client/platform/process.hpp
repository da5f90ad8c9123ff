#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zorvi {

class InterruptPipe;

// A descriptor on POSIX, a HANDLE value on Windows.
using NativeHandle = std::intptr_t;

enum class ChildStreams : std::uint8_t { Separated = 0, Console = 1 };
enum class ChildEnvironment : std::uint8_t { Inherited = 0, Clean = 1 };
enum class ChildGroup : std::uint8_t { Shared = 0, Isolated = 1 };
enum class ChildControl : std::uint8_t { NoControl = 0, Interrupt = 1 };

using EnvironmentOverrides = std::map<std::string, std::string>;

inline constexpr std::size_t max_own_arguments = 256;
inline constexpr std::size_t max_own_arguments_bytes = 131072;
inline constexpr std::size_t max_environment_name = 128;
inline constexpr std::size_t max_environment_value = 131072;
inline constexpr std::size_t max_executable_path = 32768;
inline constexpr std::size_t max_child_arguments = 64;
inline constexpr std::size_t max_child_argument = 4096;
inline constexpr std::size_t max_child_arguments_bytes = 32768;
inline constexpr std::size_t max_child_handles = 8;
inline constexpr unsigned max_terminate_grace_ms = 2000;

// The text at `pointer` up to its NUL, refused with `code` when the pointer
// is missing or the text is longer than `limit` bytes. Never reads more than
// `limit` + 1 bytes, so an unterminated neighbour cannot run the scan away.
std::string bounded_bytes(const char* pointer, std::size_t limit, const char* code);

// The arguments behind the program name, each checked against the bounds.
std::vector<std::string> process_arguments(int argc, const char* const* argv);

// One environment variable, read under a caller's byte limit; absent gives
// nothing.
std::optional<std::string> process_environment(const std::string& name, std::size_t limit);

// The running executable, absolute and weakly canonical.
std::filesystem::path current_executable_path();

// Replace this process's image; they return only by throwing. The first drops
// loader variables ("LD_", "DYLD_"), the second keeps them.
[[noreturn]] void replace_process(const std::filesystem::path& path, const std::vector<std::string>& arguments,
                                  const std::filesystem::path& directory, const EnvironmentOverrides& overrides);
[[noreturn]] void exec_process(const std::filesystem::path& path, const std::vector<std::string>& arguments,
                               const std::filesystem::path& directory, const EnvironmentOverrides& overrides);

// Shows a folder in the desktop's file viewer and waits for the opener.
void open_directory(const std::filesystem::path& path);

// The one supervised child. The constructor returns only once the new image
// is known to run: the child waits for an activation byte after `on_spawn`
// has seen its pid, and an exec failure comes back over a close-on-exec pipe.
class ChildProcess {
 public:
  using SpawnCallback = std::function<void(std::uint64_t)>;

  ChildProcess(const std::filesystem::path& path, const std::vector<std::string>& arguments,
               const std::filesystem::path& directory, const EnvironmentOverrides& overrides, ChildStreams streams,
               ChildEnvironment environment, const SpawnCallback& on_spawn = {}, ChildGroup group = ChildGroup::Shared,
               ChildControl control = ChildControl::NoControl, const std::vector<NativeHandle>& handles = {});
  ~ChildProcess();
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  std::uint64_t pid() const { return static_cast<std::uint64_t>(pid_); }
  std::optional<int> exit_code() const { return exit_code_; }
  bool ended_by_signal() const { return ended_by_signal_; }

  // The exit code once the child has ended; the first one seen sticks.
  std::optional<int> poll();

  // Blocks until the end. With `should_interrupt`, asks the child to stop
  // through its interrupt channel once the function says so.
  int wait(const std::function<bool()>& should_interrupt = {});

  bool request_interrupt();

  // SIGTERM, `grace_ms` to go, then SIGKILL; true if the child is known to
  // have ended.
  bool terminate(unsigned grace_ms);

  // Empty on POSIX: the exit watch works by process id there.
  std::optional<NativeHandle> notification_handle() const { return std::nullopt; }

 private:
  void release() noexcept;

  int pid_ = 0;
  std::optional<int> exit_code_;
  bool ended_by_signal_ = false;
  std::unique_ptr<InterruptPipe> interrupt_;
};

}  // namespace zorvi
