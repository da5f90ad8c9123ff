#pragma once

#include <filesystem>
#include <memory>

#include "client/platform/native_lock.hpp"

namespace zorvi {

// Refuses a data folder in which an install or uninstall did not finish.
void require_complete_native_install(const std::filesystem::path& data_root);

// Refuses an image that stands anywhere below an unfinished data folder or
// an unfinished package.
void require_complete_native_install_image(const std::filesystem::path& image);

// The data folder an installed bootstrap or helper image belongs to, known
// from the image's place alone.
std::filesystem::path installed_data_root(const std::filesystem::path& image);

// The shared lifetime lock of the installation that `image` belongs to; a
// process running a bootstrap image holds it for its whole life, so no
// update replaces the image under it.
std::unique_ptr<NativeFileLock> bootstrap_lifetime(const std::filesystem::path& image);

}  // namespace zorvi
