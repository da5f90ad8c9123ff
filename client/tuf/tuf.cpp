#include "client/tuf/tuf.hpp"

#include <algorithm>
#include <limits>
#include <system_error>
#include <utility>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/tuf/metadata.hpp"

namespace zorvi {
namespace {

// The first root arrives with the installation and is small; a stored root
// has already been bounded in bytes by `root_limit` when it is parsed.
constexpr std::size_t first_root_bound = 524288;
constexpr std::size_t stored_root_bound = 4194304;

constexpr const char* invalidation_marker = "root-invalidation.json";

std::size_t bound(std::uint64_t limit) {
  return static_cast<std::size_t>(std::min<std::uint64_t>(limit, std::numeric_limits<std::size_t>::max()));
}

void remove_if_present(const std::filesystem::path& path) {
  std::error_code error;
  std::filesystem::remove(path, error);
  if (error) throw Error("file_remove", with_errno("Cannot remove " + path_utf8(path), error.value()));
}

std::uint64_t version_of(const json& document) { return positive_version(document.at("signed").at("version")); }

// A root must be signed by its own root keys before anything it says counts.
json self_signed_root(std::string_view bytes, std::size_t parse_bound) {
  json document = parse_json(bytes, parse_bound);
  shape(document, "root");
  const json& body = document.at("signed");
  verify_threshold(document, body.at("keys"), body.at("roles").at("root"));
  return document;
}

// Hash-prefix delegations split a namespace by the SHA-256 of each path, so
// that no single role has to list every target.
bool delegation_matches(const json& entry, std::string_view path) {
  if (const auto patterns = entry.find("paths"); patterns != entry.end()) {
    return std::any_of(patterns->begin(), patterns->end(), [&](const json& pattern) {
      return path_pattern_matches(pattern.get_ref<const std::string&>(), path);
    });
  }
  const std::string hashed = digest(path, "sha256");
  bool matched = false;
  for (const json& prefix : entry.at("path_hash_prefixes")) {
    const std::string& text = prefix.get_ref<const std::string&>();
    require(!text.empty() && text.size() <= 64 && is_lower_hex(text), "invalid_metadata",
            "Invalid delegation hash prefix");
    matched = matched || hashed.starts_with(text);
  }
  return matched;
}

}  // namespace

std::filesystem::path role_cache(const std::filesystem::path& directory, std::string_view role) {
  const bool top = role == "root" || role == "timestamp" || role == "snapshot" || role == "targets";
  const std::string name = top ? std::string(role) + ".json" : "delegated-" + digest(role, "sha256") + ".json";
  return safe_join(directory, name, false);
}

void TufClient::initialize(const std::filesystem::path& directory, std::string_view root) {
  const FileLock lock(directory / ".lock", false, LockMode::exclusive);
  const auto stored = role_cache(directory, "root");
  require(!entry_present(stored), "already_initialized", "Trusted root is already initialized");
  self_signed_root(root, first_root_bound);
  atomic_write(stored, root);
}

TufClient::TufClient(std::filesystem::path directory, Transport& metadata_transport, Transport& target_transport,
                     TufLimits limits, TufClock clock)
    : directory_(std::move(directory)),
      lock_(directory_ / ".lock", false, LockMode::exclusive),
      metadata_transport_(metadata_transport),
      target_transport_(target_transport),
      limits_(limits),
      clock_(std::move(clock)) {
  root_ = self_signed_root(read_file(role_cache(directory_, "root"), limits_.root_limit), stored_root_bound);
  clear_rotated_state();
}

std::int64_t TufClient::now_micros() const {
  const auto now = clock_ ? clock_() : std::chrono::system_clock::now();
  return std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count();
}

// Removing the online roles' documents before the marker means a crash at
// any point leaves either the marker or nothing left to do.
void TufClient::clear_rotated_state() {
  const auto marker = directory_ / invalidation_marker;
  if (!entry_present(marker)) return;
  remove_if_present(role_cache(directory_, "timestamp"));
  remove_if_present(role_cache(directory_, "snapshot"));
  sync_directory(directory_);
  remove_if_present(marker);
  sync_directory(directory_);
}

std::optional<json> TufClient::local(std::string_view role) const {
  const auto path = role_cache(directory_, role);
  if (!entry_present(path)) return std::nullopt;
  const std::string bytes = read_file(path, limits_.metadata_limit);
  // Trusted state that no longer parses is reported, never silently replaced.
  const auto malformed = [&] {
    return Error("invalid_trusted_metadata",
                 "Stored " + std::string(role) + " metadata is malformed; preserve and restore trusted state");
  };
  try {
    return parse_json(bytes, bound(limits_.metadata_limit));
  } catch (const Error& error) {
    if (error.code == "invalid_json" || error.code == "duplicate_key" || error.code == "depth_limit" ||
        error.code == "invalid_number")
      throw malformed();
    throw;
  } catch (const json::exception&) {
    throw malformed();
  }
}

void TufClient::persist(std::string_view role, std::string_view bytes) {
  atomic_write(role_cache(directory_, role), bytes);
}

void TufClient::refresh() {
  refreshed_ = false;
  loaded_ = false;
  pending_snapshot_.reset();
  forget_checked_roles();
  now_ = now_micros();
  update_root();
  // Nothing, not even the timestamp, is judged under an expired root.
  unexpired(root_, now_);
  const HttpResponse response = metadata_transport_.get("timestamp.json", limits_.timestamp_limit);
  require(response.status == 200, "http_status", "Could not download timestamp metadata");
  json fresh = parse_json(response.body, bound(limits_.timestamp_limit));
  shape(fresh, "timestamp");
  const json& body = root_.at("signed");
  verify_threshold(fresh, body.at("keys"), body.at("roles").at("timestamp"));
  if (take_timestamp(std::move(fresh), response.body)) load_selected_metadata();
  refreshed_ = true;
}

void TufClient::update_root() {
  for (std::uint64_t round = 0; round < limits_.max_root_rotations; ++round) {
    const std::uint64_t version = version_of(root_);
    require(version != std::numeric_limits<std::uint64_t>::max(), "invalid_version",
            "Root version cannot be incremented");
    const std::string name = std::to_string(version + 1) + ".root.json";
    const HttpResponse response = metadata_transport_.get(name, limits_.root_limit);
    if (response.status == 403 || response.status == 404) return;
    require(response.status == 200, "http_status", "Could not download next trusted root");
    json next = parse_json(response.body, bound(limits_.root_limit));
    shape(next, "root");
    const json& old_body = root_.at("signed");
    const json& new_body = next.at("signed");
    verify_threshold(next, old_body.at("keys"), old_body.at("roles").at("root"));
    verify_threshold(next, new_body.at("keys"), new_body.at("roles").at("root"));
    require(version_of(next) == version + 1, "rollback", "Root version is not exactly the next version");
    // New online keys void the stored timestamp and snapshot. The marker goes
    // first so that a crash between the writes still finishes the job.
    const bool changed = online_keys(root_) != online_keys(next);
    if (changed) atomic_write(directory_ / invalidation_marker, json{{"version", version + 1}}.dump());
    atomic_write(role_cache(directory_, "root"), response.body);
    root_ = std::move(next);
    if (changed) clear_rotated_state();
  }
}

// Returns false when the repository's timestamp is the one already stored:
// then nothing is written and the snapshot and targets load on first need.
bool TufClient::take_timestamp(json fresh, const std::string& bytes) {
  const std::optional<json> stored = local("timestamp");
  if (stored) {
    shape(*stored, "timestamp");
    require(version_of(fresh) >= version_of(*stored), "rollback", "Timestamp version went backwards");
    if (version_of(fresh) == version_of(*stored)) {
      timestamp_ = *stored;
      return false;
    }
    const auto snapshot_version = [](const json& document) {
      return positive_version(document.at("signed").at("meta").at("snapshot.json").at("version"));
    };
    require(snapshot_version(fresh) >= snapshot_version(*stored), "rollback", "Timestamp references an older snapshot");
  }
  unexpired(fresh, now_);
  // A damaged stored snapshot is reported before the timestamp moves on.
  if (stored) {
    if (const std::optional<json> snapshot = local("snapshot")) shape(*snapshot, "snapshot");
  }
  atomic_write(role_cache(directory_, "timestamp"), bytes);
  timestamp_ = std::move(fresh);
  return true;
}

namespace {

// Every role the stored snapshot knows stays in the new one, at no lower
// version. A stored snapshot without a readable `meta` is trusted state gone
// bad: reported, not replaced.
void require_no_role_rollback(const json& stored, const json& fresh) {
  const json& current = fresh.at("signed").at("meta");
  const json* meta = nullptr;
  if (const auto body = stored.find("signed"); body != stored.end())
    if (const auto found = body->find("meta"); found != body->end()) meta = &*found;
  const bool sound = meta != nullptr && meta->is_object() &&
                     std::all_of(meta->begin(), meta->end(), [](const json& item) { return item.contains("version"); });
  require(sound, "invalid_trusted_metadata",
          "Stored snapshot metadata is malformed; preserve and restore trusted state");
  for (const auto& item : meta->items()) {
    const auto found = current.find(item.key());
    require(found != current.end() &&
                positive_version(found->at("version")) >= positive_version(item.value().at("version")),
            "rollback", "Snapshot removed or rolled back a known targets role");
  }
}

}  // namespace

void TufClient::load_selected_metadata() {
  unexpired(timestamp_, now_);
  pending_snapshot_.reset();
  const std::optional<json> stored = local("snapshot");
  const json& keys = root_.at("signed").at("keys");
  const json& roles = root_.at("signed").at("roles");
  json fresh = load_role("snapshot", timestamp_.at("signed").at("meta").at("snapshot.json"), keys, roles.at("snapshot"),
                         "snapshot");
  if (stored) require_no_role_rollback(*stored, fresh);
  // Only a snapshot that passed the rollback check is ever stored.
  if (pending_snapshot_) {
    atomic_write(role_cache(directory_, "snapshot"), *pending_snapshot_);
    pending_snapshot_.reset();
  }
  snapshot_ = std::move(fresh);
  targets_ =
      load_role("targets", snapshot_.at("signed").at("meta").at("targets.json"), keys, roles.at("targets"), "targets");
  loaded_ = true;
}

bool TufClient::consistent_snapshot() const {
  const json& body = root_.at("signed");
  const auto flag = body.find("consistent_snapshot");
  return flag != body.end() && flag->get<bool>();
}

json TufClient::checked_role(std::string_view bytes, const json& description, const json& keys, const json& authority,
                             std::string_view type) const {
  if (description.contains("length"))
    require(bytes.size() == length(description), "length_mismatch", "Metadata length does not match its parent");
  if (const auto hashes = description.find("hashes"); hashes != description.end()) {
    require(hashes->is_object() && !hashes->empty(), "invalid_hashes", "Metadata hashes must be a nonempty object");
    for (const auto& item : hashes->items())
      require(digest(bytes, item.key()) == item.value().get_ref<const std::string&>(), "hash_mismatch",
              "Metadata hash does not match its parent");
  }
  json document = parse_json(bytes, bound(limits_.metadata_limit));
  shape(document, type);
  verify_threshold(document, keys, authority);
  require(version_of(document) == positive_version(description.at("version")), "version_mismatch",
          "Metadata version does not match its parent");
  unexpired(document, now_);
  return document;
}

void TufClient::forget_checked_roles() {
  checked_.clear();
  checked_bytes_ = 0;
}

json TufClient::remembered_role(std::string_view role, std::string bytes, const json& description, const json& keys,
                                const json& authority, std::string_view type) {
  if (const auto known = checked_.find(role); known != checked_.end()) {
    const CheckedRole& last = known->second;
    if (last.bytes == bytes && last.now == now_ && last.type == type && last.description == description &&
        last.authority == authority && last.keys == keys)
      return last.document;
    checked_bytes_ -= last.bytes.size();
    checked_.erase(known);
  }
  json document = checked_role(bytes, description, keys, authority, type);
  // What is remembered stays within a fixed number of document bytes.
  if (bytes.size() > max_remembered_bytes - checked_bytes_) forget_checked_roles();
  if (bytes.size() > max_remembered_bytes) return document;
  checked_bytes_ += bytes.size();
  checked_.emplace(std::string(role),
                   CheckedRole{std::move(bytes), description, keys, authority, std::string(type), now_, document});
  return document;
}

json TufClient::load_role(std::string_view role, const json& description, const json& keys, const json& authority,
                          std::string_view type) {
  require(!role.empty() && role.size() <= max_role_name, "size_limit", "Metadata role name exceeds its bound");
  const auto cache = role_cache(directory_, role);
  // Unlike `local`, a cached role that fails its parent's description is
  // stale or damaged and is simply fetched again.
  if (entry_present(cache)) {
    try {
      return remembered_role(role, read_file(cache, limits_.metadata_limit), description, keys, authority, type);
    } catch (const Error&) {
    } catch (const json::exception&) {
    }
  }
  std::uint64_t limit = limits_.metadata_limit;
  if (description.contains("length")) limit = std::min(limit, length(description));
  std::string name = std::string(role) + ".json";
  if (consistent_snapshot()) name = std::to_string(positive_version(description.at("version"))) + "." + name;
  HttpResponse response = metadata_transport_.get_component(name, limit);
  require(response.status == 200, "http_status", "Could not download metadata for role " + std::string(role));
  json document = checked_role(response.body, description, keys, authority, type);
  if (role == "snapshot") pending_snapshot_ = std::move(response.body);
  else atomic_write(cache, response.body);
  return document;
}

std::optional<json> TufClient::visit(std::string_view path, const std::string& role, const json& document,
                                     std::set<std::string>& visited, bool& stop) {
  if (visited.contains(role)) return std::nullopt;
  const auto admit = [&] {
    require(visited.size() < limits_.max_delegations, "delegation_limit", "Repository delegation limit reached");
  };
  admit();
  visited.insert(role);
  const json& body = document.at("signed");
  const json& own = body.at("targets");
  // A role's own entry beats anything it delegates.
  if (const auto found = own.find(std::string(path)); found != own.end()) return *found;
  const auto delegations = body.find("delegations");
  if (delegations == body.end()) return std::nullopt;
  const json& described = snapshot_.at("signed").at("meta");
  for (const json& entry : delegations->at("roles")) {
    if (!delegation_matches(entry, path)) continue;
    const std::string name = entry.at("name").get<std::string>();
    if (!visited.contains(name)) {
      admit();
      const auto description = described.find(name + ".json");
      require(description != described.end(), "missing_role",
              "Delegated role is absent from the authenticated snapshot");
      const json child = load_role(name, *description, delegations->at("keys"), entry, "targets");
      if (std::optional<json> found = visit(path, name, child, visited, stop)) return found;
      if (stop) return std::nullopt;
    }
    if (entry.at("terminating").get<bool>()) {
      stop = true;
      return std::nullopt;
    }
  }
  return std::nullopt;
}

json TufClient::target(std::string_view path) {
  validate_relative_path(path, false);
  if (!refreshed_) refresh();
  if (!loaded_) load_selected_metadata();
  std::set<std::string> visited;
  bool stop = false;
  const std::optional<json> file = visit(path, "targets", targets_, visited, stop);
  require(file.has_value(), "target_not_found", "Target is not authorized by the repository: " + std::string(path));
  length(*file);
  const auto hashes = file->find("hashes");
  require(hashes != file->end() && hashes->is_object() && !hashes->empty(), "invalid_hashes",
          "Target has no authenticated hashes");
  return *file;
}

}  // namespace zorvi
