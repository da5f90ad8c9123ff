// The report of what a data folder holds: installed or not, a setup under
// way, the builds in use, and how the last setup ended.
#include "client/app/bootstrap_update.hpp"
#include "client/app/launcher.hpp"
#include "client/app/native_install.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/manifest.hpp"
#include "client/platform/files.hpp"
#include "client/platform/shortcuts.hpp"

namespace zorvi {
namespace fs = std::filesystem;

namespace {

constexpr std::size_t max_setup_status_bytes = 65536;

NativeSetupRecord read_setup_status(const DataPaths& paths) {
  const json record = parse_json(read_file(paths.status, max_setup_status_bytes), max_setup_status_bytes);
  require(record.is_object() && record.value("schema_version", json()) == 1 &&
              record.value("kind", json()) == "zorvi-setup-status",
          "unsupported_schema", "Unsupported setup status record");
  try {
    return {record.at("action").get<std::string>(), record.at("outcome").get<std::string>(),
            record.at("message").get<std::string>(), record.at("finished_at").get<std::string>()};
  } catch (const json::exception&) {
    throw Error("unsupported_schema", "Setup status record is malformed: " + path_utf8(paths.status));
  }
}

std::optional<std::string> launcher_build(const fs::path& root) {
  const json status = LauncherStore::existing(root).status();
  const json& version = status.at("active").is_null() ? status.at("candidate") : status.at("active");
  if (version.is_null()) return std::nullopt;
  return version.at("build_id").get<std::string>();
}

}  // namespace

json NativeInstallStatus::to_json() const {
  json paths = json::array();
  for (const fs::path& path : shortcuts) paths.push_back(path_utf8(path));
  json last = nullptr;
  if (last_operation)
    last = {{"action", last_operation->action},
            {"outcome", last_operation->outcome},
            {"message", last_operation->message},
            {"finished_at", last_operation->finished_at}};
  const auto text = [](const std::optional<std::string>& value) { return value ? json(*value) : json(nullptr); };
  return {{"schema_version", 1},
          {"data_root", path_utf8(data_root)},
          {"installed", installed},
          {"incomplete", incomplete},
          {"bootstrap_build", text(bootstrap_build)},
          {"launcher_build", text(launcher_build)},
          {"bootstrap_update_pending", bootstrap_update_pending},
          {"shortcuts", paths},
          {"last_operation", last}};
}

NativeInstallStatus NativeInstaller::status(const fs::path& folder) {
  const DataPaths paths(data_folder(folder));
  NativeInstallStatus status;
  status.data_root = paths.root;
  status.installed = entry_present(paths.installation);
  status.incomplete = entry_present(paths.incomplete);
  if (status.installed && !status.incomplete) {
    check_installation(paths);
    status.bootstrap_build = installed_bootstrap_manifest(paths).build_id;
    status.launcher_build = launcher_build(paths.root);
  }
  status.bootstrap_update_pending = bootstrap_update_pending(paths.root);
  for (const OwnedShortcut& shortcut : owned_native_shortcuts(paths.root)) status.shortcuts.push_back(shortcut.path);
  if (entry_present(paths.status)) status.last_operation = read_setup_status(paths);
  return status;
}

}  // namespace zorvi
