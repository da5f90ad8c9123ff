// Reports the running copy's platform file the way the client reads it.
//   platform_probe GAME
// Prints "none", "CODE|MESSAGE", or one line of the game's fields followed by
// whether this copy is the shell of GAME, asked after the file is removed
// (it is read once per process).
#include "client/app/platformed.hpp"
#include "client/platform/process.hpp"
#include "tests/programs/program.hpp"

int main(int argc, char** argv) {
  try {
    const auto& game = zorvi::platformed_game();
    if (!game) return std::cout << "none\n", 0;
    std::cout << game->game_id << ' ' << game->build << ' ' << game->channel.value_or("-") << ' '
              << game->executable.string() << ' ' << game->ca_bundle.value_or("-").string() << ' '
              << zorvi::platformed_data_root(*game).string() << ' ';
    std::filesystem::remove(zorvi::current_executable_path().parent_path() / "zorvi-platform.json");
    std::cout << (zorvi::platformed_game(argc > 1 ? argv[1] : "") ? "shell" : "not-shell") << '\n';
  } catch (const zorvi::Error& error) {
    std::cout << error.code << '|' << error.what() << '\n';
  }
  return 0;
}
