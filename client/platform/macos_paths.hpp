#pragma once

#include <filesystem>
#include <string>

namespace zorvi::macos_paths {

// One text per place on one volume, equal for two paths exactly when they
// name the same place, so containment and overlap are decided by comparing
// keys. A key can be made for a path that does not exist yet; it comes from
// the nearest existing ancestor and stays the same once the path is created.
// Making a key is also a check: linked ancestry, a volume that is not a
// local disk, and anything that moves while it is inspected are refused.
std::string path_key(const std::filesystem::path& path);       // the last component may be a file
std::string directory_key(const std::filesystem::path& path);  // every existing component is a directory

}  // namespace zorvi::macos_paths
