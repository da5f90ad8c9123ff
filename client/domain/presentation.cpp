#include "client/domain/presentation.hpp"

#include <algorithm>
#include <array>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"

namespace zorvi {
namespace {

constexpr const char* invalid = "invalid_presentation";
constexpr std::string_view artwork_format = "bmp-rgb24-v1";
constexpr std::array<std::string_view, 4> presentation_keys{"tagline", "description", "monogram", "artwork"};
constexpr std::array<std::string_view, 5> artwork_keys{"format", "width", "height", "bmp_hex", "alternative_text"};

constexpr std::size_t max_tagline = 200;
constexpr std::size_t max_description = 4096;
constexpr std::size_t max_monogram = 16;
constexpr std::size_t max_monogram_characters = 4;
constexpr std::size_t max_alternative_text = 200;
constexpr std::uint32_t max_side = 128;
constexpr std::size_t bmp_header = 54;
constexpr std::size_t bmp_info_header = 40;
constexpr std::size_t max_bitmap = bmp_header + (std::size_t{max_side} * 3) * max_side;  // 49,206
constexpr std::size_t max_bmp_hex = 2 * max_bitmap;

std::string bounded_text(std::string_view text, std::size_t limit, bool multi_line) {
  require(text.size() <= limit, invalid, "Game presentation text exceeds its bound");
  require(displayable_text(text, multi_line), invalid, "Game presentation contains unsupported control characters");
  return std::string(text);
}

std::string presentation_text(const json& value, std::size_t limit, bool multi_line) {
  require(value.is_string(), invalid, "Game presentation must contain text");
  return bounded_text(value.get_ref<const std::string&>(), limit, multi_line);
}

// The byte count of the UTF-8 character that `lead` begins, judged from the
// lead byte alone; a text that ends sooner simply yields what it has.
std::size_t character_length(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xe0) return 2;
  if (lead < 0xf0) return 3;
  return 4;
}

// Characters counted as the bytes that do not continue a sequence.
std::size_t character_count(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

std::string first_character(std::string_view text) {
  return std::string(text.substr(0, character_length(static_cast<unsigned char>(text.front()))));
}

template <std::size_t N>
bool one_of(std::string_view key, const std::array<std::string_view, N>& keys) {
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

std::uint32_t artwork_side(const json& value) {
  const bool in_range =
      value.is_number_integer() && value.get<std::int64_t>() >= 1 && value.get<std::int64_t>() <= max_side;
  require(in_range, invalid, "Game artwork dimensions exceed 128 pixels");
  return static_cast<std::uint32_t>(value.get<std::int64_t>());
}

std::vector<std::uint8_t> artwork_pixels(const json& value) {
  const std::string_view text = value.is_string() ? std::string_view(value.get_ref<const std::string&>()) : "?";
  require(!text.empty(), invalid, "Game artwork pixels are missing");
  // A value that is not text at all is refused as a wrong encoding.
  const bool encoded = value.is_string() && text.size() <= max_bmp_hex && text.size() % 2 == 0 && is_lower_hex(text);
  require(encoded, invalid, "Game artwork encoding exceeds its bound");
  return unhex(text, max_bmp_hex);
}

GameArtwork parse_artwork(const json& value) {
  bool known = value.is_object() && value.size() == artwork_keys.size();
  for (const std::string_view key : artwork_keys) known = known && value.contains(key);
  require(known && value["format"] == artwork_format, invalid, "Unknown game artwork descriptor");
  GameArtwork artwork;
  artwork.width = artwork_side(value["width"]);
  artwork.height = artwork_side(value["height"]);
  artwork.alternative_text = presentation_text(value["alternative_text"], max_alternative_text, false);
  require(!artwork.alternative_text.empty(), invalid, "Game artwork needs alternative text");
  artwork.bitmap = artwork_pixels(value["bmp_hex"]);
  validate_presentation_bitmap(artwork.bitmap, artwork.width, artwork.height);
  return artwork;
}

std::uint32_t little_endian(std::span<const std::uint8_t> bytes, std::size_t offset, std::size_t width) {
  std::uint32_t value = 0;
  for (std::size_t i = width; i > 0; --i) value = value << 8 | bytes[offset + i - 1];
  return value;
}

}  // namespace

bool displayable_text(std::string_view text, bool multi_line) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool line_break = byte == 0x09 || byte == 0x0a || byte == 0x0d;
    if ((byte < 0x20 && !(multi_line && line_break)) || byte == 0x7f) return false;
    // C1 controls in their UTF-8 form; a 0xC2 that ends the text is left to
    // whatever judges the encoding.
    if (byte == 0xc2 && i + 1 < text.size()) {
      const auto next = static_cast<unsigned char>(text[i + 1]);
      if (next >= 0x80 && next <= 0x9f) return false;
    }
  }
  return true;
}

