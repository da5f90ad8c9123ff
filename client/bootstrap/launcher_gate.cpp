#include "client/bootstrap/launcher_gate.hpp"

#include "client/app/launcher.hpp"
#include "client/domain/error.hpp"
#include "client/domain/json.hpp"

namespace zorvi {

void require_startable_launcher(const std::filesystem::path& data_root) {
  // Opened read-only and let go within this statement: the helper never
  // holds the store, so it never stands in the way of the bootstrap that
  // changes its state.
  const json status = LauncherStore::existing(data_root).status();
  require(!status.at("active").is_null() || !status.at("candidate").is_null(), "launcher_missing",
          "Install a verified launcher in this profile before opening its shortcut");
}

}  // namespace zorvi
