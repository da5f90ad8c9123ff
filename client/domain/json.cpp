#include "client/domain/json.hpp"

#include <set>
#include <vector>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

constexpr int max_depth = 64;

// Watches every parse event: depth, duplicate keys within one object, and
// numbers the reader could only hold as doubles.
class StrictCallback {
public:
  bool operator()(int depth, json::parse_event_t event, json& parsed) {
    require(depth <= max_depth, "depth_limit", "JSON nesting exceeds 64 levels");
    switch (event) {
      case json::parse_event_t::object_start:
        keys_.emplace_back();
        break;
      case json::parse_event_t::object_end:
        keys_.pop_back();
        break;
      case json::parse_event_t::key:
        require(keys_.back().insert(parsed.get<std::string>()).second, "duplicate_key",
                "JSON contains a duplicate object key");
        break;
      case json::parse_event_t::value:
        require(!parsed.is_number_float(), "invalid_number",
                "Floating point numbers are not allowed in protocol data");
        break;
      default:
        break;
    }
    return true;
  }

private:
  std::vector<std::set<std::string>> keys_;
};

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
  try {
    StrictCallback callback;
    return json::parse(text.begin(), text.end(), std::ref(callback), true, false);
  } catch (const json::exception& failure) {
    throw Error("invalid_json", failure.what());
  }
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
  require(value.is_number_unsigned() || (value.is_number_integer() && value.get<std::int64_t>() > 0),
          "invalid_version", "Metadata version must be a positive integer");
  const auto version = value.get<std::uint64_t>();
  require(version != 0, "invalid_version", "Metadata version must be positive");
  return version;
}

}  // namespace zorvi
