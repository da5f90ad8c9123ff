#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "client/domain/error.hpp"

namespace zorvi::testing {

// A fresh directory under the system temporary folder, removed with all its
// contents (permissions restored first) when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

struct CommandResult {
  int status = -1;  // exit status, or 128 + signal number
  std::string out;
  std::string err;
};

// Starts `argv` (looked up on PATH) with its standard streams opened from
// these paths, an empty one inherited and the same `out` and `err` joined,
// and with exactly `environment` when one is given; -1 if it cannot start.
pid_t spawn(const std::vector<std::string>& argv, const std::string& in, const std::string& out, const std::string& err,
            const std::vector<std::string>* environment = nullptr);
// The exit status of `pid` (128 + signal number after a signal); -1 while it
// still runs when not `blocking`.
int wait_status(pid_t pid, bool blocking = true);

// Runs a real program (looked up on PATH) with `input` on its standard input.
CommandResult run_command(const std::vector<std::string>& argv, std::string_view input = {});

// `argv` run under strace, following children, with descriptors shown as
// their paths: its result, and each traced call of `calls` (strace's
// trace= list) as a line without a leading process id.
struct TracedRun {
  CommandResult result;
  std::vector<std::string> calls;
};
TracedRun run_traced(const std::vector<std::string>& argv, const std::string& calls);

// The traced renames and unlinks of absolute paths under `folder` whose new
// or removed name no later fsync of its folder makes durable.
std::vector<std::string> unflushed_name_changes(const std::vector<std::string>& calls,
                                                const std::filesystem::path& folder);

// Whether `folder` is flushed after the first traced call that names `after`
// (from the first call when empty) and before the next call naming `before`:
// a flush that a later step depends on.
bool flushed_between(const std::vector<std::string>& calls, const std::filesystem::path& folder, std::string_view after,
                     std::string_view before);

// `python3 -c script args...`; fails the calling test on a non-zero status.
std::string run_python(std::string_view script, const std::vector<std::string>& args = {});

std::string read_text(const std::filesystem::path& path);
void write_text(const std::filesystem::path& path, std::string_view text);

// "code: message" of the Error that `action` raises, or "ok".
std::string outcome(const std::function<void()>& action);

// Actions run in order, each beside the outcome it must have; a failure
// names the row's index.
using OutcomeRows = std::vector<std::pair<std::function<void()>, std::string>>;
void expect_outcomes(const OutcomeRows& rows);

// The Error an action raises; a test failure (and an empty Error) if it raises none.
Error caught(const std::function<void()>& action);
// Expects the action to raise exactly this code and message.
void expect_error(const std::function<void()>& action, const std::string& code, const std::string& message);

std::filesystem::path source_dir();
std::filesystem::path binary_dir();

}  // namespace zorvi::testing
