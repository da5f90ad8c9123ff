#include "tests/support/files_support.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <acl/libacl.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi::testing {
namespace {

constexpr int safety_bound_ms = 30000;

std::string acl_text(const std::filesystem::path& path, acl_type_t type) {
  acl_t acl = acl_get_file(path.c_str(), type);
  if (acl == nullptr) return "-";
  char* text = acl_to_any_text(acl, nullptr, ',', 0);
  std::string result = text == nullptr ? "?" : text;
  acl_free(text);
  acl_free(acl);
  return result;
}

}  // namespace

std::string error_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const Error& error) {
    return error.code + "|" + error.what();
  }
  return "no error";
}

std::string entry_state(const std::filesystem::path& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return "missing";
  std::ostringstream out;
  out << std::oct << status.st_mode << std::dec << " uid " << status.st_uid << " links " << status.st_nlink
      << " size " << status.st_size << " id " << status.st_dev << ":" << status.st_ino;
  if (!S_ISLNK(status.st_mode)) {
    out << " acl " << acl_text(path, ACL_TYPE_ACCESS);
    if (S_ISDIR(status.st_mode)) out << " default " << acl_text(path, ACL_TYPE_DEFAULT);
  }
  if (S_ISREG(status.st_mode)) out << " bytes " << read_text(path);
  return out.str();
}

std::string mask_transaction_names(std::string text, const std::string& target) {
  const std::string prefix = target + ".";
  constexpr std::size_t id_length = 32;
  for (std::size_t at = text.find(prefix); at != std::string::npos; at = text.find(prefix, at + 1)) {
    const std::size_t id = at + prefix.size();
    if (text.size() < id + id_length + 4 || text.compare(id + id_length, 4, ".tmp") != 0) continue;
    const std::string_view digits = std::string_view(text).substr(id, id_length);
    if (digits.find_first_not_of("0123456789abcdef") != std::string_view::npos) continue;
    text.replace(id, id_length, "ID");
  }
  return text;
}

std::vector<std::string> directory_names(const std::filesystem::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

void user_symlink(const std::filesystem::path& target, const std::filesystem::path& link) {
  std::filesystem::create_symlink(target, link);
  ASSERT_EQ(::lchown(link.c_str(), 65534, 65534), 0);
}

void shell(const std::string& command) {
  const CommandResult result = run_command({"sh", "-c", command});
  ASSERT_EQ(result.status, 0) << command << "\n" << result.err;
}

ProgramChild::ProgramChild(const std::string& program, const std::vector<std::string>& args) {
  int to_child[2];
  int from_child[2];
  if (::pipe2(to_child, O_CLOEXEC) != 0 || ::pipe2(from_child, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  const std::string path = (binary_dir() / program).string();
  std::vector<char*> argv{const_cast<char*>(path.c_str())};
  for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(to_child[0], 0);
    ::dup2(from_child[1], 1);
    ::execv(path.c_str(), argv.data());
    ::_exit(127);
  }
  ::close(to_child[0]);
  ::close(from_child[1]);
  input_ = to_child[1];
  output_ = from_child[0];
  if (pid_ < 0) throw std::runtime_error("fork failed");
}

ProgramChild::~ProgramChild() {
  if (input_ >= 0) ::close(input_);
  if (output_ >= 0) ::close(output_);
  if (!waited_) {
    ::kill(pid_, SIGKILL);
    wait();
  }
}

std::string ProgramChild::read_line() {
  for (;;) {
    const auto newline = buffered_.find('\n');
    if (newline != std::string::npos) {
      std::string line = buffered_.substr(0, newline);
      buffered_.erase(0, newline + 1);
      return line;
    }
    pollfd ready{output_, POLLIN, 0};
    const int polled = ::poll(&ready, 1, safety_bound_ms);
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) {
      ADD_FAILURE() << "child produced no line";
      return {};
    }
    char chunk[512];
    const ssize_t got = ::read(output_, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::exchange(buffered_, {});
    buffered_.append(chunk, static_cast<std::size_t>(got));
  }
}

void ProgramChild::write_line(const std::string& line) {
  const std::string text = line + "\n";
  if (::write(input_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    ADD_FAILURE() << "cannot write to child";
}

void ProgramChild::close_input() {
  if (input_ >= 0) ::close(input_);
  input_ = -1;
}

void ProgramChild::kill(int signal) { ::kill(pid_, signal); }

int ProgramChild::wait() {
  if (waited_) return status_;
  int status = 0;
  pid_t got;
  do {
    got = ::waitpid(pid_, &status, 0);
  } while (got < 0 && errno == EINTR);
  waited_ = true;
  status_ = got != pid_ ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return status_;
}

}  // namespace zorvi::testing
