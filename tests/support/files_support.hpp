#pragma once

#include "tests/support/test_support.hpp"

namespace zorvi::testing {

// Type, mode, owner, links, size, identity, ACL and, for a file, a digest of
// its bytes, of `root` and of everything below it: what "left as it was"
// compares. Links are not followed.
std::string tree_state(const std::filesystem::path& root);

// Each entry below `root` as "./relative/path octal-mode", sorted, one a line.
std::string modes(const std::filesystem::path& root);

// A call and the outcome it must have, as `outcome` gives it.
struct Row {
  std::function<void()> call;
  std::string expected;
};

// Expects each row's outcome, and that no row changed anything at or below
// `root`.
void expect_rows(const std::vector<Row>& rows, const std::filesystem::path& root);

// A symbolic link owned by an ordinary user (65534). Tests run as root, and a
// root-owned link in a root-owned folder counts as one the system placed.
void user_symlink(const std::filesystem::path& target, const std::filesystem::path& link);

// Runs a shell command line through `sh -c`; fails the test unless it exits 0.
void shell(const std::string& command);

// A program from tests/programs run as a child and read line by line; it is
// killed when the object goes.
class ProgramChild {
 public:
  ProgramChild(const std::string& program, const std::vector<std::string>& args);
  ~ProgramChild();
  ProgramChild(const ProgramChild&) = delete;
  ProgramChild& operator=(const ProgramChild&) = delete;

  // One line of output without its newline; empty at end of output, or after
  // a generous safety bound so that a broken child cannot hang a test.
  std::string read_line();
  void kill(int signal);
  // Exit status, or 128 + signal number.
  int wait();

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  int status_ = -1;
};

}  // namespace zorvi::testing
