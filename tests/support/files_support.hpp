#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace zorvi::testing {

// "code|message" of the zorvi::Error that `action` raised, or "no error".
std::string error_of(const std::function<void()>& action);

// Type, mode, owner, links, size, identity, ACL text and, for a file, its
// bytes: what "left as it was" compares.
std::string entry_state(const std::filesystem::path& path);

// `text` with every transaction name of `target` ("<target>.<32 hex>.tmp")
// written as "<target>.ID.tmp".
std::string mask_transaction_names(std::string text, const std::string& target);

// Names in a directory, sorted.
std::vector<std::string> directory_names(const std::filesystem::path& directory);

// A symbolic link owned by an ordinary user (65534). Tests run as root, and a
// root-owned link in a root-owned folder counts as one the system placed.
void user_symlink(const std::filesystem::path& target, const std::filesystem::path& link);

// Runs a shell command line through `sh -c`; fails the test unless it exits 0.
void shell(const std::string& command);

// A test program from tests/programs run as a child, talking over its
// standard input and output.
class ProgramChild {
public:
  ProgramChild(const std::string& program, const std::vector<std::string>& args);
  ~ProgramChild();
  ProgramChild(const ProgramChild&) = delete;
  ProgramChild& operator=(const ProgramChild&) = delete;

  // One line of output without its newline; empty at end of output. Gives up
  // after a generous safety bound so that a broken child cannot hang a test.
  std::string read_line();
  void write_line(const std::string& line);
  void close_input();
  void kill(int signal);
  // Exit status, or 128 + signal number.
  int wait();
  pid_t pid() const { return pid_; }

private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string buffered_;
  bool waited_ = false;
  int status_ = -1;
};

}  // namespace zorvi::testing
