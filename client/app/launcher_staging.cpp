// Staging: the repository's launcher brought onto the disk beside a working
// client and named the candidate. Every bound is checked before bytes are
// fetched, a version appears in `versions` only whole, and the state
// document changes in one save at the very end, so any failure or crash
// leaves the running launcher as it was.
#include <optional>
#include <string_view>
#include <system_error>

#include "client/app/launcher.hpp"
#include "client/app/launcher_download.hpp"
#include "client/app/target_download.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/tuf/metadata.hpp"
#include "client/tuf/tuf.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

json skipped(std::string_view reason) { return {{"staged", false}, {"skipped", reason}}; }

json already_current(const json& build_id) {
  return {{"staged", false}, {"already_current", true}, {"build_id", build_id}};
}

json staged(const json& reference) {
  return {{"staged", true},
          {"activated", false},
          {"build_id", reference.at("build_id")},
          {"manifest_sha256", reference.at("manifest_sha256")}};
}

void announce(const LauncherPhase& phase, std::string_view word) {
  if (phase) phase(word, true);
}

// A description without a SHA-256 names no version this store could hold.
std::string signed_sha256(const json& file) {
  const json& hashes = file.at("hashes");
  return hashes.contains("sha256") && hashes.at("sha256").is_string() ? hashes.at("sha256").get<std::string>() : "";
}

bool names(const json& reference, const std::string& manifest_sha256) {
  return !reference.is_null() && reference.at("manifest_sha256") == manifest_sha256;
}

// A background check gives up early when the update could not be used now;
// it asks the repository only once it knows the store could take one.
std::optional<json> pointless(const json& state, bool cleanup, TufClient& tuf) {
  if (state.at("active").is_null()) return skipped("not_installed");
  if (cleanup) return skipped("cleanup_pending");
  if (!state.at("attempt").is_null()) return skipped("startup_pending");
  const std::string published = signed_sha256(tuf.target(launcher_manifest_target()));
  if (names(state.at("active"), published)) return already_current(state.at("active").at("build_id"));
  if (!state.at("candidate").is_null()) return skipped("candidate_pending");
  const json& failed = state.at("failed_candidate");
  if (!failed.is_null() && names(failed.at("reference"), published)) return skipped("failed_before");
  return std::nullopt;
}

struct Release {
  std::string bytes;
  LauncherManifest manifest;
  json reference;
};

// One staging under the owner lock, from the verified descriptor to the
// saved candidate.
struct Staging {
  const LauncherStore& store;
  TufClient& tuf;
  const Progress& progress;
  const LauncherPhase& phase;
  TargetDownloads receipts;

  fs::path at(std::string_view relative) const { return safe_join(store.launcher_directory(), relative, true); }

  json run(json& state) {
    announce(phase, "verifying");
    require_launcher_budget(store.launcher_directory(), 0);
    const Release release = fetch_release();
    const json& reference = release.reference;
    require_distinct_builds(state, reference);
    if (state.at("active") == reference) return confirm_active(release);
    require(state.at("candidate").is_null() || state.at("candidate") == reference, "launcher_pending",
            "Start the pending launcher candidate before staging a different build");

    const SnapshotManifest& snapshot = release.manifest.snapshot;
    const fs::path payload = store.payload(reference);
    require_path_room(payload, {}, snapshot.longest_native_path());
    require(entry_present(payload) ||
                launcher_directory_entries(at("versions"), max_launcher_versions + 1) <= max_launcher_versions,
            "launcher_storage_full", "Retained launcher versions reached their bounded capacity");
    require_launcher_budget(store.launcher_directory(), 0);
    announce(phase, "downloading");
    const fs::path archive =
        download_launcher_target(tuf, receipts, snapshot.archive_target, reference, &snapshot, progress);
    keep_manifest(release);
    if (entry_present(payload)) {
      receipts.retire(reference);
      verify_snapshot_tree(snapshot, payload, progress);
    } else {
      // The archive is the extraction's input, so it goes only once the
      // version it makes is in place.
      assemble(snapshot, reference, archive, payload);
      receipts.retire(reference);
    }

    announce(phase, "activating");
    state["candidate"] = reference;
    state["failed_candidate"] = nullptr;
    store.save(state);
    return staged(reference);
  }

