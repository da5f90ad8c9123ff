#include "client/app/brand.hpp"

#include <algorithm>
#include <array>
#include <cctype>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"

namespace zorvi {
namespace {

constexpr const char* refused = "invalid_native_package";
constexpr std::size_t max_installation_record_bytes = 65536;

// Names Windows keeps for devices, in any case and with any extension.
constexpr std::array<std::string_view, 30> device_names = {
    "CON",  "PRN",  "AUX",  "NUL",  "CONIN$",    "CONOUT$",   "COM1",      "COM2",      "COM3",      "COM4",
    "COM5", "COM6", "COM7", "COM8", "COM9",      "LPT1",      "LPT2",      "LPT3",      "LPT4",      "LPT5",
    "LPT6", "LPT7", "LPT8", "LPT9", "COM\u00b9", "COM\u00b2", "COM\u00b3", "LPT\u00b9", "LPT\u00b2", "LPT\u00b3"};

// No C0 control, no DEL, and (the text being UTF-8) no C1 control either.
bool plain_text(std::string_view text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x20 || byte == 0x7f) return false;
    if (byte == 0xc2 && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xa0) return false;
  }
  return true;
}

std::string brand_text(const json& document, const char* key, std::size_t limit) {
  const json& value = document.at(key);
  require(value.is_string(), refused, std::string("Brand needs a ") + key);
  std::string text = value.get<std::string>();
  require(!text.empty() && text.size() <= limit && plain_text(text), refused,
          std::string(key) + " must be 1 to " + std::to_string(limit) + " bytes of plain text");
  return text;
}

struct ProductIdentity {
  std::string name = "Zorvi";
  std::optional<std::filesystem::path> icon;
};

ProductIdentity& product() {
  static ProductIdentity value;
  return value;
}

}  // namespace

void validate_brand_name(std::string_view name) {
  bool allowed = !name.empty() && name.size() <= 64 && name.front() != ' ' && name.back() != ' ' && name.back() != '.';
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    allowed =
        allowed && byte >= 0x20 && byte != 0x7f && std::string_view("<>:\"/\\|?*").find(c) == std::string_view::npos;
  }
  require(allowed, refused,
          "A brand name is 1 to 64 bytes and also names a folder: no control characters, none of < > : \" / \\ | ? *, "
          "and no leading space or trailing space or dot");
  std::string stem(name.substr(0, name.find('.')));
  std::transform(stem.begin(), stem.end(), stem.begin(),
                 [](char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); });
  require(std::find(device_names.begin(), device_names.end(), stem) == device_names.end(), refused,
          "A brand name cannot be a Windows device name");
}

Brand parse_brand(const json& document) {
  constexpr std::array<const char*, 4> members = {"name", "id", "publisher", "icon"};
  require(document.is_object() && document.size() == members.size() &&
              std::all_of(members.begin(), members.end(), [&](const char* key) { return document.contains(key); }) &&
              document.at("icon").is_boolean(),
          refused, "Brand has unknown or missing fields");
  Brand brand{brand_text(document, "name", 64), brand_text(document, "id", 80), brand_text(document, "publisher", 128),
              document.at("icon").get<bool>()};
  validate_brand_name(brand.name);
  return brand;
}

json brand_json(const Brand& brand) {
  return json{{"name", brand.name}, {"id", brand.id}, {"publisher", brand.publisher}, {"icon", brand.icon}};
}

std::optional<Brand> installed_brand(const std::filesystem::path& data_root) {
  const auto path = data_root / "native" / "installation.json";
  if (!entry_present(path)) return std::nullopt;
  const json record = parse_json(read_file(path, max_installation_record_bytes), max_installation_record_bytes);
  require(record.is_object() && record.value("schema_version", json()) == 1 &&
              record.value("kind", json()) == "zorvi-installation",
          "unsupported_schema", "Unsupported installation record " + path_utf8(path));
  if (!record.contains("brand")) return std::nullopt;
  return parse_brand(record.at("brand"));
}

std::filesystem::path brand_icon_path(const std::filesystem::path& data_root) {
  return data_root / "native" / "brand.ico";
}

const std::string& product_name() { return product().name; }

void set_product_name(std::string name) { product().name = std::move(name); }

const std::optional<std::filesystem::path>& product_icon() { return product().icon; }

void set_product_icon(std::filesystem::path icon) { product().icon = std::move(icon); }

void use_installed_brand(const std::filesystem::path& data_root) {
  const auto brand = installed_brand(data_root);
  if (!brand) return;
  set_product_name(brand->name);
  if (brand->icon) set_product_icon(brand_icon_path(data_root));
}

std::string branded(std::string_view text) {
  constexpr std::string_view own = "Zorvi";
  const std::string& name = product_name();
  if (name == own) return std::string(text);
  std::string result;
  std::size_t from = 0;
  for (std::size_t at = text.find(own); at != std::string_view::npos; at = text.find(own, from)) {
    result.append(text.substr(from, at - from)).append(name);
    from = at + own.size();
  }
  return result.append(text.substr(from));
}

std::string uninstall_entry_key(const std::optional<Brand>& brand) { return brand ? "Zorvi." + brand->id : "Zorvi"; }

void register_uninstall_entry(const UninstallEntry&) {}

void remove_uninstall_entry(const std::string&) {}

}  // namespace zorvi
