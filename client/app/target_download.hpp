#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

#include "client/domain/json.hpp"
#include "client/tuf/tuf.hpp"

namespace zorvi {

// What a store's `download-intents` says about the files in its `downloads`:
// for each receipt nonce, the receipt, the files of its group and the resume
// markers that belong to it. Anything that cannot be explained fails the read
// with "launcher_download_uncertain" and stays where it is.
struct TargetDownloads {
  std::filesystem::path store;
  json downloads = json::array();  // per nonce: nonce, receipt, receipt_sha256, files, resume_files, phase
  std::size_t entries = 0;         // names in `download-intents`, torn writes included

  // The observer for one `TufClient::download` of `target` into the store's
  // `downloads`: records ownership before the first byte and completion after
  // the rename. `reference` is null for the launcher descriptor itself.
  TargetObserver observer(std::string target, json reference) const;

  // Removes the finished downloads of a version whose manifest is durable.
  void retire(const json& reference) const;
};

using LauncherDownloads = TargetDownloads;

// The scope under which a target's partial download may be resumed.
std::string target_download_resume_scope(std::string_view target, const json& reference);
std::string launcher_download_resume_scope(std::string_view target, const json& reference);

void validate_target_download_receipt(const json& receipt);

// "<nonce>.json" or the temporary name an atomic write of it uses.
bool target_download_file_name(std::string_view name, std::string_view nonce);
// "<staging>.resume.json" or the temporary name an atomic write of it uses.
bool target_download_resume_file_name(std::string_view name, std::string_view staging);

// Files are given as objects of `name` and `text` (the bytes read); the
// answers list them as `name`, `length` and `sha256`.
json target_download_resume_files(const std::filesystem::path& store, const json& receipt);
json parse_target_download_resume_files(const json& receipt, const json& files);
json parse_target_download_receipt_group(std::string_view nonce, const json& files);

TargetDownloads target_download_receipts(const std::filesystem::path& store);
TargetDownloads launcher_download_receipts(const std::filesystem::path& store);

}  // namespace zorvi
