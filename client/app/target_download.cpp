// Receipts on disk: reading a store's `download-intents`, writing them from
// a download's events, and removing a finished download.
#include "client/app/target_download.hpp"

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <system_error>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/tuf/metadata.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_receipt_entries = 64;
constexpr std::size_t max_marker_entries = 96;
constexpr std::size_t max_document = 16384;
// What the store lets `download-intents` hold at most, counted as entries.
constexpr std::size_t receipt_capacity = 32;
constexpr std::size_t nonce_length = 32;

[[noreturn]] void uncertain(const std::string& message) { throw Error("launcher_download_uncertain", message); }

// Entries of an ordinary directory, at most `bound`; a missing one is empty.
std::vector<std::string> list_directory(const fs::path& directory, std::size_t bound, const char* limit_message,
                                        const char* unsafe_message) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(directory, error);
  if (status.type() == fs::file_type::not_found) return {};
  if (error) throw Error("file_read", with_errno("Cannot inspect " + path_utf8(directory), error.value()));
  require(status.type() == fs::file_type::directory, "unsafe_path", unsafe_message);
  std::vector<std::string> names;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
    require(names.size() < bound, "size_limit", limit_message);
    names.push_back(path_utf8(it->path().filename()));
  }
  if (error) throw Error("file_read", with_errno("Cannot list " + path_utf8(directory), error.value()));
  return names;
}

bool regular_file(const fs::path& path, std::uintmax_t limit = UINTMAX_MAX) {
  std::error_code error;
  if (fs::symlink_status(path, error).type() != fs::file_type::regular) return false;
  const std::uintmax_t size = fs::file_size(path, error);
  return !error && size <= limit;
}

json file_text(const fs::path& directory, const std::string& name) {
  return {{"name", name}, {"text", read_file(directory / name, max_document)}};
}

fs::path downloads_of(const fs::path& store) { return store / "downloads"; }
fs::path intents_of(const fs::path& store) { return store / "download-intents"; }

// A receipt name is one only for a nonce of 32 lower-case hexadecimal
// characters; any other name is not ours to group.
std::string nonce_of(const std::string& name) {
  const std::string nonce = name.substr(0, nonce_length);
  return is_lower_hex(nonce, nonce_length) && target_download_file_name(name, nonce) ? nonce : std::string();
}

void check_ownership_overlap(const json& downloads) {
  std::set<std::string> targets, temporaries;
  for (const json& group : downloads) {
    if (group.at("receipt").is_null()) continue;
    targets.insert(group.at("receipt").at("target").get<std::string>());
    temporaries.insert(group.at("receipt").at("temporary").get<std::string>());
  }
  for (const std::string& target : targets)
    require(!temporaries.contains(target), "launcher_download_uncertain",
            "Download target and partial ownership overlap; preserve them");
}

json receipt_for(const std::string& target, const json& file, const json& reference, const std::string& nonce,
                 const char* phase) {
  return {{"schema_version", 1},
          {"kind", "zorvi-launcher-download"},
          {"nonce", nonce},
          {"target", target},
          {"temporary", target + "." + nonce + ".partial"},
          {"authorization", {{"length", length(file)}, {"hashes", file.at("hashes")}}},
          {"reference", reference},
          {"phase", phase}};
}

std::string receipt_text(const json& receipt) {
  validate_target_download_receipt(receipt);
  std::string text = receipt.dump();
  require(text.size() <= max_document, "size_limit", "Download receipt exceeds its bounded format");
  return text;
}

const json* group_of(const TargetDownloads& downloads, const std::string& nonce) {
  for (const json& group : downloads.downloads)
    if (group.at("nonce") == nonce) return &group;
  return nullptr;
}

bool same_download(const json& group, const json& expected) {
  const json& receipt = group.at("receipt");
  return !receipt.is_null() && receipt.at("target") == expected.at("target") &&
         receipt.at("authorization") == expected.at("authorization") &&
         receipt.at("reference") == expected.at("reference");
}

// The staging name `target` "." 32 hexadecimal characters ".partial", and
// nothing else, names a download this observer can own.
std::string owned_nonce(const std::string& target, std::string_view name) {
  const std::string_view suffix = ".partial";
  const bool exact = name.size() == target.size() + 1 + nonce_length + suffix.size() && name.starts_with(target) &&
                     name[target.size()] == '.' && name.ends_with(suffix);
  const std::string nonce = exact ? std::string(name.substr(target.size() + 1, nonce_length)) : std::string();
  require(exact && nonce.find_first_not_of("0123456789abcdef") == std::string::npos, "launcher_download_uncertain",
          "TUF download did not supply its exact owned staging name");
  return nonce;
}

struct ObserverState {
  fs::path store;
  std::string target;
  json reference;
  std::string nonce;  // the download this observer prepared or resumed
};

void on_prepared(ObserverState& state, const json& file, std::string_view name) {
  const std::string nonce = owned_nonce(state.target, name);
  const std::string text = receipt_text(receipt_for(state.target, file, state.reference, nonce, "prepared"));
  const TargetDownloads downloads = target_download_receipts(state.store);
  require(group_of(downloads, nonce) == nullptr, "launcher_download_uncertain",
          "New download nonce already belongs to retained metadata");
  require(downloads.entries < receipt_capacity, "launcher_storage_full",
          "Retained download receipts reached their capacity");
  atomic_create(intents_of(state.store) / (nonce + ".json"), text);
  state.nonce = nonce;
}

