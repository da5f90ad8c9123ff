// The first thing a launcher or helper does: prove which stored version it
// runs from, hold that version's files in place for the rest of its life and,
// under trial, answer the bootstrap's handshake.
#include "client/app/launcher_runtime.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "client/app/install_guards.hpp"
#include "client/app/launcher.hpp"
#include "client/app/launcher_attempts.hpp"
#include "client/app/maintenance_image.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/interrupt.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/process.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

// Calls `visit` with each folder above `image`, nearest first, and stops when
// it returns true; a deeper path than the bound is refused, not cut short.
template <typename Visit>
void walk_ancestry(const fs::path& image, Visit visit) {
  fs::path folder = image.parent_path();
  for (std::size_t level = 0; folder.has_relative_path(); ++level, folder = folder.parent_path()) {
    require(level < max_image_ancestry, "launcher_identity", "Native executable ancestry exceeds its bound");
    if (visit(folder)) return;
  }
}

std::string name_of(const fs::path& folder) { return path_utf8(folder.filename()); }

std::string startup_variable(std::string_view name) {
  return process_environment(std::string(name), max_startup_variable_bytes).value_or("");
}

bool same_file(const fs::path& first, const fs::path& second) {
  std::error_code error;
  return fs::equivalent(first, second, error) && !error;
}

// The trial this process was started for, proved to be meant for this very
// build, interface and data directory.
json trial_attempt(const std::string& nonce, std::string_view interface, std::string_view build_id,
                   const fs::path& data_dir) {
  nonce_identity(nonce);
  const std::string root = startup_variable(launcher_data_root_variable);
  const bool matches = !root.empty() && same_file(ordinary_data_dir(path_from_utf8(root)), data_dir) &&
                       startup_variable(launcher_build_variable) == build_id &&
                       startup_variable(launcher_interface_variable) == interface;
  require(matches, "launcher_health", "Launcher startup does not match this build, interface or data root");
  json reference = launcher_reference(startup_variable(launcher_manifest_variable), std::string(build_id));
  reference_shape(reference);
  return {{"nonce", nonce}, {"reference", std::move(reference)}};
}

const std::string& entry_point(const LauncherManifest& manifest, std::string_view interface) {
  return interface == "cli" ? manifest.snapshot.executable : manifest.gui_executable;
}

// The version's own record of its build, read before any lock is taken so
// that a helper of another build never holds this version's guard.
void require_stored_build(const LauncherStore& store, const std::string& manifest_sha256, std::string_view build_id) {
  json document;
  try {
    const fs::path path = safe_join(store.launcher_directory(), "manifests/" + manifest_sha256 + ".json", true);
    document = parse_json(read_file(path, max_launcher_manifest_bytes), max_launcher_manifest_bytes);
  } catch (const Error&) {
    document = nullptr;
  }
  const bool matches = document.is_object() && document.contains("build_id") && document["build_id"].is_string() &&
                       document["build_id"].get_ref<const std::string&>() == build_id;
  require(matches, "launcher_identity", "Native helper has no bounded launcher identity");
}

// The declared helper path that `image` is, for this role.
std::string declared_helper(const LauncherManifest& manifest, const fs::path& payload, const fs::path& image,
                            std::string_view role) {
  for (const auto& [path, declared_role] : manifest.helpers) {
    if (declared_role == role && same_file(safe_join(payload, path, true), image)) return path;
  }
  throw Error("launcher_identity", "Running helper image differs from its declared native role");
}

// The launcher's answer that it holds its leases; after it, nothing this
// process starts inherits the authority of the trial.
void acknowledge_trial(const LauncherStore& store, const LauncherManifest& manifest, const json& attempt,
                       std::string_view interface) {
  require(store.status().at("attempt") == attempt, "launcher_health",
          "Launcher startup is no longer pending or cannot protect its content");
  atomic_create(store.startup_ack_path(attempt), lease_document(manifest, attempt, ::getpid(), interface).dump());
  for (std::string_view name : launcher_startup_variables) {
    require(::unsetenv(std::string(name).c_str()) == 0, "launcher_health",
            with_errno("Cannot clear launcher startup authority", errno));
  }
}

void require_helper_content(const LauncherManifest& manifest, const std::string& path, const fs::path& image) {
  const PackageFile& declared = manifest.snapshot.files.at(path);
  std::error_code error;
  const std::uintmax_t size = fs::file_size(image, error);
  const bool same = !error && size == declared.length && digest_file(image, "sha256") == declared.sha256;
  require(same, "content_mismatch", "Native helper image differs from its verified launcher inventory");
}

}  // namespace

void reject_staged_image(const fs::path& image) {
  require_maintenance_runtime_image(image);
  require_complete_native_install_image(image);
  walk_ancestry(image, [](const fs::path& folder) {
    const bool staged = name_of(folder) == "staging" && name_of(folder.parent_path()) == "launcher";
    require(!staged, "launcher_staging", "A staged Zorvi image cannot initialize; start the installed bootstrap",
            {"self status"});
    return false;
  });
}

std::optional<ManagedVersion> managed_version(const fs::path& image) {
  std::optional<ManagedVersion> found;
  walk_ancestry(image, [&](const fs::path& folder) {
    const std::string name = name_of(folder);
    const fs::path versions = folder.parent_path();
    if (name.size() != 64 || name_of(versions) != "versions" || name_of(versions.parent_path()) != "launcher")
      return false;
    // Only the store names version folders, and always by a lower-case
    // digest: another name in their place is a damaged store, not an
    // unmanaged image.
    require(is_lower_hex(name, 64), "launcher_state", "Launcher manifest identity is invalid");
    found = ManagedVersion{LauncherStore::for_launch(versions.parent_path().parent_path()).root(), name};
    return true;
  });
  return found;
}

