#include "client/domain/json.hpp"

#include "client/domain/error.hpp"
#include "client/domain/json_reader.hpp"

namespace zorvi {
namespace {

void append_canonical(std::string& out, const json& value) {
  switch (value.type()) {
    case json::value_t::null:
    case json::value_t::boolean:
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
      out += value.dump();
      return;
    case json::value_t::string:
      out += quote(value.get_ref<const std::string&>());
      return;
    case json::value_t::array: {
      out += '[';
      bool first = true;
      for (const auto& element : value) {
        if (!first) out += ',';
        first = false;
        append_canonical(out, element);
      }
      out += ']';
      return;
    }
    case json::value_t::object: {
      out += '{';
      bool first = true;
      for (const auto& [key, member] : value.items()) {
        if (!first) out += ',';
        first = false;
        out += quote(key);
        out += ':';
        append_canonical(out, member);
      }
      out += '}';
      return;
    }
    default:
      throw Error("invalid_number", "Cannot canonicalize floating point data");
  }
}

}  // namespace

json parse_json(std::string_view text, std::size_t limit) {
  require(text.size() <= limit, "size_limit", "JSON exceeds its size limit");
  if (auto value = read_json_directly(text)) return std::move(*value);
  // A declined text, nearly always a refused one: the library's parser gives
  // the refusal, with its own message and in its own order of checks.
  return read_json_with_library(text);
}

std::string canonical_json(const json& value) {
  std::string out;
  append_canonical(out, value);
  return out;
}

std::string quote(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out += '"';
  for (char byte : text) {
    if (byte == '"' || byte == '\\') out += '\\';
    out += byte;
  }
  out += '"';
  return out;
}

std::uint64_t positive_version(const json& value) {
  require(value.is_number_unsigned() || (value.is_number_integer() && value.get<std::int64_t>() > 0), "invalid_version",
          "Metadata version must be a positive integer");
  const auto version = value.get<std::uint64_t>();
  require(version != 0, "invalid_version", "Metadata version must be positive");
  return version;
}

}  // namespace zorvi
