#include "tests/support/test_support.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

namespace zorvi::testing {
namespace {

void restore_permissions(const std::filesystem::path& root) {
  std::error_code ignored;
  std::filesystem::permissions(root, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ignored);
  for (auto it = std::filesystem::recursive_directory_iterator(root, ignored);
       it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
    if (it->is_directory(ignored) && !it->is_symlink(ignored))
      std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                   ignored);
  }
}

}  // namespace

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zorvi-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  restore_permissions(path_);
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

CommandResult run_command(const std::vector<std::string>& argv, std::string_view input) {
  TempDir scratch;
  write_text(scratch / "in", input);
  const auto out_path = scratch / "out";
  const auto err_path = scratch / "err";
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int in = ::open((scratch / "in").c_str(), O_RDONLY);
    const int out = ::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || out < 0 || err < 0) ::_exit(126);
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  CommandResult result;
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return result;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = read_text(out_path);
  result.err = read_text(err_path);
  return result;
}

std::string run_python(std::string_view script, const std::vector<std::string>& args) {
  std::vector<std::string> argv{"python3", "-c", std::string(script)};
  argv.insert(argv.end(), args.begin(), args.end());
  const CommandResult result = run_command(argv);
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out;
}

std::string read_text(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

void write_text(const std::filesystem::path& path, std::string_view text) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!stream) throw std::runtime_error("cannot write " + path.string());
}

std::string outcome(const std::function<void()>& action) {
  try {
    action();
    return "ok";
  } catch (const Error& error) {
    return error.code + ": " + error.what();
  }
}

Error caught(const std::function<void()>& action) {
  try {
    action();
  } catch (const Error& error) {
    return error;
  }
  ADD_FAILURE() << "no failure";
  return Error("", "");
}

void expect_error(const std::function<void()>& action, const std::string& code, const std::string& message) {
  const Error error = caught(action);
  EXPECT_EQ(error.code, code);
  EXPECT_EQ(std::string(error.what()), message);
}

std::filesystem::path source_dir() { return ZORVI_SOURCE_DIR; }
std::filesystem::path binary_dir() { return ZORVI_BINARY_DIR; }

}  // namespace zorvi::testing
