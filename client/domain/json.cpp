#include "client/domain/json.hpp"

#include <vector>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

constexpr int max_depth = 64;

// Builds the value from the library's parse events and checks each one: depth,
// duplicate keys within one object, and numbers the reader could only hold as
// doubles. (The library's own callback parser rescans the parent container
// after every closed element, which is quadratic on a long array.)
class StrictBuilder {
public:
  explicit StrictBuilder(json& root) : root_(root) {}

  bool null() { return add(nullptr); }
  bool boolean(bool value) { return add(value); }
  bool number_integer(json::number_integer_t value) { return add(value); }
  bool number_unsigned(json::number_unsigned_t value) { return add(value); }
  bool number_float(json::number_float_t, const json::string_t&) {
    check_depth(stack_.size());
    throw Error("invalid_number", "Floating point numbers are not allowed in protocol data");
  }
  bool string(json::string_t& value) { return add(std::move(value)); }
  bool binary(json::binary_t& value) { return add(std::move(value)); }

  bool start_object(std::size_t) { return open(json::object()); }
  bool start_array(std::size_t) { return open(json::array()); }
  bool end_object() {
    stack_.pop_back();
    return true;
  }
  bool end_array() {
    stack_.pop_back();
    return true;
  }
  bool key(json::string_t& value) {
    check_depth(stack_.size());
    // Every earlier key of this object already holds its value there.
    require(!stack_.back()->contains(value), "duplicate_key", "JSON contains a duplicate object key");
    key_ = std::move(value);
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const json::exception& failure) {
    throw Error("invalid_json", failure.what());
  }

private:
  static void check_depth(std::size_t depth) {
    require(depth <= max_depth, "depth_limit", "JSON nesting exceeds 64 levels");
  }

  // Places a value where the parser is; returns where it now lives.
  json* place(json&& value) {
    check_depth(stack_.size());
    if (stack_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    json& parent = *stack_.back();
    if (parent.is_array()) {
      parent.push_back(std::move(value));
      return &parent.back();
    }
    return &parent.get_ref<json::object_t&>().emplace(std::move(key_), std::move(value)).first->second;
  }
  bool add(json&& value) {
    place(std::move(value));
    return true;
  }
  bool open(json&& container) {
    stack_.push_back(place(std::move(container)));
    return true;
  }

  json& root_;
  std::vector<json*> stack_;
  std::string key_;
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
  json root;
  StrictBuilder builder(root);
  try {
    json::sax_parse(text.begin(), text.end(), &builder, json::input_format_t::json, true, false);
  } catch (const json::exception& failure) {
    throw Error("invalid_json", failure.what());
  }
  return root;
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
