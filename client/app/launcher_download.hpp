#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "client/app/target_download.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/json.hpp"
#include "client/domain/manifest.hpp"
#include "client/tuf/tuf.hpp"

namespace zorvi {

// The launcher directory's private storage budget, and the head room a
// download must leave on top of what it will cost.
inline constexpr std::uint64_t max_launcher_directory_bytes = std::uint64_t{1} << 32;
inline constexpr std::uint64_t max_launcher_directory_entries = 65536;
inline constexpr std::uint64_t launcher_download_margin = 1048576;
// Versions kept before a new one is refused; one already on disk always passes.
inline constexpr std::size_t max_launcher_versions = 7;

// What a download already has on disk, seen before it writes a byte.
struct LauncherDownloadState {
  std::uint64_t on_disk = 0;
  bool complete = false;   // the final file is in place and verified
  bool resumable = false;  // a kept partial is being continued
};

// Entries of a store directory, counted up to `stop`; a missing one has none.
std::size_t launcher_directory_entries(const std::filesystem::path& directory, std::size_t stop);

// Refuses `additional` bytes that would take the launcher directory past its
// budget, and a store whose retained records already fill their directories.
void require_launcher_budget(const std::filesystem::path& launcher, std::uint64_t additional);

// The check before a download writes: the bytes still to come, plus `extra`
// for what the target costs once stored, plus a margin, must fit the budget,
// and a new target needs a free slot in `downloads`.
void require_launcher_download_room(const std::filesystem::path& launcher, std::uint64_t signed_length,
                                    std::uint64_t extra, const LauncherDownloadState& state);

// Fetches `target` into the store's `downloads` under a receipt, resuming a
// kept partial of the same authorisation. The room check runs before the
// first byte; for an archive (`snapshot` given) the expanded tree is counted
// as extra and planned on the volume too. Returns the verified file.
std::filesystem::path download_launcher_target(TufClient& tuf, const TargetDownloads& receipts,
                                               const std::string& target, const json& reference,
                                               const SnapshotManifest* snapshot, const Progress& progress);

}  // namespace zorvi
