// A child for the process tests: reports what it inherited, waits for its
// parent's interrupt, or replaces itself.
#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "client/domain/error.hpp"
#include "client/domain/json.hpp"
#include "client/platform/interrupt.hpp"
#include "client/platform/process.hpp"

extern char** environ;

namespace {

using zorvi::json;

constexpr auto step = std::chrono::milliseconds(5);
constexpr int patience_steps = 4000;  // 20 seconds, then give up

json open_descriptors() {
  json list = json::array();
  DIR* directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) return list;
  const int own = ::dirfd(directory);
  while (const dirent* entry = ::readdir(directory)) {
    if (entry->d_name[0] == '.') continue;
    const int descriptor = std::atoi(entry->d_name);
    if (descriptor != own) list.push_back(descriptor);
  }
  ::closedir(directory);
  return list;
}

std::string status_line(const std::string& key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(key + ":", 0) == 0) return line.substr(key.size() + 2);
  }
  return "";
}

std::string link_of(const char* path) {
  char buffer[4096] = {};
  const ssize_t length = ::readlink(path, buffer, sizeof buffer - 1);
  return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : "";
}

int report(const char* path) {
  // Gathered before the report file adds a descriptor of its own.
  json out;
  out["descriptors"] = open_descriptors();
  out["pid"] = ::getpid();
  out["pgid"] = ::getpgrp();
  char cwd[4096] = {};
  out["cwd"] = ::getcwd(cwd, sizeof cwd) != nullptr ? cwd : "";
  out["environment"] = json::array();
  for (char** entry = environ; *entry != nullptr; ++entry) out["environment"].push_back(*entry);
  out["blocked"] = status_line("SigBlk");
  out["ignored"] = status_line("SigIgn");
  out["stdin"] = link_of("/proc/self/fd/0");
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
  for (int i = 0; i < patience_steps; ++i) {
    if (console.requested()) return 0;
    if (!zorvi::ConsoleInterrupt::parent_reader_attached()) return 3;
    std::this_thread::sleep_for(step);
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
