#include "client/platform/process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/full_io.hpp"
#include "client/platform/interrupt.hpp"
#include "client/platform/posix_child_start.hpp"
#include "client/platform/posix_process.hpp"
#include "client/platform/unique_fd.hpp"

extern char** environ;

namespace zorvi {
namespace {

constexpr std::size_t max_own_argc = max_own_arguments + 1;
constexpr auto poll_interval = std::chrono::milliseconds(5);
constexpr auto kill_allowance = std::chrono::milliseconds(500);
constexpr unsigned char activation_byte = 1;

struct ArgumentMessages {
  const char* too_many;
  const char* invalid;
  const char* total;
};

constexpr ArgumentMessages launch_argument_messages{
    "Too many launch arguments", "Launch argument is invalid or too long", "Launch arguments exceed the total bound"};
constexpr ArgumentMessages replacement_argument_messages{
    "Too many replacement arguments", "Invalid maintenance argument", "Maintenance arguments exceed their bound"};

struct OverrideMessages {
  const char* invalid;
  const char* reserved;
};

constexpr OverrideMessages launch_override_messages{
    "Process environment entry is invalid",
    "Launcher interrupt authority cannot be supplied as an environment override"};
constexpr OverrideMessages replacement_override_messages{"Invalid maintenance environment",
                                                         "Maintenance cannot inherit launcher interrupt authority"};

// An entry that is a regular file without following links is also one when
// links are followed, so one look at the entry answers both questions.
bool is_plain_file(const std::filesystem::path& path) {
  std::error_code error;
  return path.has_root_directory() && std::filesystem::is_regular_file(std::filesystem::symlink_status(path, error));
}

bool is_plain_directory(const std::filesystem::path& path) {
  std::error_code error;
  return path.has_root_directory() && std::filesystem::is_directory(std::filesystem::symlink_status(path, error));
}

void check_arguments(const std::vector<std::string>& arguments, const ArgumentMessages& messages) {
  require(arguments.size() <= max_child_arguments, "argument_limit", messages.too_many);
  std::size_t total = 0;
  for (const auto& argument : arguments) {
    require(argument.size() <= max_child_argument && argument.find('\0') == std::string::npos, "argument_limit",
            messages.invalid);
    total += argument.size();  // at most 64 * 4096: no overflow
  }
  require(total <= max_child_arguments_bytes, "argument_limit", messages.total);
}

bool valid_override(const std::string& key, const std::string& value) {
  return !key.empty() && key.find_first_of(std::string_view("=\0", 2)) == std::string::npos &&
         value.find('\0') == std::string::npos;
}

void check_override(const std::string& key, const std::string& value, const OverrideMessages& messages) {
  require(valid_override(key, value), "argument_encoding", messages.invalid);
  require(key != launcher_interrupt_reader_environment, "process_control", messages.reserved);
}

bool is_loader_variable(std::string_view name) { return name.starts_with("LD_") || name.starts_with("DYLD_"); }

// Texts and the NULL-terminated pointer vector over them, made before a fork
// so that the child only reads memory that already exists.
class NativeVector {
 public:
  void add(std::string text) { texts_.push_back(std::move(text)); }
  char* const* seal() {
    pointers_.clear();
    for (auto& text : texts_) pointers_.push_back(text.data());
    pointers_.push_back(nullptr);
    return pointers_.data();
  }

