#include "client/app/launcher_bootstrap.hpp"

#include <chrono>
#include <iostream>
#include <memory>
#include <system_error>

#include "client/app/cli_entry.hpp"
#include "client/app/direct_start.hpp"
#include "client/app/launcher_attempts.hpp"
#include "client/app/launcher_trial.hpp"
#include "client/app/maintenance_runtime.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "client/platform/interrupt.hpp"
#include "client/platform/native_platform.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

const char* const damaged_files = "Zorvi's files are damaged. Reinstall Zorvi to repair them.";

std::int64_t unix_now() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

StartMarker parse_marker(const json& document) {
  require(document.is_object() && document.size() == 3, "launcher_state", "Start marker is malformed");
  StartMarker marker{document.at("manifest_sha256").get<std::string>(), document.at("started_at").get<std::int64_t>(),
                     document.at("attempts").get<std::int64_t>()};
  require(document.at("started_at").is_number_integer() && document.at("attempts").is_number_integer() &&
              marker.attempts >= 0,
          "launcher_state", "Start marker is malformed");
  return marker;
}

// The versions to try, in order and each once: active, rollback, then the
// newest usable one on disk when the state cannot name one.
std::vector<json> versions_to_try(const LauncherStore& store) {
  std::vector<json> versions;
  const auto consider = [&](const json& reference) {
    if (reference.is_null()) return;
    for (const json& known : versions)
      if (known.value("manifest_sha256", "") == reference.value("manifest_sha256", "")) return;
    versions.push_back(reference);
  };
  if (const std::optional<json> state = store.selection()) {
    consider(state->value("active", json()));
    consider(state->value("rollback", json()));
  }
  try {
    consider(store.fallback_active());
  } catch (const std::exception&) {
    // No third choice then; the list already holds what the state names.
  }
  return versions;
}

// The marker's counts when it is old enough to stand for a start that never
// confirmed; a younger one may belong to a start still under way.
StartMarker settled_marker(const fs::path& data_dir) {
  const std::optional<StartMarker> marker = read_start_marker(data_dir);
  if (!marker || unix_now() - marker->started_at < start_marker_settle_seconds) return {};
  return *marker;
}

struct Launch {
  const fs::path& data_dir;
  std::string_view interface;
  const std::vector<std::string>& arguments;  // as built by launcher_arguments
  std::unique_ptr<ConsoleInterrupt>& interrupt;
};

[[noreturn]] void start_version(const LauncherStore& store, const json& reference, const StartMarker& marker,
                                const Launch& launch) {
  const LauncherManifest manifest = store.manifest(reference);
  const fs::path payload = store.payload(reference);
  const fs::path entry = present_entry(store, reference, manifest, launch.interface);
  const std::string sha = reference.value("manifest_sha256", "");
  std::int64_t count = 1;
  if (!sha.empty() && sha == marker.manifest_sha256) {
    require(marker.attempts < max_unconfirmed_starts, "launcher_damaged", "This Zorvi version failed to start twice");
    // Its last start went unconfirmed: the files get the full proof this time.
    verify_snapshot_tree(manifest.snapshot, payload, {});
    count = marker.attempts + 1;
  }
  if (launch.interface == "gui") mark_start(launch.data_dir, sha, count);
  launch.interrupt.reset();
  try {
    exec_process(entry, launch.arguments, payload, cleared_startup_environment());
  } catch (const Error& error) {
    throw Error("process_start", "Zorvi could not be started", {error.what()});
  }
}

// The last resort of a windowed "--launch GAME" when no version can start:
// the installed game itself, found from its records alone. The user is told
// that Zorvi needs repair, since the game now runs without it.
int start_direct_game(const fs::path& data_dir, const std::string& game) {
  std::cerr << "zorvi: starting " << game << " directly; repair Zorvi by running its installer again\n";
  start_installed_game(data_dir, game, true);
  return 0;
}

int choose_version(const fs::path& data_dir, std::string_view interface, const std::vector<std::string>& forwarded,
                   std::unique_ptr<ConsoleInterrupt>& interrupt) {
  const LauncherStore store = LauncherStore::for_launch(data_dir);
  const std::vector<json> versions = versions_to_try(store);
  const std::vector<std::string> arguments = launcher_arguments(data_dir, forwarded);
  const StartMarker marker = interface == "gui" ? settled_marker(data_dir) : StartMarker{};
  Error final_failure("launcher_damaged", "No installed Zorvi version could be started");
  for (const json& reference : versions) {
    try {
      start_version(store, reference, marker, Launch{data_dir, interface, arguments, interrupt});
    } catch (const Error& error) {
      std::cerr << "zorvi: launcher version unusable (" << error.code << "): " << error.what() << '\n';
      final_failure = error;
    } catch (const std::exception& error) {
      std::cerr << "zorvi: launcher version unusable: " << error.what() << '\n';
      final_failure = Error(final_failure.code, error.what());
    }
  }
  if (interface == "gui" && forwarded.size() == 2 && forwarded[0] == "--launch") {
    return start_direct_game(data_dir, forwarded[1]);
  }
  throw final_failure;
}

void refuse_forwarded_data_dir(const std::vector<std::string>& arguments) {
  for (const std::string& argument : arguments) {
    if (argument == "--") return;
    require(argument != "--data-dir", "usage",
            "Set the data directory on the native bootstrap, before forwarded arguments");
  }
}

bool interrupt_requested(const std::unique_ptr<ConsoleInterrupt>& interrupt) {
  return interrupt && interrupt->requested();
}

