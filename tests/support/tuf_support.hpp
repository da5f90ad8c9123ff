#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "client/tuf/tuf.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi::testing {

// Serves the files below a folder as a repository would: 404 for a missing
// file, or the answer `status` forces for one name.
class DirectoryTransport : public Transport {
public:
  explicit DirectoryTransport(std::filesystem::path root) : root_(std::move(root)) {}
  HttpResponse get(std::string_view path, std::uint64_t limit) override;
  void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t limit,
                const Progress& progress) override;
  bool supports_resumption() const override { return true; }
  void download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset, const Progress& progress,
                     const ByteSink& on_bytes, const RestartHook& on_restart) override;

  std::map<std::string, long> status;
  bool ignore_ranges = false;  // answers a resume with the whole file, as some servers do

private:
  std::filesystem::path root_;
};

// A repository made by tests/tuf_repository.py, and a trust folder that
// starts from its first root.
struct TufRepository {
  explicit TufRepository(const std::vector<std::string>& build = {});
  void run(const std::vector<std::string>& command) const;  // one more fixture-script command
  TufClient client(std::uint64_t rotations = 8, std::uint64_t delegations = 8);

  TempDir dir;
  std::filesystem::path repo = dir / "repo", trust = dir / "trust", out = dir / "out";
  DirectoryTransport metadata{repo / "metadata"}, targets{repo / "targets"};
};

}  // namespace zorvi::testing
