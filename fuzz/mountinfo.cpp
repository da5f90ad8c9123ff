// The mount table reader: the first byte names the mount looked for, the rest
// is the table.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "client/platform/volume_facts.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const auto facts =
      zorvi::macos_paths::find_mount(std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1), data[0]);
  if (facts && facts->mount_id != data[0]) std::abort();
  return 0;
}
