#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/domain/json.hpp"

namespace zorvi {

// A game's display name: one line of at most this many bytes.
inline constexpr std::size_t max_game_display_name = 200;

// A small picture of the game: an uncompressed, bottom-up 24-bit BMP of at
// most 128 x 128 pixels, held as the exact file bytes.
struct GameArtwork {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::string alternative_text;
  std::vector<std::uint8_t> bitmap;
};

// What the launcher shows for a game. It arrives inside a signed manifest but
// is still untrusted display data, so every piece is bounded in bytes and in
// form before it reaches a user interface.
struct GamePresentation {
  // `value` is the manifest's presentation object, or null when there is none.
  static GamePresentation parse(std::string_view display_name, const json& value);

  // The presentation as user interfaces receive it; the bitmap stays out.
  json summary() const;

  std::string display_name;
  std::string tagline;
  std::string description;
  std::string monogram;
  std::optional<GameArtwork> artwork;
};

// Raises unless `bytes` is exactly the BMP file of a `width` x `height` RGB24
// picture with bottom-up rows and nothing after the pixels.
void validate_presentation_bitmap(std::span<const std::uint8_t> bytes, std::uint32_t width, std::uint32_t height);

// Whether text shown to people is free of control characters: C0 controls
// (tab, line feed and carriage return only if `multi_line`), DEL, and the
// two-byte UTF-8 form of the C1 controls.
bool displayable_text(std::string_view text, bool multi_line);

}  // namespace zorvi
