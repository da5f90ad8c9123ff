#include "client/app/launcher.hpp"

#include <array>
#include <chrono>
#include <initializer_list>
#include <limits>
#include <thread>

#include "client/app/install_guards.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/storage.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

// Created in this order, so a store interrupted while being made is missing
// only its last directories.
constexpr std::array<std::string_view, 9> store_directories = {
    "versions", "manifests", "downloads",       "download-intents", "staging",
    "intents",  "health",    "leases/versions", "leases/attempts"};

constexpr auto owner_patience = std::chrono::seconds(2);
constexpr auto owner_retry = std::chrono::milliseconds(5);

[[noreturn]] void malformed_state() {
  throw Error("launcher_state", "Launcher installation record is malformed; it was preserved");
}

[[noreturn]] void invalid_manifest_identity() {
  throw Error("launcher_state", "Launcher manifest identity is invalid");
}

[[noreturn]] void contradictory_state() {
  throw Error("launcher_state", "Launcher candidate/startup state is contradictory");
}

// An object with exactly these keys; anything more is state this build does
// not understand and must not write back.
bool has_exactly(const json& object, std::initializer_list<const char*> keys) {
  if (!object.is_object() || object.size() != keys.size()) return false;
  for (const char* key : keys) {
    if (!object.contains(key)) return false;
  }
  return true;
}

void check_attempt(const json& attempt, const json& candidate) {
  if (!attempt.is_object()) malformed_state();
  nonce_identity(attempt.at("nonce").get<std::string>());
  if (!attempt.contains("reference") || attempt.at("reference").is_null()) contradictory_state();
  if (!has_exactly(attempt, {"nonce", "reference"})) malformed_state();
  reference_shape(attempt.at("reference"));
  if (!candidate.is_null()) contradictory_state();
}

void check_failure(const json& failure) {
  if (!has_exactly(failure, {"reference", "problem"})) malformed_state();
  reference_shape(failure.at("reference"));
  failure.at("problem").get<std::string>();
}

// The invariants every loaded or saved document keeps.
void check_state(const json& state) {
  const auto field_is = [&](const char* key, const json& expected) {
    return state.is_object() && state.contains(key) && state.at(key) == expected;
  };
  require(field_is("schema_version", 1) && field_is("format", launcher_store_format), "unsupported_schema",
          "Unknown launcher state was preserved");
  try {
    if (!has_exactly(state, {"schema_version", "format", "generation", "active", "rollback", "candidate", "attempt",
                             "failed_candidate"}))
      malformed_state();
    // A stored document has been saved at least once, so never holds 0.
    positive_version(state.at("generation"));
    for (const char* key : {"active", "rollback", "candidate"}) {
      if (!state.at(key).is_null()) reference_shape(state.at(key));
    }
    if (!state.at("attempt").is_null()) check_attempt(state.at("attempt"), state.at("candidate"));
    if (!state.at("failed_candidate").is_null()) check_failure(state.at("failed_candidate"));
  } catch (const json::exception&) {
    malformed_state();
  }
}

json empty_state() {
  return {{"schema_version", 1}, {"format", launcher_store_format},
          {"generation", 0},     {"active", nullptr},
          {"rollback", nullptr}, {"candidate", nullptr},
          {"attempt", nullptr},  {"failed_candidate", nullptr}};
}

}  // namespace

// Absolute, weakly canonical and normal, then rebuilt component by component
// so that a name the path rules refuse, or a link, is refused here.
fs::path ordinary_data_dir(const fs::path& root) {
  require(!root.empty(), "unsafe_path", "Data directory path is empty");
  std::error_code error;
  fs::path normal = fs::weakly_canonical(fs::absolute(root), error).lexically_normal();
  if (error) throw Error("unsafe_path", with_errno("Cannot resolve the data directory", error.value()));
  if (normal.filename().empty() && normal.has_relative_path()) normal = normal.parent_path();
  return safe_join(normal.root_path(), path_utf8(normal.relative_path()), false);
}

