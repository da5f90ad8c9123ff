#pragma once

// The initial package: a flat folder beside the installer holding everything
// an install needs without a network. Its descriptor must hash to the seal
// built into the installer, every file must hash to what the descriptor
// says, and the folder may hold nothing else.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/app/brand.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/launcher_contract.hpp"
#include "client/domain/manifest.hpp"
#include "client/domain/theme.hpp"

namespace zorvi {

inline constexpr std::string_view initial_package_descriptor = "initial-package.json";
inline constexpr std::size_t max_package_descriptor_bytes = 524288;
inline constexpr std::uint64_t max_package_document_bytes = 524288;  // root and both manifests
inline constexpr std::uint64_t max_package_ca_bytes = 1048576;
inline constexpr std::uint64_t max_package_icon_bytes = 1048576;
inline constexpr std::uint64_t max_package_theme_definition_bytes = 65536;
inline constexpr std::uint64_t max_package_theme_file_bytes = 4194304;
inline constexpr std::uint64_t max_package_theme_bytes = 16777216;
inline constexpr std::uint64_t max_package_archive_bytes = std::uint64_t{1} << 30;  // each and both together

struct FeaturedGame {
  std::string id;
  std::string name;
};

// A theme as the package carries it: the definition's bytes and its files,
// by name in ascending order, with the theme they make.
struct SealedTheme {
  std::string definition;
  std::vector<std::pair<std::string, std::string>> files;
  Theme theme;
};

// A package proved against its seal; made only by read_native_package.
struct NativePackage {
  std::filesystem::path directory;  // absolute and lexically normal
  std::string descriptor_sha256;    // the seal
  std::string origin;
  std::string root;                // bytes of the TUF root
  std::string ca_bundle;           // PEM bytes; empty without a bundle
  std::string bootstrap_manifest;  // exact bytes
  std::string launcher_manifest;   // exact bytes
  SnapshotManifest bootstrap;
  LauncherManifest launcher;
  std::optional<FeaturedGame> featured_game;
  std::optional<Brand> brand;
  std::string brand_icon;  // empty without a brand
  std::optional<SealedTheme> theme;

  std::filesystem::path bootstrap_archive() const;
  std::filesystem::path launcher_archive() const;
};

// The full proof. `progress` runs while each file is hashed and may stop it.
NativePackage read_native_package(const std::filesystem::path& directory, std::string_view seal,
                                  const Progress& progress);

// Cheap readers for an installer's first screen: the seal and descriptor
// only, and for the theme and icon the files concerned.
std::optional<Brand> package_brand(const std::filesystem::path& directory, std::string_view seal);
std::optional<Theme> package_theme(const std::filesystem::path& directory, std::string_view seal);
std::optional<std::string> package_brand_icon(const std::filesystem::path& directory, std::string_view seal);
std::optional<FeaturedGame> package_featured_game(const std::filesystem::path& directory, std::string_view seal);

// A flat file name of a package: no "/", no leading ".", not the descriptor.
void check_resource_name(std::string_view name);

}  // namespace zorvi
