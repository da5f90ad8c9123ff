// Removal of an installation from its data folder, and the client's own
// shortcuts to it. The setup marker is written first and removed last, so a
// removal cut short leaves a folder that nothing starts from and that the
// next uninstall finishes.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "client/app/native_install.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/manifest.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/tree.hpp"

namespace zorvi {
namespace fs = std::filesystem;

namespace {

// The user's own things in a data folder.
constexpr std::array<std::string_view, 2> user_data{"userdata", "settings.json"};
// Entries that outlive the walk: the locks are held during it and the marker
// must be the last to go.
constexpr std::array<std::string_view, 3> kept_until_the_end{".zorvi-setup-incomplete", ".native-bootstrap.lock",
                                                             ".zorvi-setup.lock"};

bool named(std::string_view name, const auto& names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

DataPaths installed_paths(const fs::path& folder) {
  const DataPaths paths(data_folder(folder));
  require(entry_present(paths.installation), "not_installed", "Zorvi is not installed in " + path_utf8(paths.root));
  return paths;
}

// Children first, by each entry's own status, so a link is removed and never
// followed. The depth is bounded by the system's path length limit, past
// which every call on the path fails.
void remove_entry(const fs::path& path, const fs::path& trash) {
  std::error_code error;
  if (fs::symlink_status(path, error).type() != fs::file_type::directory) {
    native_files::remove_or_trash(path, trash);
    return;
  }
  // Only entries the iterator has returned are removed, which a directory
  // being read allows.
  for (fs::directory_iterator child(path, error), end; !error && child != end; child.increment(error))
    remove_entry(child->path(), trash);
  if (error || ::rmdir(path.c_str()) != 0) throw Error("file_remove", "Cannot remove " + path_utf8(path));
}

void remove_installation_record(const DataPaths& paths, const std::optional<Brand>& brand) {
  if (::unlink(paths.installation.c_str()) != 0 && errno != ENOENT)
    throw Error("file_remove", "Cannot remove " + path_utf8(paths.installation));
  sync_directory(paths.native);
  remove_uninstall_entry(uninstall_entry_key(brand));
}

// Everything in the folder but the user's data (unless it goes too) and the
// entries that must stay until the end. Each removal is made durable before
// the next, so the marker never goes before what it guards.
void remove_contents(const DataPaths& paths, bool remove_data, const fs::path& trash, NativeUninstallResult& result) {
  std::error_code error;
  for (fs::directory_iterator child(paths.root, error), end; !error && child != end; child.increment(error)) {
    const std::string name = child->path().filename().string();
    if (named(name, kept_until_the_end)) continue;
    if (!remove_data && named(name, user_data)) {
      result.kept.push_back(child->path());
      continue;
    }
    remove_entry(child->path(), trash);
    sync_directory(paths.root);
  }
  require(!error, "file_remove", "Cannot remove " + path_utf8(paths.root));
  std::sort(result.kept.begin(), result.kept.end());
}

void locked_uninstall(const DataPaths& paths, const NativeUninstallRequest& request,
                      const NativeSetupCallbacks& callbacks, const fs::path& trash, NativeUninstallResult& result) {
  const NativeFileLock setup(paths.setup_lock, true, NativeLockSharing::shared_install, LockMode::exclusive);
  const std::unique_ptr<NativeFileLock> closed = wait_for_zorvi_closed(paths, request.wait, callbacks.cancelled);
  require(!(callbacks.cancelled && callbacks.cancelled()), "cancelled", "Setup was cancelled");
  if (callbacks.progress) callbacks.progress("removing", 0, 1);
  // Read before anything changes: a record this build does not know refuses
  // the removal while the folder is still whole.
  const std::optional<Brand> brand = installed_brand(paths.root);
  mark_setup_incomplete(paths);
  if (entry_present(paths.installation)) remove_installation_record(paths, brand);
  for (const fs::path& path : remove_owned_native_shortcuts(paths.root).changed)
    result.changed_shortcuts.push_back(path);
  remove_contents(paths, request.remove_data, trash, result);
}

}  // namespace

json NativeUninstallResult::to_json() const {
  const auto texts = [](const std::vector<fs::path>& paths) {
    json list = json::array();
    for (const fs::path& path : paths) list.push_back(path_utf8(path));
    return list;
  };
  return {{"schema_version", 1},
          {"uninstalled", true},
          {"data_root", path_utf8(data_root)},
          {"data_removed", data_removed},
          {"kept", texts(kept)},
          {"deferred", texts(deferred)},
          {"changed_shortcuts", texts(changed_shortcuts)}};
}

NativeUninstallResult NativeInstaller::uninstall(const NativeUninstallRequest& request,
                                                 const NativeSetupCallbacks& callbacks) {
  const DataPaths paths(data_folder(request.data_folder));
  require(entry_present(paths.installation) || entry_present(paths.incomplete), "not_installed",
          "Zorvi is not installed in " + path_utf8(paths.root));
  const fs::path trash = native_files::temporary_directory(paths.root) / ("zorvi-removed-" + random_id());
  NativeUninstallResult result;
  result.data_root = paths.root;
  locked_uninstall(paths, request, callbacks, trash, result);
  // The locks are released; no other setup may start before the marker goes.
  remove_path_quietly(paths.setup_lock);
  remove_path_quietly(paths.bootstrap_lock);
  if (::unlink(paths.incomplete.c_str()) != 0 && errno != ENOENT)
    throw Error("file_remove", "Cannot remove " + path_utf8(paths.incomplete));
  sync_directory(paths.root);
  // Succeeds only when nothing is left in the folder.
  static_cast<void>(::rmdir(paths.root.c_str()));
  if (!result.deferred.empty()) native_files::remove_after_exit(trash);
  result.data_removed = !entry_present(paths.root);
  if (callbacks.progress) callbacks.progress("removing", 1, 1);
  return result;
}

json NativeInstaller::create_shortcut(const fs::path& folder, const std::string& game_id, const fs::path& destination,
                                      const std::string& name) {
  const DataPaths paths = installed_paths(folder);
  const std::string shown = name.empty() ? product_name() : name;
  const fs::path target = destination.empty() ? native_menu_entry(paths.root, game_id, shown)
                                              : fs::absolute(destination).lexically_normal();
  // A platform with a windowed bootstrap starts shortcuts through it.
  const SnapshotManifest bootstrap = installed_bootstrap_manifest(paths);
  const json& document = bootstrap.document;
  const std::string entry =
      document.contains("gui_executable") ? document["gui_executable"].get<std::string>() : bootstrap.executable;
  return create_owned_native_shortcut(
      DesktopShortcut{safe_join(paths.bootstrap, entry, true), paths.root, game_id, shown}, target);
}

ShortcutRemoval NativeInstaller::remove_shortcuts(const fs::path& folder) {
  return remove_owned_native_shortcuts(installed_paths(folder).root);
}

}  // namespace zorvi
