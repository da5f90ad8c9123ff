#pragma once

// The last way to a game when no launcher version can start: the installed
// game is found from its records alone and started without launcher code,
// network or signature work. A platformed copy starts its own fixed game.

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace zorvi {

// Where an installed game's program is and how to start it; UTF-8 texts.
struct LocatedGame {
  std::string executable;  // absolute
  std::string directory;   // the working directory
  std::string build;       // empty when the record names none
};

inline constexpr std::size_t max_game_record_bytes = 524288;
inline constexpr std::size_t max_stored_game_manifest_bytes = 4194304;

// Finds the program of `game_id` below `data_root` ("games/<game_id>/..."),
// or the platformed copy's own program when this copy is that game's shell.
// Only the program's presence and size are proved: the full check of the
// tree belongs to verify and repair, and this route must start fast.
LocatedGame locate_installed_game(const std::filesystem::path& data_root, std::string_view game_id);

// Starts the located program with no arguments in its directory. With
// `replace` the process image is replaced and the call returns only by
// throwing; without it the game runs on as a child in its own group.
void start_installed_game(const std::filesystem::path& data_root, std::string_view game_id, bool replace);

// Whether `code` means that local storage refused to save.
bool local_storage_failure(std::string_view code);

}  // namespace zorvi
