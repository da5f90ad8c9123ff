#include "client/app/maintenance_runtime.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "client/app/cli_entry.hpp"
#include "client/app/launcher_attempts.hpp"
#include "client/app/launcher_runtime.hpp"
#include "client/app/native_install.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/tree.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view copy_folder_prefix = "zorvi-maintenance-";
constexpr auto ready_poll = std::chrono::milliseconds(10);
constexpr unsigned silent_helper_grace_ms = 250;

std::string maintenance_variable(std::string_view name) {
  return process_environment(std::string(name), max_maintenance_variable_bytes).value_or("");
}

bool same_file(const fs::path& first, const fs::path& second) {
  std::error_code error;
  return fs::equivalent(first, second, error) && !error;
}

bool intact_file(const fs::path& path, const PackageFile& declared) {
  std::error_code error;
  if (!fs::is_regular_file(fs::symlink_status(path, error)) || error) return false;
  return fs::file_size(path, error) == declared.length && !error && digest_file(path, "sha256") == declared.sha256;
}

// A copy is only ever the running image, alone in a folder of its own kind:
// the destructor removes that folder, so no other place may be named.
bool genuine_copy(const fs::path& copy, const fs::path& image) {
  std::error_code error;
  const fs::path normal = fs::weakly_canonical(copy, error);
  return !error && copy.has_root_directory() && normal == image &&
         path_utf8(normal.parent_path().filename()).starts_with(copy_folder_prefix);
}

// Runs `work` with the store, the reference and the manifest of the version
// this process's own image belongs to, while that version is held.
template <typename Work>
auto with_own_version(const fs::path& data_dir, std::string_view build_id, const char* unmanaged, Work work) {
  const fs::path image = current_executable_path();
  reject_staged_image(image);
  const std::optional<ManagedVersion> version = managed_version(image);
  require(version.has_value(), "maintenance_unavailable", unmanaged);
  const LauncherStore store(data_dir);
  const FileLock owner = store.owner();
  const json reference = launcher_reference(version->manifest_sha256, std::string(build_id));
  const FileLock guard = store.version_guard(reference, LockMode::shared);
  return work(store, reference, store.manifest(reference), image);
}

}  // namespace

MaintenanceRuntime::MaintenanceRuntime(fs::path helper, fs::path copy, fs::path ready, bool owned)
    : helper_(std::move(helper)), copy_(std::move(copy)), ready_(std::move(ready)), owned_(owned) {}

MaintenanceRuntime::~MaintenanceRuntime() { release(); }

MaintenanceRuntime::MaintenanceRuntime(MaintenanceRuntime&& other) noexcept
    : helper_(std::move(other.helper_)),
      copy_(std::move(other.copy_)),
      ready_(std::move(other.ready_)),
      owned_(std::exchange(other.owned_, false)) {}

MaintenanceRuntime& MaintenanceRuntime::operator=(MaintenanceRuntime&& other) noexcept {
  if (this != &other) {
    release();
    helper_ = std::move(other.helper_);
    copy_ = std::move(other.copy_);
    ready_ = std::move(other.ready_);
    owned_ = std::exchange(other.owned_, false);
  }
  return *this;
}

void MaintenanceRuntime::release() noexcept {
  if (!owned_) return;
  owned_ = false;
  native_files::remove_after_exit(copy_);
  remove_path_quietly(copy_.parent_path());
}

MaintenanceRuntime MaintenanceRuntime::prepare(const LauncherStore& store, const json& reference,
                                               std::string_view role) {
  const LauncherManifest manifest = store.manifest(reference);
  const auto helper = std::find_if(manifest.helpers.begin(), manifest.helpers.end(),
                                   [&](const auto& entry) { return entry.second == role; });
  require(helper != manifest.helpers.end(), "maintenance_unavailable",
          "This Zorvi version has no " + std::string(role) + " helper; use the Zorvi installer to uninstall");
  const fs::path path = safe_join(store.payload(reference), helper->first, true);
  require(intact_file(path, manifest.snapshot.files.at(helper->first)), "content_mismatch",
          "The maintenance helper is damaged; run the Zorvi installer to repair it");
  return MaintenanceRuntime(path, {}, {}, false);
}

