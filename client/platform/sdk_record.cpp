#include "client/platform/sdk_record.hpp"

#include <string_view>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"

namespace zorvi {
namespace {

constexpr std::size_t max_category = 64;
constexpr std::size_t max_message = 512;
constexpr std::size_t max_attachment_path = 1024;
constexpr std::size_t max_capture_problem = 128;

[[noreturn]] void malformed() { throw Error("invalid_session", "SDK record fields are missing or malformed"); }

void refuse_unless(bool condition, const char* message) { require(condition, "invalid_session", message); }

const std::string& text(const json& object, const char* key) {
  const json& value = object.at(key);
  if (!value.is_string()) malformed();
  return value.get_ref<const std::string&>();
}

const json& integer(const json& object, const char* key) {
  const json& value = object.at(key);
  if (!value.is_number_integer()) malformed();
  return value;
}

// JSON integers arrive signed or unsigned; both compare without wrapping.
bool negative(const json& value) { return !value.is_number_unsigned() && value.get<std::int64_t>() < 0; }

bool integer_equals(const json& value, std::uint64_t expected) {
  return !negative(value) && value.get<std::uint64_t>() == expected;
}

bool integer_below(const json& value, std::uint64_t floor) {
  return negative(value) || value.get<std::uint64_t>() < floor;
}

void check_identity(const json& record, const ExpectedSdkSession& expected) {
  // Every field is read before any is compared, so that a malformed record is
  // told apart from one of another session whatever field differs.
  const json& schema = integer(record, "schema_version");
  const std::string& session = text(record, "session_id");
  const std::string& nonce = text(record, "nonce");
  const std::string& game = text(record, "game_id");
  const std::string& build = text(record, "build_id");
  const json& pid = integer(record, "pid");
  refuse_unless(integer_equals(schema, sdk_record_schema_version) && session == expected.session_id &&
                    nonce == expected.nonce && game == expected.game_id && build == expected.build_id &&
                    integer_equals(pid, expected.pid),
                "Readiness record does not match the expected game/process/session");
}

const json& array(const json& record, const char* key) {
  const json& value = record.at(key);
  if (!value.is_array()) malformed();
  return value;
}

json breadcrumbs(const json& record) {
  const json& list = array(record, "breadcrumbs");
  refuse_unless(list.size() <= max_sdk_breadcrumbs, "SDK record has too many breadcrumbs");
  json result = json::array();
  for (const json& entry : list) {
    const std::string& category = text(entry, "category");
    const std::string& message = text(entry, "message");
    refuse_unless(category.size() <= max_category && message.size() <= max_message,
                  "SDK breadcrumb exceeds record bounds");
    result.push_back({{"category", category}, {"message", message}});
  }
  return result;
}

json attachments(const json& record) {
  const json& list = array(record, "attachments");
  refuse_unless(list.size() <= max_sdk_attachments, "SDK record has too many attachments");
  json result = json::array();
  for (const json& entry : list) {
    const std::string& kind = text(entry, "kind");
    const std::string& path = text(entry, "path");
    refuse_unless((kind == "log" || kind == "screenshot" || kind == "video") && path.size() <= max_attachment_path,
                  "SDK attachment is invalid");
    validate_relative_path(path, true);
    result.push_back({{"kind", kind}, {"path", path}});
  }
  return result;
}

json checked_record(const json& record, const ExpectedSdkSession& expected, std::uint64_t last_sequence) {
  check_identity(record, expected);
  const json& sequence = integer(record, "sequence");
  require(!integer_below(sequence, last_sequence), "session_replay", "Readiness sequence went backwards");

  const std::string& state = text(record, "state");
  const json& ready_seen = record.at("ready_seen");
  if (!ready_seen.is_boolean()) malformed();
  refuse_unless(state == "starting" || state == "ready" || state == "clean_exit", "Unknown SDK session state");
  refuse_unless(state != "ready" || ready_seen.get<bool>(), "Ready state lacks readiness evidence");

  json result = {{"schema_version", record.at("schema_version")},
                 {"session_id", expected.session_id},
                 {"nonce", expected.nonce},
                 {"game_id", expected.game_id},
                 {"build_id", expected.build_id},
                 {"pid", expected.pid},
                 {"sequence", sequence},
                 {"ready_seen", ready_seen},
                 {"state", state}};
  result["breadcrumbs"] = breadcrumbs(record);
  result["attachments"] = attachments(record);

  if (record.contains("native_capture_id")) {
    const std::string& capture = text(record, "native_capture_id");
    refuse_unless(is_lower_hex(capture, 32), "Native capture identity is invalid");
    result["native_capture_id"] = capture;
  }
  if (record.contains("native_capture_problem")) {
    const std::string& problem = text(record, "native_capture_problem");
    refuse_unless(problem.size() <= max_capture_problem, "Native capture problem exceeds its bound");
    result["native_capture_problem"] = problem;
  }
  if (state == "clean_exit") {
    const auto exit_code = record.find("exit_code");
    refuse_unless(exit_code != record.end() && exit_code->is_number_integer(), "Clean exit lacks an exit status");
    result["exit_code"] = *exit_code;
  }
  return result;
}

}  // namespace

json validate_sdk_record(const json& record, const ExpectedSdkSession& expected, std::uint64_t last_sequence) {
  if (!record.is_object()) malformed();
  try {
    return checked_record(record, expected, last_sequence);
  } catch (const json::exception&) {
    malformed();
  }
}

json validate_sdk_record(const json& record, const json& expected, std::uint64_t last_sequence) {
  ExpectedSdkSession session;
  try {
    session = ExpectedSdkSession{expected.at("session_id").get<std::string>(), expected.at("nonce").get<std::string>(),
                                 expected.at("game_id").get<std::string>(), expected.at("build_id").get<std::string>(),
                                 expected.at("pid").get<std::uint64_t>()};
  } catch (const json::exception&) {
    throw Error("invalid_session", "Expected SDK session is malformed");
  }
  return validate_sdk_record(record, session, last_sequence);
}

}  // namespace zorvi
