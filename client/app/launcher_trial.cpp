#include "client/app/launcher_trial.hpp"

#include <chrono>
#include <memory>
#include <thread>

#include "client/app/launcher.hpp"
#include "client/app/launcher_attempts.hpp"
#include "client/app/launcher_bootstrap.hpp"
#include "client/domain/error.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/process.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds startup_poll{10};
constexpr milliseconds lease_poll{5};
constexpr milliseconds lease_grace{100};
constexpr milliseconds parent_poll{20};

ChildProcess start_child(const LauncherStore& store, const json& attempt, const LauncherManifest& manifest,
                         const fs::path& payload, const CandidateStart& start) {
  const bool cli = start.interface == "cli";
  const fs::path entry = safe_join(payload, cli ? manifest.snapshot.executable : manifest.gui_executable, true);
  return ChildProcess(entry, launcher_arguments(start.data_dir, start.forwarded), payload,
                      store.health_environment(attempt, start.interface),
                      cli ? ChildStreams::Console : ChildStreams::Separated, ChildEnvironment::Inherited, {},
                      cli ? ChildGroup::Isolated : ChildGroup::Shared,
                      cli ? ChildControl::Interrupt : ChildControl::NoControl);
}

void pass_interrupt(ChildProcess& child, const CandidateStart& start) {
  if (start.interrupted && start.interrupted()) child.request_interrupt();
}

void await_health(ChildProcess& child, const fs::path& health, Clock::time_point deadline,
                  const CandidateStart& start) {
  for (;;) {
    pass_interrupt(child, start);
    if (entry_present(health)) return;
    require(!child.poll(), "launcher_startup_failed", "Launcher candidate exited before initialization");
    require(Clock::now() < deadline, "launcher_startup_timeout", "Launcher candidate did not confirm initialization");
    std::this_thread::sleep_for(startup_poll);
  }
}

// The launcher must still hold its own shared lease on the attempt, or it
// may not run on with the authority of a confirmed version. One that has
// already ended was entitled to let it go.
void require_retained_lease(ChildProcess& child, const fs::path& lease, Clock::time_point deadline) {
  if (child.poll()) return;
  try {
    FileLock probe(lease, false, LockMode::exclusive);
  } catch (const Error& error) {
    if (error.code == "busy") return;
    throw;
  }
  const Clock::time_point limit = std::min(Clock::now() + lease_grace, deadline);
  while (!child.poll() && Clock::now() < limit) std::this_thread::sleep_for(lease_poll);
  require(child.poll().has_value(), "launcher_lease", "The running launcher did not retain native startup ownership");
}

// Everything between the attempt and its confirmation. The version guard is
// released on return, before the caller drops owner().
void confirm_trial(const LauncherStore& store, const json& attempt, std::optional<ChildProcess>& child,
                   const CandidateStart& start) {
  const std::int64_t limit = start.nothing_active ? first_launcher_startup_ms : start.startup_limit_ms;
  const json& reference = attempt.at("reference");
  const LauncherManifest manifest = store.manifest(reference);
  const fs::path payload = store.payload(reference);
  const FileLock guard = store.version_guard(reference, LockMode::shared);
  auto lease = std::make_unique<FileLock>(store.startup_lease_path(attempt), false, LockMode::shared);
  verify_snapshot_tree(manifest.snapshot, payload, {});
  child.emplace(start_child(store, attempt, manifest, payload, start));
  const Clock::time_point deadline = Clock::now() + milliseconds(limit);
  await_health(*child, store.health_path(attempt), deadline, start);
  const json health = read_startup_document(store.health_path(attempt));
  lease.reset();  // our own shared hold would hide whether the launcher still has one
  require_retained_lease(*child, store.startup_lease_path(attempt), deadline);
  store.confirm_candidate(attempt, health, static_cast<std::int64_t>(child->pid()), start.interface);
}

int stay_as_parent(ChildProcess& child, const CandidateStart& start) {
  while (!child.poll()) {
    pass_interrupt(child, start);
    std::this_thread::sleep_for(parent_poll);
  }
  const int code = *child.exit_code();
  return code >= 0 && code < 256 ? code : 1;
}

}  // namespace

std::optional<int> run_candidate(const CandidateStart& start) {
  const LauncherStore store(start.data_dir);
  std::optional<ChildProcess> child;
  {
    const FileLock owner = store.owner();
    store.recover_attempt();
    const json attempt = store.begin_candidate();
    if (attempt.is_null()) return std::nullopt;
    try {
      confirm_trial(store, attempt, child, start);
    } catch (const std::exception&) {
      const bool certain = !child || child->terminate(candidate_terminate_grace_ms);
      store.reject_candidate(attempt, certain ? startup_failed : startup_unconfirmed);
      require(certain, "launcher_startup_timeout",
              "Launcher candidate exit is unconfirmed; the working launcher remains selected");
      if (store.status().at("active").is_null()) throw;
      return std::nullopt;
    }
  }
  return stay_as_parent(*child, start);
}

}  // namespace zorvi
