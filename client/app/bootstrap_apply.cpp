// Putting a staged bootstrap in place at a bootstrap start. Every change is
// recorded so that a new image that cannot start leaves the old tree whole,
// and a start after a kill carries an unfinished attempt on to its end.
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "client/app/bootstrap_update.hpp"
#include "client/app/install_guards.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/json.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_lock.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/process.hpp"
#include "client/platform/tree.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_start_check_value = 8192;
constexpr auto start_check_limit = std::chrono::seconds(10);
constexpr auto start_check_poll = std::chrono::milliseconds(20);
constexpr unsigned start_check_grace_ms = 250;

fs::path with_old(const fs::path& path) { return fs::path(path.native() + ".old"); }

bool regular(const fs::path& path) {
  std::error_code error;
  return fs::symlink_status(path, error).type() == fs::file_type::regular && !error;
}

bool holds_file(const fs::path& path, const PackageFile& file) {
  std::error_code error;
  return regular(path) && fs::file_size(path, error) == file.length && !error &&
         digest_file(path, "sha256") == file.sha256;
}

// How to put back what one apply changed: renames to make, last first.
class Undo {
 public:
  void add(const fs::path& from, const fs::path& to) { renames_.push_back({from, to}); }
  bool empty() const { return renames_.empty(); }
  // Each step is tried even when an earlier one failed.
  void run() noexcept {
    for (auto rename = renames_.rbegin(); rename != renames_.rend(); ++rename) {
      try {
        native_files::rename_replace(rename->first, rename->second);
      } catch (...) {
      }
    }
    renames_.clear();
  }

 private:
  std::vector<std::pair<fs::path, fs::path>> renames_;
};

struct Update {
  std::string bytes;
  SnapshotManifest manifest;
  std::string installed_bytes;                // native/bootstrap.json, empty when absent
  std::optional<SnapshotManifest> installed;  // what it lists
};

fs::path in_tree(const fs::path& root, const std::string& relative) { return safe_join(root, relative, true); }

// Files the installed manifest lists and the update does not.
std::vector<std::string> retired_files(const Update& update) {
  std::vector<std::string> retired;
  if (!update.installed) return retired;
  for (const auto& entry : update.installed->files)
    if (!update.manifest.files.contains(entry.first)) retired.push_back(entry.first);
  return retired;
}

// A file whose staged copy is gone was moved into place by a start that was
// killed before it finished; the tree must hold it as staged.
bool moved_in(const BootstrapPaths& paths, const std::string& path) {
  return !entry_present(in_tree(paths.update, path));
}

// A kill during an undo leaves some files put back and others not: the
// update can no longer be completed, so the undo is.
bool undo_interrupted(const BootstrapPaths& paths, const Update& update) {
  for (const auto& [path, file] : update.manifest.files)
    if (moved_in(paths, path) && !holds_file(in_tree(paths.tree, path), file)) return true;
  return false;
}

void finish_undo(const BootstrapPaths& paths, const Update& update) {
  Undo undo;
  for (const auto& entry : update.manifest.files) {
    const fs::path target = in_tree(paths.tree, entry.first);
    if (!moved_in(paths, entry.first)) continue;
    if (entry_present(with_old(target))) undo.add(with_old(target), target);
    else if (!update.installed || !update.installed->files.contains(entry.first))
      undo.add(target, in_tree(paths.update, entry.first));
  }
  for (const std::string& path : retired_files(update)) {
    const fs::path target = in_tree(paths.tree, path);
    if (!entry_present(target) && entry_present(with_old(target))) undo.add(with_old(target), target);
  }
  undo.run();
}

void require_staged(const BootstrapPaths& paths, const Update& update) {
  for (const auto& [path, file] : update.manifest.files) {
    const fs::path copy = moved_in(paths, path) ? in_tree(paths.tree, path) : in_tree(paths.update, path);
    require(holds_file(copy, file), "content_mismatch", "Staged bootstrap file changed: " + path);
  }
}

// The old file stays under its name until the new one replaces it in one
// rename, so the entry point is never missing, even after a kill; its `.old`
// link is what an undo renames back.
void replace_file(const fs::path& staged, const fs::path& target, bool already_in_place, Undo& undo) {
  const fs::path old = with_old(target);
  if (already_in_place) return undo.add(entry_present(old) ? old : target, entry_present(old) ? target : staged);
  private_directory(target.parent_path());
  if (entry_present(target)) {
    std::error_code error;
    fs::remove(old, error);
    fs::create_hard_link(target, old, error);
    if (error) throw Error("file_write", with_errno("Cannot keep " + path_utf8(target), error.value()));
    undo.add(old, target);
    native_files::rename_replace(staged, target);
    return;
  }
  native_files::rename_replace(staged, target);
  undo.add(target, staged);
}

