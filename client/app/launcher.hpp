#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "client/domain/crypto.hpp"
#include "client/domain/json.hpp"
#include "client/domain/launcher_contract.hpp"
#include "client/platform/native_lock.hpp"

namespace zorvi {

class TufClient;

// Told which step a staging has reached: "verifying", "downloading",
// "staging", "activating". The flag is always true.
using LauncherPhase = std::function<void(std::string_view phase, bool started)>;

// Bounds of the store's own documents.
inline constexpr std::size_t max_launcher_state_bytes = 32768;
inline constexpr std::size_t max_launcher_manifest_bytes = 524288;
inline constexpr std::size_t max_fallback_versions = 64;

inline constexpr std::string_view launcher_store_format = "zorvi-launcher-store-v1";

// The data directory made absolute and normal with every component checked;
// a link or a name the path rules refuse is `unsafe_path`.
std::filesystem::path ordinary_data_dir(const std::filesystem::path& root);

// A reference names one launcher version: {manifest_sha256, build_id}.
json launcher_reference(const std::string& manifest_sha256, const std::string& build_id);

// Shape checks shared by everything that reads references and attempts; a
// null value is refused. They raise `launcher_state`.
void reference_shape(const json& reference);
void nonce_identity(std::string_view nonce);

// The store of verified launcher versions in one data directory, and the
// small state document naming the active, rollback and candidate versions.
// A version is named by its manifest's SHA-256 and never changes once stored.
class LauncherStore {
 public:
  explicit LauncherStore(const std::filesystem::path& root);
  // `skip_install_check` lets the installer open a store while it is still
  // building the installation around it.
  LauncherStore(const std::filesystem::path& root, bool skip_install_check);

  // Read-only: proves the directories exist, creates nothing, loads the state.
  static LauncherStore existing(const std::filesystem::path& root);
  // For a start: touches no directory and reads no state.
  static LauncherStore for_launch(const std::filesystem::path& root);

  const std::filesystem::path& root() const { return root_; }
  const std::filesystem::path& launcher_directory() const { return launcher_; }

  // The validated state; a missing document is the empty one, generation 0.
  json load() const;
  // Commits `state` with its generation advanced; the caller holds owner().
  void save(json& state) const;
  // The lock that serialises every change of the state, retried for 2 seconds.
  FileLock owner() const;

  // The state with `installed`: whether a version is active.
  json status() const;
  // The state, or nothing when its content cannot be understood.
  std::optional<json> selection() const;

  LauncherManifest manifest(const json& reference) const;
  std::filesystem::path payload(const json& reference) const;

  // Installs the first launcher of a new data directory as the candidate.
  json seed_initial(std::string_view manifest_bytes, const std::filesystem::path& archive,
                    const Progress& progress) const;

  // The newest usable stored version, for when the state cannot be trusted.
  json fallback_active() const;

  // Brings the repository's launcher onto the disk and names it the
  // candidate; never activates or starts it. With `optional` (a background
  // check) an update that is pointless right now is a `skipped` result.
  json stage(TufClient& tuf, const Progress& progress, const LauncherPhase& phase, bool optional) const;

  // Startup attempts: the durable record of one version being tried, and the
  // files of its handshake with the launcher (launcher_attempts.cpp). Except
  // for the paths and the guard, the caller holds owner().

  // Ends an attempt left behind by a crash as `failed_candidate`; refuses
  // with `launcher_running` while a process of that attempt still lives.
  void recover_attempt() const;
  // Turns the candidate into an attempt and gives it back; null, writing
  // nothing, when there is no candidate.
  json begin_candidate() const;

  // leases/attempts/<nonce>.lock, leases/attempts/<nonce>.json, health/<nonce>.json.
  std::filesystem::path startup_lease_path(const json& attempt) const;
  std::filesystem::path startup_ack_path(const json& attempt) const;
  std::filesystem::path health_path(const json& attempt) const;

  // leases/versions/<manifest_sha256>.lock, taken without waiting. The
  // exclusive mode, which removal uses, needs a readable contract first.
  FileLock version_guard(const json& reference, LockMode mode) const;

  // The five ZORVI_LAUNCHER_* variables a candidate is started with.
  std::map<std::string, std::string> health_environment(const json& attempt, std::string_view interface) const;

  // Makes the attempt's version active once its health, acknowledgement and
  // files are proved; a failure changes nothing.
  void confirm_candidate(const json& attempt, const json& health, std::int64_t pid, std::string_view interface) const;
  // Ends the attempt with its version in `failed_candidate` under `problem`.
  void reject_candidate(const json& attempt, std::string_view problem) const;

 private:
  enum class Opening : std::uint8_t { create, inspect, launch };
  LauncherStore(const std::filesystem::path& root, bool skip_install_check, Opening opening);

  std::filesystem::path state_path() const;
  std::filesystem::path managed(std::string_view relative) const;

  std::filesystem::path root_;
  std::filesystem::path launcher_;
};

}  // namespace zorvi
