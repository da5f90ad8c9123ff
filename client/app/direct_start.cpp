#include "client/app/direct_start.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>

#include "client/app/platformed.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/json.hpp"
#include "client/domain/manifest.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/process.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t manifest_ref_length = 64;

// A member of an object, null when either is missing: a record of the wrong
// shape then fails the check that reads that member.
json member(const json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  const auto found = object.find(key);
  return found == object.end() ? json() : *found;
}

// One of the game's own files below the data folder, no link on the way.
fs::path game_path(const fs::path& root, const std::string& game_id, const std::string& relative) {
  return safe_join(root, "games/" + game_id + "/" + relative, true);
}

void require_manifest_ref(const json& reference) {
  bool valid = reference.is_string() && reference.get_ref<const std::string&>().size() == manifest_ref_length;
  try {
    if (valid) validate_identifier(reference.get_ref<const std::string&>());
  } catch (const Error&) {
    valid = false;
  }
  require(valid, "invalid_state", "Installed manifest reference is malformed");
}

// The manifest of the active version: embedded in the record, or stored
// beside it under a reference that must still be the digest of its compact
// form. The digest is of the parsed value, so that a rewrite that keeps the
// value (white space, say) keeps the reference too.
SnapshotManifest active_manifest(const fs::path& root, const std::string& game_id, const json& active) {
  if (!active.is_object() || !active.contains("manifest_ref"))
    return GameManifest::parse(member(active, "manifest")).snapshot;
  const json& reference = active.at("manifest_ref");
  require_manifest_ref(reference);
  const std::string& ref = reference.get_ref<const std::string&>();
  const fs::path stored = game_path(root, game_id, "verified-manifests/application-" + ref + ".json");
  const json document = parse_json(read_file(stored, max_stored_game_manifest_bytes), max_stored_game_manifest_bytes);
  require(digest(document.dump(), "sha256") == ref, "content_mismatch", "The stored game manifest changed");
  return GameManifest::parse(document).snapshot;
}

LocatedGame platformed_program(const PlatformedGame& game) {
  std::error_code error;
  require(fs::is_regular_file(fs::symlink_status(game.executable, error)), "missing_file",
          "The game's program is missing");
  return {path_utf8(game.executable), path_utf8(game.executable.parent_path()), game.build};
}

}  // namespace

LocatedGame locate_installed_game(const fs::path& data_root, std::string_view game_id) {
  validate_identifier(game_id);
  // A platformed copy's game lies outside the data folder; its records are
  // never consulted.
  if (const std::optional<PlatformedGame> shell = platformed_game(game_id)) return platformed_program(*shell);
  const fs::path root = fs::absolute(data_root).lexically_normal();
  const std::string id(game_id);
  const json record =
      parse_json(read_file(game_path(root, id, "record.json"), max_game_record_bytes), max_game_record_bytes);
  require(member(record, "installed") == true && member(record, "game_id") == id, "not_installed",
          "The game is not installed");
  const json active = member(record, "active");
  const json version = member(active, "version");
  validate_identifier(version.is_string() ? version.get_ref<const std::string&>() : std::string());
  const SnapshotManifest manifest = active_manifest(root, id, active);
  require(manifest.platform == native_platform(), "platform_mismatch", "Installed game build is for another platform");
  const fs::path directory = game_path(root, id, "versions/" + version.get<std::string>());
  const fs::path executable = safe_join(directory, manifest.executable, true);
  require(has_listed_length(manifest, manifest.executable, executable), "content_mismatch",
          "The game's program is missing or changed");
  return {path_utf8(executable), path_utf8(directory), manifest.build_id};
}

void start_installed_game(const fs::path& data_root, std::string_view game_id, bool replace) {
  const LocatedGame game = locate_installed_game(data_root, game_id);
  const fs::path executable = path_from_utf8(game.executable);
  const fs::path directory = path_from_utf8(game.directory);
  if (!replace) {
    // Started in a group of its own and let go: the game outlives this
    // process and its console.
    const ChildProcess child(executable, {}, directory, {}, ChildStreams::Separated, ChildEnvironment::Inherited, {},
                             ChildGroup::Isolated);
    return;
  }
  try {
    exec_process(executable, {}, directory, {});
  } catch (const Error& error) {
    throw Error("process_start", "The game could not be started", {error.what()});
  }
}

bool local_storage_failure(std::string_view code) {
  constexpr std::array<std::string_view, 5> refused_saves = {"insufficient_space", "file_write", "file_sync",
                                                             "permissions", "journal_write"};
  return std::find(refused_saves.begin(), refused_saves.end(), code) != refused_saves.end();
}

}  // namespace zorvi
