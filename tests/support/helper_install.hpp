#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "client/domain/json.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi::testing {

// An installed tree in a temporary folder with the built zorvi-shortcut in
// its app bundle and the recording stand-in as its bootstrap:
//   <dir>/Zorvi Data/native/bootstrap/bin/zorvi-bootstrap
//   <dir>/Zorvi Data/native/bootstrap/bin/ZorviShortcut.app/Contents/MacOS/zorvi-shortcut
class HelperInstall {
public:
  HelperInstall();

  const std::filesystem::path& folder() const { return dir_.path(); }
  std::filesystem::path root() const;       // the data folder
  std::filesystem::path bin() const;        // native/bootstrap/bin
  std::filesystem::path helper() const;     // the helper image in its bundle
  std::filesystem::path bootstrap() const;  // the stand-in
  std::filesystem::path records() const;    // where stand-ins record their runs
  std::filesystem::path hold() const;       // stand-ins started with it wait while it exists

  // A private launch document in <dir>/documents for `data_root` (the
  // installation's own by default); `game` may be empty.
  std::filesystem::path document(const std::string& name, const std::string& game,
                                 const std::filesystem::path& data_root = {}) const;

  // One parsed record per stand-in run so far.
  std::vector<json> runs() const;

private:
  TempDir dir_;
};

// The helper, or any program, run as a child with a chosen environment and
// its standard error captured.
class HelperProcess {
public:
  // Starts `program` with `arguments` behind its name and exactly
  // `environment`.
  HelperProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                const std::map<std::string, std::string>& environment);
  ~HelperProcess();
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;

  // The exit status (128 + signal after a signal); -1 when `limit` passed,
  // after which the process is killed.
  int wait(std::chrono::milliseconds limit = std::chrono::seconds(60));
  bool running();
  void signal(int number);
  std::string err() const;
  pid_t pid() const { return pid_; }

private:
  TempDir scratch_;
  pid_t pid_ = -1;
  int status_ = -1;
};

// What a headless helper run needs: a dummy video driver, no display to
// block on, and stand-ins that record into `install`.
std::map<std::string, std::string> helper_environment(const HelperInstall& install);

// Runs the installed helper to its end with the headless environment and
// `extra` on top.
struct HelperRun {
  int status = -1;
  std::string err;
};
HelperRun run_helper(const HelperInstall& install, const std::map<std::string, std::string>& extra,
                     const std::vector<std::string>& arguments = {});

// The lines of `text` that begin "zorvi: ", without that prefix.
std::vector<std::string> shown_lines(const std::string& text);

}  // namespace zorvi::testing
