#include "client/domain/theme.hpp"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <set>
#include <string_view>
#include <utility>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"

namespace zorvi {
namespace {

constexpr const char* invalid = "invalid_theme";

struct NamedColour {
  const char* key;
  Rgb Theme::* member;
};

// The colours every definition must give, in the order they are read.
constexpr NamedColour required_colours[] = {
    {"background", &Theme::background},
    {"panel", &Theme::panel},
    {"raised", &Theme::raised},
    {"well", &Theme::well},
    {"border", &Theme::border},
    {"text", &Theme::text},
    {"muted", &Theme::muted},
    {"accent", &Theme::accent},
    {"accent_hover", &Theme::accent_hover},
    {"accent_text", &Theme::accent_text},
    {"danger", &Theme::danger},
    {"danger_hover", &Theme::danger_hover},
    {"danger_text", &Theme::danger_text},
    {"warning", &Theme::warning},
    {"success", &Theme::success},
    {"focus", &Theme::focus},
    {"disabled", &Theme::disabled},
    {"disabled_text", &Theme::disabled_text},
    {"paper", &Theme::paper},
    {"ink", &Theme::ink},
    {"ink_muted", &Theme::ink_muted},
};

struct ContrastPair {
  const char* name;
  Rgb Theme::* foreground;
  Rgb Theme::* background;
};

// The pairs people read, each held to 4.5:1, in the order they are judged.
constexpr ContrastPair readable_pairs[] = {
    {"text on background", &Theme::text, &Theme::background},
    {"text on panel", &Theme::text, &Theme::panel},
    {"text on raised", &Theme::text, &Theme::raised},
    {"text on hover", &Theme::text, &Theme::hover},
    {"muted on background", &Theme::muted, &Theme::background},
    {"muted on panel", &Theme::muted, &Theme::panel},
    {"warning on panel", &Theme::warning, &Theme::panel},
    {"success on background", &Theme::success, &Theme::background},
    {"accent_text on accent", &Theme::accent_text, &Theme::accent},
    {"accent_text on accent_hover", &Theme::accent_text, &Theme::accent_hover},
    {"danger_text on danger", &Theme::danger_text, &Theme::danger},
    {"danger_text on danger_hover", &Theme::danger_text, &Theme::danger_hover},
    {"ink on paper", &Theme::ink, &Theme::paper},
    {"ink_muted on paper", &Theme::ink_muted, &Theme::paper},
};

struct ImageKind {
  const char* key;
  std::optional<ThemeImage> ThemeImages::* member;
  std::uint32_t max_width;
  std::uint32_t max_height;
};

constexpr ImageKind image_kinds[] = {
    {"icon", &ThemeImages::icon, 256, 256},
    {"banner", &ThemeImages::banner, 2048, 1024},
};

constexpr std::uint32_t bmp_header_bytes = 54;

// BMP rows are padded to whole 32-bit words.
constexpr std::uint64_t bmp_row_bytes(std::uint64_t width) { return (width * 3 + 3) / 4 * 4; }

const json* member(const json& object, const char* key) {
  const auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

const json* optional_object(const json& parent, const char* key) {
  const json* value = member(parent, key);
  require(value == nullptr || value->is_object(), invalid, std::string("Theme ") + key + " must be an object");
  return value;
}

int hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

Rgb colour(const json& value) {
  const std::string text = value.is_string() ? value.get<std::string>() : std::string();
  bool written_right = text.size() == 7 && text[0] == '#';
  for (std::size_t at = 1; written_right && at < text.size(); ++at) written_right = hex_value(text[at]) >= 0;
  require(written_right, invalid, "Theme colours are written #rrggbb");
  const auto byte = [&](std::size_t at) {
    return static_cast<std::uint8_t>(hex_value(text[at]) * 16 + hex_value(text[at + 1]));
  };
  return Rgb{byte(1), byte(3), byte(5)};
}

void check_file_name(const std::string& name, std::initializer_list<std::string_view> extensions) {
  bool allowed = !name.empty() && name.size() <= 100 && name[0] != '.' && name != "theme.json";
  for (const char c : name) {
    const bool alphanumeric = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    allowed = allowed && (alphanumeric || c == '.' || c == '_' || c == '-');
  }
  require(allowed, invalid, "Theme file names are 1 to 100 letters, digits, '.', '_' or '-': " + name);
  bool matches = false;
  for (const auto extension : extensions) matches = matches || name.ends_with(extension);
  require(matches, invalid, "Theme file has the wrong kind of extension: " + name);
}

std::string file_name(const json& value) {
  require(value.is_string(), invalid, "Theme files are named by text");
  return value.get<std::string>();
}

// The path's own entry must be a regular file: a theme never follows a link
// out of its folder.
std::string read_plain(const std::filesystem::path& path, std::uint64_t limit) {
  std::error_code failure;
  const auto status = std::filesystem::symlink_status(path, failure);
  require(!failure && std::filesystem::is_regular_file(status), invalid,
          "Theme file is missing or not a plain file: " + path_utf8(path));
  return read_file(path, limit);
}

std::uint32_t little_endian(const std::string& bytes, std::size_t at, std::size_t width) {
  std::uint32_t value = 0;
  for (std::size_t index = width; index-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[at + index]);
  return value;
}

void check_bmp(const std::string& bytes, const ImageKind& kind) {
  require(bytes.size() >= bmp_header_bytes && bytes.starts_with("BM") && little_endian(bytes, 2, 4) == bytes.size() &&
              little_endian(bytes, 10, 4) == bmp_header_bytes && little_endian(bytes, 14, 4) == 40,
          invalid, "Theme images are BMP files");
  require(little_endian(bytes, 26, 2) == 1 && little_endian(bytes, 28, 2) == 24 && little_endian(bytes, 30, 4) == 0,
          invalid, "Theme images must be uncompressed 24-bit BMP files");
  // Signed in the format: a negative height would mean rows stored top-down.
  const auto width = static_cast<std::int32_t>(little_endian(bytes, 18, 4));
  const auto height = static_cast<std::int32_t>(little_endian(bytes, 22, 4));
  require(width >= 1 && height >= 1, invalid, "Theme images are BMP files");
  require(static_cast<std::uint32_t>(width) <= kind.max_width && static_cast<std::uint32_t>(height) <= kind.max_height,
          invalid,
          "Theme image is larger than " + std::to_string(kind.max_width) + "\u00d7" + std::to_string(kind.max_height) +
              " pixels");
  const std::uint64_t expected =
      bmp_header_bytes + static_cast<std::uint64_t>(height) * bmp_row_bytes(static_cast<std::uint64_t>(width));
  require(bytes.size() == expected, invalid, "Theme images are BMP files");
}

void read_colours(const json& definition, Theme& theme) {
  static const json none = json::object();
  const json* given = optional_object(definition, "colors");
  const json& colours = given != nullptr ? *given : none;
  for (const auto& [key, field] : required_colours) {
    const json* value = member(colours, key);
    require(value != nullptr, invalid, std::string("Theme needs the colour ") + key);
    theme.*field = colour(*value);
  }
  const json* hover = member(colours, "hover");
  theme.hover = hover != nullptr ? colour(*hover) : theme.raised;
  if (const json* button = member(colours, "button")) theme.button = colour(*button);
}

void read_shape(const json& definition, Theme& theme) {
  if (const json* corners = member(definition, "corners")) {
    require(*corners == "square" || *corners == "rounded", invalid, "Theme corners are square or rounded");
    theme.rounded = *corners == "rounded";
  }
  if (const json* bevel = member(definition, "bevel")) {
    require(bevel->is_boolean(), invalid, "Theme bevel is true or false");
    theme.bevel = bevel->get<bool>();
  }
  if (const json* frame = optional_object(definition, "frame")) {
    ThemeFrame result;
    const std::pair<const char*, Rgb ThemeFrame::*> parts[] = {{"outline", &ThemeFrame::outline},
                                                               {"trim", &ThemeFrame::trim},
                                                               {"gap", &ThemeFrame::gap},
                                                               {"rivet", &ThemeFrame::rivet}};
    for (const auto& [key, field] : parts) {
      const json* value = member(*frame, key);
      require(value != nullptr, invalid, std::string("Theme frame needs the colour ") + key);
      result.*field = colour(*value);
    }
    theme.frame = result;
  }
  if (const json* sizes = optional_object(definition, "text_sizes")) {
    const std::pair<const char*, int ThemeTextSizes::*> parts[] = {{"title", &ThemeTextSizes::title},
                                                                   {"heading", &ThemeTextSizes::heading},
                                                                   {"body", &ThemeTextSizes::body},
                                                                   {"small", &ThemeTextSizes::small}};
    for (const auto& [key, field] : parts) {
      const json* value = member(*sizes, key);
      if (value == nullptr) continue;
      require(value->is_number_integer() && *value >= 10 && *value <= 48, invalid,
              "Theme text sizes are 10 to 48 pixels");
      theme.text_sizes.*field = value->get<int>();
    }
  }
}

void read_fonts(const json& definition, const ThemeResolver& resolver, Theme& theme) {
  const json* fonts = optional_object(definition, "fonts");
  if (fonts == nullptr) return;
  const std::pair<const char*, std::optional<std::string> ThemeFonts::*> parts[] = {
      {"regular", &ThemeFonts::regular}, {"bold", &ThemeFonts::bold}, {"title", &ThemeFonts::title}};
  for (const auto& [key, field] : parts) {
    const json* name = member(*fonts, key);
    if (name == nullptr) continue;
    std::string bytes = read_plain(resolver(file_name(*name)), max_theme_font_bytes);
    const std::string_view tag = std::string_view(bytes).substr(0, 4);
    require(tag == std::string_view("\0\1\0\0", 4) || tag == "OTTO" || tag == "true", invalid,
            "Theme fonts must be TrueType or OpenType files");
    theme.fonts.*field = std::move(bytes);
  }
}

void read_images(const json& definition, const ThemeResolver& resolver, Theme& theme) {
  const json* images = optional_object(definition, "images");
  if (images == nullptr) return;
  for (const auto& kind : image_kinds) {
    const json* image = optional_object(*images, kind.key);
    if (image == nullptr) continue;
    ThemeImage result;
    if (const json* pixel_art = member(*image, "pixel_art")) {
      require(pixel_art->is_boolean(), invalid, "Theme pixel_art is true or false");
      result.pixel_art = pixel_art->get<bool>();
    }
    const std::uint64_t limit = bmp_header_bytes + kind.max_height * bmp_row_bytes(kind.max_width);
    result.bytes = read_plain(resolver(file_name(image->at("file"))), limit);
    check_bmp(result.bytes, kind);
    theme.images.*kind.member = std::move(result);
  }
}

void read_notices(const json& definition, const ThemeResolver& resolver, Theme& theme) {
  const json* notices = member(definition, "notices");
  if (notices == nullptr) return;
  for (const json& name : *notices) {
    theme.notices.push_back(read_plain(resolver(file_name(name)), max_theme_notice_bytes));
  }
}

void check_contrast(const Theme& theme) {
  for (const auto& [name, foreground, background] : readable_pairs) {
    require(contrast(theme.*foreground, theme.*background) >= 4.5, invalid,
            std::string("Theme contrast is below 4.5:1 for ") + name);
  }
  require(!theme.button || contrast(theme.text, *theme.button) >= 4.5, invalid,
          "Theme contrast is below 4.5:1 for text on button");
  require(contrast(theme.focus, theme.background) >= 3.0 && contrast(theme.focus, theme.panel) >= 3.0, invalid,
          "Theme focus colour is below 3:1 against the background or panel");
}

Theme read_theme(const json& definition, const ThemeResolver& resolver) {
  require(definition.is_object() && definition.value("schema_version", json()) == 1 &&
              definition.value("kind", json()) == "zorvi-theme",
          invalid, "Unsupported theme schema");
  theme_files(definition);
  Theme result;
  read_colours(definition, result);
  read_shape(definition, result);
  read_fonts(definition, resolver, result);
  read_images(definition, resolver, result);
  read_notices(definition, resolver, result);
  check_contrast(result);
  return result;
}

Theme& current_theme() {
  static Theme value;
  return value;
}

}  // namespace

double contrast(Rgb first, Rgb second) {
  const auto channel = [](std::uint8_t byte) {
    const double c = byte / 255.0;
    return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
  };
  const auto luminance = [&](Rgb colour) {
    return 0.2126 * channel(colour.red) + 0.7152 * channel(colour.green) + 0.0722 * channel(colour.blue);
  };
  const double a = luminance(first);
  const double b = luminance(second);
  return (std::max(a, b) + 0.05) / (std::min(a, b) + 0.05);
}

std::vector<std::string> theme_files(const json& definition) {
  std::set<std::string> names;
  const auto add = [&](const json& value, std::initializer_list<std::string_view> extensions) {
    std::string name = file_name(value);
    check_file_name(name, extensions);
    names.insert(std::move(name));
    // Checked as names arrive, so a long list is refused before it is walked.
    require(names.size() <= max_theme_files, invalid, "A theme names at most 12 distinct files");
  };
  if (const json* fonts = optional_object(definition, "fonts")) {
    for (const char* key : {"regular", "bold", "title"}) {
      if (const json* name = member(*fonts, key)) add(*name, {".ttf", ".otf"});
    }
  }
  if (const json* images = optional_object(definition, "images")) {
    for (const auto& kind : image_kinds) {
      const json* image = optional_object(*images, kind.key);
      if (image == nullptr) continue;
      const json* file = member(*image, "file");
      require(file != nullptr, invalid, "Theme image needs a file");
      add(*file, {".bmp"});
    }
  }
  if (const json* notices = member(definition, "notices")) {
    require(notices->is_array(), invalid, "Theme notices are a list of files");
    for (const json& name : *notices) add(name, {".txt"});
  }
  return {names.begin(), names.end()};
}

Theme parse_theme(const json& definition, const ThemeResolver& resolver) {
  try {
    return read_theme(definition, resolver);
  } catch (const json::exception&) {
    throw Error(invalid, "Theme definition is malformed");
  }
}

std::optional<Theme> load_theme(const std::filesystem::path& directory) {
  const auto definition = directory / "theme.json";
  if (!entry_present(definition)) return std::nullopt;
  const json document = parse_json(read_file(definition, max_theme_definition_bytes), max_theme_definition_bytes);
  return parse_theme(document, [&](const std::string& name) { return directory / name; });
}

std::filesystem::path theme_directory(const std::filesystem::path& data_root) { return data_root / "native" / "theme"; }

void use_installed_theme(const std::filesystem::path& data_root) {
  try {
    if (auto installed = load_theme(theme_directory(data_root))) set_theme(std::move(*installed));
  } catch (const std::exception&) {
    // A theme that cannot be used must never keep the client from starting.
  }
}

const Theme& theme() { return current_theme(); }

void set_theme(Theme value) { current_theme() = std::move(value); }

}  // namespace zorvi
