#include "client/domain/json_reader.hpp"

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

constexpr int max_depth = 64;

// Thrown inside the reader when it will not give the answer itself.
struct Decline {};

[[noreturn]] void decline() { throw Decline{}; }

// Bytes that stand for themselves inside a string: printable ASCII other than
// the quote and the backslash. Everything else takes the slower road.
constexpr std::array<bool, 256> plain_bytes = [] {
  std::array<bool, 256> table{};
  for (int byte = 0x20; byte < 0x80; ++byte) table[static_cast<std::size_t>(byte)] = byte != '"' && byte != '\\';
  return table;
}();

// Whether any of eight bytes is a quote, a backslash, a control character or
// above 0x7F: the word-wide form of `plain_bytes`, for long runs of text.
bool has_special_byte(std::uint64_t word) {
  constexpr std::uint64_t ones = 0x0101010101010101;
  constexpr std::uint64_t highs = 0x8080808080808080;
  const auto has_zero = [](std::uint64_t value) { return (value - ones) & ~value & highs; };
  const std::uint64_t below_space = (word - ones * 0x20) & ~word & highs;
  return (below_space | has_zero(word ^ (ones * '"')) | has_zero(word ^ (ones * '\\')) | (word & highs)) != 0;
}

bool is_digit(char byte) { return byte >= '0' && byte <= '9'; }

// Length of the well-formed UTF-8 sequence at `at` (RFC 3629: no overlong
// forms, no surrogates, nothing above U+10FFFF), or 0.
std::size_t utf8_sequence(const unsigned char* at, const unsigned char* end) {
  const auto in = [&](std::size_t index, unsigned char low, unsigned char high) {
    return at + index < end && at[index] >= low && at[index] <= high;
  };
  const unsigned char lead = at[0];
  if (lead >= 0xC2 && lead <= 0xDF) return in(1, 0x80, 0xBF) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
    return in(1, low, high) && in(2, 0x80, 0xBF) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
    return in(1, low, high) && in(2, 0x80, 0xBF) && in(3, 0x80, 0xBF) ? 4 : 0;
  }
  return 0;
}

void append_utf8(std::string& out, std::uint32_t code_point) {
  const auto byte = [](std::uint32_t value) { return static_cast<char>(value); };
  if (code_point < 0x80) {
    out += byte(code_point);
  } else if (code_point < 0x800) {
    out += byte(0xC0 | (code_point >> 6));
    out += byte(0x80 | (code_point & 0x3F));
  } else if (code_point < 0x10000) {
    out += byte(0xE0 | (code_point >> 12));
    out += byte(0x80 | ((code_point >> 6) & 0x3F));
    out += byte(0x80 | (code_point & 0x3F));
  } else {
    out += byte(0xF0 | (code_point >> 18));
    out += byte(0x80 | ((code_point >> 12) & 0x3F));
    out += byte(0x80 | ((code_point >> 6) & 0x3F));
    out += byte(0x80 | (code_point & 0x3F));
  }
}

class Reader {
 public:
  explicit Reader(std::string_view text)
      : at_(reinterpret_cast<const unsigned char*>(text.data())), end_(at_ + text.size()) {}

  json document() {
    // The library skips a byte-order mark at the very start, and only there.
    if (end_ - at_ >= 3 && std::memcmp(at_, "\xEF\xBB\xBF", 3) == 0) at_ += 3;
    skip_space();
    json value = read_value(0);
    skip_space();
    if (at_ != end_) decline();
    return value;
  }

 private:
  // The byte under the cursor; NUL at the end, which no rule accepts.
  char peek() const { return at_ != end_ ? static_cast<char>(*at_) : '\0'; }