 private:
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
};

// The inherited environment without the reserved variable, without names
// the overrides replace and, when asked, without loader variables; then the
// overrides in key order. `check_each` checks overrides as they are added.
NativeVector build_environment(const EnvironmentOverrides& overrides, bool drop_loader,
                               const std::string* interrupt_value, const OverrideMessages* check_each) {
  NativeVector environment;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    const auto equals = text.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string name(text.substr(0, equals));
    if (name == launcher_interrupt_reader_environment || overrides.contains(name) ||
        (drop_loader && is_loader_variable(name)))
      continue;
    environment.add(std::string(text));
  }
  for (const auto& [key, value] : overrides) {
    if (check_each != nullptr) check_override(key, value, *check_each);
    environment.add(std::string(key).append("=").append(value));
  }
  if (interrupt_value != nullptr)
    environment.add(std::string(launcher_interrupt_reader_environment) + "=" + *interrupt_value);
  return environment;
}

NativeVector argument_vector(const std::filesystem::path& path, const std::vector<std::string>& arguments) {
  NativeVector vector;
  vector.add(path.native());
  for (const auto& argument : arguments) vector.add(argument);
  return vector;
}

void reap(pid_t pid) {
  int status = 0;
  retry_on_eintr([&] { return ::waitpid(pid, &status, 0); });
}

UniqueFd open_null_device() {
  UniqueFd device(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  // Kept off 0 to 2, which a process that closed its standard streams
  // would otherwise lose to it for good.
  if (device && device.get() <= 2) device.reset(::fcntl(device.get(), F_DUPFD_CLOEXEC, 3));
  return device;
}

// The game's input: one read-only null device for every start of this
// process, since each child only duplicates it. Opened again after a failure.
int shared_null_device() {
  static std::mutex guard;
  static UniqueFd device;
  const std::lock_guard lock(guard);
  if (!device) device = open_null_device();
  require(static_cast<bool>(device), "process_start", "Cannot create game input stream");
  return device.get();
}

struct StartChannels {
  UniqueFd start_read;
  UniqueFd start_write;
  int null_device = -1;
  UniqueFd activation_parent;
  UniqueFd activation_child;
};

// Every descriptor is created close-on-exec in the same call, so that a
// fork in another thread cannot carry one into a foreign image.
StartChannels open_start_channels() {
  StartChannels channels;
  int ends[2] = {-1, -1};
  // Not blocking: the report is read once the child is known to have
  // written it or never to write one.
  require(::pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0, "process_start", "Cannot allocate process-start channel");
  channels.start_read.reset(ends[0]);
  channels.start_write.reset(ends[1]);
  channels.null_device = shared_null_device();
  // Linux has no SO_NOSIGPIPE; the activation send uses MSG_NOSIGNAL instead.
  require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "process_start",
          "Cannot allocate process activation channel");
  channels.activation_parent.reset(ends[0]);
  channels.activation_child.reset(ends[1]);
  return channels;
}

// One poll interval of waiting for a child's end. It waits on the child's
// pidfd so that it wakes as soon as the child ends; where the kernel has no
// pidfd, or the descriptor cannot be had, it sleeps the interval out.
class IntervalWait {
 public:
  explicit IntervalWait(pid_t pid) {
    int error = 0;
    watch_ = posix_process::open_exit_watch(static_cast<std::uint32_t>(pid), error);
  }

  void pause() const {
    if (watch_) {
      pollfd entry{watch_.get(), POLLIN, 0};
      const int ready = ::poll(&entry, 1, static_cast<int>(poll_interval.count()));
      // A signal ends the step early, as an end would; the caller polls.
      if (ready >= 0 || errno == EINTR) return;
    }
    std::this_thread::sleep_for(poll_interval);
  }

