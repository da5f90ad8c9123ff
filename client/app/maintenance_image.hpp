#pragma once

#include <filesystem>

namespace zorvi {

// Refuses an image that runs from a temporary maintenance copy (a directory
// named "zorvi-maintenance-..." above it): such a copy only ever does the
// maintenance it was made for and never starts Zorvi.
void require_maintenance_runtime_image(const std::filesystem::path& image);

}  // namespace zorvi