json launcher_reference(const std::string& manifest_sha256, const std::string& build_id) {
  return {{"manifest_sha256", manifest_sha256}, {"build_id", build_id}};
}

void reference_shape(const json& reference) {
  if (!has_exactly(reference, {"manifest_sha256", "build_id"})) invalid_manifest_identity();
  const json& sha = reference.at("manifest_sha256");
  const json& build = reference.at("build_id");
  if (!sha.is_string() || !is_lower_hex(sha.get_ref<const std::string&>(), 64) || !build.is_string())
    invalid_manifest_identity();
  try {
    validate_identifier(build.get_ref<const std::string&>());
  } catch (const Error&) {
    invalid_manifest_identity();
  }
}

void nonce_identity(std::string_view nonce) {
  require(is_lower_hex(nonce, 32), "launcher_state", "Launcher startup identity is invalid");
}

LauncherStore::LauncherStore(const fs::path& root) : LauncherStore(root, false, Opening::create) {}

LauncherStore::LauncherStore(const fs::path& root, bool skip_install_check)
    : LauncherStore(root, skip_install_check, Opening::create) {}

LauncherStore LauncherStore::existing(const fs::path& root) { return LauncherStore(root, false, Opening::inspect); }

LauncherStore LauncherStore::for_launch(const fs::path& root) { return LauncherStore(root, false, Opening::launch); }

LauncherStore::LauncherStore(const fs::path& root, bool skip_install_check, Opening opening)
    : root_(ordinary_data_dir(root)), launcher_(safe_join(root_, "launcher", true)) {
  if (!skip_install_check) require_complete_native_install(root_);
  if (opening == Opening::launch) return;
  if (opening == Opening::create) {
    private_directory(launcher_);
    for (std::string_view name : store_directories) private_directory(managed(name));
  } else {
    inspect_storage_directory(launcher_);
    for (std::string_view name : store_directories) inspect_storage_directory(managed(name));
  }
  load();
}

fs::path LauncherStore::managed(std::string_view relative) const { return safe_join(launcher_, relative, true); }

fs::path LauncherStore::state_path() const { return managed("installation.json"); }

json LauncherStore::load() const {
  const fs::path path = state_path();
  if (!entry_present(path)) return empty_state();
  json state = parse_json(read_file(path, max_launcher_state_bytes), max_launcher_state_bytes);
  check_state(state);
  return state;
}

void LauncherStore::save(json& state) const {
  std::uint64_t generation = 0;
  try {
    const json& stored = state.at("generation");
    if (!stored.is_number_unsigned() && !(stored.is_number_integer() && stored.get<std::int64_t>() >= 0))
      malformed_state();
    generation = stored.get<std::uint64_t>();
  } catch (const json::exception&) {
    malformed_state();
  }
  require(generation != std::numeric_limits<std::uint64_t>::max(), "launcher_state",
          "Launcher state generation is exhausted");
  json next = state;
  next["generation"] = generation + 1;
  check_state(next);
  const std::string text = next.dump();
  require(text.size() <= max_launcher_state_bytes, "size_limit", "Launcher state exceeds its durable bound");
  atomic_write(state_path(), text);
  // Only a committed document advances the caller's generation.
  state = std::move(next);
}

FileLock LauncherStore::owner() const {
  const fs::path path = managed("bootstrap.lock");
  const auto deadline = std::chrono::steady_clock::now() + owner_patience;
  for (;;) {
    try {
      return FileLock(path, false, LockMode::exclusive);
    } catch (const Error& error) {
      if (error.code != "busy" || std::chrono::steady_clock::now() >= deadline) throw;
    }
    std::this_thread::sleep_for(owner_retry);
  }
}

json LauncherStore::status() const {
  json state = load();
  state["installed"] = !state.at("active").is_null();
  return state;
}

std::optional<json> LauncherStore::selection() const {
  try {
    return load();
  } catch (const json::exception&) {
    return std::nullopt;
  } catch (const Error& error) {
    if (error.code == "launcher_state" || error.code == "unsupported_schema" || error.code == "invalid_json")
      return std::nullopt;
    throw;
  }
}

}  // namespace zorvi
