#include "tests/support/files_support.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi::testing {

std::string error_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const Error& error) {
    return error.code + "|" + error.what();
  }
  return "no error";
}

std::string tree_state(const std::filesystem::path& root) {
  const std::string script =
      "find \"$1\" -printf '%p %M %U %n %s %D:%i\\n' | sort; getfacl -Rpn \"$1\" 2>/dev/null;"
      "find \"$1\" -type f -exec sha256sum {} + | sort";
  return run_command({"sh", "-c", script, "sh", root.string()}).out;
}

std::string modes(const std::filesystem::path& root) {
  const std::string script = "cd \"$1\" && find . -mindepth 1 -printf '%p %m\\n' | sort";
  return run_command({"sh", "-c", script, "sh", root.string()}).out;
}

void expect_rows(const std::vector<Row>& rows, const std::filesystem::path& root) {
  const std::string before = tree_state(root);
  for (std::size_t index = 0; index < rows.size(); ++index) {
    SCOPED_TRACE("row " + std::to_string(index));
    EXPECT_EQ(error_of(rows[index].call), rows[index].expected);
    EXPECT_EQ(tree_state(root), before);
  }
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
  int from_child[2];
  if (::pipe2(from_child, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  const std::string path = (binary_dir() / program).string();
  std::vector<char*> argv{const_cast<char*>(path.c_str())};
  for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(from_child[1], 1);
    ::execv(path.c_str(), argv.data());
    ::_exit(127);
  }
  ::close(from_child[1]);
  output_ = from_child[0];
  if (pid_ < 0) throw std::runtime_error("fork failed");
}

ProgramChild::~ProgramChild() {
  ::close(output_);
  kill(SIGKILL);
  wait();
}

std::string ProgramChild::read_line() {
  std::string line;
  pollfd ready{output_, POLLIN, 0};
  char next = 0;
  while (::poll(&ready, 1, 30000) == 1 && ::read(output_, &next, 1) == 1 && next != '\n') line += next;
  return line;
}

void ProgramChild::kill(int signal) {
  if (status_ < 0) ::kill(pid_, signal);
}

int ProgramChild::wait() {
  int status = 0;
  if (status_ < 0 && ::waitpid(pid_, &status, 0) == pid_)
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return status_;
}

}  // namespace zorvi::testing
