// Stands in for a launcher version in the bootstrap's tests. Under trial
// (ZORVI_LAUNCHER_HEALTH_NONCE set) it behaves as ZORVI_TEST_LAUNCHER says:
//   healthy   leases, acknowledgement, health, then exits 7 a moment later
//   slow      the same after 300 ms of silence
//   quick     leases, acknowledgement, health, exits 0 at once
//   crash     aborts first thing
//   exit      exits 3 without a word
//   silent    leases and acknowledgement, never reports, runs on
//   drop      reports health, then lets its attempt lease go and runs on
//   lie       reports health under another process id and runs on
// Started outside a trial it exits 5. Either way it first appends one line to
// ZORVI_TEST_LAUNCHER_LOG: "trial|exec VERSION-DIR ARGS...", with "cleared"
// after "exec" when the startup variables reached it empty.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "client/app/launcher.hpp"
#include "client/app/launcher_attempts.hpp"
#include "client/platform/files.hpp"
#include "client/platform/process.hpp"

namespace {

using namespace zorvi;

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

void log_start(bool trial, int argc, char** argv) {
  std::ofstream log(variable("ZORVI_TEST_LAUNCHER_LOG"), std::ios::app);
  log << (trial ? "trial " : "exec ") << current_executable_path().parent_path().parent_path().filename().string();
  if (!trial && std::getenv("ZORVI_LAUNCHER_HEALTH_NONCE") != nullptr) log << " cleared";
  for (int index = 1; index < argc; ++index) log << ' ' << argv[index];
  log << '\n';
}

[[noreturn]] void run_on() {
  for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
}

int trial(const std::string& mode) {
  if (mode == "crash") std::abort();
  if (mode == "exit") return 3;
  const LauncherStore store = LauncherStore::for_launch(variable("ZORVI_LAUNCHER_DATA_ROOT"));
  const json reference = launcher_reference(variable("ZORVI_LAUNCHER_MANIFEST"), variable("ZORVI_LAUNCHER_BUILD"));
  const json attempt{{"nonce", variable("ZORVI_LAUNCHER_HEALTH_NONCE")}, {"reference", reference}};
  const std::string interface = variable("ZORVI_LAUNCHER_INTERFACE");
  const LauncherManifest manifest = store.manifest(reference);
  auto lease = std::make_unique<FileLock>(store.startup_lease_path(attempt), false, LockMode::shared);
  const FileLock guard = store.version_guard(reference, LockMode::shared);
  const std::int64_t pid = ::getpid();
  atomic_create(store.startup_ack_path(attempt), lease_document(manifest, attempt, pid, interface).dump());
  if (mode == "silent") run_on();
  if (mode == "slow") std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const bool console = std::getenv("ZORVI_LAUNCHER_INTERRUPT_READER") != nullptr;
  const json health = manifest.startup_health(attempt, mode == "lie" ? pid + 1 : pid, interface, console);
  atomic_create(store.health_path(attempt), health.dump());
  if (mode == "quick") return 0;
  if (mode == "drop") lease.reset();
  if (mode == "drop" || mode == "lie") run_on();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  return 7;
}

}  // namespace

int main(int argc, char** argv) {
  const bool under_trial = !variable("ZORVI_LAUNCHER_HEALTH_NONCE").empty();
  log_start(under_trial, argc, argv);
  return under_trial ? trial(variable("ZORVI_TEST_LAUNCHER")) : 5;
}
