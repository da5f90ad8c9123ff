// zorvi-tuf-client as outside suites run it: a real process against a
// python-tuf repository served over plain HTTP on the loopback interface.

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/https_server.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi::testing {
namespace {

namespace fs = std::filesystem;

CommandResult tool(std::vector<std::string> args) {
  args.insert(args.begin(), (binary_dir() / "zorvi-tuf-client").string());
  return run_command(args);
}

void fixture(const fs::path& repository, std::vector<std::string> words) {
  words.insert(words.begin(), {"python3", (source_dir() / "tests/tuf_repository.py").string(), repository.string()});
  const CommandResult result = run_command(words);
  ASSERT_EQ(result.status, 0) << result.err;
}

std::vector<std::string> listing(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(directory))
    names.push_back(fs::relative(entry.path(), directory).string());
  std::sort(names.begin(), names.end());
  return names;
}

struct Repository {
  Repository() {
    fixture(dir / "repo", {"build", "consistent=1"});
    fixture(dir / "repo", {"target", "a.bin", "1000"});
    fixture(dir / "repo", {"target", "dir/b.bin", "70000"});
  }
  std::vector<std::string> with_urls(const HttpServer& server, std::vector<std::string> words) const {
    words.insert(words.begin(),
                 {"--metadata-dir", (dir / "trust").string(), "--metadata-url", server.base_url() + "metadata"});
    return words;
  }
  std::vector<std::string> download(const HttpServer& server, const std::vector<std::string>& names) const {
    std::vector<std::string> words{"--target-base-url", server.base_url() + "targets", "--target-dir",
                                   (dir / "out").string()};
    for (const auto& name : names) words.insert(words.end(), {"--target-name", name});
    words.push_back("download");
    return with_urls(server, words);
  }
  TempDir dir;
};

TEST(TufClientTool, InitRefreshAndDownload) {
  const Repository repository;
  // init makes no request: no server runs yet.
  CommandResult result = tool({"--metadata-dir", (repository.dir / "trust").string(), "init",
                               (repository.dir / "repo/metadata/1.root.json").string()});
  ASSERT_EQ(result.status, 0) << result.err;
  const HttpServer server(repository.dir / "repo");
  result = tool(repository.with_urls(server, {"refresh"}));
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(fs::exists(repository.dir / "trust/snapshot.json"));

  result = tool(repository.download(server, {"a.bin", "dir/b.bin"}));
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(listing(repository.dir / "out"), (std::vector<std::string>{"a.bin", "dir", "dir/b.bin"}));
  EXPECT_EQ(read_text(repository.dir / "out/dir/b.bin"), read_text(repository.dir / "repo/targets/dir/b.bin"));

  // Targets already in place with the right hashes need no request: the
  // served copies are gone and the download still succeeds.
  fs::rename(repository.dir / "repo/targets", repository.dir / "moved");
  result = tool(repository.download(server, {"a.bin", "dir/b.bin"}));
  EXPECT_EQ(result.status, 0) << result.err;

  // A failure stops at the first bad target and leaves nothing of it behind.
  result = tool(repository.download(server, {"dir/b.bin", "nope/c.bin", "a.bin"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "zorvi: Target is not authorized by the repository: nope/c.bin\n");
  EXPECT_EQ(listing(repository.dir / "out"), (std::vector<std::string>{"a.bin", "dir", "dir/b.bin"}));
}

TEST(TufClientTool, RefusesWhatItCannotTrust) {
  const Repository repository;
  ASSERT_EQ(tool({"--metadata-dir", (repository.dir / "trust").string(), "init",
                  (repository.dir / "repo/metadata/1.root.json").string()})
                .status,
            0);
  // A served target longer than its signed length (its hash-named link is the same file).
  write_text(repository.dir / "repo/targets/a.bin", read_text(repository.dir / "repo/targets/a.bin") + "!");
  const HttpServer server(repository.dir / "repo");
  const std::string trust = (repository.dir / "trust").string();
  const std::string loopback_only = "zorvi: Plain HTTP is allowed only for a loopback repository\n";
  const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
      {{"--metadata-dir", trust, "--metadata-url", "http://192.0.2.1/metadata", "refresh"}, loopback_only},
      {repository.download(server, {"a.bin"}), "zorvi: Server length differs from the authenticated download bound\n"},
  };
  for (const auto& [args, expected] : rows) {
    const CommandResult result = tool(args);
    EXPECT_EQ(result.status, 1) << expected;
    EXPECT_EQ(result.err, expected);
  }
  EXPECT_TRUE(listing(repository.dir / "out").empty());
}

}  // namespace
}  // namespace zorvi::testing