void on_resumed(ObserverState& state, const json& file, std::string_view name) {
  const std::string nonce = owned_nonce(state.target, name);
  const json expected = receipt_for(state.target, file, state.reference, nonce, "prepared");
  const TargetDownloads downloads = target_download_receipts(state.store);
  const json* group = group_of(downloads, nonce);
  const bool unchanged = group != nullptr && group->at("phase") == "prepared" && group->at("receipt") == expected &&
                         group->at("receipt_sha256") == digest(expected.dump(), "sha256") &&
                         !group->at("resume_files").empty();
  require(unchanged, "launcher_download_uncertain",
          "Resume requires the unchanged prepared receipt and matching checkpoint");
  state.nonce = nonce;
}

// A download found already finished in place had its receipt made by an
// earlier process that was stopped after the rename: a prepared receipt of
// the same authorisation whose staging file is gone. The final file has just
// been verified against that authorisation, so completing it is true.
std::string finished_elsewhere(const ObserverState& state, const TargetDownloads& downloads, const json& expected) {
  for (const json& group : downloads.downloads)
    if (same_download(group, expected) && group.at("phase") == "complete") return {};
  for (const json& group : downloads.downloads) {
    if (!same_download(group, expected)) continue;
    const std::string temporary = group.at("receipt").at("temporary").get<std::string>();
    if (!entry_present(safe_join(downloads_of(state.store), temporary, false)))
      return group.at("nonce").get<std::string>();
  }
  uncertain("Download ownership changed before verification completed");
}

void on_complete(ObserverState& state, const json& file) {
  const json expected = receipt_for(state.target, file, state.reference, state.nonce, "complete");
  const TargetDownloads downloads = target_download_receipts(state.store);
  std::string nonce = state.nonce;
  if (nonce.empty()) nonce = finished_elsewhere(state, downloads, expected);
  if (nonce.empty()) return;
  const json* group = group_of(downloads, nonce);
  require(
      group != nullptr && same_download(*group, expected) && entry_present(intents_of(state.store) / (nonce + ".json")),
      "launcher_download_uncertain", "Download ownership changed before verification completed");
  json receipt = group->at("receipt");
  receipt["phase"] = "complete";
  atomic_write(intents_of(state.store) / (nonce + ".json"), receipt_text(receipt));
  state.nonce.clear();
}

}  // namespace

json target_download_resume_files(const fs::path& store, const json& receipt) {
  validate_target_download_receipt(receipt);
  const fs::path staging = safe_join(downloads_of(store), receipt.at("temporary").get<std::string>(), false);
  const std::string leaf = path_utf8(staging.filename());
  const std::vector<std::string> names =
      list_directory(staging.parent_path(), max_marker_entries, "Target resume metadata scan exceeds its bound",
                     "Download resume parent is not an ordinary directory");
  json files = json::array();
  for (const std::string& name : names) {
    if (name == leaf || !name.starts_with(leaf + ".")) continue;
    require(target_download_resume_file_name(name, leaf), "launcher_download_uncertain",
            "Unknown resume metadata names were preserved");
    const fs::path path = staging.parent_path() / name;
    require(regular_file(path, max_document), "launcher_download_uncertain",
            "Unknown resume metadata name or bound was preserved");
    files.push_back(file_text(staging.parent_path(), name));
  }
  return parse_target_download_resume_files(receipt, files);
}

TargetDownloads target_download_receipts(const fs::path& store) {
  TargetDownloads result{store, json::array(), 0};
  const fs::path intents = intents_of(store);
  const std::vector<std::string> names =
      list_directory(intents, max_receipt_entries, "Target download receipt count exceeds its scan bound",
                     "Download receipt directory is not an ordinary directory");
  result.entries = names.size();
  // Every name is judged before any file is read, so a foreign name is
  // reported as such whatever else the directory holds.
  for (const std::string& name : names)
    require(!nonce_of(name).empty() && regular_file(intents / name), "launcher_download_uncertain",
            "Unknown download receipt names preserve the target store");
  std::map<std::string, json> groups;
  for (const std::string& name : names) groups[nonce_of(name)].push_back(file_text(intents, name));
  for (const auto& [nonce, files] : groups) {
    json group = parse_target_download_receipt_group(nonce, files);
    if (!group.at("receipt").is_null())
      group["resume_files"] = target_download_resume_files(store, group.at("receipt"));
    result.downloads.push_back(std::move(group));
  }
  check_ownership_overlap(result.downloads);
  return result;
}

TargetDownloads launcher_download_receipts(const fs::path& store) { return target_download_receipts(store); }

TargetObserver TargetDownloads::observer(std::string target, json reference) const {
  auto state = std::make_shared<ObserverState>(ObserverState{store, std::move(target), std::move(reference), {}});
  return [state](std::string_view event, const json& file, std::string_view name) {
    if (event == "prepared") on_prepared(*state, file, name);
    if (event == "resumed") on_resumed(*state, file, name);
    if (event == "complete") on_complete(*state, file);
  };
}

}  // namespace zorvi
