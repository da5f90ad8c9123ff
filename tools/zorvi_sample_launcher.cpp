// A sample launcher, packed into launcher releases by tests and benchmarks.
// It does what a real launcher must do first: create its LauncherRuntime,
// report health once usable, and confirm a windowed start. It knows its
// interface from its file name ("zorvi-gui" is the windowed one) and its
// build from the file "build-id" at the root of its version's tree.
//
// It appends "trial|start BUILD INTERFACE ARGS..." to ZORVI_SAMPLE_LAUNCHER_LOG
// as the first thing in main. Under a trial, ZORVI_SAMPLE_LAUNCHER may choose
// a misbehaviour: "crash" aborts after attaching, "hang" never reports and
// runs until killed, "exit" exits 3 before attaching, "silent" attaches and
// exits 0 without a report, "lie" reports another process's id and runs on.
// A good start exits with ZORVI_SAMPLE_LAUNCHER_STATUS (0 when unset).
//
// Two commands make it a client one can update: "self update" refreshes the
// data folder's repository (repository.json, trust/) and stages a newer
// launcher release as the candidate; "self status" prints the launcher state.
// Both print one JSON line.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "client/app/launcher_attempts.hpp"
#include "client/app/launcher_bootstrap.hpp"
#include "client/app/launcher_runtime.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/interrupt.hpp"
#include "client/platform/process.hpp"
#include "client/transport/https.hpp"
#include "client/tuf/tuf.hpp"

namespace {

namespace fs = std::filesystem;

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

[[noreturn]] void run_until_killed() {
  for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
}

// Writes a health document that names the parent instead of this process.
void report_falsely(const zorvi::LauncherRuntime& runtime) {
  const zorvi::LauncherStore store = zorvi::LauncherStore::for_launch(runtime.data_dir());
  const zorvi::json& attempt = runtime.attempt();
  const zorvi::LauncherManifest manifest = store.manifest(attempt.at("reference"));
  const zorvi::json health = manifest.startup_health(attempt, ::getppid(), runtime.interface(), false);
  zorvi::atomic_create(store.health_path(attempt), health.dump());
}

// Stages the repository's launcher release, as a running client does in the background.
zorvi::json self_update(const fs::path& data_dir) {
  const zorvi::json settings = zorvi::parse_json(zorvi::read_file(data_dir / "repository.json", 65536), 65536);
  const std::string origin = settings.at("origin").get<std::string>();
  const fs::path ca_bundle = zorvi::path_from_utf8(settings.at("ca_bundle").get<std::string>());
  zorvi::HttpsTransport metadata(origin + "/tuf/metadata/", ca_bundle, 0, nullptr);
  zorvi::HttpsTransport targets(origin + "/tuf/targets/", ca_bundle, 0, nullptr);
  zorvi::TufClient tuf(data_dir / "trust", metadata, targets, {1 << 20, 1 << 16, 1 << 22, 8, 8}, {});
  tuf.refresh();
  return zorvi::LauncherStore(data_dir).stage(tuf, {}, {}, true);
}

std::string build_id() {
  std::string build = zorvi::read_file(zorvi::current_executable_path().parent_path().parent_path() / "build-id", 64);
  if (!build.empty() && build.back() == '\n') build.pop_back();
  return build;
}

int run(int argc, char** argv) {
  const fs::path image = zorvi::current_executable_path();
  const std::string interface = image.filename() == "zorvi-gui" ? "gui" : "cli";
  const bool trial = zorvi::launcher_startup_pending();
  const std::string mode = trial ? variable("ZORVI_SAMPLE_LAUNCHER") : "";
  if (argc < 3 || std::string_view(argv[1]) != "--data-dir") throw zorvi::Error("usage", "Expected --data-dir first");
  const fs::path data_dir = argv[2];
  if (mode == "exit") return 3;

  const std::string build = build_id();
  const std::unique_ptr<zorvi::LauncherRuntime> runtime = zorvi::LauncherRuntime::attach(interface, build, data_dir);
  if (mode == "crash") std::abort();
  if (mode == "hang") run_until_killed();
  if (mode == "silent") return 0;
  if (mode == "lie") {
    report_falsely(*runtime);
    run_until_killed();
  }
  zorvi::report_launcher_health(runtime.get());
  if (interface == "gui") zorvi::confirm_launcher_start(data_dir);
  const std::vector<std::string_view> command(argv + 3, argv + argc);
  if (command == std::vector<std::string_view>{"self", "update"})
    std::cout << self_update(data_dir).dump() << std::endl;
  if (command == std::vector<std::string_view>{"self", "status"})
    std::cout << zorvi::LauncherStore::existing(data_dir).status().dump() << std::endl;
  const std::string status = variable("ZORVI_SAMPLE_LAUNCHER_STATUS");
  return status.empty() ? 0 : std::atoi(status.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (const std::string log = variable("ZORVI_SAMPLE_LAUNCHER_LOG"); !log.empty()) {
      std::ofstream out(log, std::ios::app);
      out << (zorvi::launcher_startup_pending() ? "trial " : "start ") << build_id();
      for (int index = 1; index < argc; ++index) out << ' ' << argv[index];
      out << std::endl;
    }
    return run(argc, argv);
  } catch (const zorvi::Error& error) {
    std::fprintf(stderr, "zorvi: %s: %s\n", error.code.c_str(), error.what());
  }
  return 1;
}
