#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "client/domain/json.hpp"
#include "client/domain/manifest.hpp"

namespace zorvi {

// The numbers this build speaks. A release that names any other value is
// refused, so the client never starts a program it cannot supervise.
namespace contract {
inline constexpr std::int64_t bootstrap_abi = 1;          // bootstrap <-> launcher
inline constexpr std::int64_t health_abi = 1;             // health document form
inline constexpr std::int64_t runtime_lease_abi = 2;      // lease document and lifetimes; 1 is retired
inline constexpr std::int64_t staging_abi = 1;            // how a version is staged
inline constexpr std::int64_t console_interrupt_abi = 1;  // interrupt channel of a console child
inline constexpr std::int64_t helper_lease_abi = 1;       // how a helper holds its lease
inline constexpr std::int64_t application_schema = 1;     // data schema of this client
}  // namespace contract

inline constexpr std::string_view launcher_release_kind = "zorvi-launcher-release";

// Bounds of a launcher payload, far below those of a general snapshot.
inline constexpr std::uint64_t max_launcher_payload_bytes = std::uint64_t{1} << 30;
inline constexpr std::size_t max_launcher_files = 4096;
inline constexpr std::size_t max_runtime_helpers = 16;

// Roles a declared helper program may have.
inline constexpr std::string_view helper_role_crash_handler = "crash-handler";
inline constexpr std::string_view helper_role_maintenance = "maintenance";
inline constexpr std::string_view helper_role_maintenance_gui = "maintenance-gui";

// A signed launcher release: a snapshot inventory that is also the contract
// between this bootstrap and the launcher it may start.
struct LauncherManifest {
  // Refuses anything this build does not know, and any program in the
  // snapshot without a declared role.
  static LauncherManifest parse(const json& document);

  // The health document a launcher of this release reports for `attempt`
  // (an object of `nonce` and `reference`). `interface` is "cli" or "gui";
  // `console` adds the interrupt contract for a console CLI child.
  json startup_health(const json& attempt, std::int64_t pid, std::string_view interface, bool console) const;

  // Whether `health` is exactly the document above: no field more or fewer.
  // A document of the wrong shape is false, never an exception.
  bool matches_startup_health(const json& health, const json& attempt, std::int64_t pid, std::string_view interface,
                              bool console) const;

  SnapshotManifest snapshot;  // `snapshot.executable` is the CLI entry point
  std::string gui_executable;
  std::int64_t runtime_lease_abi = 0;
  std::int64_t staging_abi = 0;
  std::int64_t console_interrupt_abi = 0;
  std::map<std::string, std::string> helpers;  // helper path -> role
};

// The repository target of this platform's launcher manifest:
// "launcher-<platform>.manifest.json".
std::string launcher_manifest_target();

// `document[key]` must be present and equal `expected`; a launcher that
// lacks or differs in a runtime contract is incompatible.
void require_contract_value(const json& document, std::string_view key, std::int64_t expected);

}  // namespace zorvi
