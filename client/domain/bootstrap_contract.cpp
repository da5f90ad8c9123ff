#include "client/domain/bootstrap_contract.hpp"

#include <algorithm>
#include <array>
#include <set>
#include <string>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

constexpr std::array<std::string_view, 3> bootstrap_platforms{"linux-x86_64", "windows-x86_64", "macos-aarch64"};

bool integer_one(const json& document, const char* key) {
  return document.contains(key) && document[key].is_number_integer() && document[key] == 1;
}

bool text_is(const json& document, const char* key, std::string_view expected) {
  return document[key].is_string() && document[key].get_ref<const std::string&>() == expected;
}

bool executable_file(const SnapshotManifest& manifest, std::string_view path) {
  const auto file = manifest.files.find(std::string(path));
  return file != manifest.files.end() && file->second.executable;
}

void require_header(const json& document, const SnapshotManifest& manifest) {
  const bool known = document.is_object() && integer_one(document, "schema_version") &&
                     integer_one(document, "bootstrap_abi") && document.contains("kind") &&
                     text_is(document, "kind", bootstrap_release_kind);
  require(known, "launcher_incompatible", "Initial bootstrap schema or ABI is unsupported");
  const bool known_platform =
      std::find(bootstrap_platforms.begin(), bootstrap_platforms.end(), manifest.platform) != bootstrap_platforms.end();
  require(known_platform, "launcher_incompatible", "Initial bootstrap targets an unsupported platform");
}

// An optional entry point, once present, must be the one fixed program of
// the only platform that has it, marked executable.
bool optional_entry(const json& document, const SnapshotManifest& manifest, const char* key, std::string_view platform,
                    std::string_view path) {
  return manifest.platform == platform && text_is(document, key, path) && executable_file(manifest, path);
}

}  // namespace

std::string_view bootstrap_executable(std::string_view platform) {
  return platform == "windows-x86_64" ? bootstrap_executable_windows : bootstrap_executable_posix;
}

void validate_bootstrap_contract(const SnapshotManifest& manifest) {
  const json& document = manifest.document;
  require_header(document, manifest);
  const std::string_view entry = bootstrap_executable(manifest.platform);
  require(manifest.executable == entry && executable_file(manifest, entry), "launcher_incompatible",
          "Initial bootstrap has a missing or incompatible stable entry point");
  std::set<std::string_view> declared{entry};

  if (document.contains("gui_executable")) {
    require(optional_entry(document, manifest, "gui_executable", "windows-x86_64", bootstrap_gui_executable),
            "invalid_native_package", "Initial bootstrap GUI entry must be its declared Windows windowed executable");
    declared.insert(bootstrap_gui_executable);
  }
  if (document.contains("shortcut_executable")) {
    // The app bundle is only opened through its metadata, which must be
    // plain data.
    const auto plist = manifest.files.find(std::string(bootstrap_shortcut_info_plist));
    const bool bundle = plist != manifest.files.end() && !plist->second.executable;
    require(bundle && optional_entry(document, manifest, "shortcut_executable", "macos-aarch64",
                                     bootstrap_shortcut_executable),
            "invalid_native_package",
            "macOS bootstrap launch documents need their declared native app helper and metadata");
    declared.insert(bootstrap_shortcut_executable);
  }
  for (const auto& [path, file] : manifest.files) {
    require(!file.executable || declared.contains(path), "invalid_native_package",
            "Initial bootstrap snapshot contains an undeclared executable helper");
  }
}

}  // namespace zorvi
