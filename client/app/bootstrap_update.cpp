// The bootstrap release as an update: its checks, its staging beside the
// installed tree, and the removal of what a replacement moved aside.
#include "client/app/bootstrap_update.hpp"

#include <system_error>
#include <vector>

#include "client/app/install_guards.hpp"
#include "client/app/target_download.hpp"
#include "client/domain/bootstrap_contract.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/json.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_lock.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/tree.hpp"
#include "client/tuf/metadata.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

// Entries the walk for `.old` files looks at; far above any real tree.
constexpr std::size_t max_tree_entries = 65536;
constexpr std::size_t max_rejected_bytes = 4096;

bool integer_one(const json& document, const char* key) {
  return document.contains(key) && document.at(key).is_number_integer() && document.at(key) == 1;
}

std::string signed_sha256(const json& file) {
  const json& hashes = file.at("hashes");
  return hashes.contains("sha256") && hashes.at("sha256").is_string() ? hashes.at("sha256").get<std::string>() : "";
}

bool holds(const fs::path& path, std::string_view bytes, std::size_t limit) {
  return entry_present(path) && read_file(path, limit) == bytes;
}

// Regular `.old` files of the tree; `complete` is false when the walk could
// not see all of it.
std::vector<fs::path> old_files(const fs::path& tree, bool& complete) {
  std::vector<fs::path> found;
  std::error_code error;
  std::size_t seen = 0;
  fs::recursive_directory_iterator entry(tree, error), end;
  for (; !error && entry != end && ++seen <= max_tree_entries; entry.increment(error)) {
    if (entry->symlink_status(error).type() == fs::file_type::regular && entry->path().extension() == ".old")
      found.push_back(entry->path());
  }
  complete = !error && seen <= max_tree_entries;
  return found;
}

fs::path download_archive(const BootstrapPaths& paths, TufClient& tuf, const SnapshotManifest& manifest,
                          const std::string& manifest_sha256, const Progress& progress) {
  // The receipts let a large archive resume in a later staging of the same
  // signed release, and nothing else.
  const json reference = {{"manifest_sha256", manifest_sha256}, {"build_id", manifest.build_id}};
  private_directory(paths.downloads / "download-intents");
  const TargetDownloads receipts = target_download_receipts(paths.downloads);
  TufDownloadOptions options;
  options.scope = target_download_resume_scope(manifest.archive_target, reference);
  return tuf.download(manifest.archive_target, paths.downloads / "downloads", progress,
                      receipts.observer(manifest.archive_target, reference), options);
}

std::string stage_locked(const BootstrapPaths& paths, TufClient& tuf, const Progress& progress) {
  const std::string target = bootstrap_manifest_target();
  require(length(tuf.target(target)) <= max_bootstrap_update_manifest, "size_limit",
          "Bootstrap update manifest exceeds 512 KiB");
  private_directory(paths.downloads);
  const fs::path file = tuf.download(target, paths.downloads / "manifest", {}, {}, {});
  const std::string bytes = read_file(file, max_bootstrap_update_manifest);
  const SnapshotManifest manifest = parse_bootstrap_update(bytes);
  const std::string manifest_sha256 = digest(bytes, "sha256");
  if (holds(paths.manifest, bytes, max_bootstrap_update_manifest)) return "current";
  if (holds(paths.rejected, manifest_sha256, max_rejected_bytes)) return "rejected";

  require_path_room(paths.native, "bootstrap-update.partial", manifest.longest_native_path());
  const json archive = tuf.target(manifest.archive_target);
  require(length(archive) == manifest.archive_length && signed_sha256(archive) == manifest.archive_sha256,
          "content_mismatch", "Bootstrap archive is not authorized with its declared length and hash");
  const fs::path archive_file = download_archive(paths, tuf, manifest, manifest_sha256, progress);

  remove_path_quietly(paths.partial);
  // The extraction holds every entry and byte to the manifest as it writes
  // and proves the finished tree, so the staged tree needs no second pass.
  extract_snapshot(manifest, archive_file, paths.partial, progress, nullptr);
  remove_path_quietly(paths.update);
  native_files::rename_replace(paths.partial, paths.update);
  sync_directory(paths.native);
  // Written last: a pending update is a complete one.
  atomic_write(paths.update_manifest, bytes);
  return "staged";
}

}  // namespace

