// Snapshot manifests as they arrive: bytes through the strict reader.
#include <cstdint>
#include <string_view>

#include "client/domain/error.hpp"
#include "client/domain/json.hpp"
#include "client/domain/manifest.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    const auto manifest = zorvi::SnapshotManifest::parse(
        zorvi::parse_json(std::string_view(reinterpret_cast<const char*>(data), size), size));
    static_cast<void>(manifest.longest_native_path());
  } catch (const zorvi::Error&) {
  }
  return 0;
}
