// Startup attempts: the durable record that one launcher version is being
// tried, its recovery after a crash, and the proof that turns it into the
// active version. The launcher never writes the state; it answers through
// the lease and health files named here.
#include "client/app/launcher_attempts.hpp"

#include <map>
#include <optional>
#include <string>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void invalid_startup_identity() { throw Error("launcher_state", "Launcher startup identity is invalid"); }

// The nonce of an attempt, proved before it names a file.
std::string attempt_nonce(const json& attempt) {
  if (!attempt.is_object() || !attempt.contains("nonce") || !attempt.at("nonce").is_string())
    invalid_startup_identity();
  std::string nonce = attempt.at("nonce").get<std::string>();
  nonce_identity(nonce);
  return nonce;
}

const json& attempt_reference(const json& attempt) {
  if (!attempt.is_object() || !attempt.contains("reference")) invalid_startup_identity();
  reference_shape(attempt.at("reference"));
  return attempt.at("reference");
}

void require_owned_attempt(const json& state, const json& attempt) {
  require(!attempt.is_null() && state.at("attempt") == attempt, "launcher_state", "Launcher startup ownership changed");
}

bool problem_code(std::string_view problem) {
  if (problem.empty() || problem.size() > max_startup_problem_bytes) return false;
  for (char c : problem) {
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-')) return false;
  }
  return true;
}

// An acknowledgement that is too large or not strict JSON is simply not the
// expected document; only a failure to read the file is an error of its own.
json acknowledgement(const fs::path& path) {
  try {
    return read_startup_document(path);
  } catch (const Error& error) {
    if (error.code == "file_read" || error.code == "unsafe_path") throw;
    return nullptr;
  }
}

}  // namespace

void interface_shape(std::string_view interface) {
  require(interface == "cli" || interface == "gui", "launcher_interface", "Choose the CLI or GUI launcher interface");
}

json lease_document(const LauncherManifest& manifest, const json& attempt, std::int64_t pid,
                    std::string_view interface) {
  json lease = manifest.startup_health(attempt, pid, interface, false);
  lease.erase("health_abi");
  lease["runtime_lease_abi"] = manifest.runtime_lease_abi;
  lease["state"] = "leased";
  return lease;
}

json read_startup_document(const fs::path& path) {
  return parse_json(read_file(path, max_startup_document_bytes), max_startup_document_bytes);
}

fs::path LauncherStore::startup_lease_path(const json& attempt) const {
  return managed("leases/attempts/" + attempt_nonce(attempt) + ".lock");
}

fs::path LauncherStore::startup_ack_path(const json& attempt) const {
  return managed("leases/attempts/" + attempt_nonce(attempt) + ".json");
}

fs::path LauncherStore::health_path(const json& attempt) const {
  return managed("health/" + attempt_nonce(attempt) + ".json");
}

void LauncherStore::recover_attempt() const {
  json state = load();
  if (state.at("attempt").is_null()) return;
  const json attempt = state.at("attempt");
  // The attempt's processes hold its lease shared for as long as they live;
  // the exclusive lock is free only once the last of them is gone.
  std::optional<FileLock> lease;
  try {
    lease.emplace(startup_lease_path(attempt), false, LockMode::exclusive);
  } catch (const Error& error) {
    if (error.code != "busy") throw;
    throw Error("launcher_running",
                "The unfinished launcher is still using its startup attempt; close it before restarting",
                {"self status"});
  }
  state["failed_candidate"] = {{"reference", attempt.at("reference")}, {"problem", startup_interrupted}};
  state["attempt"] = nullptr;
  save(state);
}

json LauncherStore::begin_candidate() const {
  json state = load();
  require(state.at("attempt").is_null(), "busy", "Another launcher startup needs recovery");
  if (state.at("candidate").is_null()) return nullptr;
  json attempt = {{"nonce", random_id()}, {"reference", state.at("candidate")}};
  nonce_identity(attempt.at("nonce").get<std::string>());
  state["candidate"] = nullptr;
  state["attempt"] = attempt;
  save(state);
  return attempt;
}

FileLock LauncherStore::version_guard(const json& reference, LockMode mode) const {
  require(!reference.is_null(), "launcher_missing", "No launcher version was selected");
  reference_shape(reference);
  if (mode == LockMode::exclusive) {
    // Removal needs the contract: a version whose manifest cannot be read is
    // kept, since nothing proves which of its files are its own.
    try {
      manifest(reference);
    } catch (const Error&) {
      throw Error("launcher_recovery_uncertain", "This launcher version has an unknown contract; preserve its content");
    }
  }
  return FileLock(managed("leases/versions/" + reference.at("manifest_sha256").get<std::string>() + ".lock"), false,
                  mode);
}

std::map<std::string, std::string> LauncherStore::health_environment(const json& attempt,
                                                                     std::string_view interface) const {
  interface_shape(interface);
  health_path(attempt);
  const json& reference = attempt_reference(attempt);
  return {{std::string(launcher_health_nonce_variable), attempt.at("nonce").get<std::string>()},
          {std::string(launcher_manifest_variable), reference.at("manifest_sha256").get<std::string>()},
          {std::string(launcher_build_variable), reference.at("build_id").get<std::string>()},
          {std::string(launcher_interface_variable), std::string(interface)},
          {std::string(launcher_data_root_variable), path_utf8(root_)}};
}

// Cheap identity checks come first; the walk over every file of the version
// comes last, while the launcher is running from them.
void LauncherStore::confirm_candidate(const json& attempt, const json& health, std::int64_t pid,
                                      std::string_view interface) const {
  interface_shape(interface);
  require(pid > 0, "launcher_health", "Startup PID is invalid");
  json state = load();
  require_owned_attempt(state, attempt);
  const json& reference = attempt_reference(attempt);
  const LauncherManifest release = manifest(reference);
  require(release.matches_startup_health(health, attempt, pid, interface, interface == "cli"), "launcher_health",
          "Launcher health does not match its build, process, mode, interrupt contract and attempt");
  const fs::path ack = startup_ack_path(attempt);
  require(entry_present(ack), "launcher_lease", "Launcher startup did not acknowledge native content ownership");
  require(acknowledgement(ack) == lease_document(release, attempt, pid, interface), "launcher_lease",
          "Launcher lease acknowledgement does not match its build, process, mode and attempt");
  verify_snapshot_tree(release.snapshot, payload(reference), {});

  state["rollback"] = state.at("active");
  state["active"] = reference;
  state["attempt"] = nullptr;
  state["failed_candidate"] = nullptr;
  save(state);
}

void LauncherStore::reject_candidate(const json& attempt, std::string_view problem) const {
  require(problem_code(problem), "launcher_state", "Launcher startup problem code is invalid");
  json state = load();
  require_owned_attempt(state, attempt);
  state["failed_candidate"] = {{"reference", attempt.at("reference")}, {"problem", problem}};
  state["attempt"] = nullptr;
  save(state);
}

}  // namespace zorvi
