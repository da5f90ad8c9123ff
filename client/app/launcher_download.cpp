// The launcher directory's budget, and the downloads a staging makes into
// it: each is owned by a receipt and refused before it writes a byte when
// the directory cannot take what it will cost.
#include "client/app/launcher_download.hpp"

#include <array>
#include <string_view>
#include <system_error>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/storage.hpp"
#include "client/platform/tree.hpp"
#include "client/tuf/metadata.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

struct RetainedRecords {
  std::string_view directory;
  std::size_t bound;
};

// Directories that fill with records of work in progress or left behind; a
// full one asks for a cleanup before anything new is started.
constexpr std::array<RetainedRecords, 7> retained_records = {{{"downloads", 48},
                                                              {"manifests", 31},
                                                              {"health", 63},
                                                              {"leases/attempts", 127},
                                                              {"intents", 15},
                                                              {"staging", 15},
                                                              {"download-intents", 32}}};

constexpr std::size_t new_target_downloads = 47;

// "<32 lower-case hex>.lock", a regular file: the lock of an attempt, which
// lives as long as its attempt and is no leftover.
bool attempt_lock(const fs::directory_entry& entry) {
  const std::string name = path_utf8(entry.path().filename());
  std::error_code error;
  return name.size() == 37 && name.ends_with(".lock") && name.find_first_not_of("0123456789abcdef") == 32 &&
         entry.symlink_status(error).type() == fs::file_type::regular && !error;
}

// Entries of a store directory up to `stop`; a missing directory has none.
std::size_t count_entries(const fs::path& directory, std::size_t stop, bool skip_attempt_locks) {
  std::size_t counted = 0;
  std::uint64_t seen = 0;
  std::error_code error;
  fs::directory_iterator entry(directory, error);
  if (error == std::errc::no_such_file_or_directory) return 0;
  for (; !error && entry != fs::directory_iterator() && counted < stop; entry.increment(error)) {
    require(++seen <= max_launcher_directory_entries, "size_limit", "Directory entry count exceeds bounds");
    if (!skip_attempt_locks || !attempt_lock(*entry)) ++counted;
  }
  if (error)
    throw Error("file_read", with_errno("Cannot list launcher directory: " + path_utf8(directory), error.value()));
  return counted;
}

fs::path store_directory(const fs::path& launcher, std::string_view name) { return safe_join(launcher, name, true); }

[[noreturn]] void over_budget() {
  throw Error("launcher_storage_full", "Launcher updates exceed their private storage budget");
}

LauncherDownloadState state_of(const TargetStorageRequest& request, std::uint64_t signed_length) {
  if (request.complete) return {signed_length, true, false};
  if (request.resumed) return {request.received, false, true};
  return {};
}

}  // namespace

std::size_t launcher_directory_entries(const fs::path& directory, std::size_t stop) {
  return count_entries(directory, stop, false);
}

void require_launcher_budget(const fs::path& launcher, std::uint64_t additional) {
  const std::uint64_t used = tree_bytes(launcher, max_launcher_directory_entries);
  if (used > max_launcher_directory_bytes || additional > max_launcher_directory_bytes - used) over_budget();
  for (const RetainedRecords& records : retained_records) {
    const bool attempts = records.directory == "leases/attempts";
    const std::size_t count = count_entries(store_directory(launcher, records.directory), records.bound + 1, attempts);
    require(count <= records.bound, "launcher_storage_full", "Retained launcher records reached their bounded capacity",
            {"self cleanup"});
  }
}

void require_launcher_download_room(const fs::path& launcher, std::uint64_t signed_length, std::uint64_t extra,
                                    const LauncherDownloadState& state) {
  require(state.on_disk <= signed_length, "launcher_storage_full", "Existing download exceeds its signed budget");
  const std::uint64_t missing = state.complete ? 0 : signed_length - state.on_disk;
  std::uint64_t additional = 0;
  try {
    additional = add(add(extra, missing), launcher_download_margin);
  } catch (const Error&) {
    over_budget();
  }
  require_launcher_budget(launcher, additional);
  if (state.complete || state.resumable) return;
  require(count_entries(store_directory(launcher, "downloads"), new_target_downloads, false) < new_target_downloads,
          "launcher_storage_full", "A new target needs bounded partial/checkpoint slots", {"self cleanup"});
}

fs::path download_launcher_target(TufClient& tuf, const TargetDownloads& receipts, const std::string& target,
                                  const json& reference, const SnapshotManifest* snapshot, const Progress& progress) {
  const fs::path& launcher = receipts.store;
  const std::uint64_t signed_length = length(tuf.target(target));
  const std::uint64_t extra = snapshot != nullptr ? snapshot->expanded_length : 0;
  TufDownloadOptions options;
  options.scope = launcher_download_resume_scope(target, reference);
  options.on_storage = [&](const TargetStorageRequest& request) {
    require_launcher_download_room(launcher, signed_length, extra, state_of(request, signed_length));
    if (snapshot == nullptr) return;
    const StorageVolume volume = inspect_storage_volume(launcher);
    require_install_storage(plan_install_storage(*snapshot, volume, request.complete,
                                                 request.resumed ? request.allocated : 0, request.resumed),
                            path_utf8(launcher));
  };
  return tuf.download(target, store_directory(launcher, "downloads"), progress, receipts.observer(target, reference),
                      options);
}

}  // namespace zorvi
