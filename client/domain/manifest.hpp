#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/domain/json.hpp"
#include "client/domain/presentation.hpp"

namespace zorvi {

// One file of an expanded snapshot. Executable means mode 0755; the only
// other mode a snapshot may carry is 0644.
struct PackageFile {
  std::uint64_t length = 0;
  std::string sha256;
  bool executable = false;
};

// The signed inventory of one snapshot archive and the tree it expands to.
// A manifest that parses can be laid out on every supported platform without
// two entries falling onto one name.
struct SnapshotManifest {
  static SnapshotManifest parse(const json& document);

  // The largest native byte length of any relative file path; 0 if none.
  std::size_t longest_native_path() const;

  json document;
  std::string build_id;
  std::string platform;
  std::string executable;
  std::string archive_target;
  std::uint64_t archive_length = 0;
  std::uint64_t expanded_length = 0;
  std::string archive_sha256;
  std::map<std::string, PackageFile> files;  // ordered by the bytes of the path
};

inline constexpr std::uint64_t max_snapshot_bytes = std::uint64_t{1} << 42;
inline constexpr std::size_t max_snapshot_files = 100000;

// A length in a manifest: an integer that is not negative. A value that is
// not a number at all raises the JSON library's type error, which callers
// word as their own malformed-document failure.
std::uint64_t size_value(const json& value);

// Exactly 64 lower-case hexadecimal digits; a non-string raises the JSON
// library's type error as above.
std::string sha256_value(const json& value);

// A repository target that a game manifest names beside its snapshot archive.
struct ManifestTarget {
  std::string target;
  std::uint64_t length = 0;
  std::string sha256;
};

// The archive in encrypted form, with the target that carries its key. The
// decoder's name is only bounded here; whoever uses the artifact judges it.
struct EncryptedArchive {
  std::string format;
  ManifestTarget artifact;
  ManifestTarget key;
};

// A patch that turns the full snapshot of an older build into this one.
struct DirectPatch {
  std::string format;
  std::string source_build_id;
  ManifestTarget source;
  ManifestTarget artifact;
};

// The signed description of one game build: the snapshot inventory of the
// same document, the game's identity and presentation, and the optional
// artifacts that deliver the build in other forms.
struct GameManifest {
  static GameManifest parse(const json& document);

  SnapshotManifest snapshot;
  std::string game_id;
  std::string display_name;
  std::string release_notes;
  std::optional<GamePresentation> presentation;
  bool sdk_required = false;
  std::vector<DirectPatch> patches;
  std::optional<EncryptedArchive> encrypted;
};

inline constexpr std::size_t max_direct_patches = 8;

}  // namespace zorvi
