#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zorvi {

// One member of a compact JSON object as the JSON library writes it: the key,
// and the exact text of its value when that value is known in advance.
struct ExpectedMember {
  std::string key;
  std::optional<std::string> value;
};

enum class TornWrite : std::uint8_t {
  prefix,   // the text is where a write of such an object could have been cut off
  other,    // it starts as such an object but contradicts a known member
  foreign,  // it does not even start with the first key
};

// Whether `text` is an initial part of the compact form of an object with
// exactly these members in this order. Unknown values are skipped by their
// JSON structure; known ones must match byte for byte as far as the text goes.
TornWrite torn_write(std::string_view text, const std::vector<ExpectedMember>& members);

}  // namespace zorvi
