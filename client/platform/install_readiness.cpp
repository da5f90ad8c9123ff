// The two install ownership documents: how they are made and what a valid one
// looks like. Cleanup after a crash lives in install_cleanup.cpp.
#include "client/platform/install_readiness.hpp"

#include <cstdint>
#include <string>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/storage.hpp"

namespace zorvi {
namespace {

constexpr const char* preparation_kind = "zorvi-install-preparation";
constexpr const char* ready_kind = "zorvi-install-ready";
constexpr std::size_t max_versions_path = 16384;
// Every valid document fits, even with each path byte escaped as \u00XX.
constexpr std::size_t max_document_bytes = 131072;

const char* state_code(bool ready) { return ready ? "install_ready_state" : "install_preparation_state"; }

bool has_exactly(const json& object, std::initializer_list<const char*> keys) {
  if (object.size() != keys.size()) return false;
  for (const char* key : keys)
    if (!object.contains(key)) return false;
  return true;
}

bool unsigned_integer(const json& value) {
  return value.is_number_unsigned() || (value.is_number_integer() && value.get<std::int64_t>() >= 0);
}

bool valid_identity(const json& value, bool ready) {
  if (value.is_null()) return !ready;
  return value.is_array() && value.size() == 2 && unsigned_integer(value[0]) && unsigned_integer(value[1]);
}

bool normal_absolute(const std::string& text) {
  if (text.find('\0') != std::string::npos) return false;
  const std::filesystem::path path(text);
  return path.has_root_directory() && path.lexically_normal().native() == text;
}

template <class Rule>
bool passes(const Rule& rule) {
  try {
    rule();
    return true;
  } catch (const Error&) {
    return false;
  }
}

bool identifier(const std::string& text) {
  return passes([&] { validate_identifier(text); });
}

void check_reference(const json& reference, const char* state) {
  const json &version = reference["version"], &build = reference["build_id"], &ref = reference["manifest_ref"],
             &target = reference["manifest_target"];
  require(version.is_string() && build.is_string() && ref.is_string() && target.is_string() &&
              identifier(version.get<std::string>()) && identifier(build.get<std::string>()),
          state, "Installation ownership reference is malformed");
  require(is_lower_hex(ref.get<std::string>(), 64), state, "Installation ownership needs an exact manifest digest");
}

// The manifest target is bounded by the path rule, the versions path by its
// own limit; either way the document is outside the format it was written in.
void check_bounds(const json& document) {
  const std::string& target = document["reference"]["manifest_target"].get_ref<const std::string&>();
  const std::string& versions = document["versions_path"].get_ref<const std::string&>();
  const auto exceeds = [] { return Error("size_limit", "Installation ownership exceeds its bounded format"); };
  if (!passes([&] { validate_relative_path(target, true); }) || versions.size() > max_versions_path) throw exceeds();
  // The document must also be writable as it will be stored: a path that is
  // not UTF-8 fails here, in the JSON library.
  if (document.dump().size() > max_document_bytes) throw exceeds();
}

void check_document(const json& document, bool ready) {
  const char* state = state_code(ready);
  require(document.is_object() && document.contains("schema_version") && document["schema_version"].is_number_integer(),
          state, "Installation ownership has no known schema");
  require(document["schema_version"] == 1, "unsupported_schema", "Unknown installation ownership schema was preserved");
  require(has_exactly(document, {"schema_version", "kind", "reference", "versions_path", "staging_identity"}) &&
              document["kind"] == (ready ? ready_kind : preparation_kind) && document["versions_path"].is_string() &&
              document["reference"].is_object() &&
              has_exactly(document["reference"], {"version", "build_id", "manifest_ref", "manifest_target"}),
          state, "Unknown installation ownership contract was preserved");
  require(valid_identity(document["staging_identity"], ready), state, "Invalid prepared directory identity");
  require(normal_absolute(document["versions_path"].get<std::string>()), state,
          "Prepared storage path is not absolute and normalized");
  check_reference(document["reference"], state);
  check_bounds(document);
}

void validate_document(const json& document, bool ready) {
  try {
    check_document(document, ready);
  } catch (const json::exception&) {
    throw Error(state_code(ready), "Malformed installation ownership was preserved");
  }
}

bool binds(const json& document, const SnapshotManifest& manifest) {
  const json& reference = document["reference"];
  return reference["manifest_ref"] == digest(manifest.document.dump(), "sha256") &&
         reference["build_id"] == manifest.build_id && native_platform() == manifest.platform;
}

json make_document(const json& reference, const std::filesystem::path& versions_path, const json& identity,
                   bool ready) {
  return {{"schema_version", 1},
          {"kind", ready ? ready_kind : preparation_kind},
          {"reference", reference},
          {"versions_path", path_utf8(std::filesystem::absolute(versions_path).lexically_normal())},
          {"staging_identity", identity}};
}

}  // namespace

bool install_document_binds(const json& document, const SnapshotManifest& manifest) {
  return binds(document, manifest);
}

void validate_install_preparation(const json& preparation, const json& ready) {
  validate_document(preparation, false);
  if (ready.is_null()) return;
  validate_document(ready, true);
  for (const char* key : {"reference", "versions_path", "staging_identity"})
    require(preparation[key] == ready[key], "install_preparation_state",
            "Readiness differs from recorded preparation ownership");
}

void validate_install_ready(const json& document) { validate_document(document, true); }

json parse_install_document(std::string_view text, bool ready) {
  require(text.size() <= max_document_bytes, "size_limit", "Installation ownership exceeds its bounded format");
  json document;
  try {
    document = parse_json(text, max_document_bytes);
  } catch (const Error&) {
    throw Error(state_code(ready), "Malformed installation ownership was preserved");
  }
  validate_document(document, ready);
  return document;
}

json make_install_preparation(const SnapshotManifest& manifest, const json& reference,
                              const std::filesystem::path& versions_path) {
  json preparation = make_document(reference, versions_path, nullptr, false);
  validate_document(preparation, false);
  require(binds(preparation, manifest), "install_preparation_state",
          "Preparation differs from its saved verified manifest");
  return preparation;
}

json record_install_preparation(const json& preparation, const DirectoryIdentity& identity) {
  validate_document(preparation, false);
  require(preparation["staging_identity"].is_null(), "install_preparation_state",
          "Prepared directory ownership is already recorded");
  json recorded = preparation;
  recorded["staging_identity"] = json::array({identity.first, identity.second});
  validate_document(recorded, false);
  return recorded;
}

json make_install_ready(const SnapshotManifest& manifest, const json& reference,
                        const std::filesystem::path& versions_path, const ReservedTree& tree) {
  const auto& [device, inode] = tree.identity();
  json ready = make_document(reference, versions_path, json::array({device, inode}), true);
  validate_document(ready, true);
  require(binds(ready, manifest), "install_ready_state", "Readiness differs from its saved verified manifest");
  const std::string version = ready["reference"]["version"].get<std::string>();
  require(tree.root().filename() == version, "install_ready_state", "Readiness differs from its prepared operation");
  tree.validate(manifest, tree.root());

  const std::filesystem::path versions = path_from_utf8(ready["versions_path"].get<std::string>());
  require(!entry_present(versions / version), "destination_exists",
          "Activation destination already exists; it was preserved");
  // The activation is a rename, which only works within one volume.
  require(inspect_storage_directory(versions).first == device, "install_ready_state",
          "Activation storage differs from its prepared source");
  return ready;
}

}  // namespace zorvi