std::optional<MaintenanceRuntime> MaintenanceRuntime::attach(std::string_view role, std::string_view build_id) {
  const std::string copy = maintenance_variable(maintenance_copy_variable);
  const std::string ready = maintenance_variable(maintenance_ready_variable);
  const fs::path image = current_executable_path();
  if (!copy.empty()) {
    require(genuine_copy(path_from_utf8(copy), image), "maintenance_copy", "Maintenance helper copy path is invalid");
    return MaintenanceRuntime(image, image, ready.empty() ? fs::path() : path_from_utf8(ready), true);
  }
  // The guard proves the image and is let go at once: the removal this
  // helper is about to run must find every version lease free, its own
  // included. The running image stays mapped whatever becomes of its file.
  if (!launcher_helper_guard(image, role, build_id)) return std::nullopt;
  return MaintenanceRuntime(image, {}, ready.empty() ? fs::path() : path_from_utf8(ready), false);
}

EnvironmentOverrides MaintenanceRuntime::environment() const {
  EnvironmentOverrides overrides;
  for (std::string_view name : launcher_startup_variables) overrides.emplace(name, "");
  overrides.emplace(maintenance_copy_variable, path_utf8(copy_));
  overrides.emplace(maintenance_ready_variable, path_utf8(ready_));
  return overrides;
}

void MaintenanceRuntime::replace(const std::vector<std::string>& arguments) const {
  replace_process(helper_, arguments, helper_.parent_path(), environment());
}

ChildProcess MaintenanceRuntime::launch_console(const std::vector<std::string>& arguments) const {
  return ChildProcess(helper_, arguments, helper_.parent_path(), environment(), ChildStreams::Console,
                      ChildEnvironment::Inherited);
}

namespace {

// The per-user folder that holds the ready file. The shared /tmp is not one:
// a private file there would first make /tmp itself private (or be refused
// when root owns it), so the session's runtime folder serves, else a private
// "zorvi-<uid>" folder below the temporary directory.
fs::path ready_directory() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const fs::path directory = runtime != nullptr && runtime[0] == '/'
                                 ? fs::path(runtime)
                                 : fs::temp_directory_path() / ("zorvi-" + std::to_string(::geteuid()));
  private_directory(directory);
  return directory;
}

}  // namespace

ChildProcess MaintenanceRuntime::launch_gui(const std::vector<std::string>& arguments,
                                            std::chrono::milliseconds limit) {
  ready_ = ready_directory() / (std::string(maintenance_ready_prefix) + random_id());
  ChildProcess child(helper_, arguments, helper_.parent_path(), environment(), ChildStreams::Separated,
                     ChildEnvironment::Inherited);
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    // The end is looked at before the file: a helper that reported and then
    // ended between the two looks still counts as ready.
    const bool ended = child.poll().has_value();
    if (entry_present(ready_)) {
      remove_path_quietly(ready_);
      return child;
    }
    if (ended || std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(ready_poll);
  }
  child.terminate(silent_helper_grace_ms);
  remove_path_quietly(ready_);  // a report that came too late
  throw Error("maintenance_startup", "The uninstall window did not open");
}

void MaintenanceRuntime::report_ready() const {
  if (!ready_.empty()) atomic_write(ready_, "ready");
}

std::vector<std::string> maintenance_arguments(const std::vector<std::string>& forwarded, const fs::path& data_dir) {
  const std::vector<std::string> words = without_json(forwarded);
  if (words.size() < 2 || words[0] != "self" || words[1] != "uninstall") return {};
  require(words.size() == 2 || (words.size() == 3 && words[2] == "--remove-data"), "usage",
          "Use self uninstall [--remove-data]");
  // The helper starts in its own folder, so a relative directory would name another place.
  std::vector<std::string> arguments{"self", "uninstall", "--data-dir",
                                     path_utf8(fs::absolute(data_dir).lexically_normal())};
  if (words.size() == 3) arguments.push_back(words[2]);
  return arguments;
}

