#pragma once

#include "client/domain/json.hpp"
#include "client/domain/manifest.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi::testing {

struct TreeFile {
  std::string path;
  std::string content;
  bool executable = false;
};

// Writes the files with modes 0755 or 0644, making their directories.
void write_tree(const std::filesystem::path& root, const std::vector<TreeFile>& files);

// Packs the regular files below `root`, in path order and without directory
// entries, with GNU tar piped through the `zstd` command (`zstd_options` are
// added to its command line; `tar_options` to tar's).
void pack_tree(const std::filesystem::path& root, const std::filesystem::path& archive,
               const std::string& zstd_options = "", const std::string& tar_options = "");

// Compresses an existing tar file with the `zstd` command.
void compress(const std::filesystem::path& tar, const std::filesystem::path& archive,
              const std::string& zstd_options = "");

// The manifest of the tree below `root` and of `archive`, computed by Python's
// hashlib and os.walk, independently of the code under test.
json python_manifest(const std::filesystem::path& root, const std::filesystem::path& archive);

// The launcher release fields every test release carries, over a snapshot
// manifest from python_manifest.
json launcher_release_fields(const std::string& build, const json& helpers = json::array());
SnapshotManifest parsed_manifest(const std::filesystem::path& root, const std::filesystem::path& archive);

// A manifest of files with the given lengths and placeholder digests; the
// first file is the executable.
SnapshotManifest manifest_of_lengths(const std::vector<std::pair<std::string, std::uint64_t>>& files,
                                     std::uint64_t archive_length = 1);

// Crafts a tar file with Python's tarfile from a JSON list of entries:
// {"name", "type": "file"|"dir"|"symlink"|"hardlink", "content", "mode",
//  "link", "xattr": true, "raw_name_hex"}.
void craft_tar(const std::filesystem::path& tar, const json& entries);

// Runs `sh -c script` in a private mount namespace, so that it may mount
// small file systems that nobody else sees. `$TOOL` in the script names the
// snapshot tool program.
CommandResult run_in_private_mounts(const std::string& script);

}  // namespace zorvi::testing