 private:
  UniqueFd watch_;
};

bool send_activation(const UniqueFd& activation) {
  return retry_on_eintr([&] { return ::send(activation.get(), &activation_byte, 1, MSG_NOSIGNAL); }) == 1;
}

// Once the child has left this process's memory, the start channel holds
// its report if the exec failed: the child writes it before it ends. An
// empty channel means the image was replaced; its write end closes on
// return from the exec. 0 then, else the count of bytes or -1. Where the
// child's departure cannot be awaited, the end of the channel is.
ssize_t read_start_report(const UniqueFd& start_read, posix_child::ChildStack& stack) {
  if (!stack.wait_until_left()) {
    pollfd entry{start_read.get(), POLLIN, 0};
    if (retry_on_eintr([&] { return ::poll(&entry, 1, -1); }) < 0) return -1;
  }
  int report = 0;
  const FullRead got = read_full(start_read.get(), &report, sizeof report);
  if (got.count == 0 && got.error == EAGAIN) return 0;
  return got.error != 0 ? -1 : static_cast<ssize_t>(got.count);
}

[[noreturn]] void replace_image(const std::filesystem::path& path, const std::vector<std::string>& arguments,
                                const std::filesystem::path& directory, const EnvironmentOverrides& overrides,
                                bool drop_loader) {
  require(is_plain_file(path) && is_plain_directory(directory), "process_start",
          "Replacement image or directory is unavailable");
  check_arguments(arguments, replacement_argument_messages);
  auto environment = build_environment(overrides, drop_loader, nullptr, &replacement_override_messages);
  auto argv = argument_vector(path, arguments);
  char* const* envp = environment.seal();
  char* const* argp = argv.seal();
  const UniqueFd previous(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  require(previous && ::chdir(directory.c_str()) == 0, "process_start",
          "Cannot enter the external maintenance runtime");
  ::execve(path.c_str(), argp, envp);
  const int error = errno;
  (void)!::fchdir(previous.get());
  throw Error("process_start", "Cannot replace this process (native error " + std::to_string(error) + ")");
}

}  // namespace

std::string bounded_bytes(const char* pointer, std::size_t limit, const char* code) {
  require(pointer != nullptr, code, "Native process text is missing");
  const std::size_t length = ::strnlen(pointer, limit + 1);
  require(length <= limit, code, "Native process text exceeds its byte bound");
  return std::string(pointer, length);
}

std::vector<std::string> process_arguments(int argc, const char* const* argv) {
  require(argc > 0 && argv != nullptr, "argument_encoding", "Native command arguments are missing");
  require(static_cast<std::size_t>(argc) <= max_own_argc, "argument_limit", "Too many native command arguments");
  std::vector<std::string> arguments;
  std::size_t left = max_own_arguments_bytes;
  for (int index = 1; index < argc; ++index) {
    arguments.push_back(bounded_bytes(argv[index], left, "argument_limit"));
    left -= arguments.back().size();
  }
  return arguments;
}

std::optional<std::string> process_environment(const std::string& name, std::size_t limit) {
  const bool name_valid =
      !name.empty() && name.size() <= max_environment_name &&
      name.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_") == std::string::npos;
  require(name_valid, "environment_key", "Native environment key is invalid");
  require(limit >= 1 && limit <= max_environment_value, "environment_limit", "Native environment bound is invalid");
  const char* value = std::getenv(name.c_str());
  if (value == nullptr) return std::nullopt;
  return bounded_bytes(value, limit, "environment_limit");
}

std::filesystem::path current_executable_path() {
  const auto text = posix_process::executable_link(max_executable_path);
  require(text.has_value(), "launcher_identity", "Cannot identify this native executable within its path bound");
  std::error_code error;
  auto path = std::filesystem::weakly_canonical(std::filesystem::absolute(path_from_utf8(*text)), error);
  require(!error, "launcher_identity", "Cannot identify this native executable within its path bound");
  return path;
}

void replace_process(const std::filesystem::path& path, const std::vector<std::string>& arguments,
                     const std::filesystem::path& directory, const EnvironmentOverrides& overrides) {
  replace_image(path, arguments, directory, overrides, true);
}

void exec_process(const std::filesystem::path& path, const std::vector<std::string>& arguments,
                  const std::filesystem::path& directory, const EnvironmentOverrides& overrides) {
  replace_image(path, arguments, directory, overrides, false);
}

void open_directory(const std::filesystem::path& path) {
  require(is_plain_directory(path), "location_unavailable", "Local directory is unavailable");
  posix_spawn_file_actions_t actions;
  require(::posix_spawn_file_actions_init(&actions) == 0, "desktop_unavailable",
          "Cannot initialize native directory opening");
  struct ActionsGuard {
    posix_spawn_file_actions_t* actions;
    ~ActionsGuard() { ::posix_spawn_file_actions_destroy(actions); }
  } guard{&actions};
  // The opener writes to the caller's error stream, never to its output.
  require(::posix_spawn_file_actions_adddup2(&actions, 2, 1) == 0, "desktop_unavailable",
          "Cannot initialize native directory opening");
  std::string program = posix_process::directory_opener;
  std::string target = path.native();
  char* argv[] = {program.data(), target.data(), nullptr};
  pid_t pid = 0;
  require(::posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv, environ) == 0, "desktop_unavailable",
          "No native directory opener is available");
  int status = 0;
  const pid_t waited = retry_on_eintr([&] { return ::waitpid(pid, &status, 0); });
  require(waited == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0, "desktop_unavailable",
          "Native directory opening failed");
}

