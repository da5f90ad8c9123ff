#pragma once

// What a launcher or one of its helper programs creates first thing on start:
// proof that the running image is the verified one, the leases that keep its
// version's files in place, and a launcher's side of the startup handshake.

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "client/domain/json.hpp"
#include "client/platform/native_lock.hpp"

namespace zorvi {

// How far up from an image the walks look for a store's directories.
inline constexpr std::size_t max_image_ancestry = 256;
// Bound of the startup variables read from the environment.
inline constexpr std::size_t max_startup_variable_bytes = 8192;

// The stored version an executable belongs to.
struct ManagedVersion {
  std::filesystem::path data_dir;
  std::string manifest_sha256;
};

// Refuses an image that must never initialize: a temporary maintenance copy,
// one inside an unfinished installation, or one below launcher/staging.
void reject_staged_image(const std::filesystem::path& image);

// The version whose directory (launcher/versions/<sha256>) holds `image`;
// nothing when the image is not below a store.
std::optional<ManagedVersion> managed_version(const std::filesystem::path& image);

// True when this process was started as a candidate under trial.
bool launcher_startup_pending();

// A launcher's hold on its version and, under trial, on its attempt. The
// locks are kept until the process exits, whatever happens to this object.
class LauncherRuntime {
 public:
  // Empty for an image outside any store and not under trial: there is no
  // version to protect.
  static std::unique_ptr<LauncherRuntime> attach(std::string_view interface, std::string_view build_id,
                                                 const std::filesystem::path& data_dir);
  ~LauncherRuntime();
  LauncherRuntime(const LauncherRuntime&) = delete;
  LauncherRuntime& operator=(const LauncherRuntime&) = delete;

  // Writes the health document of a trial once; does nothing otherwise.
  void report_health();

  const std::filesystem::path& data_dir() const { return data_dir_; }
  const json& attempt() const { return attempt_; }
  const std::string& interface() const { return interface_; }
  bool reported() const { return reported_; }

 private:
  LauncherRuntime(std::filesystem::path data_dir, json attempt, std::string interface, json reference);

  std::filesystem::path data_dir_;
  json attempt_;
  std::string interface_;
  bool reported_ = false;
  std::unique_ptr<FileLock> attempt_lease_;
  std::unique_ptr<FileLock> version_guard_;
  json reference_;
};

// Does nothing for a null runtime.
void report_launcher_health(LauncherRuntime* runtime);

// A helper program's hold on the version it runs from.
class LauncherHelperRuntime {
 public:
  static std::unique_ptr<LauncherHelperRuntime> attach(std::string_view role, std::string_view build_id);
  ~LauncherHelperRuntime();
  LauncherHelperRuntime(const LauncherHelperRuntime&) = delete;
  LauncherHelperRuntime& operator=(const LauncherHelperRuntime&) = delete;

  // False for a helper outside any store, which has nothing to guard.
  bool guarded() const { return guard_ != nullptr; }

 private:
  explicit LauncherHelperRuntime(std::unique_ptr<FileLock> guard);
  std::unique_ptr<FileLock> guard_;
};

// Proves `image` is the helper of `role` declared by its version and takes
// that version's shared guard; null for an image outside any store.
std::unique_ptr<FileLock> launcher_helper_guard(const std::filesystem::path& image, std::string_view role,
                                                std::string_view build_id);

}  // namespace zorvi
