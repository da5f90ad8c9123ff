#pragma once

#include <filesystem>

namespace zorvi {

// Refuses a profile whose launcher store names neither an active nor a
// candidate launcher, so that no bootstrap is started only to find nothing
// to run. Failures of the store itself pass through as they are.
void require_startable_launcher(const std::filesystem::path& data_root);

}  // namespace zorvi
