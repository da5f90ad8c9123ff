// The stored versions of a launcher store: their manifests, their trees, the
// first one of a new data directory, and the choice among them when the
// state document cannot be trusted.
#include <sys/stat.h>

#include <cerrno>
#include <optional>

#include "client/app/launcher.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/storage.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

std::string manifest_name(const std::string& manifest_sha256) { return "manifests/" + manifest_sha256 + ".json"; }

bool empty_directory(const fs::path& path) {
  std::error_code error;
  const fs::directory_iterator entries(path, error);
  if (error) throw Error("file_read", with_errno("Cannot list launcher directory: " + path_utf8(path), error.value()));
  return entries == fs::directory_iterator();
}

bool later(const struct timespec& first, const struct timespec& second) {
  return first.tv_sec != second.tv_sec ? first.tv_sec > second.tv_sec : first.tv_nsec > second.tv_nsec;
}

struct Usable {
  json reference;
  struct timespec modified{};
};

}  // namespace

LauncherManifest LauncherStore::manifest(const json& reference) const {
  try {
    reference_shape(reference);
  } catch (const Error&) {
    throw Error("launcher_missing", "Install a verified launcher first");
  }
  const std::string& sha = reference.at("manifest_sha256").get_ref<const std::string&>();
  const std::string bytes = read_file(managed(manifest_name(sha)), max_launcher_manifest_bytes);
  require(digest(bytes, "sha256") == sha, "content_mismatch", "Stored launcher manifest changed");
  LauncherManifest parsed = LauncherManifest::parse(parse_json(bytes, max_launcher_manifest_bytes));
  require(parsed.snapshot.build_id == reference.at("build_id").get_ref<const std::string&>() &&
              parsed.snapshot.platform == native_platform(),
          "launcher_state", "Launcher identity/platform differs from its local reference");
  return parsed;
}

fs::path LauncherStore::payload(const json& reference) const {
  require(!reference.is_null(), "launcher_missing", "No working launcher is installed");
  reference_shape(reference);
  return managed("versions/" + reference.at("manifest_sha256").get<std::string>());
}

json LauncherStore::seed_initial(std::string_view manifest_bytes, const fs::path& archive,
                                 const Progress& progress) const {
  const FileLock lock = owner();
  json state = load();
  const bool fresh = state.at("generation") == 0 && state.at("active").is_null() && state.at("rollback").is_null() &&
                     state.at("candidate").is_null() && state.at("attempt").is_null() &&
                     state.at("failed_candidate").is_null();
  require(fresh && empty_directory(managed("manifests")) && empty_directory(managed("versions")), "already_installed",
          "Initial launcher seeding requires a new owned profile");

  const LauncherManifest manifest = LauncherManifest::parse(parse_json(manifest_bytes, max_launcher_manifest_bytes));
  require(manifest.snapshot.platform == native_platform(), "launcher_incompatible",
          "Initial launcher targets another native platform");
  const std::string sha = digest(manifest_bytes, "sha256");
  const json reference = launcher_reference(sha, manifest.snapshot.build_id);
  const fs::path tree = payload(reference);
  require_path_room(tree, {}, manifest.snapshot.longest_native_path());
  // The archive is the sealed package's own file: no download needs room.
  const StorageVolume volume = inspect_storage_volume(launcher_);
  require_install_storage(plan_install_storage(manifest.snapshot, volume, true, 0, false), path_utf8(launcher_));

  atomic_create(managed(manifest_name(sha)), manifest_bytes);
  // Extraction ends by proving the finished tree against the manifest.
  extract_snapshot(manifest.snapshot, archive, tree, progress, nullptr);
  // Active only once a first start has proved it (startup attempts).
  state["candidate"] = reference;
  save(state);
  return reference;
}

json LauncherStore::fallback_active() const {
  const fs::path versions = managed("versions");
  std::optional<Usable> best;
  std::size_t seen = 0;
  std::error_code error;
  fs::directory_iterator entry(versions, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    require(++seen <= max_fallback_versions, "launcher_state", "Too many launcher versions to choose a fallback");
    const std::string name = entry->path().filename().native();
    struct stat directory{};
    struct stat manifest_file{};
    if (name.size() != 64 || ::lstat(entry->path().c_str(), &directory) != 0 || !S_ISDIR(directory.st_mode) ||
        ::lstat((launcher_ / "manifests" / (name + ".json")).c_str(), &manifest_file) != 0 ||
        !S_ISREG(manifest_file.st_mode))
      continue;
    try {
      const std::string bytes = read_file(managed(manifest_name(name)), max_launcher_manifest_bytes);
      // A tree stored under another version's name is not that version.
      if (digest(bytes, "sha256") != name) continue;
      const json document = parse_json(bytes, max_launcher_manifest_bytes);
      json reference = launcher_reference(name, document.at("build_id").get<std::string>());
      manifest(reference);
      if (!best || later(directory.st_mtim, best->modified)) best = Usable{std::move(reference), directory.st_mtim};
    } catch (const Error&) {
    } catch (const json::exception&) {
    }
  }
  // A store that never got its versions directory simply has none.
  if (error && error != std::errc::no_such_file_or_directory)
    throw Error("file_read", with_errno("Cannot list launcher versions", error.value()));
  require(best.has_value(), "launcher_missing", "No installed Zorvi version could be started", {"self status"});
  return best->reference;
}

}  // namespace zorvi
