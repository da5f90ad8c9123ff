#include "client/app/maintenance_image.hpp"

#include <string>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"

namespace zorvi {

namespace {
constexpr std::string_view maintenance_copy_prefix = "zorvi-maintenance-";
}

void require_maintenance_runtime_image(const std::filesystem::path& image) {
  // A path has finitely many components, so the walk ends at its root.
  for (std::filesystem::path folder = image.parent_path(); folder.has_relative_path(); folder = folder.parent_path()) {
    const std::string name = path_utf8(folder.filename());
    require(!name.starts_with(maintenance_copy_prefix), "maintenance_copy",
            "A temporary maintenance helper cannot start Zorvi");
  }
}

}  // namespace zorvi
