// Snapshot extraction over archive bytes. The manifest is fixed (two small
// files) but names the input's own length and digest, so every input passes
// the archive check and reaches the decoder and the tar reader. Each run
// works in a fresh scratch folder and removes it.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <unistd.h>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/json.hpp"
#include "client/domain/manifest.hpp"
#include "client/domain/snapshot.hpp"

namespace {

const std::filesystem::path scratch =
    std::filesystem::temp_directory_path() / ("zorvi-fuzz-archive-" + std::to_string(::getpid()));

zorvi::SnapshotManifest manifest_for(std::string_view archive) {
  const auto file = [](const char* path, std::string_view content, int mode) {
    return zorvi::json{
        {"path", path}, {"length", content.size()}, {"mode", mode}, {"sha256", zorvi::digest(content, "sha256")}};
  };
  return zorvi::SnapshotManifest::parse(
      {{"schema_version", 1},
       {"build_id", "fuzz-1"},
       {"platform", "linux-x86_64"},
       {"executable", "bin/game"},
       {"archive",
        {{"format", "tar.zst-v1"},
         {"target", "fuzz.tar.zst"},
         {"length", archive.size()},
         {"sha256", zorvi::digest(archive, "sha256")}}},
       {"files", {file("bin/game", "#!/bin/sh\n", 0755), file("data/a", "alpha", 0644)}},
       {"expanded_length", 15}});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::filesystem::remove_all(scratch);
  std::filesystem::create_directory(scratch);
  std::ofstream(scratch / "fuzz.tar.zst", std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(size));
  try {
    zorvi::extract_snapshot(manifest_for(bytes), scratch / "fuzz.tar.zst", scratch / "staging", zorvi::Progress(),
                            nullptr);
  } catch (const zorvi::Error&) {
  }
  std::filesystem::remove_all(scratch);
  return 0;
}