bool launcher_startup_pending() { return !startup_variable(launcher_health_nonce_variable).empty(); }

LauncherRuntime::LauncherRuntime(fs::path data_dir, json attempt, std::string interface, json reference)
    : data_dir_(std::move(data_dir)),
      attempt_(std::move(attempt)),
      interface_(std::move(interface)),
      reference_(std::move(reference)) {}

std::unique_ptr<LauncherRuntime> LauncherRuntime::attach(std::string_view interface, std::string_view build_id,
                                                         const fs::path& data_dir) {
  interface_shape(interface);
  validate_identifier(build_id);
  const fs::path root = ordinary_data_dir(data_dir);
  const fs::path image = current_executable_path();
  reject_staged_image(image);

  json attempt = nullptr, reference;
  const std::string nonce = startup_variable(launcher_health_nonce_variable);
  if (!nonce.empty()) {
    attempt = trial_attempt(nonce, interface, build_id, root);
    reference = attempt.at("reference");
  } else {
    const std::optional<ManagedVersion> version = managed_version(image);
    if (!version) return nullptr;
    reference = launcher_reference(version->manifest_sha256, std::string(build_id));
  }

  const LauncherStore store = LauncherStore::for_launch(root);
  // Held locally until the runtime is complete: a failed start lets its
  // leases go at once instead of keeping them until the process ends.
  std::unique_ptr<FileLock> lease;
  if (!attempt.is_null()) lease.reset(new FileLock(store.startup_lease_path(attempt), false, LockMode::shared));
  std::unique_ptr<FileLock> guard(new FileLock(store.version_guard(reference, LockMode::shared)));
  const LauncherManifest manifest = store.manifest(reference);
  const fs::path payload = store.payload(reference);
  require(same_file(safe_join(payload, entry_point(manifest, interface), true), image), "launcher_identity",
          "Running launcher image differs from its verified native entry point");
  if (!attempt.is_null()) acknowledge_trial(store, manifest, attempt, interface);

  std::unique_ptr<LauncherRuntime> runtime(
      new LauncherRuntime(store.root(), attempt, std::string(interface), reference));
  runtime->attempt_lease_ = std::move(lease);
  runtime->version_guard_ = std::move(guard);
  return runtime;
}

LauncherRuntime::~LauncherRuntime() {
  // The launcher's files stay in use until the very end of the process, so
  // only its exit lets the leases go.
  if (attempt_lease_) attempt_lease_->retain_until_process_exit();
  if (version_guard_) version_guard_->retain_until_process_exit();
}

void LauncherRuntime::report_health() {
  if (attempt_.is_null() || reported_) return;
  require(attempt_lease_ && version_guard_, "launcher_health", "Launcher startup health needs its live native leases");
  const LauncherStore store(data_dir_, true);
  require(store.status().at("attempt") == attempt_, "launcher_health", "Launcher startup attempt is no longer pending");
  const LauncherManifest manifest = store.manifest(reference_);
  const json health =
      manifest.startup_health(attempt_, ::getpid(), interface_, ConsoleInterrupt::parent_reader_attached());
  atomic_create(store.health_path(attempt_), health.dump());
  reported_ = true;
}

void report_launcher_health(LauncherRuntime* runtime) {
  if (runtime != nullptr) runtime->report_health();
}

LauncherHelperRuntime::LauncherHelperRuntime(std::unique_ptr<FileLock> guard) : guard_(std::move(guard)) {}

LauncherHelperRuntime::~LauncherHelperRuntime() {
  if (guard_) guard_->retain_until_process_exit();
}

std::unique_ptr<LauncherHelperRuntime> LauncherHelperRuntime::attach(std::string_view role, std::string_view build_id) {
  validate_identifier(build_id);
  return std::unique_ptr<LauncherHelperRuntime>(
      new LauncherHelperRuntime(launcher_helper_guard(current_executable_path(), role, build_id)));
}

std::unique_ptr<FileLock> launcher_helper_guard(const fs::path& image, std::string_view role,
                                                std::string_view build_id) {
  require(role == helper_role_crash_handler || role == helper_role_maintenance || role == helper_role_maintenance_gui,
          "launcher_helper", "Unsupported native helper role");
  validate_identifier(build_id);
  std::error_code followed, unfollowed;
  const bool physical = image.has_root_directory() && fs::is_regular_file(fs::status(image, followed)) &&
                        fs::is_regular_file(fs::symlink_status(image, unfollowed)) && !followed && !unfollowed;
  require(physical, "launcher_identity", "Native helper image must be an ordinary physical path");
  reject_staged_image(image);
  const std::optional<ManagedVersion> version = managed_version(image);
  if (!version) return nullptr;

  const LauncherStore store(version->data_dir, true);
  require_stored_build(store, version->manifest_sha256, build_id);
  const json reference = launcher_reference(version->manifest_sha256, std::string(build_id));
  std::unique_ptr<FileLock> guard(new FileLock(store.version_guard(reference, LockMode::shared)));
  const LauncherManifest manifest = store.manifest(reference);
  const std::string path = declared_helper(manifest, store.payload(reference), image, role);
  require_helper_content(manifest, path, image);
  return guard;
}

}  // namespace zorvi