void move_into_place(const BootstrapPaths& paths, const Update& update, Undo& undo) {
  std::set<fs::path> parents;
  for (const auto& entry : update.manifest.files) {
    const fs::path target = in_tree(paths.tree, entry.first);
    replace_file(in_tree(paths.update, entry.first), target, moved_in(paths, entry.first), undo);
    parents.insert(target.parent_path());
  }
  for (const std::string& path : retired_files(update)) {
    const fs::path target = in_tree(paths.tree, path);
    if (entry_present(target)) {
      native_files::rename_replace(target, with_old(target));
    } else if (!entry_present(with_old(target))) {
      continue;
    }
    undo.add(with_old(target), target);
    parents.insert(target.parent_path());
  }
  for (const fs::path& parent : parents) sync_directory(parent);
}

// The new image, asked only to show that it loads and runs.
bool starts(const fs::path& image) {
  try {
    ChildProcess child(image, {}, image.parent_path(), {{"ZORVI_BOOTSTRAP_START_CHECK", "1"}}, ChildStreams::Console,
                       ChildEnvironment::Clean);
    const auto deadline = std::chrono::steady_clock::now() + start_check_limit;
    while (!child.poll() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(start_check_poll);
    if (child.exit_code()) return *child.exit_code() == 0 && !child.ended_by_signal();
    child.terminate(start_check_grace_ms);
    return false;
  } catch (const Error&) {
    return false;  // an image that cannot even be started fails its check
  }
}

void remove_pending(const BootstrapPaths& paths) {
  std::error_code error;
  fs::remove(paths.update_manifest, error);
  if (error) throw Error("file_remove", with_errno("Cannot remove " + path_utf8(paths.update_manifest), error.value()));
  sync_directory(paths.native);
  remove_path_quietly(paths.update);
}

void commit(const BootstrapPaths& paths, const Update& update) {
  atomic_write(paths.manifest, update.bytes);
  remove_pending(paths);
  remove_bootstrap_old_files(paths);
}

void reject(const BootstrapPaths& paths, const Update& update) {
  atomic_write(paths.rejected, digest(update.bytes, "sha256"));
  remove_pending(paths);
}

Update read_update(const BootstrapPaths& paths) {
  Update update;
  update.bytes = read_file(paths.update_manifest, max_bootstrap_update_manifest);
  update.manifest = parse_bootstrap_update(update.bytes);
  if (!entry_present(paths.manifest)) return update;
  update.installed_bytes = read_file(paths.manifest, max_bootstrap_update_manifest);
  update.installed = SnapshotManifest::parse(parse_json(update.installed_bytes, max_bootstrap_update_manifest));
  return update;
}

void apply_locked(const BootstrapPaths& paths, const fs::path& image) {
  if (!entry_present(paths.update_manifest)) {
    // What a kill after the final record left behind.
    remove_path_quietly(paths.update);
    remove_bootstrap_old_files(paths);
    return;
  }
  const Update update = read_update(paths);
  // Recorded as installed already: a kill came after the record.
  if (update.installed_bytes == update.bytes) return commit(paths, update);
  if (undo_interrupted(paths, update)) {
    finish_undo(paths, update);
    return reject(paths, update);
  }
  require_staged(paths, update);
  bool interrupted = false;
  for (const auto& entry : update.manifest.files) interrupted = interrupted || moved_in(paths, entry.first);
  // After a kill the `.old` files are how the earlier moves are undone.
  if (!interrupted) remove_bootstrap_old_files(paths);
  Undo undo;
  try {
    move_into_place(paths, update, undo);
  } catch (...) {
    undo.run();
    throw;
  }
  if (starts(image)) return commit(paths, update);
  undo.run();
  reject(paths, update);
}

bool leftovers(const BootstrapPaths& paths) {
  return entry_present(paths.update_manifest) || entry_present(paths.update) || entry_present(paths.old_files);
}

}  // namespace

void apply_pending_bootstrap_update(const fs::path& image) {
  const std::optional<std::string> check = process_environment("ZORVI_BOOTSTRAP_START_CHECK", max_start_check_value);
  if (check && !check->empty()) std::_Exit(0);
  fs::path root;
  try {
    root = installed_data_root(image);
  } catch (const Error&) {
    return;  // not an installed image: nothing of an update belongs to it
  }
  const BootstrapPaths paths(root);
  if (entry_present(paths.incomplete) || !leftovers(paths)) return;
  std::unique_ptr<NativeFileLock> update_lock, lifetime;
  try {
    update_lock =
        std::make_unique<NativeFileLock>(paths.lock, true, NativeLockSharing::exclusive_install, LockMode::exclusive);
    lifetime = std::make_unique<NativeFileLock>(paths.lifetime, true, NativeLockSharing::exclusive_install,
                                                LockMode::exclusive);
  } catch (const Error& error) {
    // A staging or another running bootstrap: a later start applies it.
    if (error.code == "busy") return;
    throw;
  }
  try {
    apply_locked(paths, image);
  } catch (...) {
    remove_bootstrap_old_files(paths);
    throw;
  }
}

}  // namespace zorvi