json native_maintenance_control(const fs::path& data_dir, const std::vector<std::string>& arguments,
                                const std::function<bool()>& interrupted) {
  // Shortcut work is short and never waits: there is no point at which to stop.
  static_cast<void>(interrupted);
  const std::vector<std::string> words = without_json(arguments);
  if (words.size() < 2 || words[0] != "self" || words[1] != "shortcut") return nullptr;
  const auto clean_game = [&] {
    try {
      validate_identifier(words[4]);
      return true;
    } catch (const Error&) {
      return false;
    }
  };
  const bool create = words.size() >= 3 && words[2] == "create";
  if (create && (words.size() == 3 || (words.size() == 5 && words[3] == "--game" && clean_game()))) {
    const json created = NativeInstaller::create_shortcut(data_dir, words.size() == 5 ? words[4] : "", {}, "");
    return {{"schema_version", 1}, {"created", created.at("path")}};
  }
  if (words.size() == 3 && words[2] == "remove") {
    const ShortcutRemoval removal = NativeInstaller::remove_shortcuts(data_dir);
    const auto texts = [](const std::vector<fs::path>& paths) {
      json list = json::array();
      for (const fs::path& path : paths) list.push_back(path_utf8(path));
      return list;
    };
    return {{"schema_version", 1}, {"removed", texts(removal.removed)}, {"changed", texts(removal.changed)}};
  }
  throw Error("usage", "Use self shortcut create [--game GAME] or self shortcut remove");
}

MaintenanceRuntime prepare_console_maintenance(const LauncherStore& store, const json& reference,
                                               const std::function<bool()>& interrupted) {
  require(!(interrupted && interrupted()), "cancelled", "Uninstall cancelled");
  return MaintenanceRuntime::prepare(store, reference, helper_role_maintenance);
}

MaintenanceRuntime prepare_console_maintenance(const LauncherStore& store, const json& reference,
                                               const std::vector<std::string>& /*arguments*/,
                                               const std::function<bool()>& interrupted, bool /*json_output*/) {
  return prepare_console_maintenance(store, reference, interrupted);
}

MaintenanceRuntime prepare_gui_maintenance(const fs::path& data_dir, std::string_view build_id,
                                           const MaintenancePhase& phase) {
  return with_own_version(
      data_dir, build_id, "Start the installed Zorvi GUI or use the external installer to review removal",
      [&](const LauncherStore& store, const json& reference, const LauncherManifest& manifest, const fs::path& image) {
        if (phase) phase("verifying");
        require(same_file(safe_join(store.payload(reference), manifest.gui_executable, true), image),
                "launcher_identity", "Maintenance handoff requires this build's verified GUI image");
        return MaintenanceRuntime::prepare(store, reference, helper_role_maintenance_gui);
      });
}

void run_cli_maintenance(const fs::path& data_dir, const std::vector<std::string>& arguments, std::string_view build_id,
                         const std::function<bool()>& interrupted) {
  require(!launcher_startup_pending(), "maintenance_unavailable",
          "Start native maintenance through the installed bootstrap to release startup ownership");
  std::vector<std::string> helper_arguments;
  MaintenanceRuntime runtime = with_own_version(
      data_dir, build_id, "Installed maintenance needs a managed launcher image; use the external installer",
      [&](const LauncherStore& store, const json& reference, const LauncherManifest& manifest, const fs::path& image) {
        require(same_file(safe_join(store.payload(reference), manifest.snapshot.executable, true), image),
                "launcher_identity", "Native maintenance requires this build's verified CLI image");
        helper_arguments = maintenance_arguments(arguments, data_dir);
        require(!helper_arguments.empty(), "usage", "Expected a native maintenance command");
        return prepare_console_maintenance(store, reference, interrupted);
      });
  try {
    runtime.replace(helper_arguments);
  } catch (const Error& error) {
    throw Error("maintenance_failed", "Maintenance process replacement returned unexpectedly", {error.what()});
  }
}

}  // namespace zorvi
