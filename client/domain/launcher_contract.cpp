#include "client/domain/launcher_contract.hpp"

#include <algorithm>
#include <array>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/native_platform.hpp"

namespace zorvi {
namespace {

constexpr std::array<std::string_view, 3> helper_roles{helper_role_crash_handler, helper_role_maintenance,
                                                       helper_role_maintenance_gui};

[[noreturn]] void incompatible(const char* message) { throw Error("launcher_incompatible", message); }

// A required ABI number compared with this build's. Another type is a
// malformed document, raised as the JSON library's own type error so that
// parse words it like every other malformed field.
bool abi_matches(const json& value, std::int64_t expected) {
  if (!value.is_number_integer()) throw json::type_error::create(302, "contract value must be an integer", &value);
  return value == expected;
}

bool has_integer(const json& object, const char* key, std::int64_t expected) {
  return object.contains(key) && object[key].is_number_integer() && object[key] == expected;
}

bool text_is(const json& object, const char* key, std::string_view expected) {
  return object.contains(key) && object[key].is_string() && object[key].get_ref<const std::string&>() == expected;
}

bool executable_file(const SnapshotManifest& snapshot, const std::string& path) {
  const auto file = snapshot.files.find(path);
  return file != snapshot.files.end() && file->second.executable;
}

void require_known_contract(const json& document) {
  const bool known = document.is_object() && has_integer(document, "schema_version", 1) &&
                     text_is(document, "kind", launcher_release_kind);
  require(known, "unsupported_schema", "Unsupported launcher manifest; existing installation was preserved");
  if (!abi_matches(document.at("bootstrap_abi"), contract::bootstrap_abi) ||
      !abi_matches(document.at("health_abi"), contract::health_abi))
    incompatible("This launcher needs another native bootstrap ABI");
  // Only the lower end can exclude this build: a positive maximum is at
  // least the one schema there is.
  const json& range = document.at("application_schema");
  const std::uint64_t minimum = positive_version(range.at("minimum"));
  positive_version(range.at("maximum"));
  if (minimum > static_cast<std::uint64_t>(contract::application_schema))
    incompatible("This launcher cannot preserve the current application data schema");
}

void require_bounded_payload(const SnapshotManifest& snapshot) {
  require(snapshot.archive_length <= max_launcher_payload_bytes &&
              snapshot.expanded_length <= max_launcher_payload_bytes && snapshot.files.size() <= max_launcher_files,
          "size_limit", "Launcher payload exceeds bounded native package limits");
}

void parse_gui_executable(const json& document, LauncherManifest& manifest) {
  manifest.gui_executable = document.at("gui_executable").get<std::string>();
  bool usable = true;
  try {
    validate_relative_path(manifest.gui_executable, true);
  } catch (const Error&) {
    usable = false;
  }
  require(usable && executable_file(manifest.snapshot, manifest.gui_executable), "invalid_manifest",
          "GUI launcher executable is missing or not executable");
  require(manifest.gui_executable != manifest.snapshot.executable, "invalid_manifest",
          "GUI and CLI need separate native entry points");
}

bool helper_shape(const json& entry) {
  return entry.is_object() && entry.size() == 3 && entry.contains("path") && entry["path"].is_string() &&
         entry.contains("role") && entry["role"].is_string() && entry.contains("lease_abi") &&
         entry["lease_abi"].is_number_integer();
}

void add_helper(const json& entry, LauncherManifest& manifest) {
  if (!helper_shape(entry)) incompatible("Native helper ownership fields are invalid");
  const auto& role = entry["role"].get_ref<const std::string&>();
  if (std::find(helper_roles.begin(), helper_roles.end(), role) == helper_roles.end() ||
      entry["lease_abi"] != contract::helper_lease_abi)
    incompatible("Unsupported native helper ownership contract");
  const auto& path = entry["path"].get_ref<const std::string&>();
  const bool own_program = path != manifest.snapshot.executable && path != manifest.gui_executable &&
                           executable_file(manifest.snapshot, path) && !manifest.helpers.contains(path);
  if (!own_program) incompatible("Native helper is missing, repeated or overlaps a frontend");
  manifest.helpers.emplace(path, role);
}

void parse_helpers(const json& document, LauncherManifest& manifest) {
  const json& entries = document.at("runtime_helpers");
  if (!entries.is_array() || entries.size() > max_runtime_helpers)
    incompatible("Native helper ownership must be a bounded list");
  for (const json& entry : entries) add_helper(entry, manifest);
}

// A program that nothing declares would run without a supervised lifetime.
void require_declared_programs(const LauncherManifest& manifest) {
  for (const auto& [path, file] : manifest.snapshot.files) {
    const bool declared =
        path == manifest.snapshot.executable || path == manifest.gui_executable || manifest.helpers.contains(path);
    if (file.executable && !declared) incompatible("Every native helper needs declared lifetime ownership");
  }
}

LauncherManifest parse_document(const json& document) {
  require_known_contract(document);
  LauncherManifest manifest;
  manifest.snapshot = SnapshotManifest::parse(document);
  require_contract_value(document, "runtime_lease_abi", contract::runtime_lease_abi);
  require_contract_value(document, "staging_abi", contract::staging_abi);
  require_contract_value(document, "console_interrupt_abi", contract::console_interrupt_abi);
  manifest.runtime_lease_abi = contract::runtime_lease_abi;
  manifest.staging_abi = contract::staging_abi;
  manifest.console_interrupt_abi = contract::console_interrupt_abi;
  require_bounded_payload(manifest.snapshot);
  parse_gui_executable(document, manifest);
  parse_helpers(document, manifest);
  require_declared_programs(manifest);
  return manifest;
}

bool lower_hex(const json& value, std::size_t length) {
  return value.is_string() && is_lower_hex(value.get_ref<const std::string&>(), length);
}

// The nonce and version digest of an attempt record, each checked for shape
// because the nonce names files and the digest names a version.
std::pair<std::string, std::string> attempt_identity(const json& attempt) {
  require(attempt.is_object() && attempt.contains("nonce") && lower_hex(attempt["nonce"], 32), "launcher_state",
          "Launcher startup identity is invalid");
  const bool digest = attempt.contains("reference") && attempt["reference"].is_object() &&
                      attempt["reference"].contains("manifest_sha256") &&
                      lower_hex(attempt["reference"]["manifest_sha256"], 64);
  require(digest, "launcher_state", "Launcher manifest identity is invalid");
  return {attempt["nonce"].get<std::string>(), attempt["reference"]["manifest_sha256"].get<std::string>()};
}

}  // namespace

void require_contract_value(const json& document, std::string_view key, std::int64_t expected) {
  const auto entry = document.is_object() ? document.find(key) : document.end();
  if (!document.is_object() || entry == document.end()) incompatible("Launcher manifest lacks its runtime contract");
  if (!entry->is_number_integer() || *entry != expected) incompatible("Unsupported launcher runtime contract");
}

LauncherManifest LauncherManifest::parse(const json& document) {
  try {
    return parse_document(document);
  } catch (const json::exception&) {
    throw Error("invalid_manifest", "Launcher manifest has missing or malformed fields");
  }
}

json LauncherManifest::startup_health(const json& attempt, std::int64_t pid, std::string_view interface,
                                      bool console) const {
  require(pid > 0 && (interface == "cli" || interface == "gui"), "launcher_health",
          "Launcher health needs its exact native process and interface");
  auto [nonce, manifest_sha256] = attempt_identity(attempt);
  json health = {{"schema_version", 1},
                 {"health_abi", contract::health_abi},
                 {"nonce", std::move(nonce)},
                 {"manifest_sha256", std::move(manifest_sha256)},
                 {"build_id", snapshot.build_id},
                 {"pid", pid},
                 {"interface", interface},
                 {"application_schema", contract::application_schema},
                 {"state", "ready"}};
  if (console && interface == "cli") health["console_interrupt_abi"] = contract::console_interrupt_abi;
  return health;
}

bool LauncherManifest::matches_startup_health(const json& health, const json& attempt, std::int64_t pid,
                                              std::string_view interface, bool console) const {
  if (!health.is_object()) return false;
  for (const char* key : {"schema_version", "health_abi", "application_schema", "pid"}) {
    if (!health.contains(key) || !health[key].is_number_integer()) return false;
  }
  if (console && interface == "cli" && !has_integer(health, "console_interrupt_abi", contract::console_interrupt_abi))
    return false;
  return health == startup_health(attempt, pid, interface, console);
}

std::string launcher_manifest_target() { return "launcher-" + native_platform() + ".manifest.json"; }

}  // namespace zorvi
