// The reader of an opened launch document. A document it accepts is one the
// writer writes again, and that reads back with the same choices.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "client/domain/error.hpp"
#include "client/platform/macos_shortcuts.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zorvi::DesktopShortcut shortcut;
  try {
    shortcut = zorvi::parse_macos_launch_document(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const zorvi::Error&) {
    return 0;
  }
  const zorvi::DesktopShortcut again = zorvi::parse_macos_launch_document(zorvi::macos_launch_document(shortcut));
  if (again.bootstrap != shortcut.bootstrap || again.data_root != shortcut.data_root ||
      again.game_id != shortcut.game_id || again.name != shortcut.name)
    std::abort();
  return 0;
}
