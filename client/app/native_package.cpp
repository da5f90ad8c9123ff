#include "client/app/native_package.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <set>
#include <system_error>

#include "client/domain/bootstrap_contract.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/json.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/storage.hpp"
#include "client/transport/https.hpp"
#include "client/tuf/metadata.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

constexpr const char* refused = "invalid_native_package";
constexpr const char* no_seal_to_build =
    "This installer has no package seal; build it with ZORVI_INITIAL_PACKAGE_SHA256";
constexpr std::size_t max_featured_name_bytes = 80;

// One file of the package as the descriptor describes it.
struct Resource {
  std::string path;
  std::string sha256;
  std::uint64_t length = 0;
};

struct ThemeResources {
  Resource definition;
  std::map<std::string, Resource> files;  // theme's own name -> resource
};

struct BrandRecord {
  Brand brand;
  Resource icon;
  std::optional<ThemeResources> theme;
};

// What the descriptor says before any file it names has been read.
struct Descriptor {
  json rest;  // the eight fixed members
  std::optional<FeaturedGame> featured_game;
  std::optional<BrandRecord> brand;
};

bool has_exactly(const json& object, std::initializer_list<const char*> names) {
  return object.is_object() && object.size() == names.size() &&
         std::all_of(names.begin(), names.end(), [&](const char* name) { return object.contains(name); });
}

Resource parse_resource(const json& value) {
  require(has_exactly(value, {"path", "sha256", "length"}), refused,
          "Initial package record has unknown or missing fields");
  require(value["length"].is_number_unsigned(), refused, "Resource length must be an unsigned integer");
  require(value["sha256"].is_string() && is_lower_hex(value["sha256"].get_ref<const std::string&>(), 64), refused,
          "Resource hash must be a lowercase SHA-256 digest");
  Resource resource{value["path"].get<std::string>(), value["sha256"].get<std::string>(),
                    value["length"].get<std::uint64_t>()};
  // Checked before anything is read, so that no name can lead out of the folder.
  check_resource_name(resource.path);
  return resource;
}

void require_plain_file(const fs::path& path) {
  std::error_code error;
  require(fs::symlink_status(path, error).type() == fs::file_type::regular, refused,
          "Initial package resource is missing or not a plain file");
}

std::string read_resource(const fs::path& directory, const Resource& resource, std::uint64_t limit) {
  require(resource.length >= 1 && resource.length <= limit, "size_limit",
          "Initial package resource exceeds its size limit");
  const fs::path path = directory / resource.path;
  require_plain_file(path);
  std::string bytes = read_file(path, limit);
  require(bytes.size() == resource.length, "content_mismatch", "Initial package resource has the wrong length");
  require(digest(bytes, "sha256") == resource.sha256, "content_mismatch",
          "Initial package resource changed: " + resource.path);
  return bytes;
}

std::optional<FeaturedGame> parse_featured_game(const json& descriptor) {
  if (!descriptor.contains("featured_game")) return std::nullopt;
  const json& value = descriptor["featured_game"];
  require(has_exactly(value, {"id", "name"}) && value["id"].is_string() && value["name"].is_string(), refused,
          "Featured game must name an id and a display name");
  FeaturedGame game{value["id"].get<std::string>(), value["name"].get<std::string>()};
  validate_identifier(game.id);
  require(!game.name.empty() && game.name.size() <= max_featured_name_bytes, refused,
          "Featured game name must be 1 to 80 bytes");
  return game;
}

ThemeResources parse_theme_resources(const json& value) {
  require(has_exactly(value, {"definition", "files"}), refused, "Brand has unknown or missing fields");
  require(value["files"].is_object(), refused, "Brand theme files must be an object");
  ThemeResources theme{parse_resource(value["definition"]), {}};
  require(theme.definition.path == "theme.json", refused, "Brand theme definition must be theme.json");
  for (const auto& [name, file] : value["files"].items()) {
    Resource resource = parse_resource(file);
    require(resource.path == "theme-" + name, refused, "Brand theme files are stored as theme-NAME");
    theme.files.emplace(name, std::move(resource));
  }
  return theme;
}