// The console helper of the version that would start replaces the
// bootstrap, the version held against removal until the image is replaced.
[[noreturn]] void run_maintenance(const fs::path& data_dir, const std::vector<std::string>& helper_arguments,
                                  std::unique_ptr<ConsoleInterrupt>& interrupt) {
  const LauncherStore store(data_dir);
  const FileLock owner = store.owner();
  store.recover_attempt();
  const json active = store.status().value("active", json());
  const json version = active.is_null() ? store.fallback_active() : active;
  const FileLock guard = store.version_guard(version, LockMode::shared);
  const MaintenanceRuntime runtime =
      prepare_console_maintenance(store, version, [&interrupt] { return interrupt_requested(interrupt); });
  interrupt.reset();
  try {
    runtime.replace(helper_arguments);
  } catch (const Error& error) {
    throw Error("maintenance_failed", "Maintenance process replacement returned unexpectedly", {error.what()});
  }
}

// The console's command line: help and the shortcut commands are answered
// here, an uninstall goes to the maintenance helper; anything else is
// forwarded, or nothing when the bootstrap has already answered.
std::optional<std::vector<std::string>> console_arguments(const fs::path& data_dir,
                                                          const std::vector<std::string>& arguments,
                                                          std::unique_ptr<ConsoleInterrupt>& interrupt) {
  const CliEntry entry = parse_cli_entry(arguments, data_dir, nullptr);
  require(!entry.data_dir_given, "usage", "Set the data directory on the native bootstrap, before forwarded arguments");
  if (entry.help) {
    if (entry.json) std::cout << json({{"schema_version", 1}, {"kind", "help"}, {"text", cli_help()}}).dump() << '\n';
    else std::cout << cli_help();
    std::cout.flush();
    return std::nullopt;
  }
  std::vector<std::string> forwarded;
  if (entry.json) forwarded.push_back("--json");
  forwarded.insert(forwarded.end(), entry.arguments.begin(), entry.arguments.end());
  const json answer =
      native_maintenance_control(data_dir, forwarded, [&interrupt] { return interrupt_requested(interrupt); });
  if (!answer.is_null()) {
    std::cout << answer.dump() << '\n';
    std::cout.flush();
    return std::nullopt;
  }
  const std::vector<std::string> helper_arguments = maintenance_arguments(forwarded, data_dir);
  if (!helper_arguments.empty()) run_maintenance(data_dir, helper_arguments, interrupt);
  return forwarded;
}

}  // namespace

int run_launcher_bootstrap(const fs::path& data_dir, std::string_view interface,
                           const std::vector<std::string>& arguments, std::int64_t startup_limit_ms,
                           const NativeFileLock& lifetime) {
  (void)lifetime;  // held by the caller for the whole call; its presence is the proof
  interface_shape(interface);
  require(startup_limit_ms >= 1 && startup_limit_ms <= max_startup_limit_ms, "launcher_health",
          "Launcher startup limit must be bounded to 30 seconds");
  std::unique_ptr<ConsoleInterrupt> interrupt;
  if (interface == "cli") interrupt = std::make_unique<ConsoleInterrupt>(false);
  std::vector<std::string> forwarded = arguments;
  if (interface == "gui") {
    refuse_forwarded_data_dir(arguments);
  } else {
    std::optional<std::vector<std::string>> console = console_arguments(data_dir, arguments, interrupt);
    if (!console) return 0;
    forwarded = std::move(*console);
  }
  const std::optional<json> selection = LauncherStore::for_launch(data_dir).selection();
  if (selection &&
      (!selection->value("attempt", json()).is_null() || !selection->value("candidate", json()).is_null())) {
    CandidateStart start{data_dir,
                         std::string(interface),
                         forwarded,
                         startup_limit_ms,
                         selection->value("active", json()).is_null(),
                         [&interrupt] { return interrupt && interrupt->requested(); }};
    if (const std::optional<int> status = run_candidate(start)) return *status;
  }
  return choose_version(data_dir, interface, forwarded, interrupt);
}

void confirm_launcher_start(const fs::path& data_dir) {
  std::error_code ignored;
  fs::remove(start_marker_path(data_dir), ignored);
}

std::vector<std::string> launcher_arguments(const fs::path& data_dir, const std::vector<std::string>& forwarded) {
  std::vector<std::string> arguments{"--data-dir", path_utf8(fs::absolute(data_dir).lexically_normal())};
  arguments.insert(arguments.end(), forwarded.begin(), forwarded.end());
  return arguments;
}

fs::path present_entry(const LauncherStore& store, const json& reference, const LauncherManifest& manifest,
                       std::string_view interface) {
  interface_shape(interface);
  const std::string& name = interface == "cli" ? manifest.snapshot.executable : manifest.gui_executable;
  const fs::path entry = safe_join(store.payload(reference), name, true);
  require(has_listed_length(manifest.snapshot, name, entry), "launcher_damaged", damaged_files);
  return entry;
}

EnvironmentOverrides cleared_startup_environment() {
  EnvironmentOverrides cleared;
  for (std::string_view name : launcher_startup_variables) cleared.emplace(name, "");
  return cleared;
}

fs::path start_marker_path(const fs::path& data_dir) {
  return fs::absolute(data_dir).lexically_normal() / "launcher" / start_marker_name;
}

void mark_start(const fs::path& data_dir, std::string_view manifest_sha256, std::int64_t attempts) {
  const json marker{{"manifest_sha256", manifest_sha256}, {"started_at", unix_now()}, {"attempts", attempts}};
  replace_private_file(start_marker_path(data_dir), marker.dump());
}

std::optional<StartMarker> read_start_marker(const fs::path& data_dir) {
  try {
    return parse_marker(
        parse_json(read_file(start_marker_path(data_dir), max_start_marker_bytes), max_start_marker_bytes));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace zorvi
