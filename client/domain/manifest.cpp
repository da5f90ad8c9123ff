#include "client/domain/manifest.hpp"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <memory>
#include <set>
#include <string_view>

#include "client/domain/crypto.hpp"
#include "client/domain/encrypted_archive.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"

namespace zorvi {
namespace {

constexpr std::string_view archive_format = "tar.zst-v1";
constexpr std::array<std::string_view, 3> known_platforms{"linux-x86_64", "windows-x86_64", "macos-aarch64"};
constexpr std::uint64_t mode_0644 = 420;
constexpr std::uint64_t mode_0755 = 493;

[[noreturn]] void invalid(const char* message) { throw Error("invalid_manifest", message); }

std::string fold(std::string_view text) {
  std::string folded(text);
  for (char& c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return folded;
}

std::string text_field(const json& object, const char* key) { return object.at(key).get<std::string>(); }

bool printable_ascii(std::string_view path) {
  return std::all_of(path.begin(), path.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte <= 0x7e;
  });
}

// Names as every supported platform may see them: one node per case-folded
// prefix, remembering the first spelling and whether a file ends there. A
// tree of components keeps the memory linear in the document, where a set of
// whole prefixes would grow with the square of a deep path.
class FoldedNames {
 public:
  // Enters one file path; refuses a second file on the same folded name and
  // a prefix whose spelling differs from the one seen first.
  void add_file(std::string_view path) {
    Node* node = &root_;
    bool spelling_differs = false;
    for_each_component(path, [&](std::string_view component) {
      auto [entry, inserted] = node->children.try_emplace(fold(component));
      if (inserted) {
        entry->second = std::make_unique<Node>();
        entry->second->spelling = std::string(component);
      } else if (!spelling_differs && entry->second->spelling != component) {
        spelling_differs = true;
      }
      node = entry->second.get();
    });
    require(!node->file, "path_collision", "Package contains duplicate or case-colliding paths");
    require(!spelling_differs, "path_collision", "Package directories differ only in case");
    node->file = true;
  }

  // Whether some proper prefix of `path`, folded, is itself a file.
  bool parent_is_file(std::string_view path) const {
    const Node* node = &root_;
    bool found = false;
    std::size_t start = 0;
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/', start)) {
      const auto entry = node->children.find(fold(path.substr(start, slash - start)));
      if (entry == node->children.end()) return found;
      node = entry->second.get();
      found = found || node->file;
      start = slash + 1;
    }
    return found;
  }

 private:
  struct Node {
    std::string spelling;
    bool file = false;
    std::map<std::string, std::unique_ptr<Node>, std::less<>> children;
  };

  template <typename Visit>
  static void for_each_component(std::string_view path, Visit visit) {
    std::size_t start = 0;
    while (true) {
      const std::size_t slash = path.find('/', start);
      visit(path.substr(start, slash == std::string_view::npos ? std::string_view::npos : slash - start));
      if (slash == std::string_view::npos) return;
      start = slash + 1;
    }
  }