std::optional<BrandRecord> parse_brand_record(const json& descriptor) {
  if (!descriptor.contains("brand")) return std::nullopt;
  json rest = descriptor["brand"];
  require(rest.is_object() && rest.contains("icon"), refused, "Brand has unknown or missing fields");
  Resource icon = parse_resource(rest["icon"]);
  std::optional<ThemeResources> theme;
  if (rest.contains("theme")) theme = parse_theme_resources(rest["theme"]);
  rest.erase("theme");
  // A packaged brand always carries its icon, so the brand it makes has one.
  rest["icon"] = true;
  return BrandRecord{parse_brand(rest), std::move(icon), std::move(theme)};
}

void require_seal(std::string_view seal, const char* no_seal) {
  require(is_lower_hex(seal, 64), "native_install_trust", no_seal);
}

fs::path package_directory(const fs::path& directory) {
  std::error_code error;
  require(!directory.empty() && fs::symlink_status(directory, error).type() == fs::file_type::directory, refused,
          "Choose an initial package directory");
  fs::path normal = fs::absolute(directory).lexically_normal();
  if (normal.filename().empty() && normal.has_relative_path()) normal = normal.parent_path();
  return normal;
}

// Nothing in the descriptor is believed before its bytes match the seal.
Descriptor sealed_descriptor(const fs::path& directory, std::string_view seal) {
  const std::string text = read_file(directory / initial_package_descriptor, max_package_descriptor_bytes);
  require(digest(text, "sha256") == seal, "native_install_trust",
          "This package is not the one this installer was built for");
  json document = parse_json(text, max_package_descriptor_bytes);
  require(document.is_object(), refused, "Initial package metadata is malformed");
  Descriptor descriptor{{}, parse_featured_game(document), parse_brand_record(document)};
  document.erase("featured_game");
  document.erase("brand");
  descriptor.rest = std::move(document);
  return descriptor;
}

SealedTheme read_sealed_theme(const fs::path& directory, const ThemeResources& resources) {
  SealedTheme sealed;
  sealed.definition = read_resource(directory, resources.definition, max_package_theme_definition_bytes);
  const json definition = parse_json(sealed.definition, max_package_theme_definition_bytes);
  const std::vector<std::string> names = theme_files(definition);
  std::uint64_t total = 0;
  for (const auto& [name, resource] : resources.files) total = add(total, resource.length);
  require(total <= max_package_theme_bytes, "size_limit", "Brand theme files exceed 16 MiB together");
  std::vector<std::string> keys;
  for (const auto& [name, resource] : resources.files) {
    sealed.files.emplace_back(name, read_resource(directory, resource, max_package_theme_file_bytes));
    keys.push_back(name);
  }
  require(keys == names, refused, "Brand theme files differ from its definition");
  sealed.theme = parse_theme(definition, [&](const std::string& name) { return directory / ("theme-" + name); });
  return sealed;
}

void check_icon(std::string_view icon) {
  constexpr std::string_view magic("\0\0\1\0", 4);
  require(icon.size() >= 22 && icon.starts_with(magic), refused, "The brand icon is not an .ico file");
}

void check_origin(const std::string& origin) {
  const HttpsTransport transport(origin + "/tuf/metadata/", {}, 0, nullptr);
  require(transport.origin() == origin, "invalid_origin", "The package origin must be a plain HTTPS origin");
}

void check_root(const std::string& bytes) {
  const json root = parse_json(bytes, max_package_document_bytes);
  shape(root, "root");
  verify_threshold(root, root["signed"]["keys"], root["signed"]["roles"]["root"]);
  const auto now =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch());
  require(parse_tuf_time(root["signed"]["expires"].get<std::string>()) > now.count(), "expired_metadata",
          "The initial package's TUF root has expired");
}

