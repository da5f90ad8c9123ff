#include "tests/support/process_support.hpp"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi::testing {

std::filesystem::path probe_path() { return binary_dir() / "process_probe"; }

std::string outcome(const std::function<void()>& work) {
  try {
    work();
    return "ok";
  } catch (const Error& error) {
    return error.code + ": " + error.what();
  }
}

std::string in_subprocess(const std::function<std::string()>& work) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return "pipe failed";
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(ends[0]);
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
  ssize_t count = 0;
  while ((count = ::read(ends[0], buffer, sizeof buffer)) > 0 || (count < 0 && errno == EINTR)) {
    if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(ends[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) text += " [subprocess status " + std::to_string(status) + "]";
  return text;
}

void leave_free_descriptors(int free_slots) {
  const rlimit limit{64, 64};
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("setrlimit failed");
  std::vector<int> taken;
  for (;;) {
    const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) break;
    taken.push_back(descriptor);
  }
  if (errno != EMFILE || static_cast<int>(taken.size()) < free_slots) throw std::runtime_error("cannot fill");
  for (int i = 0; i < free_slots; ++i) {
    ::close(taken.back());
    taken.pop_back();
  }
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

char process_state_letter(long pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return 0;
  const auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() ? line[close + 2] : 0;
}

bool pid_exists(long pid) { return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM; }

json read_json(const std::filesystem::path& path) { return json::parse(read_text(path)); }

}  // namespace zorvi::testing
