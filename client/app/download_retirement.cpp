// Removal of a finished download once the manifest that needs it is durable:
// the manifest is the authority, and only files the receipts prove to be that
// version's are removed.
#include <system_error>

#include "client/app/target_download.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/manifest.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/tuf/metadata.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_manifest = 524288;
constexpr std::size_t max_document = 16384;

[[noreturn]] void uncertain(const std::string& message) { throw Error("launcher_download_uncertain", message); }

struct Authority {
  std::string bytes;
  SnapshotManifest manifest;
};

// The stored manifest named by the reference, whose digest and build are the
// reference's own; nothing less authorises a removal.
Authority durable_manifest(const fs::path& store, const json& reference) {
  try {
    const std::string sha256 = reference.at("manifest_sha256").get<std::string>();
    Authority authority;
    authority.bytes = read_file(safe_join(store / "manifests", sha256 + ".json", false), max_manifest);
    authority.manifest = SnapshotManifest::parse(parse_json(authority.bytes, max_manifest));
    if (digest(authority.bytes, "sha256") == sha256 && reference.at("build_id") == authority.manifest.build_id)
      return authority;
  } catch (const Error&) {
  } catch (const json::exception&) {
  }
  uncertain("Download retirement requires durable matching native manifest authority");
}

bool describes(const json& authorization, const std::string& bytes) {
  if (authorization.at("length") != bytes.size()) return false;
  for (const auto& [name, value] : authorization.at("hashes").items())
    if (value != digest(bytes, name)) return false;
  return true;
}

// The version's archive receipt must still say what its manifest signed.
void check_archive(const json& receipt, const SnapshotManifest& manifest) {
  const json& authorization = receipt.at("authorization");
  const bool authorised = receipt.at("target") == manifest.archive_target &&
                          authorization.at("length") == manifest.archive_length &&
                          authorization.at("hashes").at("sha256") == manifest.archive_sha256;
  require(authorised, "launcher_download_uncertain", "Download retirement lost its immutable authority");
}

bool present(const fs::path& path) { return entry_present(path); }

// The finished file is removed only when it is the authorised one.
void check_download(const fs::path& path, const json& receipt, const Authority& authority) {
  if (!present(path)) return;
  if (receipt.at("reference").is_null()) {
    std::string bytes;
    try {
      bytes = read_file(path, max_manifest);
    } catch (const Error&) {
      uncertain("Descriptor cache differs from its durable manifest");
    }
    require(bytes == authority.bytes, "launcher_download_uncertain",
            "Descriptor cache differs from its durable manifest");
    return;
  }
  try {
    verify_target_file(path, receipt.at("authorization"), {});
  } catch (const Error&) {
    uncertain("Download ownership changed before retirement");
  }
}

void remove_file(const fs::path& path) {
  std::error_code error;
  fs::remove(path, error);
  if (error) throw Error("file_remove", with_errno("Cannot remove " + path_utf8(path), error.value()));
}

// Each file goes only if it still has the bytes the scan saw.
void remove_unchanged(const fs::path& directory, const json& files, const char* message) {
  if (files.empty()) return;
  for (const json& file : files) {
    const fs::path path = directory / file.at("name").get<std::string>();
    std::string bytes;
    try {
      bytes = read_file(path, max_document);
    } catch (const Error&) {
      uncertain(message);
    }
    require(file.at("sha256") == digest(bytes, "sha256"), "launcher_download_uncertain", message);
    remove_file(path);
  }
  sync_directory(directory);
}

bool retired_with(const json& group, const json& reference, const Authority& authority) {
  const json& receipt = group.at("receipt");
  if (receipt.is_null() || group.at("phase") != "complete") return false;
  if (receipt.at("reference").is_null()) return describes(receipt.at("authorization"), authority.bytes);
  return receipt.at("reference") == reference;
}

}  // namespace

void TargetDownloads::retire(const json& reference) const {
  const Authority authority = durable_manifest(store, reference);
  const TargetDownloads current = target_download_receipts(store);
  const fs::path folder = store / "downloads";
  std::vector<const json*> retired;
  for (const json& group : current.downloads) {
    if (!retired_with(group, reference, authority)) continue;
    const json& receipt = group.at("receipt");
    if (!receipt.at("reference").is_null()) check_archive(receipt, authority.manifest);
    require(!present(safe_join(folder, receipt.at("temporary").get<std::string>(), false)),
            "launcher_download_uncertain", "A completed download temporary file reappeared");
    check_download(safe_join(folder, receipt.at("target").get<std::string>(), false), receipt, authority);
    retired.push_back(&group);
  }
  // The download file goes first: a crash then leaves a receipt for a file
  // already gone, which the next retirement finishes, and never a file that
  // no receipt explains.
  for (const json* group : retired) {
    const json& receipt = group->at("receipt");
    const fs::path path = safe_join(folder, receipt.at("target").get<std::string>(), false);
    if (present(path)) {
      remove_file(path);
      sync_directory(path.parent_path());
    }
    const fs::path staging = safe_join(folder, receipt.at("temporary").get<std::string>(), false);
    remove_unchanged(staging.parent_path(), group->at("resume_files"), "Download ownership changed before retirement");
    remove_unchanged(store / "download-intents", group->at("files"), "Download receipt changed before retirement");
  }
}

}  // namespace zorvi
