#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace zorvi {

using json = nlohmann::json;

// The one strict reader for JSON from outside: no floats, no duplicate keys,
// at most 64 enclosing containers, and at most `limit` bytes of text.
json parse_json(std::string_view text, std::size_t limit);

// The byte string that signatures and key identifiers are computed over.
std::string canonical_json(const json& value);

// Quotes by escaping only `"` and `\`; every other byte is copied as it is.
std::string quote(std::string_view text);

// The one reading of a metadata version number: a positive integer.
std::uint64_t positive_version(const json& value);

}  // namespace zorvi
