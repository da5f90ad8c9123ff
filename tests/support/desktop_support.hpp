#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "client/platform/macos_shortcuts.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi::testing {

// A user's desktop in a temporary folder: HOME and XDG_DATA_HOME point into
// it for the object's life, and an installed tree stands in it whose
// bootstrap and helper are scripts that record their arguments and the
// opened document in "<their folder>/ran".
//   <dir>/Zorvi "Data" $HOME 100%/native/bootstrap/bin/zorvi-bootstrap
//   .../bin/ZorviShortcut.app/Contents/{Info.plist,MacOS/zorvi-shortcut}
class DesktopHome {
public:
  DesktopHome();
  ~DesktopHome();

  std::filesystem::path path() const { return dir_.path(); }
  std::filesystem::path data_home() const { return dir_ / "share"; }
  std::filesystem::path root() const { return dir_ / "Zorvi \"Data\" $HOME 100%"; }
  std::filesystem::path bootstrap() const { return root() / "native/bootstrap/bin/zorvi-bootstrap"; }
  DesktopShortcut shortcut(const std::string& game, const std::string& name = "Star Harbor") const {
    return {bootstrap(), root(), game, name};
  }

  // Another installed bootstrap with its helper, at <dir>/<folder>/bin.
  std::filesystem::path install(const std::string& folder) const;

private:
  std::optional<std::string> home_;
  std::optional<std::string> xdg_;
  TempDir dir_;
};

}  // namespace zorvi::testing
