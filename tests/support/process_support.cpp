#include "tests/support/process_support.hpp"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <thread>

namespace zorvi::testing {

std::filesystem::path probe_path() { return binary_dir() / "process_probe"; }

std::string in_subprocess(const std::function<std::string()>& work) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return "pipe failed";
  const pid_t pid = ::fork();
  if (pid == 0) {
    std::string text;
    try {
      text = work();
    } catch (const std::exception& error) {
      text = std::string("exception: ") + error.what();
    }
    (void)!::write(ends[1], text.data(), text.size());
    ::_exit(0);
  }
  ::close(ends[1]);
  std::string text;
  char buffer[4096];
  // A signal the work sends to this process may interrupt the reads.
  for (ssize_t count; (count = ::read(ends[0], buffer, sizeof buffer)) != 0;) {
    if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
    if (count < 0 && errno != EINTR) break;
  }
  ::close(ends[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) text += " [subprocess status " + std::to_string(status) + "]";
  return text;
}

void drop_to_nobody() {
  if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
    throw std::runtime_error("cannot become nobody");
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

bool kill_unreaped(long pid) {
  ::kill(static_cast<pid_t>(pid), SIGKILL);
  return eventually([pid] {
    // The state letter follows the command name in parentheses.
    std::string line;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), line);
    const auto close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'Z';
  });
}

bool pid_exists(long pid) { return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM; }

}  // namespace zorvi::testing
