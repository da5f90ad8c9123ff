#include "client/tuf/metadata.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

// GCC 14 with the sanitizers reports a false "maybe uninitialized" deep inside
// the standard library's regular-expression compiler; the fault is not ours.
// Clang has no such warning and refuses to be told about one it does not know.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"

namespace zorvi {
namespace {

constexpr std::size_t max_spec_version = 32;
constexpr std::size_t max_hash_prefix = 64;
constexpr std::int64_t microseconds_per_second = 1'000'000;
constexpr std::int64_t microseconds_per_day = 86'400 * microseconds_per_second;

[[noreturn]] void fail(const char* code, const std::string& message) { throw Error(code, message); }

void invalid(bool condition, const std::string& message) { require(condition, "invalid_metadata", message); }

// A missing member or a wrong type deep inside a document surfaces from the
// JSON library; callers get one Error for all of them instead.
template <typename Action>
auto guarded(Action&& action) {
  try {
    return action();
  } catch (const json::exception&) {
    fail("invalid_metadata", "Metadata is missing a required field or has an invalid field type");
  }
}

const std::string& text(const json& value) { return value.get_ref<const std::string&>(); }

bool is_string_member(const json& object, const char* name) {
  return object.is_object() && object.contains(name) && object[name].is_string();
}

bool any_hex(std::string_view value) {
  for (const char c : value)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) return false;
  return true;
}

// Compiled on first use; the initialisation of a function-local static is
// thread-safe, and matching against a const expression never writes to it.
const std::regex& spec_version_pattern() {
  static const std::regex pattern("^1\\.(0|[1-9][0-9]*)(\\.(0|[1-9][0-9]*))?$", std::regex::ECMAScript);
  return pattern;
}

void signatures_shape(const json& signatures) {
  std::set<std::string> seen;
  for (const json& entry : signatures) {
    require(is_string_member(entry, "keyid") && is_string_member(entry, "sig"), "invalid_metadata",
            "Signature must contain a key ID and signature string");
    invalid(seen.insert(text(entry["keyid"])).second, "Metadata repeats a signature key ID");
  }
}

void spec_version_shape(const json& value) {
  const std::string& version = text(value);
  require(version.size() <= max_spec_version && std::regex_match(version, spec_version_pattern()), "unsupported_spec",
          "A stable TUF 1.x[.y] specification version is required");
}

void root_shape(const json& body) {
  const json& keys = body.at("keys");
  verify_keys(keys);
  if (body.contains("consistent_snapshot"))
    invalid(body["consistent_snapshot"].is_boolean(), "consistent_snapshot must be a boolean");
  const json& roles = body.at("roles");
  invalid(roles.is_object(), "Root roles must be an object");
  for (const char* name : {"root", "timestamp", "snapshot", "targets"}) authority_shape(roles.at(name), keys);
  if (roles.contains("mirrors")) authority_shape(roles["mirrors"], keys);
}

void meta_shape(const json& body, std::string_view role) {
  const json& meta = body.at("meta");
  invalid(meta.is_object(), "Metadata references must be an object");
  const bool described =
      role == "timestamp" ? meta.size() == 1 && meta.contains("snapshot.json") : meta.contains("targets.json");
  invalid(described, "Timestamp must describe only snapshot.json; snapshot must describe targets.json");
  for (const json& description : meta) {
    invalid(description.is_object() && description.contains("version"), "Metadata reference must contain a version");
    positive_version(description["version"]);
    if (description.contains("length")) length(description);
    if (description.contains("hashes")) hashes_shape(description["hashes"]);
  }
}

void target_shape(const std::string& path, const json& file) {
  validate_relative_path(path, false);
  length(file);
  require(file.contains("hashes"), "invalid_hashes", "Target has no authenticated hashes");
  hashes_shape(file["hashes"]);
  if (file.contains("custom")) invalid(file["custom"].is_object(), "Target custom data must be an object");
}

void role_name_shape(const json& role, std::set<std::string>& names) {
  invalid(is_string_member(role, "name"), "Delegation must have a role name");
  const std::string& name = text(role["name"]);
  require(!name.empty() && name.size() <= max_role_name, "size_limit", "Delegated role name exceeds its bound");
  const bool top_level = name == "root" || name == "snapshot" || name == "timestamp" || name == "targets";
  invalid(!top_level && names.insert(name).second, "Delegated role names must be unique and non-top-level");
}

void selector_shape(const json& role) {
  const bool by_paths = role.contains("paths");
  invalid(by_paths != role.contains("path_hash_prefixes") && role.contains("terminating") &&
              role["terminating"].is_boolean(),
          "Delegation needs exactly one path selector and a terminating boolean");
  const json& selector = role[by_paths ? "paths" : "path_hash_prefixes"];
  invalid(selector.is_array(), "Delegation selector must be an array");
  for (const json& element : selector) {
    invalid(element.is_string(), "Delegation selector must contain strings");
    const std::string& value = text(element);
    if (by_paths) require(value.size() <= max_path_pattern, "size_limit", "Delegation pattern exceeds path limit");
    else
      invalid(!value.empty() && value.size() <= max_hash_prefix && is_lower_hex(value),
              "Invalid delegation hash prefix");
  }
}

void delegations_shape(const json& delegations) {
  invalid(delegations.is_object() && delegations.contains("keys") && delegations.contains("roles") &&
              delegations["roles"].is_array(),
          "Invalid delegations");
  const json& keys = delegations["keys"];
  verify_keys(keys);
  std::set<std::string> names;
  for (const json& role : delegations["roles"]) {
    role_name_shape(role, names);
    authority_shape(role, keys);
    selector_shape(role);
  }
}

void targets_shape(const json& body) {
  const json& targets = body.at("targets");
  invalid(targets.is_object(), "Targets must be an object");
  for (const auto& [path, file] : targets.items()) target_shape(path, file);
  if (body.contains("delegations")) delegations_shape(body["delegations"]);
}

void key_shape(const json& key) {
  const bool shaped = is_string_member(key, "keytype") && is_string_member(key, "scheme") && key.contains("keyval") &&
                      is_string_member(key["keyval"], "public");
  invalid(shaped, "Invalid signing key shape");
}

// Days from 1970-01-01 to a proleptic Gregorian date; exact for every year
// a four-digit field can hold.
std::int64_t days_from_civil(std::int64_t year, unsigned month, unsigned day) {
  year -= month <= 2 ? 1 : 0;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const auto year_of_era = static_cast<unsigned>(year - era * 400);
  const unsigned day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const unsigned day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + static_cast<std::int64_t>(day_of_era) - 719468;
}

bool leap_year(unsigned year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

unsigned last_day(unsigned year, unsigned month) {
  static constexpr std::array<unsigned, 12> days{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && leap_year(year) ? 29 : days[month - 1];
}

bool decimal(std::string_view digits) {
  for (const char c : digits)
    if (c < '0' || c > '9') return false;
  return true;
}

unsigned time_field(std::string_view value, std::size_t offset, std::size_t width) {
  const std::string_view digits = value.substr(offset, width);
  require(decimal(digits), "invalid_expiry", "Timestamp fields must contain decimal digits");
  unsigned number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  require(error == std::errc() && end == digits.data() + digits.size(), "invalid_expiry", "Invalid timestamp digits");
  return number;
}

void time_layout(std::string_view value) {
  const bool layout = value.size() >= 20 && value.size() <= 30 && value[4] == '-' && value[7] == '-' &&
                      value[10] == 'T' && value[13] == ':' && value[16] == ':' && value.back() == 'Z' &&
                      (value.size() == 20 || (value.size() >= 22 && value[19] == '.'));
  require(layout, "invalid_expiry", "Expiry must use a UTC ISO-8601 timestamp");
}

// The first six digits of the fraction as microseconds; later ones are
// dropped, never rounded, so a time never moves forward.
std::int64_t fraction_microseconds(std::string_view value) {
  if (value.size() == 20) return 0;
  const std::string_view digits = value.substr(20, value.size() - 21);
  require(!digits.empty() && digits.size() <= 9 && decimal(digits), "invalid_expiry", "Invalid fractional second");
  std::int64_t result = 0;
  for (std::size_t i = 0; i < 6; ++i) result = result * 10 + (i < digits.size() ? digits[i] - '0' : 0);
  return result;
}

// A character class of a path pattern: the bytes it names and whether it
// is negated.
struct PatternClass {
  std::array<bool, 256> members{};
  bool negated = false;
  std::size_t end = 0;  // pattern position behind the closing bracket
};

// The class opening at `open`, or nothing when no bracket closes it and the
// `[` stands for itself.
bool pattern_class(std::string_view pattern, std::size_t open, PatternClass& result) {
  const std::size_t start = open + 1;
  const std::size_t search = start < pattern.size() && pattern[start] == ']' ? start + 1 : start;
  const std::size_t close = pattern.find(']', search);
  if (close == std::string_view::npos) return false;
  std::string_view body = pattern.substr(start, close - start);
  result.negated = !body.empty() && (body[0] == '!' || body[0] == '^');
  if (result.negated) body.remove_prefix(1);
  for (std::size_t k = 0; k < body.size();) {
    const bool range = k + 2 < body.size() && body[k + 1] == '-';
    const auto low = static_cast<signed char>(body[k]);
    const auto high = static_cast<signed char>(range ? body[k + 2] : body[k]);
    // Signed on purpose, so that a range never spans from ASCII into bytes of 0x80 and above.
    // NOLINTNEXTLINE(bugprone-signed-char-misuse)
    for (int c = low; c <= high; ++c) result.members[static_cast<unsigned char>(c)] = true;
    k += range ? 3 : 1;
  }
  result.end = close + 1;
  return true;
}

using Positions = std::vector<bool>;

void step_star(std::string_view path, const Positions& current, Positions& next) {
  next[0] = current[0];
  for (std::size_t j = 0; j < path.size(); ++j) next[j + 1] = current[j + 1] || (next[j] && path[j] != '/');
}

// One byte of the path taken when `accepts` says so.
template <typename Accepts>
void step_byte(std::string_view path, const Positions& current, Positions& next, Accepts accepts) {
  for (std::size_t j = 0; j < path.size(); ++j) next[j + 1] = current[j] && accepts(path[j]);
}

}  // namespace

void shape(const json& document, std::string_view role) {
  guarded([&] {
    invalid(document.is_object() && document.contains("signatures") && document["signatures"].is_array() &&
                document.contains("signed") && document["signed"].is_object(),
            "Metadata must contain a signed object and signature array");
    signatures_shape(document["signatures"]);
    const json& body = document["signed"];
    require(text(body.at("_type")) == role, "metadata_type", "Unexpected metadata type");
    spec_version_shape(body.at("spec_version"));
    positive_version(body.at("version"));
    parse_tuf_time(text(body.at("expires")));
    if (role == "root") root_shape(body);
    if (role == "timestamp" || role == "snapshot") meta_shape(body, role);
    if (role == "targets") targets_shape(body);
  });
}

void authority_shape(const json& role, const json& keys) {
  invalid(role.is_object() && role.contains("keyids") && role["keyids"].is_array() && role.contains("threshold"),
          "Invalid signing authority");
  positive_version(role["threshold"]);
  for (const json& id : role["keyids"]) {
    invalid(id.is_string(), "Invalid signing authority");
    require(keys.is_object() && keys.contains(text(id)), "invalid_metadata",
            "Role references a key absent from its delegator");
  }
}

void hashes_shape(const json& hashes) {
  require(hashes.is_object() && !hashes.empty(), "invalid_hashes", "Hashes must be a nonempty object");
  for (const auto& [name, value] : hashes.items()) {
    require(name == "sha256" || name == "sha512", "unsupported_hash", "Only SHA-256 and SHA-512 hashes are supported");
    require(value.is_string(), "invalid_hashes", "Hash must be a hexadecimal string");
    const std::size_t expected = name == "sha256" ? 64 : 128;
    require(text(value).size() == expected && any_hex(text(value)), "invalid_hashes",
            "Hash has an invalid length or hexadecimal encoding");
  }
}

void verify_keys(const json& keys) {
  invalid(keys.is_object(), "Signing keys must be an object");
  for (const auto& [name, key] : keys.items()) {
    key_shape(key);
    require(name == digest(canonical_json(key), "sha256"), "keyid_mismatch",
            "Signing key ID does not identify its canonical key");
    require(text(key["keyval"]["public"]).size() <= max_public_key, "size_limit", "Signing key exceeds its size limit");
  }
}

void verify_threshold(const json& document, const json& keys, const json& role) {
  guarded([&] {
    invalid(keys.is_object() && role.is_object() && role.contains("keyids") && role["keyids"].is_array() &&
                role.contains("threshold"),
            "Invalid signing authority");
    verify_keys(keys);
    const std::uint64_t threshold = positive_version(role["threshold"]);
    std::set<std::string> authorized;
    for (const json& id : role["keyids"]) {
      invalid(id.is_string(), "Invalid signing authority");
      authorized.insert(text(id));
    }
    require(threshold <= authorized.size(), "invalid_threshold", "Signing threshold exceeds unique authorized keys");

    const std::string canonical = canonical_json(document.at("signed"));
    std::set<std::string> accepted;
    for (const json& entry : document.at("signatures")) {
      const std::string& id = text(entry.at("keyid"));
      if (accepted.contains(id) || !authorized.contains(id) || !keys.contains(id)) continue;
      if (verify_signature(keys[id], canonical, text(entry.at("sig")))) accepted.insert(id);
    }
    require(accepted.size() >= threshold, "signature_threshold",
            "Metadata does not meet its authorized signature threshold");
  });
}

std::uint64_t length(const json& file) {
  invalid(file.is_object() && file.contains("length"), "File description must contain a length");
  const json& value = file["length"];
  require(value.is_number_unsigned() || (value.is_number_integer() && value.get<std::int64_t>() >= 0), "invalid_length",
          "Length must be a nonnegative integer");
  return value.get<std::uint64_t>();
}

std::int64_t parse_tuf_time(std::string_view value) {
  time_layout(value);
  const unsigned year = time_field(value, 0, 4);
  const unsigned month = time_field(value, 5, 2);
  const unsigned day = time_field(value, 8, 2);
  const unsigned hour = time_field(value, 11, 2);
  const unsigned minute = time_field(value, 14, 2);
  const unsigned second = time_field(value, 17, 2);
  require(
      month >= 1 && month <= 12 && day >= 1 && day <= last_day(year, month) && hour < 24 && minute < 60 && second < 60,
      "invalid_expiry", "Invalid UTC calendar time");
  const std::int64_t seconds = (static_cast<std::int64_t>(hour) * 60 + minute) * 60 + second;
  return days_from_civil(year, month, day) * microseconds_per_day + seconds * microseconds_per_second +
         fraction_microseconds(value);
}

void unexpired(const json& document, std::int64_t now) {
  const std::int64_t expires = guarded([&] { return parse_tuf_time(text(document.at("signed").at("expires"))); });
  require(expires > now, "expired_metadata",
          "Repository metadata has expired; previously installed games remain playable");
}

bool path_pattern_matches(std::string_view pattern, std::string_view path) {
  require(pattern.size() <= max_path_pattern && path.size() <= max_path_pattern, "size_limit",
          "Delegation pattern exceeds path limit");
  // Position j is set when some way through the pattern so far consumes
  // exactly the first j bytes of the path: every element costs one pass over
  // the path, whatever the pattern, and nothing ever backtracks.
  Positions current(path.size() + 1, false);
  Positions next(path.size() + 1, false);
  current[0] = true;
  for (std::size_t i = 0; i < pattern.size();) {
    std::fill(next.begin(), next.end(), false);
    const char element = pattern[i];
    PatternClass cls;
    if (element == '*') {
      step_star(path, current, next);
      ++i;
    } else if (element == '?') {
      step_byte(path, current, next, [](char c) { return c != '/'; });
      ++i;
    } else if (element == '[' && pattern_class(pattern, i, cls)) {
      step_byte(path, current, next,
                [&cls](char c) { return c != '/' && cls.members[static_cast<unsigned char>(c)] != cls.negated; });
      i = cls.end;
    } else {
      step_byte(path, current, next, [element](char c) { return c == element; });
      ++i;
    }
    current.swap(next);
  }
  return current[path.size()];
}

void verify_target_file(const std::filesystem::path& path, const json& file, const Progress& progress) {
  guarded([&] {
    std::error_code error;
    const bool regular = std::filesystem::is_regular_file(std::filesystem::status(path, error)) &&
                         !std::filesystem::is_symlink(std::filesystem::symlink_status(path, error));
    require(regular, "unsafe_path", "Target is not an ordinary file");
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    require(!error && size == length(file), "length_mismatch", "Target length does not match signed metadata");
    require(file.contains("hashes") && file["hashes"].is_object() && !file["hashes"].empty(), "invalid_hashes",
            "Target has no authenticated hashes");
    // Every stated hash is checked, each over its own full pass; the digest
    // text is lower case, so only an exact lower-case statement matches.
    for (const auto& [name, stated] : file["hashes"].items())
      require(digest_file_progress(path, name, progress) == text(stated), "hash_mismatch",
              "Target hash does not match signed metadata");
  });
}

json online_keys(const json& root) {
  return guarded([&] {
    const json& body = root.at("signed");
    json result = json::object();
    for (const char* role : {"timestamp", "snapshot"}) {
      json& keys = result[role] = json::object();
      for (const json& id : body.at("roles").at(role).at("keyids")) keys[text(id)] = body.at("keys").at(text(id));
    }
    return result;
  });
}

}  // namespace zorvi