  Release fetch_release() {
    const std::string target = launcher_manifest_target();
    require(length(tuf.target(target)) <= max_launcher_manifest_bytes, "size_limit",
            "Launcher descriptor exceeds 512 KiB");
    const fs::path file = download_launcher_target(tuf, receipts, target, nullptr, nullptr, progress);
    Release release{read_file(file, max_launcher_manifest_bytes), {}, {}};
    release.manifest = LauncherManifest::parse(parse_json(release.bytes, max_launcher_manifest_bytes));
    const SnapshotManifest& snapshot = release.manifest.snapshot;
    require(snapshot.platform == native_platform(), "launcher_incompatible",
            "Launcher payload targets another native platform");
    const json archive = tuf.target(snapshot.archive_target);
    require(length(archive) == snapshot.archive_length && signed_sha256(archive) == snapshot.archive_sha256,
            "content_mismatch", "Launcher archive is not authorized with its declared length/hash");
    release.reference = launcher_reference(digest(release.bytes, "sha256"), snapshot.build_id);
    return release;
  }

  // A build identifier stands for one signed content, always.
  static void require_distinct_builds(const json& state, const json& reference) {
    for (const char* key : {"active", "rollback", "candidate"}) {
      const json& held = state.at(key);
      require(held.is_null() || held.at("build_id") != reference.at("build_id") ||
                  held.at("manifest_sha256") == reference.at("manifest_sha256"),
              "launcher_build_conflict", "An installed launcher build ID has different signed content");
    }
  }

  // The release is already the running one: prove its tree, tidy the
  // downloads, change nothing.
  json confirm_active(const Release& release) {
    verify_snapshot_tree(release.manifest.snapshot, store.payload(release.reference), progress);
    receipts.retire(release.reference);
    return already_current(release.manifest.snapshot.build_id);
  }

  // A stored manifest is immutable: the same name must hold the same bytes.
  void keep_manifest(const Release& release) const {
    const fs::path path = at("manifests/" + release.reference.at("manifest_sha256").get<std::string>() + ".json");
    if (!entry_present(path)) return atomic_create(path, release.bytes);
    require(read_file(path, max_launcher_manifest_bytes) == release.bytes, "content_mismatch",
            "Immutable launcher descriptor changed");
  }

  // The tree is built under `staging` beside a record that says what it is,
  // and enters `versions` by one rename, so `versions` never holds a part.
  void assemble(const SnapshotManifest& snapshot, const json& reference, const fs::path& archive,
                const fs::path& payload) const {
    announce(phase, "staging");
    const std::string id = random_id();
    const fs::path work = at("staging/" + id), record = at("intents/" + id + ".json");
    const json document = {
        {"schema_version", 1}, {"kind", "zorvi-launcher-staging"}, {"nonce", id}, {"reference", reference}};
    atomic_create(record, document.dump());
    extract_snapshot(snapshot, archive, work, progress, nullptr);
    commit_private_path_new(work, payload, {});
    sync_directory(at("staging"));
    sync_directory(at("versions"));
    std::error_code error;
    fs::remove(record, error);
    if (error) throw Error("file_remove", with_errno("Cannot remove " + path_utf8(record), error.value()));
    sync_directory(at("intents"));
  }
};

}  // namespace

json LauncherStore::stage(TufClient& tuf, const Progress& progress, const LauncherPhase& phase, bool optional) const {
  const FileLock lock = owner();
  json state = load();
  try {
    const bool cleanup = entry_present(managed("cleanup.json"));
    if (optional) {
      if (std::optional<json> result = pointless(state, cleanup, tuf)) return *result;
    }
    require(!cleanup, "launcher_cleanup_pending", "Finish the recorded Zorvi cleanup before staging another update",
            {"self cleanup"});
    require(state.at("attempt").is_null(), "busy", "A launcher startup must finish before another update is staged");
    Staging staging{*this, tuf, progress, phase, launcher_download_receipts(launcher_)};
    return staging.run(state);
  } catch (const Error& error) {
    if (optional && error.code == "target_not_found") return skipped("not_published");
    throw;
  }
}

}  // namespace zorvi
