#include "client/app/bootstrap_update.hpp"

#include "client/platform/files.hpp"

namespace zorvi {

// The manifest of the staged tree is written last, so its presence alone
// means a whole update is staged.
bool bootstrap_update_pending(const std::filesystem::path& data_dir) {
  return entry_present(data_dir / "native/bootstrap-update.json");
}

}  // namespace zorvi
