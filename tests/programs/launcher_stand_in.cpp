// A launcher version for the bootstrap's tests. It appends "trial|exec
// VERSION-DIR ARGS..." to ZORVI_TEST_LAUNCHER_LOG ("exec cleared" when the
// startup variables reached it empty). Outside a trial it exits 5; under
// trial ZORVI_TEST_LAUNCHER chooses: "healthy" reports after 300 ms and exits
// 7 soon after, "quick" reports and exits 0 at once, "exit" exits 3 at once,
// "silent" never reports, "drop" reports and lets its lease go, "lie"
// reports another process id; the last three run on until killed.
#include "client/app/launcher_attempts.hpp"
#include "client/platform/files.hpp"
#include "client/platform/process.hpp"
#include "tests/programs/program.hpp"

using namespace zorvi;

static std::string variable(const char* name) { return std::getenv(name) ? std::getenv(name) : ""; }

static void pause_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

static int trial(const std::string& mode) {
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
  if (mode == "healthy") pause_ms(300);
  const bool console = std::getenv("ZORVI_LAUNCHER_INTERRUPT_READER") != nullptr;
  // Let go before the report: after it, the bootstrap may test the lease at once.
  if (mode == "drop") lease.reset();
  if (mode != "silent")
    atomic_create(store.health_path(attempt),
                  manifest.startup_health(attempt, mode == "lie" ? pid + 1 : pid, interface, console).dump());
  if (mode == "quick") return 0;
  if (mode == "healthy") return pause_ms(200), 7;
  for (;;) pause_ms(1000);
}

int main(int argc, char** argv) {
  const bool under_trial = !variable("ZORVI_LAUNCHER_HEALTH_NONCE").empty();
  std::ofstream log(variable("ZORVI_TEST_LAUNCHER_LOG"), std::ios::app);
  log << (under_trial ? "trial " : "exec ") << current_executable_path().parent_path().parent_path().filename().string()
      << (!under_trial && std::getenv("ZORVI_LAUNCHER_HEALTH_NONCE") ? " cleared" : "");
  for (int index = 1; index < argc; ++index) log << ' ' << argv[index];
  log << std::endl;
  return under_trial ? trial(variable("ZORVI_TEST_LAUNCHER")) : 5;
}
