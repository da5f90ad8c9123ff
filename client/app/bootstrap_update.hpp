#pragma once

#include <filesystem>

namespace zorvi {

// Whether a staged bootstrap update waits for the next bootstrap start.
bool bootstrap_update_pending(const std::filesystem::path& data_dir);

}  // namespace zorvi
