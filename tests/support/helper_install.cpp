#include "tests/support/helper_install.hpp"

#include <signal.h>

#include <sstream>
#include <thread>

#include "client/app/launcher.hpp"
#include "client/platform/macos_shortcuts.hpp"

namespace zorvi::testing {
namespace fs = std::filesystem;

HelperInstall::HelperInstall(const char* built, const char* launcher) {
  fs::create_directories(helper().parent_path());
  fs::copy_file(binary_dir() / built, helper());
  fs::copy_file(binary_dir() / "bootstrap_stand_in", bootstrap());
  fs::create_directories(records());
  fs::create_directories(folder() / "documents");
  write_text(hold(), "");
  if (launcher == nullptr) return;
  const LauncherStore store(root());
  json state = store.load();
  state[launcher] = launcher_reference(std::string(64, 'a'), "1.0.0");
  store.save(state);
}

fs::path HelperInstall::document(const std::string& name, const std::string& game, const fs::path& data_root) const {
  const DesktopShortcut shortcut{bootstrap(), data_root.empty() ? root() : data_root, game, "Star Harbor"};
  const fs::path path = folder() / "documents" / name;
  write_text(path, macos_launch_document(shortcut));
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  return path;
}

std::vector<json> HelperInstall::runs() const {
  std::vector<json> found;
  for (const auto& entry : fs::directory_iterator(records()))
    if (entry.path().extension() == ".json") found.push_back(json::parse(read_text(entry.path())));
  return found;
}

Environment HelperInstall::environment(const Environment& extra) const {
  Environment environment = {{"LANG", "C.UTF-8"}, {"SDL_VIDEODRIVER", "dummy"}, {"ZORVI_STAND_IN_RECORDS", records()}};
  // A display of the test's own does not pass on.
  for (const char* name : {"PATH", "HOME", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
    if (const char* value = std::getenv(name)) environment[name] = value;
  for (const auto& [name, value] : extra) environment[name] = value;
  return environment;
}

HelperProcess::HelperProcess(const fs::path& program, const std::vector<std::string>& arguments,
                             const Environment& environment) {
  std::vector<std::string> argv{program.native()}, variables;
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  for (const auto& [name, value] : environment) variables.push_back(name + "=" + value);
  pid_ = spawn(argv, "/dev/null", scratch_ / "err", scratch_ / "err", &variables);
  if (pid_ < 0) throw std::runtime_error("cannot start " + program.native());
}

HelperProcess::~HelperProcess() {
  if (running()) signal(SIGKILL);
  wait();
}

bool HelperProcess::running() {
  if (status_ < 0) status_ = wait_status(pid_, false);
  return status_ < 0;
}

int HelperProcess::wait(std::chrono::milliseconds limit) {
  if (eventually([this] { return !running(); }, limit)) return status_;
  ::kill(pid_, SIGKILL);
  while (running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return -1;
}

void HelperProcess::signal(int number) { ::kill(pid_, number); }

std::string HelperProcess::err() const { return read_text(scratch_ / "err"); }

HelperRun run_helper(const HelperInstall& install, const Environment& extra, const std::vector<std::string>& arguments,
                     const fs::path& image) {
  HelperProcess helper(image.empty() ? install.helper() : image, arguments, install.environment(extra));
  const int status = helper.wait();
  return {status, helper.err()};
}

std::vector<std::string> shown_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (line.starts_with("zorvi: ")) lines.push_back(line.substr(7));
  return lines;
}

}  // namespace zorvi::testing
