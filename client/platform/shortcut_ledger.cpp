#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "client/app/install_guards.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/macos_paths.hpp"
#include "client/platform/native_lock.hpp"
#include "client/platform/shortcuts.hpp"

namespace zorvi {
namespace {

std::filesystem::path native_folder(const std::filesystem::path& data_root) { return data_root / "native"; }
std::filesystem::path ledger_file(const std::filesystem::path& data_root) {
  return native_folder(data_root) / "shortcuts.json";
}

// One writer of the ledger across all processes.
FileLock ledger_lock(const std::filesystem::path& data_root) {
  return FileLock(native_folder(data_root) / "shortcuts.lock", true, LockMode::exclusive);
}

bool native_folder_exists(const std::filesystem::path& data_root) {
  return directory_present(native_folder(data_root));
}

// Only bytes that still hash to what was written are the client's; a file
// larger than anything it writes cannot be.
bool unchanged(const OwnedShortcut& entry) {
  struct stat status{};
  if (::lstat(entry.path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (static_cast<std::uint64_t>(status.st_size) > max_shortcut_file) return false;
  return digest(read_file(entry.path, max_shortcut_file), "sha256") == entry.sha256;
}

OwnedShortcut parse_entry(const json& item) {
  OwnedShortcut entry{path_from_utf8(item.at("path").get<std::string>()), item.at("game").get<std::string>(),
                      item.at("name").get<std::string>(), item.at("sha256").get<std::string>()};
  normal_shortcut_path(entry.path);
  return entry;
}

std::vector<OwnedShortcut> read_ledger(const std::filesystem::path& data_root) {
  const std::filesystem::path file = ledger_file(data_root);
  if (!entry_present(file)) return {};
  const std::string malformed = "Shortcut list is malformed: " + path_utf8(file);
  const std::string text = read_file(file, max_shortcut_ledger);
  json document;
  try {
    document = parse_json(text, max_shortcut_ledger);
  } catch (const Error&) {
    throw Error("shortcut_ledger", malformed);
  }
  const bool known = document.is_object() && document.value("schema_version", json()) == 1 &&
                     document.value("kind", json()) == "zorvi-shortcuts" && document.contains("entries") &&
                     document["entries"].is_array() && document["entries"].size() <= max_owned_shortcuts;
  require(known, "shortcut_ledger", "Unsupported shortcut list " + path_utf8(file));
  std::vector<OwnedShortcut> entries;
  try {
    for (const json& item : document["entries"]) entries.push_back(parse_entry(item));
  } catch (const std::exception&) {
    throw Error("shortcut_ledger", malformed);
  }
  return entries;
}

void write_ledger(const std::filesystem::path& data_root, const std::vector<OwnedShortcut>& entries) {
  const std::filesystem::path file = ledger_file(data_root);
  if (entries.empty()) {
    // An empty list is no list; a leftover file only reads as empty again.
    ::unlink(file.c_str());
    return;
  }
  json items = json::array();
  for (const OwnedShortcut& entry : entries) {
    items.push_back(
        {{"path", path_utf8(entry.path)}, {"game", entry.game}, {"name", entry.name}, {"sha256", entry.sha256}});
  }
  const json document = {{"schema_version", 1}, {"kind", "zorvi-shortcuts"}, {"entries", items}};
  atomic_write(file, document.dump());
}

OwnedShortcut create_recorded(const DesktopShortcut& shortcut, const std::filesystem::path& destination) {
  (void)create_native_shortcut(shortcut, destination);
  return {destination, shortcut.game_id, shortcut.name, digest(read_file(destination, max_shortcut_file), "sha256")};
}

// Takes away a file the ledger proved its own; the removal is made durable
// before the ledger forgets the file.
void remove_recorded(const std::filesystem::path& path) {
  if (::unlink(path.c_str()) != 0)
    throw Error("file_write", with_errno("Cannot remove a recorded shortcut: " + path_utf8(path), errno));
  sync_directory(path.parent_path());
}

json creation_result(const std::filesystem::path& destination, const std::string& game_id, bool created) {
  return json{{"schema_version", 1}, {"created", created}, {"path", path_utf8(destination)}, {"game_id", game_id}};
}

}  // namespace

json create_owned_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& destination) {
  normal_shortcut_path(shortcut.data_root);
  require_complete_native_install(shortcut.data_root);
  normal_shortcut_path(destination);
  const std::string destination_key = macos_paths::path_key(destination);
  const std::string data_key = macos_paths::directory_key(shortcut.data_root);
  require(destination_key != data_key && !destination_key.starts_with(data_key + "/"), "shortcut_path",
          "Shortcuts must be outside the data folder");

  const FileLock lock = ledger_lock(shortcut.data_root);
  std::vector<OwnedShortcut> entries = read_ledger(shortcut.data_root);
  auto recorded = std::find_if(entries.begin(), entries.end(),
                               [&](const OwnedShortcut& entry) { return entry.path == destination; });
  if (recorded != entries.end() && unchanged(*recorded) && recorded->game == shortcut.game_id &&
      recorded->name == shortcut.name)
    return creation_result(destination, shortcut.game_id, false);
  require(recorded != entries.end() || entries.size() < max_owned_shortcuts, "size_limit",
          "Too many recorded shortcuts");
  OwnedShortcut created = create_recorded(shortcut, destination);
  if (recorded != entries.end()) *recorded = std::move(created);
  else entries.push_back(std::move(created));
  write_ledger(shortcut.data_root, entries);
  return creation_result(destination, shortcut.game_id, true);
}

std::vector<OwnedShortcut> owned_native_shortcuts(const std::filesystem::path& data_root) {
  normal_shortcut_path(data_root);
  // Every ledger commit is one rename, so a reader needs no lock.
  return native_folder_exists(data_root) ? read_ledger(data_root) : std::vector<OwnedShortcut>{};
}

ShortcutRemoval remove_owned_native_shortcuts(const std::filesystem::path& data_root) {
  normal_shortcut_path(data_root);
  ShortcutRemoval removal;
  if (!native_folder_exists(data_root)) return removal;
  const FileLock lock = ledger_lock(data_root);
  for (const OwnedShortcut& entry : read_ledger(data_root)) {
    if (!entry_present(entry.path)) continue;
    if (unchanged(entry)) {
      remove_recorded(entry.path);
      removal.removed.push_back(entry.path);
    } else {
      removal.changed.push_back(entry.path);
    }
  }
  write_ledger(data_root, {});
  return removal;
}

std::vector<std::filesystem::path> restore_owned_native_shortcuts(const std::filesystem::path& data_root,
                                                                  const std::filesystem::path& bootstrap) {
  normal_shortcut_path(data_root);
  std::vector<std::filesystem::path> written;
  if (!native_folder_exists(data_root)) return written;
  const FileLock lock = ledger_lock(data_root);
  std::vector<OwnedShortcut> entries = read_ledger(data_root);
  try {
    for (OwnedShortcut& entry : entries) {
      // A deleted shortcut stays deleted, and one the user changed stays
      // theirs; only files still as written are written anew.
      if (!entry_present(entry.path) || !unchanged(entry)) continue;
      remove_recorded(entry.path);
      entry = create_recorded({bootstrap, data_root, entry.game, entry.name}, entry.path);
      written.push_back(entry.path);
    }
  } catch (...) {
    // What was rewritten before the failure keeps its new proof.
    write_ledger(data_root, entries);
    throw;
  }
  write_ledger(data_root, entries);
  return written;
}

}  // namespace zorvi
