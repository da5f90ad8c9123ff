#include "client/platform/interrupt.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>

#include "client/domain/error.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/process.hpp"

namespace zorvi {
namespace {

// The value is "1:" and a descriptor number; nothing longer is plausible.
constexpr std::size_t max_reader_value = 32;

// The handler may touch only lock-free atomics.
std::atomic<bool> interrupted{false};
std::atomic<bool> reader_attached{false};
std::atomic<bool> console_claimed{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void store_interrupt(int) { interrupted.store(true); }

UniqueFd above_standard_streams(UniqueFd end) {
  if (end.get() >= 3) return end;
  UniqueFd moved(::fcntl(end.get(), F_DUPFD_CLOEXEC, 3));
  require(static_cast<bool>(moved), "process_control", "Cannot relocate launcher interrupt pipe");
  return moved;
}

int parse_reader_descriptor(const std::string& value) {
  require(value.size() >= 2 && value.compare(0, 2, "1:") == 0, "launcher_control",
          "Launcher interrupt channel version is invalid");
  const std::string number = value.substr(2);
  long long descriptor = 0;
  const auto [end, status] = std::from_chars(number.data(), number.data() + number.size(), descriptor);
  // Printing the number back must give the same text: no sign, no leading
  // zero, no blank.
  require(status == std::errc() && end == number.data() + number.size() && std::to_string(descriptor) == number,
          "launcher_control", "Launcher interrupt channel handle is invalid");
  require(descriptor >= 3 && descriptor <= INT_MAX, "launcher_control", "Launcher interrupt descriptor is invalid");
  return static_cast<int>(descriptor);
}

bool is_read_pipe(int descriptor) {
  struct stat status{};
  if (::fstat(descriptor, &status) != 0 || !S_ISFIFO(status.st_mode)) return false;
  const int flags = ::fcntl(descriptor, F_GETFL);
  return flags >= 0 && (flags & O_ACCMODE) == O_RDONLY;
}

UniqueFd attach_reader() {
  const auto value = process_environment(std::string(launcher_interrupt_reader_environment), max_reader_value);
  if (!value || value->empty()) return UniqueFd();
  const int descriptor = parse_reader_descriptor(*value);
  require(is_read_pipe(descriptor), "launcher_control", "Launcher interrupt reader must be an inherited read pipe");
  const int flags = ::fcntl(descriptor, F_GETFL);
  require(flags >= 0 && ::fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0 &&
              ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == 0,
          "launcher_control", "Cannot protect launcher interrupt reader");
  return UniqueFd(descriptor);
}

}  // namespace

struct ConsoleInterrupt::State {
  bool installed = false;
  UniqueFd reader;
  struct sigaction saved{};
};

ConsoleInterrupt::ConsoleInterrupt(bool attach_parent) : state_(std::make_unique<State>()) {
  // Claimed before attaching, so that a refused second instance cannot take
  // over the reader that the first one owns.
  require(!console_claimed.exchange(true), "signal", "Console cancellation handler is already installed");
  try {
    if (attach_parent) {
      state_->reader = attach_reader();
      if (state_->reader) reader_attached.store(true);
    }
    interrupted.store(false);
    struct sigaction action{};
    action.sa_handler = store_interrupt;
    action.sa_flags = 0;
    sigemptyset(&action.sa_mask);
    require(::sigaction(SIGINT, &action, &state_->saved) == 0, "signal", "Cannot enable safe cancellation from Ctrl+C");
    state_->installed = true;
  } catch (...) {
    if (state_->reader) reader_attached.store(false);
    console_claimed.store(false);
    throw;
  }
}

ConsoleInterrupt::~ConsoleInterrupt() {
  if (state_->installed) ::sigaction(SIGINT, &state_->saved, nullptr);
  if (state_->reader) reader_attached.store(false);
  state_->reader.reset();
  console_claimed.store(false);
}

bool ConsoleInterrupt::parent_reader_attached() { return reader_attached.load(); }

bool ConsoleInterrupt::requested() {
  if (interrupted.load()) return true;
  if (!state_->reader) return false;
  unsigned char byte = 0;
  const ssize_t count = retry_on_eintr([&] { return ::read(state_->reader.get(), &byte, 1); });
  if (count == 0) {
    // The parent has gone; it will ask for nothing any more.
    state_->reader.reset();
    reader_attached.store(false);
    return false;
  }
  if (count < 0) {
    require(errno == EAGAIN || errno == EWOULDBLOCK, "launcher_control", "Cannot read launcher interrupt channel");
    return false;
  }
  require(byte == 1, "launcher_control", "Launcher interrupt channel request is invalid");
  interrupted.store(true);
  state_->reader.reset();
  return true;
}

InterruptPipe::InterruptPipe() {
  int ends[2] = {-1, -1};
  require(::pipe2(ends, O_CLOEXEC) == 0, "process_control", "Cannot create launcher interrupt pipe");
  UniqueFd read_end(ends[0]);
  UniqueFd write_end(ends[1]);
  reader_ = above_standard_streams(std::move(read_end));
  writer_ = above_standard_streams(std::move(write_end));
  const int flags = ::fcntl(writer_.get(), F_GETFL);
  require(flags >= 0 && ::fcntl(writer_.get(), F_SETFL, flags | O_NONBLOCK) == 0, "process_control",
          "Cannot protect launcher interrupt pipe");
}

std::string InterruptPipe::child_environment() const { return "1:" + std::to_string(reader_.get()); }

void InterruptPipe::close_reader() { reader_.reset(); }

bool InterruptPipe::request() {
  if (requested_) return true;
  if (!writer_) return false;
  sigset_t pipe_signal;
  sigset_t saved;
  sigset_t pending;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &pipe_signal, &saved);
  ::sigpending(&pending);
  const bool pending_before = sigismember(&pending, SIGPIPE) == 1;
  const unsigned char byte = 1;
  const ssize_t count = retry_on_eintr([&] { return ::write(writer_.get(), &byte, 1); });
  if (count < 0 && errno == EPIPE && !pending_before) {
    // Take the signal this write raised, so that it does not fire once the
    // mask is restored.
    ::sigpending(&pending);
    int taken = 0;
    if (sigismember(&pending, SIGPIPE) == 1) ::sigwait(&pipe_signal, &taken);
  }
  ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  requested_ = count == 1;
  return requested_;
}

}  // namespace zorvi
