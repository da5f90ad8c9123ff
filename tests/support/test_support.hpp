#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

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

// Runs a real program (looked up on PATH) with `input` on its standard input.
CommandResult run_command(const std::vector<std::string>& argv, std::string_view input = {});

// `python3 -c script args...`; fails the calling test on a non-zero status.
std::string run_python(std::string_view script, const std::vector<std::string>& args = {});

std::string read_text(const std::filesystem::path& path);
void write_text(const std::filesystem::path& path, std::string_view text);

std::filesystem::path source_dir();
std::filesystem::path binary_dir();

}  // namespace zorvi::testing
