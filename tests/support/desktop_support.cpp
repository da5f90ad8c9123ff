#include "tests/support/desktop_support.hpp"

#include <cstdlib>

#include "client/domain/identifier.hpp"

namespace zorvi::testing {
namespace {

constexpr const char* recorder = "#!/bin/sh\nprintf '%s\\n' \"$@\" \"$ZORVI_LAUNCH_DOCUMENT\" > \"${0%/*}/ran\"\n";

void executable(const std::filesystem::path& path) {
  std::filesystem::create_directories(path.parent_path());
  write_text(path, recorder);
  std::filesystem::permissions(path, std::filesystem::perms(0755));
}

void restore(const char* name, const std::optional<std::string>& value) {
  if (value) ::setenv(name, value->c_str(), 1);
  else ::unsetenv(name);
}

std::optional<std::string> saved(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::optional<std::string>(value) : std::nullopt;
}

}  // namespace

DesktopHome::DesktopHome() : home_(saved("HOME")), xdg_(saved("XDG_DATA_HOME")) {
  ::setenv("HOME", path().c_str(), 1);
  ::setenv("XDG_DATA_HOME", data_home().c_str(), 1);
  (void)install(path_utf8(bootstrap().parent_path().parent_path().lexically_relative(path())));
}

DesktopHome::~DesktopHome() {
  restore("XDG_DATA_HOME", xdg_);
  restore("HOME", home_);
}

std::filesystem::path DesktopHome::install(const std::string& folder) const {
  const std::filesystem::path bin = dir_ / folder / "bin";
  executable(bin / "zorvi-bootstrap");
  executable(bin / "ZorviShortcut.app/Contents/MacOS/zorvi-shortcut");
  write_text(bin / "ZorviShortcut.app/Contents/Info.plist", "");
  return bin / "zorvi-bootstrap";
}

}  // namespace zorvi::testing
