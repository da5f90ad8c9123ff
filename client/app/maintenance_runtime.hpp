#pragma once

// Removal of a client cannot be done by the program being removed, so a
// launcher version carries helper programs for it: "maintenance" for the
// console and "maintenance-gui" for the window. This is how a bootstrap or a
// launcher finds its version's helper, proves it, and hands the work over.

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/app/launcher.hpp"
#include "client/app/maintenance_image.hpp"
#include "client/domain/json.hpp"
#include "client/platform/process.hpp"

namespace zorvi {

// Where a helper learns that it runs as a temporary copy, and where it tells
// its starter that its window is up.
inline constexpr std::string_view maintenance_copy_variable = "ZORVI_MAINTENANCE_COPY";
inline constexpr std::string_view maintenance_ready_variable = "ZORVI_MAINTENANCE_READY";
inline constexpr std::size_t max_maintenance_variable_bytes = 8192;
inline constexpr std::string_view maintenance_ready_prefix = "zorvi-maintenance-ready-";

// Tells the window's callers which step a GUI handoff has reached.
using MaintenancePhase = std::function<void(std::string_view phase)>;

// One proved maintenance helper and how it is to be started.
class MaintenanceRuntime {
 public:
  // The helper of `role` declared by the stored version, proved by size and
  // SHA-256 against the version's manifest.
  static MaintenanceRuntime prepare(const LauncherStore& store, const json& reference, std::string_view role);

  // Called first thing by a helper: proves the running image is the declared
  // helper of `role` (or the copy it was started as) and takes over the ready
  // file. Empty for a helper that runs outside any store.
  static std::optional<MaintenanceRuntime> attach(std::string_view role, std::string_view build_id);

  ~MaintenanceRuntime();
  MaintenanceRuntime(MaintenanceRuntime&& other) noexcept;
  MaintenanceRuntime& operator=(MaintenanceRuntime&& other) noexcept;
  MaintenanceRuntime(const MaintenanceRuntime&) = delete;
  MaintenanceRuntime& operator=(const MaintenanceRuntime&) = delete;

  // The two maintenance variables and the startup variables, each empty, so
  // that a helper is never taken for a launcher under trial.
  EnvironmentOverrides environment() const;

  // Replaces this process with the helper; returns only by throwing.
  [[noreturn]] void replace(const std::vector<std::string>& arguments) const;
  ChildProcess launch_console(const std::vector<std::string>& arguments) const;
  // Starts the windowed helper and gives it back once it has reported ready;
  // one that ends or stays silent for `limit` is terminated and refused.
  ChildProcess launch_gui(const std::vector<std::string>& arguments, std::chrono::milliseconds limit);
  // In the helper: tells the starter the window is up. Nothing without a ready file.
  void report_ready() const;

  const std::filesystem::path& helper() const { return helper_; }
  const std::filesystem::path& ready_path() const { return ready_; }

 private:
  MaintenanceRuntime(std::filesystem::path helper, std::filesystem::path copy, std::filesystem::path ready, bool owned);
  void release() noexcept;

  std::filesystem::path helper_;
  std::filesystem::path copy_;   // empty unless the helper runs as a temporary copy
  std::filesystem::path ready_;  // may be empty
  bool owned_ = false;           // this object removes the copy when it goes
};

// The helper's command line for a console "self uninstall [--remove-data]"
// ("--json" aside): the words, then "--data-dir" and the absolute data
// directory. Empty when the command is not one for the helper.
std::vector<std::string> maintenance_arguments(const std::vector<std::string>& forwarded,
                                               const std::filesystem::path& data_dir);

// Answers "self shortcut create [--game GAME]" and "self shortcut remove"
// itself; null for any other command.
json native_maintenance_control(const std::filesystem::path& data_dir, const std::vector<std::string>& arguments,
                                const std::function<bool()>& interrupted);

// The console helper of a version, unless the user has already asked to stop.
MaintenanceRuntime prepare_console_maintenance(const LauncherStore& store, const json& reference,
                                               const std::function<bool()>& interrupted);
// The same, in the shape of the bootstrap's maintenance route, which also
// holds the command and its "--json"; neither changes which helper is chosen.
MaintenanceRuntime prepare_console_maintenance(const LauncherStore& store, const json& reference,
                                               const std::vector<std::string>& arguments,
                                               const std::function<bool()>& interrupted, bool json_output);

// The windowed helper of the version whose GUI image this process runs.
// `phase` (may be empty) hears "verifying" once the version is held.
MaintenanceRuntime prepare_gui_maintenance(const std::filesystem::path& data_dir, std::string_view build_id,
                                           const MaintenancePhase& phase);

// A launcher console's own maintenance command: replaces the process with
// its version's console helper; returns only by throwing.
[[noreturn]] void run_cli_maintenance(const std::filesystem::path& data_dir, const std::vector<std::string>& arguments,
                                      std::string_view build_id, const std::function<bool()>& interrupted);

}  // namespace zorvi
