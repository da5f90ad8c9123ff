#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "client/domain/json.hpp"

namespace zorvi {

// The session record a running game writes through the SDK. It comes from a
// process the client does not trust, so nothing reads it before
// `validate_sdk_record` has matched it to the session and bounded it.
inline constexpr std::int64_t sdk_record_schema_version = 1;
// Enough for full breadcrumb and attachment lists with room to spare; the
// reader passes it to `read_file` and `parse_json`.
inline constexpr std::size_t max_sdk_record_bytes = 131072;
inline constexpr std::size_t max_sdk_breadcrumbs = 64;
inline constexpr std::size_t max_sdk_attachments = 4;

// What the client knows of the session it started.
struct ExpectedSdkSession {
  std::string session_id;
  std::string nonce;
  std::string game_id;
  std::string build_id;
  std::uint64_t pid = 0;
};

// The record with only the fields it may carry, every one checked; `Error`
// otherwise. A record repeating `last_sequence` is accepted, an older one is a
// replay.
json validate_sdk_record(const json& record, const ExpectedSdkSession& expected, std::uint64_t last_sequence);
// The same, with the session given as a JSON object of those five keys, as a
// caller that keeps its sessions as JSON holds them.
json validate_sdk_record(const json& record, const json& expected, std::uint64_t last_sequence);

}  // namespace zorvi
