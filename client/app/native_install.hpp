#pragma once

// Installs a proven initial package into a data folder, or repairs one,
// without a network. Everything is unpacked and checked in a staging folder
// inside the data folder first, so the live installation only ever sees
// renames on one volume and atomic writes, under a marker that says a commit
// is under way. A repair looks only at what it finds, so it can always be
// run again, from wherever a crash left things.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/app/brand.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/json.hpp"
#include "client/platform/native_lock.hpp"
#include "client/platform/shortcuts.hpp"

namespace zorvi {

struct SnapshotManifest;

// The fixed places of one data folder.
struct DataPaths {
  explicit DataPaths(const std::filesystem::path& folder);

  std::filesystem::path root, native, incomplete, setup_lock, bootstrap_lock, installation, status, bootstrap,
      bootstrap_manifest, staging, launcher, trust, repository, repository_ca;
};

struct NativeInstallRequest {
  std::filesystem::path package;
  std::filesystem::path data_folder;
  bool repair = false;
  bool shortcut = false;  // the main shortcut, on a plain install
};

struct NativeSetupCallbacks {
  std::function<void(std::string_view phase, std::uint64_t done, std::uint64_t total)> progress;
  std::function<bool()> cancelled;  // may be empty
  std::function<void(const std::filesystem::path& root)> seed_launcher;
};

struct NativeInstallResult {
  std::filesystem::path data_root;
  bool repaired = false;
  std::vector<std::string> replaced;  // "bootstrap", "launcher", "trust"
  std::filesystem::path bootstrap;
  std::vector<std::filesystem::path> shortcuts;
  std::string warning;

  json to_json() const;
};

struct NativeUninstallRequest {
  std::filesystem::path data_folder;
  bool remove_data = false;  // also "userdata" and "settings.json"
  std::int64_t wait = 0;     // milliseconds to wait for running clients and games
};

struct NativeUninstallResult {
  std::filesystem::path data_root;
  bool data_removed = false;
  std::vector<std::filesystem::path> kept;
  std::vector<std::filesystem::path> deferred;  // goes only once this process ends
  std::vector<std::filesystem::path> changed_shortcuts;

  json to_json() const;
};

// The outcome of the last setup, as "native/setup-status.json" keeps it.
struct NativeSetupRecord {
  std::string action, outcome, message, finished_at;
};

// What a data folder holds, for a report.
struct NativeInstallStatus {
  std::filesystem::path data_root;
  bool installed = false;
  bool incomplete = false;
  std::optional<std::string> bootstrap_build, launcher_build;
  bool bootstrap_update_pending = false;
  std::vector<std::filesystem::path> shortcuts;
  std::optional<NativeSetupRecord> last_operation;

  json to_json() const;
};

// Refuses an installation record that is not exactly known.
void check_installation(const DataPaths& paths);

// Writes the marker that makes the folder read as unfinished until a setup
// or an uninstall removes it again.
void mark_setup_incomplete(const DataPaths& paths);

// The manifest of the installed bootstrap.
SnapshotManifest installed_bootstrap_manifest(const DataPaths& paths);

// A data folder the installer may work on: absolute and normal, not a
// filesystem root, not a symbolic link.
std::filesystem::path data_folder(const std::filesystem::path& path);

// Whether `inner` is `outer` or below it, by names.
bool within(const std::filesystem::path& inner, const std::filesystem::path& outer);

// Waits up to `timeout_ms` until no bootstrap, launcher or game of the folder
// runs, and gives the bootstrap lock held so that none can start.
std::unique_ptr<NativeFileLock> wait_for_zorvi_closed(const DataPaths& paths, std::int64_t timeout_ms,
                                                      const std::function<bool()>& cancelled);

// The per-user data folder, beside it under the brand's name for a brand.
std::filesystem::path default_install_folder(const std::optional<Brand>& brand);

// The plain `seed_launcher` callback: the first launcher of the package at
// `package`, its manifest proved through the seal and the descriptor alone
// (the archive is held to that manifest file by file as it is unpacked).
std::function<void(const std::filesystem::path& root)> package_launcher_seeder(const std::filesystem::path& package,
                                                                               std::string_view seal);

class NativeInstaller {
 public:
  static NativeInstallResult install(const NativeInstallRequest& request, std::string_view seal,
                                     const NativeSetupCallbacks& callbacks);

  static NativeInstallStatus status(const std::filesystem::path& data_folder);

  // Removes the installation and the client's unchanged shortcuts; the
  // user's data stays unless the request says otherwise.
  static NativeUninstallResult uninstall(const NativeUninstallRequest& request, const NativeSetupCallbacks& callbacks);

  // An owned shortcut that starts the installed bootstrap, for the launcher
  // (empty `game_id`) or a game. An empty destination is the menu entry, an
  // empty name the product's name.
  static json create_shortcut(const std::filesystem::path& data_folder, const std::string& game_id,
                              const std::filesystem::path& destination, const std::string& name);
  static ShortcutRemoval remove_shortcuts(const std::filesystem::path& data_folder);

  // Builds the first launcher store under `root` from the package's launcher.
  static void seed_launcher(const std::filesystem::path& root, std::string_view manifest,
                            const std::filesystem::path& archive, const Progress& progress);
};

}  // namespace zorvi
