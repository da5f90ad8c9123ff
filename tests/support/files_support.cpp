#include "tests/support/files_support.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace zorvi::testing {

std::string tree_state(const std::filesystem::path& root) {
  const std::string script =
      "find \"$1\" -printf '%p %M %U %n %s %D:%i\\n' | sort; getfacl -Rpn \"$1\" 2>/dev/null;"
      "find \"$1\" -type f -exec sha256sum {} + | sort";
  return run_command({"sh", "-c", script, "sh", root.string()}).out;
}

std::string modes(const std::filesystem::path& root) {
  return run_command({"sh", "-c", "cd \"$1\" && find . -mindepth 1 -printf '%p %m\\n' | sort", "sh", root.string()})
      .out;
}

void expect_rows(const std::vector<Row>& rows, const std::filesystem::path& root) {
  const std::string before = tree_state(root);
  for (std::size_t index = 0; index < rows.size(); ++index) {
    SCOPED_TRACE("row " + std::to_string(index));
    EXPECT_EQ(outcome(rows[index].call), rows[index].expected);
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
  std::vector<std::string> argv{(binary_dir() / program).string()};
  argv.insert(argv.end(), args.begin(), args.end());
  // The child opens the pipe's writing end anew as its output.
  pid_ = spawn(argv, "", "/dev/fd/" + std::to_string(from_child[1]), "");
  ::close(from_child[1]);
  output_ = from_child[0];
  if (pid_ < 0) throw std::runtime_error("cannot start " + program);
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
  if (status_ < 0) status_ = wait_status(pid_);
  return status_;
}

}  // namespace zorvi::testing
