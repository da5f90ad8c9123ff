#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "client/domain/json.hpp"

namespace zorvi {

// A copy of the client that is the shell of one fixed game, told so by the
// platform file beside its executable.
struct PlatformedGame {
  std::string game_id;
  std::string name;
  std::string build;
  std::optional<std::string> channel;
  std::filesystem::path executable;  // absolute, below the client's folder
  std::string crash_service;         // "https://" and a host, nothing more
  std::optional<std::filesystem::path> ca_bundle;
};

inline constexpr std::size_t max_platform_file_bytes = 16384;

// `base` is the folder the relative paths of the file are joined to.
PlatformedGame parse_platformed_game(const json& document, const std::filesystem::path& base);

// The platform file beside `executable`, if there is one.
std::optional<PlatformedGame> read_platform_file(const std::filesystem::path& executable);

// The running copy's platform file, read on the first call; later calls give
// the same value.
const std::optional<PlatformedGame>& platformed_game();

// The platformed game when this copy is the shell of `game_id`.
std::optional<PlatformedGame> platformed_game(std::string_view game_id);

std::filesystem::path platformed_data_root(const PlatformedGame& game);

}  // namespace zorvi
