// Receipts and resume markers as documents: their checks, their names, and
// what a group of files left by atomic writes says about one download.
#include <algorithm>

#include "client/app/target_download.hpp"
#include "client/app/torn_write.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/launcher_contract.hpp"
#include "client/platform/native_platform.hpp"

namespace zorvi {
namespace {

constexpr std::string_view receipt_kind = "zorvi-launcher-download";
constexpr std::size_t nonce_length = 32;
constexpr std::size_t max_document = 16384;
constexpr std::size_t max_resume_files = 64;
constexpr std::size_t max_group_files = 64;
constexpr std::string_view tmp_suffix = ".tmp";

[[noreturn]] void uncertain(const std::string& message) { throw Error("launcher_download_uncertain", message); }

// `name` + "." + 32 hexadecimal characters + ".tmp": what `atomic_write` and
// `atomic_create` leave when they are cut short.
bool atomic_temporary_of(std::string_view name, std::string_view final_name) {
  return name.size() == final_name.size() + 1 + nonce_length + tmp_suffix.size() && name.starts_with(final_name) &&
         name[final_name.size()] == '.' &&
         is_lower_hex(name.substr(final_name.size() + 1, nonce_length), nonce_length) && name.ends_with(tmp_suffix);
}

bool valid_path(const std::string& text) {
  try {
    validate_relative_path(text, false);
    return true;
  } catch (const Error&) {
    return false;
  }
}

bool valid_identifier(const std::string& text) {
  try {
    validate_identifier(text);
    return true;
  } catch (const Error&) {
    return false;
  }
}

// The launcher's signed descriptor is the one target downloaded before any
// version is known, so its receipt may not name one.
void check_hashes(const json& hashes) {
  for (const auto& [name, value] : hashes.items()) {
    const std::size_t size = name == "sha256" ? 64 : name == "sha512" ? 128 : 0;
    const bool known = size != 0 && value.is_string() && is_lower_hex(value.get_ref<const std::string&>(), size);
    require(known, "launcher_download_uncertain", "Unknown download hash contract was preserved");
  }
}

void check_reference(const json& receipt) {
  const json& reference = receipt.at("reference");
  if (receipt.at("target") == launcher_manifest_target()) {
    require(reference.is_null(), "launcher_download_uncertain",
            "Descriptor download must not invent an installed reference");
    return;
  }
  const bool known = reference.is_object() && reference.size() == 2 && reference.contains("manifest_sha256") &&
                     reference.at("manifest_sha256").is_string() &&
                     is_lower_hex(reference.at("manifest_sha256").get_ref<const std::string&>(), 64) &&
                     reference.contains("build_id") && reference.at("build_id").is_string() &&
                     valid_identifier(reference.at("build_id").get_ref<const std::string&>()) &&
                     receipt.at("authorization").at("hashes").contains("sha256");
  require(known, "launcher_download_uncertain", "Archive download has no known manifest identity");
}

void check_receipt(const json& receipt) {
  const auto text = [&](const char* name) { return receipt.contains(name) && receipt.at(name).is_string(); };
  const bool known = receipt.is_object() && receipt.size() == 8 && receipt.contains("schema_version") &&
                     receipt.at("schema_version").is_number_integer() && receipt.at("schema_version") == 1 &&
                     receipt.contains("kind") && receipt.at("kind") == receipt_kind && text("nonce") &&
                     is_lower_hex(receipt.at("nonce").get_ref<const std::string&>(), nonce_length) && text("target") &&
                     valid_path(receipt.at("target")) && text("temporary") && receipt.contains("authorization") &&
                     receipt.contains("reference") && text("phase") &&
                     (receipt.at("phase") == "prepared" || receipt.at("phase") == "complete");
  require(known, "launcher_download_uncertain", "Unknown target download receipt was preserved");
  const std::string& target = receipt.at("target").get_ref<const std::string&>();
  const bool owned = receipt.at("temporary") == target + "." + receipt.at("nonce").get<std::string>() + ".partial" &&
                     valid_path(receipt.at("temporary"));
  require(owned, "launcher_download_uncertain", "Download temporary path differs from its owned nonce");
  const json& authorization = receipt.at("authorization");
  const bool bounded = authorization.is_object() && authorization.size() == 2 && authorization.contains("length") &&
                       authorization.at("length").is_number_unsigned() && authorization.contains("hashes") &&
                       authorization.at("hashes").is_object() && !authorization.at("hashes").empty() &&
                       authorization.at("hashes").size() <= 2;
  require(bounded, "launcher_download_uncertain", "Download authorization exceeds its known bounds");
  check_hashes(authorization.at("hashes"));
  check_reference(receipt);
}

// Everything but `phase`: what every whole write of one receipt agrees on.
json without_phase(json receipt) {
  receipt.erase("phase");
  return receipt;
}

struct FileText {
  std::string name;
  const std::string* text;
};

std::vector<FileText> file_texts(const json& files, std::size_t bound, const char* message) {
  require(files.is_array() && files.size() <= bound, "launcher_download_uncertain", message);
  std::vector<FileText> texts;
  for (const json& file : files) {
    const bool shaped = file.is_object() && file.contains("name") && file.at("name").is_string() &&
                        file.contains("text") && file.at("text").is_string();
    require(shaped, "launcher_download_uncertain", message);
    texts.push_back({file.at("name").get<std::string>(), &file.at("text").get_ref<const std::string&>()});
  }
  return texts;
}

json summary(const FileText& file) {
  return {{"name", file.name}, {"length", file.text->size()}, {"sha256", digest(*file.text, "sha256")}};
}

// A whole document, or nothing when the bytes are not JSON at all (a torn
// write, judged later); other refusals (floats, duplicate keys) cannot come
// from a write of ours, so the file is preserved with `refusal`.
std::optional<json> whole(const std::string& text, const std::string& refusal) {
  try {
    return parse_json(text, max_document);
  } catch (const Error& error) {
    if (error.code != "invalid_json") uncertain(refusal);
    return std::nullopt;
  }
}

std::optional<std::string> member_text(const std::optional<json>& document, const char* key) {
  if (!document) return std::nullopt;
  return document->at(key).dump();
}

// What a receipt of this nonce would be, member by member, in the order the
// JSON library writes them; unknown members are those no whole write showed.
std::vector<ExpectedMember> receipt_members(std::string_view nonce, const std::optional<json>& known,
                                            std::string_view phase) {
  return {{"authorization", member_text(known, "authorization")},
          {"kind", json(receipt_kind).dump()},
          {"nonce", json(nonce).dump()},
          {"phase", json(phase).dump()},
          {"reference", member_text(known, "reference")},
          {"schema_version", "1"},
          {"target", member_text(known, "target")},
          {"temporary", member_text(known, "temporary")}};
}

TornWrite torn_receipt(const std::string& text, std::string_view nonce, const std::optional<json>& known) {
  const TornWrite prepared = torn_write(text, receipt_members(nonce, known, "prepared"));
  const TornWrite complete = torn_write(text, receipt_members(nonce, known, "complete"));
  if (prepared == TornWrite::prefix || complete == TornWrite::prefix) return TornWrite::prefix;
  return prepared == TornWrite::foreign && complete == TornWrite::foreign ? TornWrite::foreign : TornWrite::other;
}

void check_torn_receipt(const FileText& file, std::string_view nonce, const std::optional<json>& known) {
  // Only the temporary of an atomic write can be cut short; the final name
  // appears by rename of a whole, flushed file.
  const bool temporary = file.name != std::string(nonce) + ".json";
  const TornWrite torn = temporary ? torn_receipt(*file.text, nonce, known) : TornWrite::foreign;
  if (torn == TornWrite::other) uncertain("Torn receipt write does not match its known download");
  if (torn == TornWrite::foreign) uncertain("Unrecognized receipt-write bytes were preserved");
}

void check_whole_receipt(const json& receipt, std::string_view nonce) {
  validate_target_download_receipt(receipt);
  require(receipt.at("nonce") == nonce, "launcher_download_uncertain",
          "Download receipt filename differs from its ownership identity");
}

std::vector<ExpectedMember> marker_members(const json& receipt, const std::optional<json>& known) {
  const std::string scope =
      target_download_resume_scope(receipt.at("target").get<std::string>(), receipt.at("reference"));
  return {{"authorization", receipt.at("authorization").dump()},
          {"identity", member_text(known, "identity")},
          {"kind", json("zorvi-target-resume").dump()},
          {"prefix_sha256", std::nullopt},
          {"received", std::nullopt},
          {"schema_version", "1"},
          {"scope_sha256", json(digest(scope, "sha256")).dump()},
          {"target", receipt.at("target").dump()},
          {"temporary", receipt.at("temporary").dump()}};
}

void check_marker(const json& receipt, const json& marker) {
  try {
    validate_target_resume_state(marker, receipt.at("temporary").get<std::string>());
  } catch (const Error&) {
    uncertain("Unknown resume metadata was preserved");
  }
  const std::string scope =
      target_download_resume_scope(receipt.at("target").get<std::string>(), receipt.at("reference"));
  const bool owned = marker.at("target") == receipt.at("target") &&
                     marker.at("authorization") == receipt.at("authorization") &&
                     marker.at("scope_sha256") == digest(scope, "sha256");
  require(owned, "launcher_download_uncertain", "Resume metadata differs from its owning receipt");
}

std::string leaf_name(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

json parse_resume_files(const json& receipt, const json& files) {
  require(!files.is_array() || files.size() <= max_resume_files, "size_limit",
          "Frozen resume evidence exceeds its bound");
  const std::vector<FileText> texts =
      file_texts(files, max_resume_files, "Unknown resume metadata name or bound was preserved");
  const std::string staging = leaf_name(receipt.at("temporary").get<std::string>());
  std::optional<json> known;
  std::vector<const FileText*> torn;
  json summaries = json::array();
  for (const FileText& file : texts) {
    require(target_download_resume_file_name(file.name, staging), "launcher_download_uncertain",
            "Unowned resume evidence was preserved");
    require(file.text->size() <= max_document, "launcher_download_uncertain",
            "Unknown resume metadata name or bound was preserved");
    summaries.push_back(summary(file));
    std::optional<json> marker = whole(*file.text, "Unknown resume-write bytes were preserved");
    if (!marker) {
      torn.push_back(&file);
      continue;
    }
    check_marker(receipt, *marker);
    require(!known || known->at("identity") == marker->at("identity"), "launcher_download_uncertain",
            "Resume checkpoints disagree about native file ownership");
    known = std::move(marker);
  }
  for (const FileText* file : torn) {
    const bool temporary = file->name != staging + ".resume.json";
    const TornWrite result = temporary ? torn_write(*file->text, marker_members(receipt, known)) : TornWrite::foreign;
    if (result == TornWrite::other) uncertain("Torn resume write shows a different or future contract");
    if (result == TornWrite::foreign) uncertain("Unknown resume-write bytes were preserved");
  }
  return summaries;
}

// Whole writes decide the receipt; the final name is preferred, then the
// later phase, since phases only move from "prepared" to "complete".
json parse_group(std::string_view nonce, const json& files) {
  const char* shape = "Invalid frozen download receipt group";
  require(is_lower_hex(nonce, nonce_length) && files.is_array() && !files.empty(), "launcher_download_uncertain",
          shape);
  const std::vector<FileText> texts = file_texts(files, max_group_files, shape);
  std::optional<json> known;
  const FileText* chosen = nullptr;
  std::string phase = "prepared";
  std::vector<const FileText*> torn;
  json summaries = json::array();
  for (const FileText& file : texts)
    require(target_download_file_name(file.name, nonce), "launcher_download_uncertain",
            "Unknown download receipt write was preserved");
  for (const FileText& file : texts) {
    summaries.push_back(summary(file));
    std::optional<json> receipt = whole(*file.text, "Unrecognized receipt-write bytes were preserved");
    if (!receipt) {
      torn.push_back(&file);
      continue;
    }
    check_whole_receipt(*receipt, nonce);
    require(!known || without_phase(*known) == without_phase(*receipt), "launcher_download_uncertain",
            "Atomic receipt writes disagree about their owned download");
    if (receipt->at("phase") == "complete") phase = "complete";
    if (!chosen || file.name == std::string(nonce) + ".json") chosen = &file, known = std::move(receipt);
  }
  for (const FileText* file : torn) check_torn_receipt(*file, nonce, known);
  json group = {{"nonce", nonce}, {"files", summaries}, {"resume_files", json::array()}};
  group["receipt"] = known ? *known : json();
  group["receipt_sha256"] = chosen ? json(digest(*chosen->text, "sha256")) : json();
  // A group of torn writes only is a receipt whose creation never finished:
  // no byte of its download was written.
  group["phase"] = known ? phase : "torn";
  return group;
}

}  // namespace

std::string target_download_resume_scope(std::string_view target, const json& reference) {
  return canonical_json({{"kind", receipt_kind}, {"target", target}, {"reference", reference}});
}

std::string launcher_download_resume_scope(std::string_view target, const json& reference) {
  return target_download_resume_scope(target, reference);
}

void validate_target_download_receipt(const json& receipt) {
  try {
    check_receipt(receipt);
  } catch (const json::exception&) {
    uncertain("Malformed target download receipt was preserved");
  }
}

bool target_download_file_name(std::string_view name, std::string_view nonce) {
  const std::string final_name = std::string(nonce) + ".json";
  return name == final_name || atomic_temporary_of(name, final_name);
}

bool target_download_resume_file_name(std::string_view name, std::string_view staging) {
  const std::string final_name = std::string(staging) + ".resume.json";
  return name == final_name || atomic_temporary_of(name, final_name);
}

json parse_target_download_resume_files(const json& receipt, const json& files) {
  validate_target_download_receipt(receipt);
  try {
    return parse_resume_files(receipt, files);
  } catch (const json::exception&) {
    uncertain("Unknown resume metadata was preserved");
  }
}

json parse_target_download_receipt_group(std::string_view nonce, const json& files) {
  try {
    return parse_group(nonce, files);
  } catch (const json::exception&) {
    uncertain("Malformed target download receipt was preserved");
  }
}

}  // namespace zorvi