ChildProcess::ChildProcess(const std::filesystem::path& path, const std::vector<std::string>& arguments,
                           const std::filesystem::path& directory, const EnvironmentOverrides& overrides,
                           ChildStreams streams, ChildEnvironment environment, const SpawnCallback& on_spawn,
                           ChildGroup group, ChildControl control, const std::vector<NativeHandle>& handles) {
  require(handles.size() <= max_child_handles, "launch_handles", "Too many private native child handles");
  require(handles.empty(), "launch_handles", "Native handle inheritance is Windows-only");
  require(is_plain_file(path), "launch_executable", "The installed game executable is missing or linked");
  require(is_plain_directory(directory), "launch_directory", "Game working directory is missing or linked");
  check_arguments(arguments, launch_argument_messages);
  for (const auto& [key, value] : overrides)
    require(valid_override(key, value), "argument_encoding", launch_override_messages.invalid);
  require(!overrides.contains(std::string(launcher_interrupt_reader_environment)), "process_control",
          launch_override_messages.reserved);
  const bool console = streams == ChildStreams::Console;
  const bool isolated = group == ChildGroup::Isolated;
  std::unique_ptr<InterruptPipe> interrupt;
  if (control == ChildControl::Interrupt) {
    require(console && isolated, "process_control",
            "Only an isolated console launcher child receives interrupt control");
    interrupt = std::make_unique<InterruptPipe>();
  }

  const std::string interrupt_value = interrupt ? interrupt->child_environment() : std::string();
  auto environment_texts = build_environment(overrides, environment == ChildEnvironment::Clean,
                                             interrupt ? &interrupt_value : nullptr, nullptr);
  auto argument_texts = argument_vector(path, arguments);
  StartChannels channels = open_start_channels();
  const auto interrupt_ends = interrupt ? interrupt->child_ends() : InterruptPipe::ChildEnds{-1, -1};
  const posix_child::Plan plan{path.c_str(),
                               argument_texts.seal(),
                               environment_texts.seal(),
                               directory.c_str(),
                               channels.start_read.get(),
                               channels.start_write.get(),
                               channels.activation_parent.get(),
                               channels.activation_child.get(),
                               channels.null_device,
                               interrupt_ends.reader,
                               interrupt_ends.writer,
                               console,
                               isolated};
  // The child runs in this process's memory until its exec: the stack, the
  // plan and the texts above outlive it on every path below, which ends
  // with the exec seen or the child reaped.
  posix_child::ChildStack& stack = posix_child::ChildStack::of_this_thread();
  const pid_t pid = posix_child::start(plan, stack);
  channels.start_write.reset();
  channels.activation_child.reset();
  if (interrupt) interrupt->close_reader();
  require(pid > 0, "process_start", "Cannot create game process");

  if (on_spawn) {
    try {
      on_spawn(static_cast<std::uint64_t>(pid));
    } catch (...) {
      // The child reads end of file instead of its byte and leaves.
      channels.activation_parent.reset();
      channels.start_read.reset();
      reap(pid);
      throw;
    }
  }
  if (!send_activation(channels.activation_parent)) {
    channels.activation_parent.reset();
    channels.start_read.reset();
    reap(pid);
    throw Error("process_start", "Cannot activate the prepared game");
  }
  channels.activation_parent.reset();
  const ssize_t report = read_start_report(channels.start_read, stack);
  channels.start_read.reset();
  if (report != 0) {
    // A failed read leaves the child's fate open; make sure it is over.
    if (report < 0) ::kill(pid, SIGKILL);
    reap(pid);
    throw Error("process_start", "Cannot execute the installed game", {"verify GAME", "repair GAME"});
  }
  pid_ = pid;
  interrupt_ = std::move(interrupt);
}

ChildProcess::~ChildProcess() { release(); }

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, 0)),
      exit_code_(std::exchange(other.exit_code_, std::nullopt)),
      ended_by_signal_(other.ended_by_signal_),
      interrupt_(std::move(other.interrupt_)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    release();
    pid_ = std::exchange(other.pid_, 0);
    exit_code_ = std::exchange(other.exit_code_, std::nullopt);
    ended_by_signal_ = other.ended_by_signal_;
    interrupt_ = std::move(other.interrupt_);
  }
  return *this;
}

// A child that has ended is reaped; one still running goes on running.
void ChildProcess::release() noexcept {
  if (pid_ > 0 && !exit_code_) {
    int status = 0;
    ::waitpid(pid_, &status, WNOHANG);
  }
  pid_ = 0;
  interrupt_.reset();
}

std::optional<int> ChildProcess::poll() {
  if (exit_code_ || pid_ <= 0) return exit_code_;
  int status = 0;
  const pid_t result = retry_on_eintr([&] { return ::waitpid(pid_, &status, WNOHANG); });
  require(result >= 0, "process_wait", "Cannot inspect game process");
  if (result == 0) return std::nullopt;
  if (WIFEXITED(status)) {
    exit_code_ = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    exit_code_ = 128 + WTERMSIG(status);
    ended_by_signal_ = true;
  }
  return exit_code_;
}

int ChildProcess::wait(const std::function<bool()>& should_interrupt) {
  require(!should_interrupt || interrupt_, "process_control",
          "Interruptible waiting needs this owned child's private channel");
  if (const auto code = poll()) return *code;
  bool delivered = false;
  const IntervalWait step(pid_);
  for (;;) {
    if (!delivered && should_interrupt && should_interrupt() && !poll()) delivered = interrupt_->request();
    step.pause();
    if (const auto code = poll()) return *code;
  }
}

bool ChildProcess::request_interrupt() {
  if (!interrupt_ || poll()) return false;
  return interrupt_->request();
}

bool ChildProcess::terminate(unsigned grace_ms) {
  require(grace_ms <= max_terminate_grace_ms, "process_wait", "Child termination grace must be bounded to two seconds");
  if (poll()) return true;
  // The pid alone, not its group: a game's own helpers are its business.
  if (::kill(pid_, SIGTERM) != 0 && errno != ESRCH) return false;
  const IntervalWait step(pid_);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(grace_ms);
  while (std::chrono::steady_clock::now() < deadline) {
    step.pause();
    if (poll()) return true;
  }
  if (poll()) return true;
  if (::kill(pid_, SIGKILL) != 0 && errno != ESRCH) return false;
  const auto kill_deadline = std::chrono::steady_clock::now() + kill_allowance;
  while (std::chrono::steady_clock::now() < kill_deadline) {
    step.pause();
    if (poll()) return true;
  }
  return poll().has_value();
}

}  // namespace zorvi
