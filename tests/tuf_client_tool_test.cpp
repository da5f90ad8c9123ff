// zorvi-tuf-client as outside suites run it: a real process against a
// python-tuf repository served over plain HTTP on the loopback interface.
#include <gtest/gtest.h>

#include "tests/support/files_support.hpp"
#include "tests/support/tuf_support.hpp"

namespace zorvi::testing {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

TEST(TufClientTool, InitRefreshDownloadAndRefuseWhatItCannotTrust) {
  TufRepository repository("consistent=1");  // its own server and trust folder stay unused
  for (const char* words : {"target a.bin 1000", "target dir/b.bin 70000"}) repository.run(words);
  const TempDir& dir = repository.dir;
  const std::string trust = dir / "tool-trust";
  // The tool's exit status and what it said on its standard error.
  const auto tool = [&](Names words) {
    words.insert(words.begin(), {binary_dir() / "zorvi-tuf-client", "--metadata-dir", trust});
    const CommandResult result = run_command(words);
    return std::to_string(result.status) + " " + result.err;
  };
  // init makes no request: no server runs yet.
  ASSERT_EQ(tool({"init", dir / "repo/metadata/1.root.json"}), "0 ");
  const HttpServer server(dir / "repo");
  const auto download = [&](const Names& names) {
    Names words{"--metadata-url",    server.base_url() + "metadata",
                "--target-base-url", server.base_url() + "targets",
                "--target-dir",      dir / "out"};
    for (const auto& name : names) words.insert(words.end(), {"--target-name", name});
    words.push_back("download");
    return words;
  };
  ASSERT_EQ(tool({"--metadata-url", server.base_url() + "metadata", "refresh"}), "0 ");
  EXPECT_TRUE(fs::exists(dir / "tool-trust/snapshot.json"));
  ASSERT_EQ(tool(download({"a.bin", "dir/b.bin"})), "0 ");
  EXPECT_EQ(modes(dir / "out"), "./a.bin 600\n./dir 700\n./dir/b.bin 600\n");
  EXPECT_EQ(read_text(dir / "out/dir/b.bin"), read_text(dir / "repo/targets/dir/b.bin"));

  // A target the repository never signed stops the download before the
  // next one, and leaves nothing behind.
  for (const char* name : {"out/a.bin", "out/dir/b.bin"}) fs::remove(dir / name);
  EXPECT_EQ(tool({"--metadata-url", "http://192.0.2.1/metadata", "refresh"}),
            "1 zorvi: Plain HTTP is allowed only for a loopback repository\n");
  EXPECT_EQ(tool(download({"nope/c.bin", "a.bin"})),
            "1 zorvi: Target is not authorized by the repository: nope/c.bin\n");
  EXPECT_EQ(modes(dir / "out"), "./dir 700\n");
}

}  // namespace
}  // namespace zorvi::testing
