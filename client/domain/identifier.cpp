#include "client/domain/identifier.hpp"

#include <array>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

bool identifier_byte(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.'; }

bool reserved_stem(std::string_view component) {
  std::string stem(component.substr(0, component.find('.')));
  for (char& c : stem) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  if (stem == "CON" || stem == "PRN" || stem == "AUX" || stem == "NUL") return true;
  return stem.size() == 4 && (stem.starts_with("COM") || stem.starts_with("LPT")) && stem[3] >= '1' && stem[3] <= '9';
}

void validate_component(std::string_view component, bool portable) {
  require(!component.empty() && component.size() <= max_component && component != "." && component != ".." &&
              component.find(':') == std::string_view::npos,
          "unsafe_path", "Path contains an unsafe component");
  if (!portable) return;
  bool portable_bytes = component.back() != ' ' && component.back() != '.';
  for (char c : component) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || std::string_view("<>\"|?*").find(c) != std::string_view::npos) portable_bytes = false;
  }
  require(portable_bytes, "unsafe_path", "Path is not portable across supported platforms");
  require(!reserved_stem(component), "unsafe_path", "Path uses a reserved platform name");
}

}  // namespace

void validate_identifier(std::string_view value) {
  bool valid = !value.empty() && value.size() <= 80 && value != "." && value != "..";
  for (char c : value) valid = valid && identifier_byte(c);
  require(valid, "invalid_identity", "Game and build IDs use lower-case letters, digits, dots and hyphens");
  validate_relative_path(value, true);
}

void validate_relative_path(std::string_view text, bool portable) {
  require(!text.empty() && text.size() <= max_relative_path && text.front() != '/' &&
              text.find('\\') == std::string_view::npos && text.find('\0') == std::string_view::npos,
          "unsafe_path", "Path must be a safe relative path");
  std::size_t start = 0;
  while (true) {
    const std::size_t slash = text.find('/', start);
    validate_component(text.substr(start, slash - start), portable);
    if (slash == std::string_view::npos) return;
    require(slash + 1 < text.size(), "unsafe_path", "Trailing path separator is not allowed");
    start = slash + 1;
  }
}

std::filesystem::path path_from_utf8(std::string_view text) {
  require(text.find('\0') == std::string_view::npos, "unsafe_path", "Native path contains a NUL byte");
  return std::filesystem::path(std::string(text));
}

std::string path_utf8(const std::filesystem::path& path) { return path.native(); }

std::size_t native_length(std::string_view text) { return path_from_utf8(text).native().size(); }

std::string_view utf8_prefix(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0u) == 0x80u) --end;
  return text.substr(0, end);
}

}  // namespace zorvi
