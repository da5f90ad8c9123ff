#pragma once

#include <filesystem>
#include <string_view>

#include "client/domain/json.hpp"
#include "client/domain/manifest.hpp"
#include "client/platform/reserved_tree.hpp"

namespace zorvi {

// A game build is installed in two stages on disk: a private staging tree is
// reserved and filled, then renamed to `versions_path`/`version`. Two small
// documents record what the client owns between them, so that after a crash
// a tree is removed only when record, manifest, volume, directory identity
// and the whole inventory agree, and preserved with a message otherwise.
//
// `reference` is an object of `version`, `build_id`, `manifest_ref` (the
// SHA-256 of the manifest document as `dump()` writes it) and
// `manifest_target`.

// "zorvi-install-preparation", before anything irreversible; its
// `staging_identity` is null until the staging root exists.
json make_install_preparation(const SnapshotManifest& manifest, const json& reference,
                              const std::filesystem::path& versions_path);
// The preparation with the staging root's device and inode; recorded once.
json record_install_preparation(const json& preparation, const DirectoryIdentity& identity);
// "zorvi-install-ready": the reserved tree is complete and may be activated.
json make_install_ready(const SnapshotManifest& manifest, const json& reference,
                        const std::filesystem::path& versions_path, const ReservedTree& tree);

// `ready` may be JSON null; when it is not, it must carry the preparation's
// reference, versions path and staging identity.
void validate_install_preparation(const json& preparation, const json& ready);
void validate_install_ready(const json& document);
// Whether a valid document names this manifest, by digest and build, for
// this platform.
bool install_document_binds(const json& document, const SnapshotManifest& manifest);
// A stored document's text, parsed strictly and validated as its kind.
json parse_install_document(std::string_view text, bool ready);

// Removes the staging tree of an install that never became ready, if it is
// provably the recorded one; any doubt preserves it and raises.
void cleanup_prepared_install(const SnapshotManifest& manifest, const json& preparation,
                              const std::filesystem::path& staging, const std::filesystem::path& destination);
// The same after readiness: the staging tree goes, and the activated
// destination too unless `keep_destination`.
void cleanup_ready_install(const SnapshotManifest& manifest, const json& ready, const std::filesystem::path& staging,
                           const std::filesystem::path& destination, bool keep_destination);
// Removes the plain tree `first` (may be empty) and reports whether `first`
// or `second` (either may be empty) is still there or cannot be looked at.
bool cleanup_install_preparation(const std::filesystem::path& first, const std::filesystem::path& second);

}  // namespace zorvi
