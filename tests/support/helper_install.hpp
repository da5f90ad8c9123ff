#pragma once

#include <map>

#include "client/domain/json.hpp"
#include "tests/support/process_support.hpp"

namespace zorvi::testing {

using Environment = std::map<std::string, std::string>;

// An installed tree in a temporary folder with a built helper in its app
// bundle and the recording stand-in as its bootstrap:
//   <dir>/Zorvi Data/native/bootstrap/bin/zorvi-bootstrap
//   <dir>/Zorvi Data/native/bootstrap/bin/ZorviShortcut.app/Contents/MacOS/zorvi-shortcut
//   <dir>/Zorvi Data/launcher/installation.json
class HelperInstall {
 public:
  // `built` names the helper build to install: the shipped one, or its test
  // build that also takes several documents from the environment. The
  // launcher state names one version in the field `launcher` ("active",
  // "candidate", "rollback"); the version itself is not stored, as the
  // helper reads only the state. Null leaves the launcher store unmade.
  explicit HelperInstall(const char* built = "zorvi-shortcut", const char* launcher = "active");

  const std::filesystem::path& folder() const { return dir_.path(); }
  std::filesystem::path root() const { return folder() / "Zorvi Data"; }
  std::filesystem::path bin() const { return root() / "native/bootstrap/bin"; }
  std::filesystem::path helper() const { return bin() / "ZorviShortcut.app/Contents/MacOS/zorvi-shortcut"; }
  std::filesystem::path bootstrap() const { return bin() / "zorvi-bootstrap"; }  // the stand-in
  std::filesystem::path records() const { return folder() / "records"; }         // where stand-ins record their runs
  std::filesystem::path hold() const { return folder() / "hold"; }  // stand-ins started with it wait while it exists

  // A private launch document in <dir>/documents for `data_root` (the
  // installation's own by default); `game` may be empty.
  std::filesystem::path document(const std::string& name, const std::string& game,
                                 const std::filesystem::path& data_root = {}) const;

  // One parsed record per stand-in run so far.
  std::vector<json> runs() const;

  // What a headless run needs (a dummy video driver, stand-ins recording
  // here, the sanitizers' settings), with `extra` on top.
  Environment environment(const Environment& extra = {}) const;

 private:
  TempDir dir_;
};

// A program run as a child with exactly `environment`, its standard output
// and error captured together.
class HelperProcess {
 public:
  HelperProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                const Environment& environment);
  ~HelperProcess();
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;

  // The exit status (128 + signal after a signal); -1 when `limit` passed,
  // after which the process is killed.
  int wait(std::chrono::milliseconds limit = std::chrono::seconds(60));
  bool running();
  void signal(int number);
  std::string err() const;

 private:
  TempDir scratch_;
  pid_t pid_ = -1;
  int status_ = -1;
};

// Runs `image` (the installed helper by default) to its end.
struct HelperRun {
  int status = -1;
  std::string err;
};
HelperRun run_helper(const HelperInstall& install, const Environment& extra,
                     const std::vector<std::string>& arguments = {}, const std::filesystem::path& image = {});

// The lines of `text` that begin "zorvi: ", without that prefix.
std::vector<std::string> shown_lines(const std::string& text);

}  // namespace zorvi::testing