  Node root_;
};

void parse_header(const json& document, SnapshotManifest& manifest) {
  manifest.build_id = text_field(document, "build_id");
  validate_identifier(manifest.build_id);
  manifest.platform = text_field(document, "platform");
  if (std::find(known_platforms.begin(), known_platforms.end(), manifest.platform) == known_platforms.end())
    invalid("Unknown snapshot platform");
  manifest.executable = text_field(document, "executable");
  validate_relative_path(manifest.executable, true);
}

void parse_archive(const json& archive, SnapshotManifest& manifest) {
  if (text_field(archive, "format") != archive_format) invalid("Unsupported snapshot format");
  manifest.archive_target = text_field(archive, "target");
  validate_relative_path(manifest.archive_target, true);
  manifest.archive_length = size_value(archive.at("length"));
  manifest.archive_sha256 = sha256_value(archive.at("sha256"));
  require(manifest.archive_length >= 1 && manifest.archive_length <= max_snapshot_bytes, "size_limit",
          "Snapshot exceeds archive size bounds");
}

bool read_mode_executable(const json& mode) {
  if (!mode.is_number()) throw json::type_error::create(302, "file mode must be a number", &mode);
  const bool integer = mode.is_number_integer();
  const bool known = integer && (mode == mode_0644 || mode == mode_0755);
  require(known, "invalid_manifest", "Package modes must be 0644 or 0755");
  return mode == mode_0755;
}

std::uint64_t parse_files(const json& files, SnapshotManifest& manifest) {
  require(files.is_array() && !files.empty() && files.size() <= max_snapshot_files, "size_limit",
          "Package file count exceeds bounds");
  FoldedNames names;
  std::uint64_t total = 0;
  for (const json& entry : files) {
    std::string path = text_field(entry, "path");
    validate_relative_path(path, true);
    if (!printable_ascii(path)) invalid("The v1 package profile requires ASCII file paths");
    names.add_file(path);
    PackageFile file;
    file.length = size_value(entry.at("length"));
    require(file.length <= max_snapshot_bytes - total, "size_limit", "Expanded package exceeds size bounds");
    total += file.length;
    file.executable = read_mode_executable(entry.at("mode"));
    file.sha256 = sha256_value(entry.at("sha256"));
    manifest.files.emplace(std::move(path), std::move(file));
  }
  for (const auto& [path, file] : manifest.files) {
    require(!names.parent_is_file(path), "path_collision", "Package file is another file's parent directory");
  }
  return total;
}

SnapshotManifest parse_document(const json& document) {
  const bool known_schema = document.is_object() && document.contains("schema_version") &&
                            document["schema_version"].is_number_integer() && document["schema_version"] == 1;
  require(known_schema, "unsupported_schema", "Unsupported snapshot schema; nothing was rewritten");
  SnapshotManifest manifest;
  parse_header(document, manifest);
  parse_archive(document.at("archive"), manifest);
  const std::uint64_t total = parse_files(document.at("files"), manifest);
  const auto executable = manifest.files.find(manifest.executable);
  require(executable != manifest.files.end() && executable->second.executable, "invalid_manifest",
          "Declared executable is missing or not executable");
  manifest.expanded_length = size_value(document.at("expanded_length"));
  require(manifest.expanded_length == total, "invalid_manifest", "Expanded length differs from file inventory");
  manifest.document = document;
  return manifest;
}

}  // namespace

std::uint64_t size_value(const json& value) {
  if (value.is_number_unsigned()) return value.get<std::uint64_t>();
  if (value.is_number_integer() && value.get<std::int64_t>() >= 0)
    return static_cast<std::uint64_t>(value.get<std::int64_t>());
  if (!value.is_number()) throw json::type_error::create(302, "length must be a number", &value);
  invalid("Manifest length must be a non-negative integer");
}

std::string sha256_value(const json& value) {
  const auto& text = value.get_ref<const std::string&>();
  if (!is_lower_hex(text, 64)) invalid("Manifest needs a lower-case SHA-256 digest");
  return text;
}

SnapshotManifest SnapshotManifest::parse(const json& document) {
  try {
    return parse_document(document);
  } catch (const json::exception&) {
    throw Error("invalid_manifest", "Snapshot manifest has missing or malformed fields");
  }
}

std::size_t SnapshotManifest::longest_native_path() const {
  std::size_t longest = 0;
  for (const auto& entry : files) longest = std::max(longest, native_length(entry.first));
  return longest;
}

}  // namespace zorvi

