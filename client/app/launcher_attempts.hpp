#pragma once

// The handshake between a bootstrap and the candidate launcher it tries. The
// store's side (begin, recover, confirm, reject, the paths and the version
// guard) is declared on LauncherStore in launcher.hpp; what both processes
// share besides it is here.

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "client/app/launcher.hpp"
#include "client/domain/json.hpp"
#include "client/domain/launcher_contract.hpp"

namespace zorvi {

// Bound of the health and the lease acknowledgement documents.
inline constexpr std::size_t max_startup_document_bytes = 4096;
// Bound of a problem code in `failed_candidate`.
inline constexpr std::size_t max_startup_problem_bytes = 80;

// How an attempt ended without becoming active.
inline constexpr std::string_view startup_failed = "startup_failed";
inline constexpr std::string_view startup_unconfirmed = "startup_unconfirmed";
inline constexpr std::string_view startup_interrupted = "startup_interrupted";

// The five variables of health_environment, in this order.
inline constexpr std::string_view launcher_health_nonce_variable = "ZORVI_LAUNCHER_HEALTH_NONCE";
inline constexpr std::string_view launcher_manifest_variable = "ZORVI_LAUNCHER_MANIFEST";
inline constexpr std::string_view launcher_build_variable = "ZORVI_LAUNCHER_BUILD";
inline constexpr std::string_view launcher_interface_variable = "ZORVI_LAUNCHER_INTERFACE";
inline constexpr std::string_view launcher_data_root_variable = "ZORVI_LAUNCHER_DATA_ROOT";
inline constexpr std::array<std::string_view, 5> launcher_startup_variables = {
    launcher_health_nonce_variable, launcher_manifest_variable, launcher_build_variable, launcher_interface_variable,
    launcher_data_root_variable};

// `interface` must be exactly "cli" or "gui": else `launcher_interface`.
void interface_shape(std::string_view interface);

// The acknowledgement a launcher writes once it holds its leases: its health
// document without the console contract, `health_abi` replaced by the
// manifest's `runtime_lease_abi`, and `state` "leased".
json lease_document(const LauncherManifest& manifest, const json& attempt, std::int64_t pid,
                    std::string_view interface);

// Reads a health or acknowledgement document within its bound and parses it
// strictly. Both are written whole by `atomic_create`, so a document that is
// there is complete.
json read_startup_document(const std::filesystem::path& path);

}  // namespace zorvi
