#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "client/domain/json.hpp"

namespace zorvi {

// Another name for one build of the client.
struct Brand {
  std::string name;  // display name, also a folder name
  std::string id;    // tells its uninstall entry apart
  std::string publisher;
  bool icon = false;  // whether "native/brand.ico" was installed with it
  friend bool operator==(const Brand&, const Brand&) = default;
};

// What a platform with a list of installed programs needs to show this one.
struct UninstallEntry {
  std::string key;
  std::string display_name;
  std::string publisher;
  std::filesystem::path icon;
  std::filesystem::path install_location;
  std::string uninstall_command;
};

// A brand name also names a folder on every platform the client ships for.
void validate_brand_name(std::string_view name);

Brand parse_brand(const json& document);
json brand_json(const Brand& brand);

// The brand in "native/installation.json", or nothing without a record or a brand.
std::optional<Brand> installed_brand(const std::filesystem::path& data_root);
std::filesystem::path brand_icon_path(const std::filesystem::path& data_root);

// The name and icon the client shows now: "Zorvi" and none until a brand is
// applied. Set them at start-up only.
const std::string& product_name();
void set_product_name(std::string name);
const std::optional<std::filesystem::path>& product_icon();
void set_product_icon(std::filesystem::path icon);

void use_installed_brand(const std::filesystem::path& data_root);

// `text` with each "Zorvi" replaced by the current product name.
std::string branded(std::string_view text);

std::string uninstall_entry_key(const std::optional<Brand>& brand);

// This platform keeps no list of installed programs: both do nothing.
void register_uninstall_entry(const UninstallEntry& entry);
void remove_uninstall_entry(const std::string& key);

}  // namespace zorvi