BootstrapPaths::BootstrapPaths(const fs::path& data_dir)
    : root(data_dir),
      native(root / "native"),
      tree(native / "bootstrap"),
      manifest(native / "bootstrap.json"),
      update(native / "bootstrap-update"),
      partial(native / "bootstrap-update.partial"),
      update_manifest(native / "bootstrap-update.json"),
      downloads(native / "bootstrap-downloads"),
      rejected(native / "bootstrap-update.rejected"),
      lock(native / "bootstrap-update.lock"),
      old_files(native / "bootstrap-old-files"),
      lifetime(root / ".native-bootstrap.lock"),
      incomplete(root / ".zorvi-setup-incomplete"),
      installation(native / "installation.json") {}

std::string bootstrap_manifest_target() { return "bootstrap-" + native_platform() + ".manifest.json"; }

void validate_bootstrap_update(const SnapshotManifest& manifest) {
  const json& document = manifest.document;
  require(integer_one(document, "runtime_lease_abi"), "launcher_incompatible",
          "Bootstrap updates require the current native lifetime contract");
  require(document.contains("application_schema") && document.at("application_schema").is_object(),
          "launcher_incompatible", "Bootstrap update data contract is missing");
  const json& schema = document.at("application_schema");
  require(integer_one(schema, "minimum") && integer_one(schema, "maximum"), "launcher_incompatible",
          "Bootstrap update data contract is unsupported");
  require(manifest.platform == native_platform(), "launcher_incompatible", "Bootstrap update targets another platform");
  require(manifest.files.size() <= max_bootstrap_update_files &&
              manifest.archive_length <= max_bootstrap_update_bytes &&
              manifest.expanded_length <= max_bootstrap_update_bytes,
          "size_limit", "Bootstrap update exceeds its size limit");
  // An update becomes the stable entry, so it must be a whole one.
  validate_bootstrap_contract(manifest);
}

SnapshotManifest parse_bootstrap_update(std::string_view bytes) {
  SnapshotManifest manifest;
  try {
    manifest = SnapshotManifest::parse(parse_json(bytes, max_bootstrap_update_manifest));
  } catch (const json::exception&) {
    throw Error("invalid_manifest", "Bootstrap update manifest is malformed");
  }
  validate_bootstrap_update(manifest);
  return manifest;
}

std::string stage_bootstrap_update(const fs::path& data_dir, TufClient& tuf, const Progress& progress) {
  const BootstrapPaths paths(fs::absolute(data_dir).lexically_normal());
  require(entry_present(paths.installation), "not_installed", "Bootstrap updates need an installed Zorvi");
  require_complete_native_install(paths.root);
  const NativeFileLock lock(paths.lock, true, NativeLockSharing::shared_install, LockMode::exclusive);
  if (entry_present(paths.update_manifest)) return "pending";
  std::string result;
  try {
    result = stage_locked(paths, tuf, progress);
  } catch (const Error& error) {
    if (error.code != "target_not_found") throw;
    result = "not_published";
  }
  remove_path_quietly(paths.downloads);
  remove_bootstrap_old_files(paths);
  return result;
}

void remove_bootstrap_old_files(const BootstrapPaths& paths) noexcept {
  try {
    bool complete = false;
    for (const fs::path& file : old_files(paths.tree, complete)) {
      std::error_code error;
      fs::remove(file, error);
      complete = complete && !error;
    }
    std::error_code ignored;
    if (complete) fs::remove(paths.old_files, ignored);
    if (!complete && !entry_present(paths.old_files)) atomic_write(paths.old_files, "");
  } catch (...) {
    // A later start tries again; an update never fails over leftovers.
  }
}

// The manifest of the staged tree is written last, so its presence alone
// means a whole update is staged.
bool bootstrap_update_pending(const fs::path& data_dir) {
  return entry_present(data_dir / "native/bootstrap-update.json");
}

}  // namespace zorvi
