#include "client/app/platformed.hpp"

#include <algorithm>
#include <array>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/process.hpp"

namespace zorvi {
namespace {

constexpr const char* refused = "platformed_config";
constexpr std::string_view platform_file = "zorvi-platform.json";

std::string text_member(const json& document, const char* key) {
  const auto found = document.find(key);
  require(found != document.end() && found->is_string() &&
              found->get_ref<const std::string&>().find('\0') == std::string::npos,
          refused, std::string("zorvi-platform.json needs a \"") + key + "\" text");
  return found->get<std::string>();
}

[[noreturn]] void unusable(const char* key) {
  throw Error(refused, std::string("zorvi-platform.json has an unusable \"") + key + "\"");
}

std::string identifier_member(const json& document, const char* key) {
  std::string value = text_member(document, key);
  try {
    validate_identifier(value);
  } catch (const Error&) {
    unusable(key);
  }
  return value;
}

std::filesystem::path path_member(const json& document, const char* key, const std::filesystem::path& base) {
  const std::string value = text_member(document, key);
  try {
    return safe_join(base, value, true);
  } catch (const Error&) {
    unusable(key);
  }
}

// An origin only: no path, query, fragment or user part may ride along.
std::string crash_service(const json& document) {
  std::string origin = text_member(document, "crash_service");
  constexpr std::string_view scheme = "https://";
  require(origin.starts_with(scheme) && origin.size() > scheme.size() && origin[scheme.size()] != ':' &&
              origin.find_first_of(std::string_view("/?#@ \t\\"), scheme.size()) == std::string::npos,
          refused, "zorvi-platform.json needs \"crash_service\" as a plain https:// origin");
  return origin;
}

}  // namespace

PlatformedGame parse_platformed_game(const json& document, const std::filesystem::path& base) {
  require(document.is_object() && document.value("schema_version", json()) == 1 &&
              document.at("schema_version").is_number_integer(),
          refused, "zorvi-platform.json is not a version 1 platform file");
  constexpr std::array<std::string_view, 8> known = {"schema_version", "game_id",    "name",          "build",
                                                     "channel",        "executable", "crash_service", "ca_bundle"};
  for (const auto& [key, value] : document.items()) {
    require(std::find(known.begin(), known.end(), key) != known.end(), refused,
            "zorvi-platform.json has an unknown field: " + key);
  }
  const auto folder = std::filesystem::absolute(base).lexically_normal();
  PlatformedGame game;
  game.game_id = identifier_member(document, "game_id");
  game.name = text_member(document, "name");
  if (game.name.empty()) unusable("name");
  game.build = identifier_member(document, "build");
  if (document.contains("channel")) game.channel = identifier_member(document, "channel");
  game.executable = path_member(document, "executable", folder);
  if (document.contains("ca_bundle")) game.ca_bundle = path_member(document, "ca_bundle", folder);
  game.crash_service = crash_service(document);
  return game;
}

std::optional<PlatformedGame> read_platform_file(const std::filesystem::path& executable) {
  const auto folder = executable.parent_path();
  const auto path = folder / platform_file;
  if (!entry_present(path)) return std::nullopt;
  return parse_platformed_game(parse_json(read_file(path, max_platform_file_bytes), max_platform_file_bytes), folder);
}

const std::optional<PlatformedGame>& platformed_game() {
  static const std::optional<PlatformedGame> game = read_platform_file(current_executable_path());
  return game;
}

std::optional<PlatformedGame> platformed_game(std::string_view game_id) {
  const auto& game = platformed_game();
  if (game && game->game_id == game_id) return game;
  return std::nullopt;
}

std::filesystem::path platformed_data_root(const PlatformedGame& game) {
  return user_data_root() / "platformed" / game.game_id;
}

}  // namespace zorvi
