#pragma once

#include <optional>
#include <string_view>

#include "client/domain/json.hpp"

namespace zorvi {

// The two readers behind `parse_json`, for text it has already bounded.
//
// The direct reader builds the value the library's reading would give, without
// the library's lexer and event machinery. It declines (returns nothing) on
// every text it does not accept outright: any refusal, and the library's rare
// lenient forms such as a NUL byte taken as the end of input. The library's
// reading then gives the exact answer for a declined text, so the direct
// reader never has to reproduce the library's error messages.
std::optional<json> read_json_directly(std::string_view text);

// The library's parser with the strict checks on its events: the reading that
// defines what is accepted, and the exact code and message of every refusal.
json read_json_with_library(std::string_view text);

}  // namespace zorvi