  void skip_space() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) ++at_;
  }

  // `depth` counts the containers around the value.
  json read_value(int depth) {
    if (depth > max_depth) decline();
    switch (peek()) {
      case '{':
        return read_object(depth);
      case '[':
        return read_array(depth);
      case '"': {
        json value(json::value_t::string);
        read_string(value.get_ref<std::string&>());
        return value;
      }
      case 't':
        return literal("true", true);
      case 'f':
        return literal("false", false);
      case 'n':
        return literal("null", nullptr);
      default:
        return read_integer();
    }
  }

  json read_object(int depth) {
    ++at_;
    json value(json::value_t::object);
    auto& members = value.get_ref<json::object_t&>();
    skip_space();
    if (peek() == '}') {
      ++at_;
      return value;
    }
    for (;;) {
      if (peek() != '"') decline();
      std::string key;
      read_string(key);
      skip_space();
      if (peek() != ':') decline();
      ++at_;
      skip_space();
      insert(members, std::move(key), read_value(depth + 1));
      if (end_container('}')) return value;
    }
  }

  json read_array(int depth) {
    ++at_;
    json value(json::value_t::array);
    auto& elements = value.get_ref<json::array_t&>();
    skip_space();
    if (peek() == ']') {
      ++at_;
      return value;
    }
    for (;;) {
      elements.push_back(read_value(depth + 1));
      if (end_container(']')) return value;
    }
  }

  // After an element: true at the closing byte, false after a comma.
  bool end_container(char closing) {
    skip_space();
    const char next = peek();
    if (next != ',' && next != closing) decline();
    ++at_;
    skip_space();
    return next == closing;
  }

  // Keys compare after escapes are decoded, as the map holds them. Signed
  // documents arrive sorted, so a key that goes last skips the search.
  static void insert(json::object_t& members, std::string&& key, json&& member) {
    if (members.empty() || members.rbegin()->first < key) {
      members.emplace_hint(members.end(), std::move(key), std::move(member));
    } else if (!members.emplace(std::move(key), std::move(member)).second) {
      decline();
    }
  }

  json literal(std::string_view word, json value) {
    const auto left = static_cast<std::size_t>(end_ - at_);
    if (left < word.size() || std::memcmp(at_, word.data(), word.size()) != 0) decline();
    at_ += word.size();
    return value;
  }

  // Integers as the library holds them: unsigned without a sign, signed with
  // one (so -0 is a signed zero). Fractions, exponents and values outside
  // both 64-bit ranges are declined; the library's reading refuses them.
  json read_integer() {
    const bool negative = peek() == '-';
    if (negative) ++at_;
    if (!is_digit(peek())) decline();
    std::uint64_t magnitude = 0;
    if (peek() == '0') {
      ++at_;
    } else {
      while (is_digit(peek())) {
        const auto digit = static_cast<std::uint64_t>(*at_ - '0');
        if (magnitude > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) decline();
        magnitude = magnitude * 10 + digit;
        ++at_;
      }
    }
    const char next = peek();
    if (next == '.' || next == 'e' || next == 'E') decline();
    if (!negative) return json(magnitude);
    constexpr std::uint64_t most_negative = std::uint64_t{1} << 63;
    if (magnitude > most_negative) decline();
    if (magnitude == most_negative) return json(std::numeric_limits<std::int64_t>::min());
    return json(-static_cast<std::int64_t>(magnitude));
  }

  // At the opening quote; leaves the cursor after the closing one.
  void read_string(std::string& out) {
    ++at_;
    const unsigned char* start = at_;
    std::uint64_t word = 0;
    while (end_ - at_ >= 8 && (std::memcpy(&word, at_, 8), !has_special_byte(word))) at_ += 8;
    while (at_ != end_ && plain_bytes[*at_]) ++at_;
    out.assign(reinterpret_cast<const char*>(start), static_cast<std::size_t>(at_ - start));
    for (;;) {
      if (at_ == end_) decline();
      const unsigned char byte = *at_;
      if (byte == '"') {
        ++at_;
        return;
      }
      if (byte == '\\') {
        read_escape(out);
      } else if (byte < 0x20) {
        decline();
      } else {
        const std::size_t length = byte < 0x80 ? 1 : utf8_sequence(at_, end_);
        if (length == 0) decline();
        out.append(reinterpret_cast<const char*>(at_), length);
        at_ += length;
      }
    }
  }

  // At the backslash. A high surrogate must be followed by an escaped low
  // one; a lone low surrogate is refused.
  void read_escape(std::string& out) {
    ++at_;
    if (at_ == end_) decline();
    const char kind = static_cast<char>(*at_++);
    switch (kind) {
      case '"':
        out += '"';
        return;
      case '\\':
        out += '\\';
        return;
      case '/':
        out += '/';
        return;
      case 'b':
        out += '\b';
        return;
      case 'f':
        out += '\f';
        return;
      case 'n':
        out += '\n';
        return;
      case 'r':
        out += '\r';
        return;
      case 't':
        out += '\t';
        return;
      case 'u':
        break;
      default:
        decline();
    }
    std::uint32_t code_point = read_hex4();
    if (code_point >= 0xDC00 && code_point <= 0xDFFF) decline();
    if (code_point >= 0xD800 && code_point <= 0xDBFF) {
      if (end_ - at_ < 2 || at_[0] != '\\' || at_[1] != 'u') decline();
      at_ += 2;
      const std::uint32_t low = read_hex4();
      if (low < 0xDC00 || low > 0xDFFF) decline();
      code_point = 0x10000 + ((code_point - 0xD800) << 10) + (low - 0xDC00);
    }
    append_utf8(out, code_point);
  }

  std::uint32_t read_hex4() {
    if (end_ - at_ < 4) decline();
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i, ++at_) {
      const unsigned char byte = *at_;
      std::uint32_t digit = 0;
      if (byte >= '0' && byte <= '9') {
        digit = byte - '0';
      } else if (byte >= 'a' && byte <= 'f') {
        digit = byte - 'a' + 10u;
      } else if (byte >= 'A' && byte <= 'F') {
        digit = byte - 'A' + 10u;
      } else {
        decline();
      }
      value = value << 4 | digit;
    }
    return value;
  }

  const unsigned char* at_;
  const unsigned char* end_;
};

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

}  // namespace

std::optional<json> read_json_directly(std::string_view text) {
  try {
    return Reader(text).document();
  } catch (const Decline&) {
    return std::nullopt;
  }
}

json read_json_with_library(std::string_view text) {
  json root;
  StrictBuilder builder(root);
  try {
    json::sax_parse(text.begin(), text.end(), &builder, json::input_format_t::json, true, false);
  } catch (const json::exception& failure) {
    throw Error("invalid_json", failure.what());
  }
  return root;
}

}  // namespace zorvi