void check_fixed_members(const json& rest) {
  require(has_exactly(rest, {"schema_version", "kind", "platform", "origin", "root", "ca_bundle", "bootstrap_manifest",
                             "launcher_manifest"}),
          refused, "Initial package record has unknown or missing fields");
  require(rest["schema_version"].is_number_integer() && rest["schema_version"] == 1 &&
              rest["kind"] == "zorvi-initial-package",
          "unsupported_schema", "Unsupported initial package schema");
  require(rest["platform"] == native_platform(), "launcher_incompatible", "This package is for another platform");
}

void check_manifests(const NativePackage& package) {
  require(package.launcher.runtime_lease_abi == 2 && package.launcher.staging_abi == 1, "launcher_incompatible",
          "The initial launcher needs the current runtime contracts");
  require(package.bootstrap.platform == native_platform() && package.launcher.snapshot.platform == native_platform(),
          "launcher_incompatible", "Package images are for another platform");
  const std::uint64_t first = package.bootstrap.archive_length, second = package.launcher.snapshot.archive_length;
  require(first <= max_package_archive_bytes && second <= max_package_archive_bytes &&
              add(first, second) <= max_package_archive_bytes,
          "size_limit", "Initial package payload is too large");
}

// The folder holds exactly the descriptor and the resources, each a plain
// file of the length and digest the descriptor gives.
void check_folder(const fs::path& directory, const std::vector<Resource>& resources, const Progress& progress) {
  std::set<std::string> names{std::string(initial_package_descriptor)};
  for (const Resource& resource : resources) {
    check_resource_name(resource.path);
    require(names.insert(resource.path).second, refused, "Initial package resources overlap");
  }
  std::size_t entries = 0;
  std::error_code error;
  fs::directory_iterator walk(directory, error);
  require(!error, "file_read", with_errno("Cannot list the initial package", error.value()));
  for (; walk != fs::directory_iterator(); walk.increment(error)) {
    require(walk->symlink_status().type() == fs::file_type::regular, refused,
            "Initial package resource is missing or not a plain file");
    const std::string name = path_utf8(walk->path().filename());
    require(names.contains(name) && ++entries <= names.size(), refused,
            "Initial package contains an unexpected entry: " + name);
  }
  require(!error, "file_read", with_errno("Cannot list the initial package", error.value()));
  require(entries == names.size(), refused, "Initial package is missing a resource");
  for (const Resource& resource : resources) {
    const fs::path path = directory / resource.path;
    require_plain_file(path);
    require(fs::file_size(path, error) == resource.length && !error, "content_mismatch",
            "Initial package resource has the wrong length");
    require(digest_file_progress(path, "sha256", progress) == resource.sha256, "content_mismatch",
            "Initial package resource changed: " + resource.path);
  }
}

NativePackage prove_package(const fs::path& directory, std::string_view seal, const Progress& progress) {
  require_seal(seal, no_seal_to_build);
  NativePackage package;
  package.directory = package_directory(directory);
  package.descriptor_sha256 = seal;
  const Descriptor descriptor = sealed_descriptor(package.directory, seal);
  const json& rest = descriptor.rest;
  check_fixed_members(rest);
  package.origin = rest["origin"].get<std::string>();
  check_origin(package.origin);

  std::vector<Resource> resources{parse_resource(rest["root"]), parse_resource(rest["bootstrap_manifest"]),
                                  parse_resource(rest["launcher_manifest"])};
  if (!rest["ca_bundle"].is_null()) resources.push_back(parse_resource(rest["ca_bundle"]));
  const fs::path& folder = package.directory;
  package.root = read_resource(folder, resources[0], max_package_document_bytes);
  package.bootstrap_manifest = read_resource(folder, resources[1], max_package_document_bytes);
  package.launcher_manifest = read_resource(folder, resources[2], max_package_document_bytes);
  if (resources.size() > 3) package.ca_bundle = read_resource(folder, resources[3], max_package_ca_bytes);
  if (descriptor.brand) {
    package.brand = descriptor.brand->brand;
    package.brand_icon = read_resource(folder, descriptor.brand->icon, max_package_icon_bytes);
    check_icon(package.brand_icon);
    resources.push_back(descriptor.brand->icon);
    if (const auto& theme = descriptor.brand->theme) {
      package.theme = read_sealed_theme(folder, *theme);
      resources.push_back(theme->definition);
      for (const auto& [name, resource] : theme->files) resources.push_back(resource);
    }
  }
  package.featured_game = descriptor.featured_game;

  check_root(package.root);
  package.bootstrap = SnapshotManifest::parse(parse_json(package.bootstrap_manifest, max_package_document_bytes));
  validate_bootstrap_contract(package.bootstrap);
  package.launcher = LauncherManifest::parse(parse_json(package.launcher_manifest, max_package_document_bytes));
  check_manifests(package);
  resources.push_back(
      {package.bootstrap.archive_target, package.bootstrap.archive_sha256, package.bootstrap.archive_length});
  resources.push_back({package.launcher.snapshot.archive_target, package.launcher.snapshot.archive_sha256,
                       package.launcher.snapshot.archive_length});
  check_folder(folder, resources, progress ? progress : Progress([](std::uint64_t, std::uint64_t) { return true; }));
  return package;
}

