#include "tests/support/helper_install.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "client/platform/macos_shortcuts.hpp"

namespace zorvi::testing {
namespace fs = std::filesystem;

HelperInstall::HelperInstall() {
  fs::create_directories(helper().parent_path());
  fs::copy_file(binary_dir() / "zorvi-shortcut", helper());
  fs::copy_file(binary_dir() / "bootstrap_stand_in", bootstrap());
  fs::create_directories(records());
  fs::create_directories(folder() / "documents");
  write_text(hold(), "");
}

fs::path HelperInstall::root() const { return folder() / "Zorvi Data"; }
fs::path HelperInstall::bin() const { return root() / "native/bootstrap/bin"; }
fs::path HelperInstall::helper() const { return bin() / "ZorviShortcut.app/Contents/MacOS/zorvi-shortcut"; }
fs::path HelperInstall::bootstrap() const { return bin() / "zorvi-bootstrap"; }
fs::path HelperInstall::records() const { return folder() / "records"; }
fs::path HelperInstall::hold() const { return folder() / "hold"; }

fs::path HelperInstall::document(const std::string& name, const std::string& game, const fs::path& data_root) const {
  const DesktopShortcut shortcut{bootstrap(), data_root.empty() ? root() : data_root, game, "Star Harbor"};
  const fs::path path = folder() / "documents" / name;
  write_text(path, macos_launch_document(shortcut));
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  return path;
}

std::vector<json> HelperInstall::runs() const {
  std::vector<json> found;
  for (const auto& entry : fs::directory_iterator(records())) {
    if (entry.path().extension() == ".json") found.push_back(json::parse(read_text(entry.path())));
  }
  return found;
}

HelperProcess::HelperProcess(const fs::path& program, const std::vector<std::string>& arguments,
                             const std::map<std::string, std::string>& environment) {
  std::vector<std::string> argv_text{program.native()};
  argv_text.insert(argv_text.end(), arguments.begin(), arguments.end());
  std::vector<std::string> env_text;
  for (const auto& [name, value] : environment) env_text.push_back(name + "=" + value);
  std::vector<char*> argv;
  for (auto& text : argv_text) argv.push_back(text.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& text : env_text) envp.push_back(text.data());
  envp.push_back(nullptr);
  const fs::path err_path = scratch_ / "err";
  pid_ = ::fork();
  if (pid_ == 0) {
    const int in = ::open("/dev/null", O_RDONLY);
    const int err = ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || err < 0) ::_exit(126);
    ::dup2(in, 0);
    ::dup2(err, 1);
    ::dup2(err, 2);
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  if (pid_ < 0) throw std::runtime_error("fork failed");
}

HelperProcess::~HelperProcess() {
  if (running()) {
    ::kill(pid_, SIGKILL);
    wait();
  }
}

bool HelperProcess::running() {
  if (status_ >= 0) return false;
  int status = 0;
  const pid_t done = ::waitpid(pid_, &status, WNOHANG);
  if (done != pid_) return done == 0;
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return false;
}

int HelperProcess::wait(std::chrono::milliseconds limit) {
  if (!eventually([this] { return !running(); }, limit)) {
    ::kill(pid_, SIGKILL);
    while (running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return -1;
  }
  return status_;
}

void HelperProcess::signal(int number) { ::kill(pid_, number); }

std::string HelperProcess::err() const { return read_text(scratch_ / "err"); }

std::map<std::string, std::string> helper_environment(const HelperInstall& install) {
  std::map<std::string, std::string> environment = {
      {"LANG", "C.UTF-8"},
      {"SDL_VIDEODRIVER", "dummy"},
      {"ZORVI_STAND_IN_RECORDS", install.records().native()},
  };
  // Whatever the test itself runs under (the sanitizers' settings among
  // them) applies to the helper too; a display does not.
  for (const char* name : {"PATH", "HOME", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name)) environment[name] = value;
  }
  return environment;
}

HelperRun run_helper(const HelperInstall& install, const std::map<std::string, std::string>& extra,
                     const std::vector<std::string>& arguments) {
  std::map<std::string, std::string> environment = helper_environment(install);
  for (const auto& [name, value] : extra) environment[name] = value;
  HelperProcess helper(install.helper(), arguments, environment);
  HelperRun run;
  run.status = helper.wait();
  run.err = helper.err();
  return run;
}

std::vector<std::string> shown_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string line = text.substr(start, end - start);
    if (line.starts_with("zorvi: ")) lines.push_back(line.substr(7));
    start = end + 1;
  }
  return lines;
}

}  // namespace zorvi::testing