GamePresentation GamePresentation::parse(std::string_view display_name, const json& value) {
  GamePresentation presentation;
  presentation.display_name = bounded_text(display_name, max_game_display_name, false);
  require(!display_name.empty(), invalid, "Game display name is empty");
  presentation.monogram = first_character(display_name);
  if (value.is_null()) return presentation;

  require(value.is_object() && value.size() <= presentation_keys.size(), invalid, "Unknown game presentation fields");
  for (const auto& [key, field] : value.items()) {
    require(one_of(key, presentation_keys), invalid, "Unknown game presentation field");
  }
  if (value.contains("tagline")) presentation.tagline = presentation_text(value["tagline"], max_tagline, false);
  if (value.contains("description"))
    presentation.description = presentation_text(value["description"], max_description, true);
  if (value.contains("monogram")) {
    presentation.monogram = presentation_text(value["monogram"], max_monogram, false);
    const std::size_t count = character_count(presentation.monogram);
    require(count >= 1 && count <= max_monogram_characters, invalid,
            "Game monogram must contain one to four characters");
  }
  if (value.contains("artwork")) presentation.artwork = parse_artwork(value["artwork"]);
  return presentation;
}

json GamePresentation::summary() const {
  json result = {
      {"display_name", display_name}, {"tagline", tagline}, {"description", description}, {"monogram", monogram}};
  if (artwork) {
    result["artwork"] = {{"format", artwork_format},
                         {"width", artwork->width},
                         {"height", artwork->height},
                         {"alternative_text", artwork->alternative_text}};
  }
  return result;
}

void validate_presentation_bitmap(std::span<const std::uint8_t> bytes, std::uint32_t width, std::uint32_t height) {
  const bool bounded = width >= 1 && width <= max_side && height >= 1 && height <= max_side &&
                       bytes.size() >= bmp_header && bytes.size() <= max_bitmap;
  require(bounded, invalid, "Game artwork exceeds its 128-pixel bitmap bound");
  // Rows are padded to whole 4-byte words; the padding counts in every size.
  const std::uint32_t stride = (width * 3 + 3) & ~std::uint32_t{3};
  const std::uint32_t pixels = stride * height;
  struct Field {
    std::size_t offset;
    std::size_t width;
    std::uint32_t value;
  };
  const std::array<Field, 12> fields{{{2, 4, static_cast<std::uint32_t>(bytes.size())},
                                      {6, 4, 0},
                                      {10, 4, bmp_header},
                                      {14, 4, bmp_info_header},
                                      {18, 4, width},
                                      {22, 4, height},
                                      {26, 2, 1},
                                      {28, 2, 24},
                                      {30, 4, 0},
                                      {34, 4, pixels},
                                      {46, 4, 0},
                                      {50, 4, 0}}};
  bool exact = bytes[0] == 'B' && bytes[1] == 'M' && bytes.size() == bmp_header + pixels;
  for (const Field& field : fields) exact = exact && little_endian(bytes, field.offset, field.width) == field.value;
  require(exact, invalid, "Game artwork must be an exact uncompressed RGB24 BMP");
}

}  // namespace zorvi
