#include "client/domain/manifest.hpp"

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "client/domain/crypto.hpp"
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
