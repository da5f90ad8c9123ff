#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/domain/json.hpp"

namespace zorvi {

struct Rgb {
  std::uint8_t red = 0;
  std::uint8_t green = 0;
  std::uint8_t blue = 0;
  friend bool operator==(const Rgb&, const Rgb&) = default;
};

struct ThemeFrame {
  Rgb outline;
  Rgb trim;
  Rgb gap;
  Rgb rivet;
};

struct ThemeTextSizes {
  int title = 28;
  int heading = 20;
  int body = 16;
  int small = 14;
};

struct ThemeFonts {
  std::optional<std::string> regular;
  std::optional<std::string> bold;
  std::optional<std::string> title;
};

struct ThemeImage {
  std::string bytes;  // an uncompressed 24-bit BMP, proved when read
  bool pixel_art = false;
};

struct ThemeImages {
  std::optional<ThemeImage> icon;
  std::optional<ThemeImage> banner;
};

// The client's look. A freshly made Theme is the client's own.
struct Theme {
  Rgb background{0x14, 0x18, 0x1f};
  Rgb panel{0x1d, 0x23, 0x2e};
  Rgb raised{0x28, 0x30, 0x3e};
  Rgb well{0x14, 0x18, 0x1f};
  Rgb border{0x54, 0x60, 0x73};
  std::optional<Rgb> button;
  Rgb hover{0x28, 0x30, 0x3e};
  Rgb text{0xf0, 0xf3, 0xf7};
  Rgb muted{0xaa, 0xb5, 0xc4};
  Rgb accent{0x25, 0x63, 0xc9};
  Rgb accent_hover{0x34, 0x74, 0xde};
  Rgb accent_text{0xff, 0xff, 0xff};
  Rgb danger{0xc4, 0x31, 0x4b};
  Rgb danger_hover{0xd6, 0x42, 0x5c};
  Rgb danger_text{0xff, 0xff, 0xff};
  Rgb warning{0xf0, 0xb4, 0x29};
  Rgb success{0x3f, 0xb3, 0x7f};
  Rgb focus{0xff, 0xd2, 0x4a};
  Rgb disabled{0x30, 0x37, 0x44};
  Rgb disabled_text{0x7d, 0x87, 0x96};
  Rgb paper{0x0d, 0x11, 0x17};
  Rgb ink{0xf0, 0xf3, 0xf7};
  Rgb ink_muted{0xaa, 0xb5, 0xc4};
  bool rounded = false;
  bool bevel = false;
  std::optional<ThemeFrame> frame;
  ThemeTextSizes text_sizes;
  ThemeFonts fonts;
  ThemeImages images;
  std::vector<std::string> notices;
};

inline constexpr std::size_t max_theme_definition_bytes = 65536;
inline constexpr std::size_t max_theme_files = 12;
inline constexpr std::uint64_t max_theme_font_bytes = 4194304;
inline constexpr std::uint64_t max_theme_notice_bytes = 262144;

// WCAG contrast ratio, from 1 to 21.
double contrast(Rgb first, Rgb second);

// The file names a definition refers to, each checked, sorted, without repeats.
std::vector<std::string> theme_files(const json& definition);

// Maps a checked theme file name to the path its bytes are read from.
using ThemeResolver = std::function<std::filesystem::path(const std::string& name)>;

Theme parse_theme(const json& definition, const ThemeResolver& resolver);

// The theme in `directory`, or nothing when it has no "theme.json".
std::optional<Theme> load_theme(const std::filesystem::path& directory);

std::filesystem::path theme_directory(const std::filesystem::path& data_root);

// Puts the installed theme in place when there is a usable one; any failure
// leaves the client's own look.
void use_installed_theme(const std::filesystem::path& data_root);

// The process-wide theme; replace it only at start-up, before readers exist.
const Theme& theme();
void set_theme(Theme value);

}  // namespace zorvi
