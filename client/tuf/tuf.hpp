#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "client/domain/crypto.hpp"
#include "client/domain/json.hpp"
#include "client/platform/native_lock.hpp"
#include "client/transport/https.hpp"

namespace zorvi {

struct TufLimits {
  std::uint64_t root_limit = 0;          // stored root, and each new root fetched
  std::uint64_t timestamp_limit = 0;     // a fetched timestamp
  std::uint64_t metadata_limit = 0;      // stored documents, snapshot and targets
  std::uint64_t max_root_rotations = 0;  // new roots taken in one refresh; 0 turns root updates off
  std::uint64_t max_delegations = 0;     // target roles visited in one lookup, `targets` included
};

using TufClock = std::function<std::chrono::system_clock::time_point()>;

// Asked before a target download uses space.
struct TargetStorageRequest {
  std::filesystem::path directory;  // the final file's parent
  bool complete = false;            // the final file is in place and verified
  bool resumed = false;
  std::uint64_t received = 0;  // these three only when resumed
  std::uint64_t allocated = 0;
  std::uint64_t size = 0;
};

struct TufDownloadOptions {
  std::string scope;  // what the download belongs to; empty turns resumption off
  std::function<void(const TargetStorageRequest&)> on_storage;
};

// Events "prepared" and "resumed" (with the staging name) and "complete".
using TargetObserver = std::function<void(std::string_view event, const json& file, std::string_view name)>;

// Keeps a directory of trusted metadata current with one repository and says
// what the repository authorises at a target path. One client per directory
// across all processes: it holds the directory's lock for its whole life.
class TufClient {
 public:
  // Installs the first trusted root in an uninitialised directory.
  static void initialize(const std::filesystem::path& directory, std::string_view root);

  TufClient(std::filesystem::path directory, Transport& metadata_transport, Transport& target_transport,
            TufLimits limits, TufClock clock);

  std::optional<json> local(std::string_view role) const;
  void persist(std::string_view role, std::string_view bytes);
  void refresh();
  void load_selected_metadata();
  json load_role(std::string_view role, const json& description, const json& keys, const json& authority,
                 std::string_view type);
  std::optional<json> visit(std::string_view path, const std::string& role, const json& document,
                            std::set<std::string>& visited, bool& stop);
  // The signed description of the file at `path`.
  json target(std::string_view path);
  // Finishes a rotation of online keys that a crash cut short.
  void clear_rotated_state();
  // Puts the authorised file at `destination`/`path`, resuming a kept partial
  // when `options.scope` allows it; returns the final path.
  std::filesystem::path download(std::string_view path, const std::filesystem::path& destination,
                                 const Progress& progress, const TargetObserver& observer,
                                 const TufDownloadOptions& options);

  const std::filesystem::path& directory() const { return directory_; }
  const json& root() const { return root_; }
  const json& timestamp() const { return timestamp_; }
  const json& snapshot() const { return snapshot_; }
  const json& targets() const { return targets_; }

 private:
  std::int64_t now_micros() const;
  void update_root();
  bool take_timestamp(json fresh, const std::string& bytes);
  bool consistent_snapshot() const;
  json checked_role(std::string_view bytes, const json& description, const json& keys, const json& authority,
                    std::string_view type) const;
  void forget_checked_roles();
  json remembered_role(std::string_view role, std::string bytes, const json& description, const json& keys,
                       const json& authority, std::string_view type);
  std::string remote_target(std::string_view path, const json& file) const;

  std::filesystem::path directory_;
  FileLock lock_;
  Transport& metadata_transport_;
  Transport& target_transport_;
  TufLimits limits_;
  TufClock clock_;
  std::int64_t now_ = 0;
  json root_;
  json timestamp_;
  json snapshot_;
  json targets_;
  bool refreshed_ = false;
  bool loaded_ = false;
  std::optional<std::string> pending_snapshot_;

  // The last document each role's check accepted, with everything the check
  // read. The check is a pure function of these and of `now_`, so a lookup
  // that reads the same bytes under the same parent needs no second parse
  // and signature check.
  struct CheckedRole {
    std::string bytes;
    json description, keys, authority;
    std::string type;
    std::int64_t now = 0;
    json document;
  };
  std::map<std::string, CheckedRole, std::less<>> checked_;
  std::uint64_t checked_bytes_ = 0;
  static constexpr std::uint64_t max_remembered_bytes = 8 << 20;
};

// The cache file of a role: "root.json" and the like for the top roles,
// "delegated-<hex sha256 of name>.json" for any other.
std::filesystem::path role_cache(const std::filesystem::path& directory, std::string_view role);

// Checks a resume marker read for the staging name `temporary`.
void validate_target_resume_state(const json& state, std::string_view temporary);

}  // namespace zorvi
