#include "client/app/native_install.hpp"

#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <thread>

#include "client/app/install_guards.hpp"
#include "client/app/launcher.hpp"
#include "client/app/native_package.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/snapshot.hpp"
#include "client/domain/theme.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/shortcuts.hpp"
#include "client/platform/tree.hpp"
#include "client/tuf/tuf.hpp"

namespace zorvi {
namespace fs = std::filesystem;

namespace {

constexpr std::size_t max_installation_bytes = 65536;
constexpr std::size_t max_status_message_bytes = 2048;
constexpr std::size_t max_bootstrap_manifest_bytes = 524288;
constexpr std::size_t max_trust_root_bytes = 524288;
constexpr std::size_t max_old_file_scan = 65536;
constexpr std::size_t max_lease_scan = 4096;

struct InstallPlan {
  bool bootstrap = true;
  bool launcher = true;
  bool trust = true;
};

bool present(const fs::path& path) { return entry_present(path); }

std::string utc_now() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  ::gmtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

void write_status(const DataPaths& paths, std::string_view action, std::string_view outcome, std::string_view message) {
  if (!directory_present(paths.native)) return;
  const json record{{"schema_version", 1},
                    {"kind", "zorvi-setup-status"},
                    {"action", action},
                    {"outcome", outcome},
                    {"message", std::string(utf8_prefix(message, max_status_message_bytes))},
                    {"finished_at", utc_now()}};
  atomic_write(paths.status, record.dump(-1, ' ', false, json::error_handler_t::replace));
}

void check_cancelled(const NativeSetupCallbacks& callbacks) {
  require(!(callbacks.cancelled && callbacks.cancelled()), "cancelled", "Setup was cancelled");
}

Progress phase_progress(const NativeSetupCallbacks& callbacks, std::string_view phase) {
  return [&callbacks, phase](std::uint64_t done, std::uint64_t total) {
    if (callbacks.progress) callbacks.progress(phase, done, total);
    return !(callbacks.cancelled && callbacks.cancelled());
  };
}

// Files a bootstrap self-update left behind under the bootstrap tree.
void remove_old_files(const fs::path& bootstrap) {
  std::error_code error;
  std::vector<fs::path> old;
  std::size_t seen = 0;
  fs::recursive_directory_iterator entry(bootstrap, error), end;
  for (; !error && entry != end && ++seen <= max_old_file_scan; entry.increment(error)) {
    if (entry->path().extension() == ".old" && !entry->is_directory(error)) old.push_back(entry->path());
  }
  for (const fs::path& path : old) fs::remove(path, error);
}

// What a repair can keep: each check that passes clears its flag, and any
// failure, of whatever kind, leaves the part to be rebuilt.
InstallPlan damaged_parts(const DataPaths& paths) {
  InstallPlan plan;
  remove_old_files(paths.bootstrap);
  try {
    verify_snapshot_tree(installed_bootstrap_manifest(paths), paths.bootstrap, {});
    plan.bootstrap = false;
  } catch (const std::exception&) {
  }
  try {
    const LauncherStore store = LauncherStore::existing(paths.root);
    const json status = store.status();
    const json& version = status.at("active").is_null() ? status.at("candidate") : status.at("active");
    if (!version.is_null()) {
      verify_snapshot_tree(store.manifest(version).snapshot, store.payload(version), {});
      plan.launcher = false;
    }
  } catch (const std::exception&) {
  }
  try {
    parse_json(read_file(paths.trust / "root.json", max_trust_root_bytes), max_trust_root_bytes);
    plan.trust = false;
  } catch (const std::exception&) {
  }
  return plan;
}

// Moves `live` aside into staging (when it exists) and `fresh` into its place.
void replace_tree(const fs::path& fresh, const fs::path& live, const fs::path& aside) {
  if (present(live)) native_files::rename_replace(live, aside);
  native_files::rename_replace(fresh, live);
  sync_directory(live.parent_path());
  sync_directory(aside.parent_path());
}

void commit_theme(const DataPaths& paths, const NativePackage& package) {
  const fs::path staged = paths.staging / "theme", live = theme_directory(paths.root);
  if (present(staged)) remove_plain_tree(staged);
  if (!package.theme) {
    if (present(live)) remove_plain_tree(live);
    return;
  }
  private_directory(staged);
  atomic_write(staged / "theme.json", package.theme->definition);
  for (const auto& [name, bytes] : package.theme->files) atomic_write(safe_join(staged, name, true), bytes);
  replace_tree(staged, live, paths.staging / "old-theme");
}

json installation_record(const NativePackage& package) {
  json record{{"schema_version", 1},
              {"kind", "zorvi-installation"},
              {"descriptor_sha256", package.descriptor_sha256},
              {"origin", package.origin},
              {"installed_at", utc_now()}};
  if (package.brand) record["brand"] = brand_json(*package.brand);
  return record;
}

// The one step that changes live state. It is never rolled back: whatever a
// crash interrupts, the marker stays and the next repair finishes the work.
void commit(const DataPaths& paths, const NativePackage& package, const InstallPlan& plan) {
  mark_setup_incomplete(paths);
  if (plan.bootstrap) {
    replace_tree(paths.staging / "bootstrap", paths.bootstrap, paths.staging / "old-bootstrap");
    atomic_write(paths.bootstrap_manifest, package.bootstrap_manifest);
    for (const char* name : {"bootstrap-update", "bootstrap-update.partial", "bootstrap-downloads",
                             "bootstrap-update.json", "bootstrap-update.rejected", "bootstrap-old-files"})
      remove_path_quietly(paths.native / name);
  }
  if (plan.launcher)
    replace_tree(paths.staging / "launcher-root/launcher", paths.launcher, paths.staging / "old-launcher");
  if (plan.trust) replace_tree(paths.staging / "trust", paths.trust, paths.staging / "old-trust");
  if (!package.ca_bundle.empty()) atomic_write(paths.repository_ca, package.ca_bundle);
  const std::string bundle = package.ca_bundle.empty() ? "" : path_utf8(paths.repository_ca);
  atomic_write(paths.repository, json{{"schema_version", 1}, {"origin", package.origin}, {"ca_bundle", bundle}}.dump());
  if (!package.brand_icon.empty()) {
    atomic_write(brand_icon_path(paths.root), package.brand_icon);
  } else {
    std::error_code ignored;
    fs::remove(brand_icon_path(paths.root), ignored);
  }
  commit_theme(paths, package);
  atomic_write(paths.installation, installation_record(package).dump());
  remove_plain_tree(paths.staging);
  fs::remove(paths.incomplete);
  sync_directory(paths.root);
}

// Builds every replaced part in staging, then commits.
InstallPlan stage_and_commit(const DataPaths& paths, const NativePackage& package, bool repair,
                             const NativeSetupCallbacks& callbacks) {
  const InstallPlan plan = repair ? damaged_parts(paths) : InstallPlan{};
  remove_path_quietly(paths.staging);
  private_directory(paths.staging);
  if (callbacks.progress) callbacks.progress("installing", 0, 0);
  const Progress installing = phase_progress(callbacks, "installing");
  if (plan.bootstrap) {
    extract_snapshot(package.bootstrap, package.bootstrap_archive(), paths.staging / "bootstrap", installing, nullptr);
    check_cancelled(callbacks);
  }
  if (plan.launcher) {
    callbacks.seed_launcher(paths.staging / "launcher-root");
    check_cancelled(callbacks);
  }
  if (plan.trust) {
    private_directory(paths.staging / "trust");
    TufClient::initialize(paths.staging / "trust", package.root);
    check_cancelled(callbacks);
  }
  commit(paths, package, plan);
  return plan;
}

// Desktop work after the commit: a failure only becomes the result's warning.
void desktop_work(const DataPaths& paths, const NativePackage& package, const NativeInstallRequest& request,
                  NativeInstallResult& result) {
  const std::string name = package.brand ? package.brand->name : "Zorvi";
  const auto attempt = [&result](const std::function<void()>& work) {
    try {
      work();
    } catch (const std::exception& failure) {
      if (result.warning.empty()) result.warning = failure.what();
    }
  };
  if (request.repair) {
    attempt([&] { result.shortcuts = restore_owned_native_shortcuts(paths.root, result.bootstrap); });
  } else if (request.shortcut && !(package.brand && package.featured_game)) {
    attempt([&] {
      const fs::path destination = native_menu_entry(paths.root, "", name);
      create_owned_native_shortcut(DesktopShortcut{result.bootstrap, paths.root, "", name}, destination);
      result.shortcuts.push_back(destination);
    });
  }
  attempt([&] {
    register_uninstall_entry(UninstallEntry{uninstall_entry_key(package.brand), name,
                                            package.brand ? package.brand->publisher : "Zorvi",
                                            package.brand_icon.empty() ? fs::path() : brand_icon_path(paths.root),
                                            paths.root, path_utf8(result.bootstrap) + " uninstall"});
  });
}

// Puts a folder that held no installation back as it was after a failed
// plain install. Once a marker exists a commit has begun, and what it left
// stays for the next attempt.
void discard_failed_install(const DataPaths& paths, bool existed) {
  if (!existed) {
    remove_path_quietly(paths.root);
    return;
  }
  remove_path_quietly(paths.staging);
  if (present(paths.incomplete) || present(paths.installation)) return;
  remove_path_quietly(paths.native);
  remove_path_quietly(paths.setup_lock);
  remove_path_quietly(paths.bootstrap_lock);
}

// The checks of what already stands in the folder, before anything is written.
void require_installable(const DataPaths& paths, bool fresh, bool repair) {
  const bool marker = present(paths.incomplete);
  const bool complete = present(paths.installation) && !marker;
  const std::string folder = path_utf8(paths.root);
  require(!(fresh && repair), "not_installed", "Zorvi is not installed in " + folder);
  if (complete) check_installation(paths);
  require(repair || !complete, "already_installed", "Zorvi is already installed in " + folder + "; use repair");
  require(!repair || complete || marker, "not_installed", "Zorvi is not installed in " + folder);
  if (repair || fresh) return;
  constexpr const char* unusable = "Choose an empty folder or an earlier Zorvi data folder";
  // Something that is not a directory, or cannot be listed, is no folder to install into.
  std::error_code error;
  fs::directory_iterator walk(paths.root, error);
  require(!error, "unsafe_path", unusable);
  std::size_t foreign = 0;
  for (; walk != fs::directory_iterator(); walk.increment(error)) {
    const std::string name = walk->path().filename().string();
    if (name == "native" || name == "launcher" || name == "userdata" || name == "settings.json") return;
    if (name != ".zorvi-setup.lock") require(++foreign <= max_lease_scan, "unsafe_path", unusable);
  }
  require(!error && foreign == 0, "unsafe_path", unusable);
}

NativeInstallResult locked_install(const DataPaths& paths, const NativePackage& package,
                                   const NativeInstallRequest& request, const NativeSetupCallbacks& callbacks,
                                   bool& holds_setup_lock) {
  private_directory(paths.root);
  const NativeFileLock setup(paths.setup_lock, true, NativeLockSharing::shared_install, LockMode::exclusive);
  holds_setup_lock = true;
  private_directory(paths.native);
  NativeInstallResult result;
  {
    const std::unique_ptr<NativeFileLock> closed = wait_for_zorvi_closed(paths, 0, callbacks.cancelled);
    const InstallPlan plan = stage_and_commit(paths, package, request.repair, callbacks);
    result.data_root = paths.root;
    result.repaired = request.repair;
    for (const auto& [done, name] :
         {std::pair{plan.bootstrap, "bootstrap"}, std::pair{plan.launcher, "launcher"}, std::pair{plan.trust, "trust"}})
      if (done) result.replaced.emplace_back(name);
    result.bootstrap = safe_join(paths.bootstrap, installed_bootstrap_manifest(paths).executable, true);
  }
  desktop_work(paths, package, request, result);
  write_status(paths, request.repair ? "repair" : "install", "succeeded", result.warning);
  return result;
}

}  // namespace

DataPaths::DataPaths(const fs::path& folder)
    : root(folder),
      native(folder / "native"),
      incomplete(folder / ".zorvi-setup-incomplete"),
      setup_lock(folder / ".zorvi-setup.lock"),
      bootstrap_lock(folder / ".native-bootstrap.lock"),
      installation(native / "installation.json"),
      status(native / "setup-status.json"),
      bootstrap(native / "bootstrap"),
      bootstrap_manifest(native / "bootstrap.json"),
      staging(native / "staging"),
      launcher(folder / "launcher"),
      trust(folder / "trust"),
      repository(folder / "repository.json"),
      repository_ca(folder / "repository-ca.pem") {}

json NativeInstallResult::to_json() const {
  json shortcut_paths = json::array();
  for (const fs::path& path : shortcuts) shortcut_paths.push_back(path_utf8(path));
  return {{"schema_version", 1},
          {"installed", true},
          {"repaired", repaired},
          {"data_root", path_utf8(data_root)},
          {"bootstrap", path_utf8(bootstrap)},
          {"replaced", replaced},
          {"shortcuts", shortcut_paths},
          {"shortcut_problem", warning}};
}

void check_installation(const DataPaths& paths) {
  const std::string shown = path_utf8(paths.installation);
  json record;
  try {
    record = parse_json(read_file(paths.installation, max_installation_bytes), max_installation_bytes);
  } catch (const json::exception&) {
    throw Error("unsupported_schema", "Installation record is malformed: " + shown);
  }
  require(record.is_object() && record.value("schema_version", json()) == 1 &&
              record.value("kind", json()) == "zorvi-installation",
          "unsupported_schema", "Unsupported installation record " + shown);
}

void mark_setup_incomplete(const DataPaths& paths) {
  atomic_write(paths.incomplete, json{{"schema_version", 1}, {"kind", "zorvi-setup-incomplete"}}.dump());
}

SnapshotManifest installed_bootstrap_manifest(const DataPaths& paths) {
  return SnapshotManifest::parse(
      parse_json(read_file(paths.bootstrap_manifest, max_bootstrap_manifest_bytes), max_bootstrap_manifest_bytes));
}

fs::path data_folder(const fs::path& path) {
  const std::string text = path_utf8(path);
  require(!text.empty() && text.find('\0') == std::string::npos, "unsafe_path", "Choose a data folder");
  const fs::path normal = fs::absolute(path).lexically_normal();
  require(normal != normal.root_path() && !normal.filename().empty(), "unsafe_path",
          "The data folder cannot be a filesystem root");
  struct stat status{};
  require(!(::lstat(normal.c_str(), &status) == 0 && S_ISLNK(status.st_mode)), "unsafe_path",
          "The data folder cannot be a symbolic link");
  return normal;
}

bool within(const fs::path& inner, const fs::path& outer) {
  const fs::path relative = inner.lexically_relative(outer);
  return !relative.empty() && *relative.begin() != "..";
}

std::unique_ptr<NativeFileLock> wait_for_zorvi_closed(const DataPaths& paths, std::int64_t timeout_ms,
                                                      const std::function<bool()>& cancelled) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  const fs::path leases = paths.launcher / "leases/versions";
  for (;;) {
    try {
      auto held = std::make_unique<NativeFileLock>(paths.bootstrap_lock, true, NativeLockSharing::exclusive_install,
                                                   LockMode::exclusive);
      if (directory_present(leases)) {
        std::size_t seen = 0;
        for (const auto& entry : fs::directory_iterator(leases)) {
          require(++seen <= max_lease_scan, "launcher_state", "Too many launcher version leases");
          // Released at once: only whether a running launcher holds it counts.
          const FileLock probe(entry.path(), false, LockMode::exclusive);
        }
      }
      return held;
    } catch (const Error& error) {
      if (error.code != "busy") throw;
    }
    require(std::chrono::steady_clock::now() < deadline, "zorvi_running",
            "Zorvi or a game from this folder is still running; close it and try again");
    require(!(cancelled && cancelled()), "cancelled", "Setup was cancelled");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

fs::path default_install_folder(const std::optional<Brand>& brand) {
  const fs::path root = user_data_root();
  return brand ? root.parent_path() / brand->name : root;
}

void NativeInstaller::seed_launcher(const fs::path& root, std::string_view manifest, const fs::path& archive,
                                    const Progress& progress) {
  LauncherStore(root, true).seed_initial(manifest, archive, progress);
}

std::function<void(const fs::path&)> package_launcher_seeder(const fs::path& package, std::string_view seal) {
  return [package, seal = std::string(seal)](const fs::path& root) {
    const std::string descriptor = read_file(package / initial_package_descriptor, max_package_descriptor_bytes);
    require(digest(descriptor, "sha256") == seal, "native_install_trust",
            "This package is not the one this installer was built for");
    const json resource = parse_json(descriptor, max_package_descriptor_bytes).at("launcher_manifest");
    const std::string name = resource.at("path").get<std::string>();
    check_resource_name(name);
    const std::string manifest = read_file(package / name, max_package_document_bytes);
    require(digest(manifest, "sha256") == resource.at("sha256").get<std::string>(), "content_mismatch",
            "Initial package resource changed: " + name);
    const LauncherManifest parsed = LauncherManifest::parse(parse_json(manifest, max_package_document_bytes));
    NativeInstaller::seed_launcher(root, manifest, safe_join(package, parsed.snapshot.archive_target, true), {});
  };
}

NativeInstallResult NativeInstaller::install(const NativeInstallRequest& request, std::string_view seal,
                                             const NativeSetupCallbacks& callbacks) {
  if (callbacks.progress) callbacks.progress("verifying", 0, 0);
  const NativePackage package = read_native_package(request.package, seal, phase_progress(callbacks, "verifying"));
  const DataPaths paths(data_folder(request.data_folder));
  require(!within(paths.root, package.directory) && !within(package.directory, paths.root), "unsafe_path",
          "The package and data folders overlap");
  require_path_room(paths.root, fs::path("launcher-root/launcher/versions") / std::string(64, '0'),
                    package.launcher.snapshot.longest_native_path());
  require_path_room(paths.native, "bootstrap-update.partial", package.bootstrap.longest_native_path());
  struct stat status{};
  const bool fresh = ::lstat(paths.root.c_str(), &status) != 0;
  require_installable(paths, fresh, request.repair);
  bool holds_setup_lock = false;
  try {
    return locked_install(paths, package, request, callbacks, holds_setup_lock);
  } catch (const std::exception& failure) {
    // A setup lock held elsewhere means another installer is at work in this
    // folder: what stands there is its work, not ours to clean up or report.
    const auto* error = dynamic_cast<const Error*>(&failure);
    if (!holds_setup_lock && error != nullptr && error->code == "busy") throw;
    if (request.repair) {
      write_status(paths, "repair", "failed", failure.what());
    } else {
      discard_failed_install(paths, !fresh);
    }
    throw;
  }
}

}  // namespace zorvi
