// Reads a .zorvi-launch document and prints the checked shortcut as JSON, or
// the refusal with its code and message.
#include <cstdio>
#include <iostream>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/json.hpp"
#include "client/platform/files.hpp"
#include "client/platform/macos_shortcuts.hpp"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: zorvi-launch-check DOCUMENT.zorvi-launch\n";
    return 2;
  }
  try {
    // One byte over the document bound, so that an overlong file reaches the
    // document reader and is refused in its own words.
    const std::string text = zorvi::read_file(argv[1], zorvi::max_launch_document + 1);
    const zorvi::DesktopShortcut shortcut = zorvi::parse_macos_launch_document(text);
    const zorvi::json out = {{"bootstrap", zorvi::path_utf8(shortcut.bootstrap)},
                             {"data_root", zorvi::path_utf8(shortcut.data_root)},
                             {"game_id", shortcut.game_id},
                             {"name", shortcut.name}};
    std::cout << out.dump(2) << "\n";
    return 0;
  } catch (const zorvi::Error& error) {
    const zorvi::json refusal = {{"code", error.code}, {"message", error.what()}};
    std::cout << refusal.dump(2) << "\n";
    std::cerr << "zorvi: " << error.what() << "\n";
    return 1;
  } catch (const std::exception& error) {
    std::cerr << "zorvi: " << error.what() << "\n";
    return 1;
  }
}
