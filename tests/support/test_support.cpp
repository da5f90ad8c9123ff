#include "tests/support/test_support.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace zorvi::testing {
namespace fs = std::filesystem;

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "zorvi-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  // Folders a test made unreadable or unwritable are opened up again first.
  std::error_code ignored;
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ignored);
  for (auto it = fs::recursive_directory_iterator(path_, ignored); it != fs::recursive_directory_iterator();
       it.increment(ignored))
    if (it->is_directory(ignored) && !it->is_symlink(ignored))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
  fs::remove_all(path_, ignored);
}

pid_t spawn(const std::vector<std::string>& argv, const std::string& in, const std::string& out, const std::string& err,
            const std::vector<std::string>* environment) {
  const auto pointers = [](const std::vector<std::string>& texts) {
    std::vector<char*> list;
    for (const std::string& text : texts) list.push_back(const_cast<char*>(text.c_str()));
    list.push_back(nullptr);
    return list;
  };
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  if (!in.empty()) ::posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
  if (!out.empty()) ::posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (!err.empty() && err == out) ::posix_spawn_file_actions_adddup2(&actions, 1, 2);
  if (!err.empty() && err != out)
    ::posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t pid = -1;
  const int failed = ::posix_spawnp(&pid, argv.at(0).c_str(), &actions, nullptr, pointers(argv).data(),
                                    environment != nullptr ? pointers(*environment).data() : environ);
  ::posix_spawn_file_actions_destroy(&actions);
  return failed == 0 ? pid : -1;
}

int wait_status(pid_t pid, bool blocking) {
  int status = 0;
  if (::waitpid(pid, &status, blocking ? 0 : WNOHANG) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

CommandResult run_command(const std::vector<std::string>& argv, std::string_view input) {
  TempDir scratch;
  write_text(scratch / "in", input);
  const pid_t pid = spawn(argv, scratch / "in", scratch / "out", scratch / "err");
  if (pid < 0) return {127, "", "cannot start " + argv.at(0)};
  const int status = wait_status(pid);
  return {status, read_text(scratch / "out"), read_text(scratch / "err")};
}

TracedRun run_traced(const std::vector<std::string>& argv, const std::string& calls) {
  TempDir scratch;
  std::vector<std::string> traced{
      "strace",        "-E", "ASAN_OPTIONS=detect_leaks=0", "-f", "-qq", "-a1", "-y", "-o", scratch / "log", "-e",
      "trace=" + calls};
  traced.insert(traced.end(), argv.begin(), argv.end());
  TracedRun run{run_command(traced), {}};
  std::istringstream lines(read_text(scratch / "log"));
  for (std::string line; std::getline(lines, line);)
    run.calls.push_back(line.substr(line.find_first_not_of("0123456789 ")));
  return run;
}

std::vector<std::string> unflushed_name_changes(const std::vector<std::string>& calls, const fs::path& folder) {
  std::vector<std::string> unflushed;
  const std::string quoted = "\"" + folder.string() + "/";
  for (auto call = calls.begin(); call != calls.end(); ++call) {
    // A rename's new name, the last path named, is the one that must last.
    const std::size_t at = call->rfind(quoted);
    if ((!call->starts_with("rename") && !call->starts_with("unlink")) || !call->ends_with(" = 0") ||
        at == std::string::npos)
      continue;
    const fs::path changed = call->substr(at + 1, call->find('"', at + 1) - at - 1);
    const std::string flushed = "<" + changed.parent_path().string() + ">) = 0";
    if (std::none_of(call + 1, calls.end(),
                     [&](const std::string& later) { return later.starts_with("fsync(") && later.ends_with(flushed); }))
      unflushed.push_back(*call);
  }
  return unflushed;
}

bool flushed_between(const std::vector<std::string>& calls, const fs::path& folder, std::string_view after,
                     std::string_view before) {
  const auto names = [](std::string_view text) {
    return [=](const std::string& call) { return call.find(text) != std::string::npos; };
  };
  auto call = after.empty() ? calls.begin() : std::find_if(calls.begin(), calls.end(), names(after));
  const std::string flushed = "<" + folder.string() + ">) = 0";
  for (; call != calls.end(); ++call) {
    if (call->starts_with("fsync(") && call->ends_with(flushed)) return true;
    if (names(before)(*call)) return false;
  }
  return false;
}

std::string run_python(std::string_view script, const std::vector<std::string>& args) {
  std::vector<std::string> argv{"python3", "-c", std::string(script)};
  argv.insert(argv.end(), args.begin(), args.end());
  const CommandResult result = run_command(argv);
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out;
}

std::string read_text(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void write_text(const fs::path& path, std::string_view text) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  if (!stream.write(text.data(), static_cast<std::streamsize>(text.size())))
    throw std::runtime_error("cannot write " + path.string());
}

std::string outcome(const std::function<void()>& action) {
  try {
    action();
    return "ok";
  } catch (const Error& error) {
    return error.code + ": " + error.what();
  }
}

void expect_outcomes(const OutcomeRows& rows) {
  for (std::size_t index = 0; index < rows.size(); ++index)
    EXPECT_EQ(outcome(rows[index].first), rows[index].second) << "row " << index;
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
  EXPECT_EQ(outcome(action), code + ": " + message);
}

fs::path source_dir() { return ZORVI_SOURCE_DIR; }
fs::path binary_dir() { return ZORVI_BINARY_DIR; }

}  // namespace zorvi::testing
