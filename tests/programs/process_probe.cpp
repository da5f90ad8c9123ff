// A child for the process tests: reports what it inherited, waits for its
// parent's interrupt, or replaces itself.
#include <cstdio>

#include "client/platform/interrupt.hpp"
#include "client/platform/process.hpp"
#include "tests/programs/program.hpp"

namespace {

using zorvi::json;

// Every open descriptor but the one listing them, which names the listed folder.
json open_descriptors() {
  json list = json::array();
  const std::filesystem::path own = "/proc/" + std::to_string(::getpid()) + "/fd";
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    if (std::filesystem::read_symlink(entry.path()) != own) list.push_back(std::stoi(entry.path().filename()));
  return list;
}

std::string status_line(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(key + ":")) return line.substr(key.size() + 2);
  return "";
}

int report(const char* path) {
  // Gathered before the report file adds a descriptor of its own.
  json out;
  out["descriptors"] = open_descriptors();
  out["pid"] = ::getpid();
  out["pgid"] = ::getpgrp();
  out["cwd"] = std::filesystem::current_path().string();
  out["environment"] = json::array();
  for (char** entry = environ; *entry != nullptr; ++entry) out["environment"].push_back(*entry);
  out["blocked"] = status_line("SigBlk");
  out["ignored"] = status_line("SigIgn");
  std::error_code unreadable;
  out["stdin"] = std::filesystem::read_symlink("/proc/self/fd/0", unreadable).string();
  std::ofstream(path) << out.dump();
  std::fputs("out\n", stdout);
  std::fflush(stdout);
  std::fputs("err\n", stderr);
  return 0;
}

// 0: asked to stop; 3: the parent went away without asking; 5: no channel.
int interruptible() {
  zorvi::ConsoleInterrupt console(true);
  if (!zorvi::ConsoleInterrupt::parent_reader_attached()) return 5;
  for (int i = 0; i < 4000; ++i) {  // 20 seconds, then give up
    if (console.requested()) return 0;
    if (!zorvi::ConsoleInterrupt::parent_reader_attached()) return 3;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return 4;
}

// Plants an inherited interrupt variable and a loader variable, then
// becomes `process_probe report PATH`.
int replace(const std::string& mode, const char* path) {
  ::setenv(std::string(zorvi::launcher_interrupt_reader_environment).c_str(), "1:9", 1);
  ::setenv("LD_ZORVI_PROBE", "1", 1);
  const zorvi::EnvironmentOverrides overrides{{"ZORVI_PROBE_OVERRIDE", "replaced"}};
  try {
    const auto self = zorvi::current_executable_path();
    if (mode == "replace") zorvi::replace_process(self, {"report", path}, "/", overrides);
    zorvi::exec_process(self, {"report", path}, "/", overrides);
  } catch (const zorvi::Error& error) {
    std::fprintf(stderr, "process_probe: %s\n", error.what());
  }
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "report" && argc == 3) return report(argv[2]);
  if (mode == "interruptible") return interruptible();
  if (mode == "replace" && argc == 4) return replace(argv[2], argv[3]);
  std::fprintf(stderr, "process_probe: unknown mode\n");
  return 64;
}
