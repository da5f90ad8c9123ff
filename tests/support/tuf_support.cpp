#include "tests/support/tuf_support.hpp"

#include <gtest/gtest.h>

#include "client/platform/allocated_file.hpp"
#include "client/platform/files.hpp"

namespace zorvi::testing {

HttpResponse DirectoryTransport::get(std::string_view path, std::uint64_t limit) {
  if (const auto forced = status.find(std::string(path)); forced != status.end()) return {forced->second, ""};
  if (!std::filesystem::is_regular_file(root_ / path)) return {404, ""};
  return {200, read_file(root_ / path, limit)};
}

void DirectoryTransport::download(std::string_view path, const std::filesystem::path& destination,
                                  std::uint64_t limit, const Progress& progress) {
  AllocatedFile file(destination, limit, {});
  download_into(path, file, 0, progress, {}, {});
  file.finish(false);
}

void DirectoryTransport::download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset,
                                       const Progress& progress, const ByteSink& on_bytes,
                                       const RestartHook& on_restart) {
  const HttpResponse whole = get(path, 1ULL << 30);
  require(whole.status == 200, "http_status", "Download failed with status " + std::to_string(whole.status));
  if (offset > 0 && ignore_ranges) {
    file.restart();
    offset = 0;
    if (on_restart) on_restart();
  }
  for (std::size_t at = offset; at < whole.body.size(); at += 65536) {
    const std::string_view piece = std::string_view(whole.body).substr(at, 65536);
    file.write(piece);
    if (on_bytes) on_bytes(piece);
    if (progress && !progress(at + piece.size(), file.size()))
      throw Error("cancelled", "Transfer cancelled at a safe boundary");
  }
}

TufRepository::TufRepository(const std::vector<std::string>& build) {
  std::vector<std::string> command{"build"};
  command.insert(command.end(), build.begin(), build.end());
  run(command);
  TufClient::initialize(trust, read_text(repo / "metadata/1.root.json"));
}

void TufRepository::run(const std::vector<std::string>& command) const {
  std::vector<std::string> argv{"python3", (source_dir() / "tests/tuf_repository.py").string(), repo.string()};
  argv.insert(argv.end(), command.begin(), command.end());
  const CommandResult result = run_command(argv);
  ASSERT_EQ(result.status, 0) << result.err;
}

TufClient TufRepository::client(std::uint64_t rotations, std::uint64_t delegations) {
  return TufClient(trust, metadata, targets, {1 << 20, 1 << 16, 1 << 22, rotations, delegations}, {});
}

}  // namespace zorvi::testing