// Game manifests: the snapshot above plus what makes it one game's build.
namespace zorvi {
namespace {

constexpr std::size_t max_release_notes = 16384;
constexpr std::size_t max_decoder_name = 80;
constexpr std::uint64_t key_length = 32;
constexpr std::uint64_t min_encrypted_length = encrypted_archive_header + 1;
constexpr std::uint64_t max_encrypted_length = encrypted_archive_header + max_snapshot_bytes + (std::uint64_t{1} << 30);

[[noreturn]] void malformed() {
  throw json::type_error::create(302, "game manifest field has the wrong shape", nullptr);
}

bool has_exactly(const json& object, std::initializer_list<std::string_view> keys) {
  if (!object.is_object() || object.size() != keys.size()) return false;
  return std::all_of(keys.begin(), keys.end(), [&](std::string_view key) { return object.contains(key); });
}

ManifestTarget target_path(const json& descriptor) {
  ManifestTarget target;
  target.target = text_field(descriptor, "target");
  validate_relative_path(target.target, true);
  return target;
}

void read_length_and_digest(const json& descriptor, ManifestTarget& target) {
  target.length = size_value(descriptor.at("length"));
  target.sha256 = sha256_value(descriptor.at("sha256"));
}

std::string display_name(const json& document) {
  const bool valid = document.contains("display_name") && document["display_name"].is_string() &&
                     !document["display_name"].get_ref<const std::string&>().empty() &&
                     document["display_name"].get_ref<const std::string&>().size() <= max_game_display_name;
  require(valid, "invalid_manifest", "Game display name is missing or too long");
  return document["display_name"].get<std::string>();
}

std::string release_notes(const json& value) {
  const auto& notes = value.get_ref<const std::string&>();
  require(notes.size() <= max_release_notes, "invalid_manifest", "Release notes exceed 16 KiB");
  require(displayable_text(notes, true), "invalid_manifest", "Release notes contain unsupported control characters");
  return notes;
}

bool sdk_required(const json& sdk) {
  require(sdk.is_object() && sdk.contains("required") && sdk["required"].is_boolean(), "invalid_manifest",
          "SDK capability must be explicit");
  if (!sdk["required"].get<bool>()) return false;
  // A required SDK names the one ABI this client speaks; anything else,
  // including no number at all, is an ABI it cannot serve.
  const auto abi = sdk.find("abi_version");
  require(abi != sdk.end() && abi->is_number_integer() && *abi == 1, "sdk_incompatible",
          "Game needs an unsupported SDK ABI");
  return true;
}

EncryptedArchive parse_encrypted(const json& value, const SnapshotManifest& snapshot) {
  if (!value.is_object()) malformed();
  if (!has_exactly(value, {"format", "artifact", "key"})) invalid("Unknown encrypted archive field");
  EncryptedArchive encrypted;
  encrypted.format = text_field(value, "format");
  if (encrypted.format.empty() || encrypted.format.size() > max_decoder_name)
    invalid("Invalid encrypted archive decoder name");
  const json& artifact = value["artifact"];
  const json& key = value["key"];
  if (!artifact.is_object() || !key.is_object()) malformed();
  for (const json* descriptor : {&artifact, &key}) {
    if (!has_exactly(*descriptor, {"target", "length", "sha256"}))
      invalid("Unknown encrypted artifact/key descriptor field");
  }
  encrypted.artifact = target_path(artifact);
  encrypted.key = target_path(key);
  const std::string artifact_name = fold(encrypted.artifact.target);
  const std::string key_name = fold(encrypted.key.target);
  const std::string archive_name = fold(snapshot.archive_target);
  if (artifact_name == key_name || artifact_name == archive_name || key_name == archive_name)
    invalid("Encrypted artifact/key aliases the full snapshot");
  encrypted.artifact.sha256 = sha256_value(artifact.at("sha256"));
  encrypted.key.sha256 = sha256_value(key.at("sha256"));
  encrypted.artifact.length = size_value(artifact.at("length"));
  encrypted.key.length = size_value(key.at("length"));
  const bool bounded = encrypted.artifact.length >= min_encrypted_length &&
                       encrypted.artifact.length <= max_encrypted_length && encrypted.key.length == key_length;
  if (!bounded) invalid("Encrypted archive/key exceeds its bound");
  if (encrypted.format == encrypted_archive_format &&
      encrypted.artifact.length != encrypted_archive_length(snapshot.archive_length))
    invalid("Encrypted archive length differs from its fixed authenticated chunks");
  return encrypted;
}

// A patch object and its two descriptors must hold exactly their keys: a
// wrong count is an unknown field, a right count with a stranger in it is a
// missing one.
void require_patch_keys(const json& object, std::initializer_list<std::string_view> keys) {
  if (!object.is_object()) malformed();
  if (object.size() != keys.size()) invalid("Unknown direct patch field");
  if (!has_exactly(object, keys)) invalid("Missing direct patch field");
}

DirectPatch parse_patch(const json& value, const SnapshotManifest& snapshot, std::set<std::string>& sources,
                        std::set<std::string>& artifacts) {
  require_patch_keys(value, {"format", "source", "artifact"});
  const json& source = value["source"];
  const json& artifact = value["artifact"];
  require_patch_keys(source, {"format", "build_id", "target", "length", "sha256"});
  require_patch_keys(artifact, {"target", "length", "sha256"});

  DirectPatch patch;
  patch.format = text_field(value, "format");
  validate_identifier(patch.format);
  if (text_field(source, "format") != archive_format) invalid("A direct patch must start from a full snapshot");
  patch.source_build_id = text_field(source, "build_id");
  validate_identifier(patch.source_build_id);
  if (patch.source_build_id == snapshot.build_id || !sources.insert(patch.source_build_id).second)
    invalid("Direct patch repeats its source or targets its own build");

  patch.source = target_path(source);
  read_length_and_digest(source, patch.source);
  patch.artifact = target_path(artifact);
  read_length_and_digest(artifact, patch.artifact);
  const bool distinct =
      patch.source.target != snapshot.archive_target && patch.artifact.target != snapshot.archive_target &&
      patch.artifact.target != patch.source.target && artifacts.insert(fold(patch.artifact.target)).second;
  if (!distinct) invalid("Direct patch artifacts repeat or alias a snapshot");
  for (const std::uint64_t length : {patch.source.length, patch.artifact.length}) {
    require(length >= 1 && length <= max_snapshot_bytes, "size_limit", "Direct patch input exceeds its size bounds");
  }
  return patch;
}

std::vector<DirectPatch> parse_patches(const json& value, const SnapshotManifest& snapshot) {
  if (!value.is_array() || value.size() > max_direct_patches) invalid("Direct patch list exceeds its bound");
  std::set<std::string> sources;
  std::set<std::string> artifacts;
  std::vector<DirectPatch> patches;
  for (const json& element : value) patches.push_back(parse_patch(element, snapshot, sources, artifacts));
  return patches;
}

GameManifest parse_game_document(const json& document) {
  const bool known_schema = document.is_object() && document.contains("schema_version") &&
                            document["schema_version"].is_number_integer() && document["schema_version"] == 1;
  require(known_schema, "unsupported_schema", "Unsupported game manifest schema; nothing was rewritten");
  const json& minimum_launcher = document.at("minimum_launcher");
  if (!minimum_launcher.is_number()) malformed();
  require(minimum_launcher.is_number_integer() && minimum_launcher == 1, "launcher_incompatible",
          "This build needs a different launcher protocol");

  GameManifest manifest;
  manifest.snapshot = SnapshotManifest::parse(document);
  manifest.game_id = text_field(document, "game_id");
  validate_identifier(manifest.game_id);
  manifest.display_name = display_name(document);
  if (document.contains("presentation")) {
    const json& presentation = document["presentation"];
    require(presentation.is_object(), "invalid_presentation", "Game presentation must be an object");
    manifest.presentation = GamePresentation::parse(manifest.display_name, presentation);
  }
  if (document.contains("release_notes")) manifest.release_notes = release_notes(document["release_notes"]);
  if (document.contains("sdk")) manifest.sdk_required = sdk_required(document["sdk"]);
  if (document.contains("encrypted")) manifest.encrypted = parse_encrypted(document["encrypted"], manifest.snapshot);
  if (document.contains("patches")) manifest.patches = parse_patches(document["patches"], manifest.snapshot);
  return manifest;
}

}  // namespace

GameManifest GameManifest::parse(const json& document) {
  try {
    return parse_game_document(document);
  } catch (const json::exception&) {
    throw Error("invalid_manifest", "Game manifest has missing or malformed fields");
  }
}

}  // namespace zorvi