// A value of the wrong type deep in the descriptor surfaces from the JSON
// library; the caller learns only that the metadata is malformed.
template <typename Action>
auto guarded(Action action) -> decltype(action()) {
  try {
    return action();
  } catch (const json::exception&) {
    throw Error(refused, "Initial package metadata is malformed");
  }
}

Descriptor first_screen(const fs::path& directory, std::string_view seal, const char* no_seal) {
  require_seal(seal, no_seal);
  return sealed_descriptor(package_directory(directory), seal);
}

}  // namespace

fs::path NativePackage::bootstrap_archive() const { return directory / bootstrap.archive_target; }

fs::path NativePackage::launcher_archive() const { return directory / launcher.snapshot.archive_target; }

NativePackage read_native_package(const fs::path& directory, std::string_view seal, const Progress& progress) {
  return guarded([&] { return prove_package(directory, seal, progress); });
}

std::optional<Brand> package_brand(const fs::path& directory, std::string_view seal) {
  return guarded([&]() -> std::optional<Brand> {
    const Descriptor descriptor = first_screen(directory, seal, no_seal_to_build);
    if (!descriptor.brand) return std::nullopt;
    return descriptor.brand->brand;
  });
}

std::optional<Theme> package_theme(const fs::path& directory, std::string_view seal) {
  return guarded([&]() -> std::optional<Theme> {
    const Descriptor descriptor = first_screen(directory, seal, "This installer has no package seal");
    if (!descriptor.brand || !descriptor.brand->theme) return std::nullopt;
    return read_sealed_theme(package_directory(directory), *descriptor.brand->theme).theme;
  });
}

std::optional<std::string> package_brand_icon(const fs::path& directory, std::string_view seal) {
  return guarded([&]() -> std::optional<std::string> {
    const Descriptor descriptor = first_screen(directory, seal, no_seal_to_build);
    if (!descriptor.brand) return std::nullopt;
    const Resource& icon = descriptor.brand->icon;
    const fs::path path = package_directory(directory) / icon.path;
    require_plain_file(path);
    std::string bytes = read_file(path, max_package_icon_bytes);
    require(bytes.size() == icon.length && digest(bytes, "sha256") == icon.sha256, "content_mismatch",
            "Initial package icon differs from its descriptor");
    check_icon(bytes);
    return bytes;
  });
}

std::optional<FeaturedGame> package_featured_game(const fs::path& directory, std::string_view seal) {
  return guarded([&] { return first_screen(directory, seal, no_seal_to_build).featured_game; });
}

void check_resource_name(std::string_view name) {
  validate_relative_path(name, true);
  require(name.find('/') == std::string_view::npos && !name.starts_with('.') && name != initial_package_descriptor,
          refused, "Initial package resources need distinct flat names");
}

}  // namespace zorvi
