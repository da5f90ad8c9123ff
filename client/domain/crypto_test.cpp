#include "client/domain/crypto.hpp"

#include <algorithm>
#include <cctype>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using Call = std::pair<std::uint64_t, std::uint64_t>;

class CryptoRuntime : public ::testing::Environment {
  void SetUp() override { initialize_client_runtime(); }
};
const auto* const runtime = ::testing::AddGlobalTestEnvironment(new CryptoRuntime);

using testing::outcome;

std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
  return bytes;
}

// The first word of `sha256sum FILE` or `sha512sum FILE`.
std::string coreutils_digest(const std::string& algorithm_name, const std::filesystem::path& path) {
  const auto result = testing::run_command({algorithm_name + "sum", path.string()});
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out.substr(0, result.out.find(' '));
}

TEST(Hex, ReadsEitherCaseWritesLowerCaseAsPythonDoes) {
  std::vector<std::uint8_t> bytes(256);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i);
  const std::string lower = testing::run_python("print(bytes(range(256)).hex(), end='')");
  EXPECT_EQ(hex(bytes), lower);
  std::string upper = lower;
  std::ranges::transform(upper, upper.begin(), ::toupper);
  EXPECT_EQ(unhex(upper, 512), bytes);
  EXPECT_EQ(hex(unhex("ABcd", 4)), "abcd");
  EXPECT_TRUE(unhex("", 0).empty());
}

// Every failure a caller can meet, with its exact code and message.
TEST(Crypto, FailuresCarryTheirCodeAndMessage) {
  const testing::TempDir directory;
  const auto file = directory / "file";
  testing::write_text(file, pattern(2 * 65536 + 1));
  const std::string data = "invalid_hex: Invalid hexadecimal data";
  const std::string character = "invalid_hex: Invalid hexadecimal character";
  const std::string unsupported = "unsupported_hash: Only SHA-256 and SHA-512 hashes are supported";
  const std::vector<std::pair<std::function<void()>, std::string>> rows = {
      {[] { unhex("ABcd", 3); }, data},  // the bound counts characters, not bytes
      {[] { unhex("abc", 8); }, data},
      {[&] { digest_file(directory / "missing file", "sha256"); },
       "file_read: Could not open file for verification: " + (directory / "missing file").string()},
      {[&] { digest_file(directory.path(), "sha256"); }, "file_read: Error reading file during verification"},
  };
  for (std::size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(outcome(rows[i].first), rows[i].second) << i;
  // The characters right beside each accepted range, in either place of a pair.
  for (const char c : std::string("/:@G`g \0\xff", 9))
    for (const std::string& text : {std::string("0") + c, std::string(1, c) + "0"})
      EXPECT_EQ(outcome([&] { unhex(text, 2); }), character) << static_cast<int>(c);
  // Only the two exact names, in every entry point.
  using namespace std::literals;
  for (const std::string_view name : {"SHA256"sv, "sha-256"sv, "Sha512"sv, "sha384"sv, ""sv, "sha256\0"sv}) {
    EXPECT_EQ(outcome([&] { digest("x", name); }), unsupported) << name;
    EXPECT_EQ(outcome([&] { DigestState state(name); }), unsupported) << name;
    EXPECT_EQ(outcome([&] { digest_file(file, name); }), unsupported) << name;
  }
  // The callback runs before the first read and after each: cancelling stops at that call.
  for (const std::size_t stop_at : {1, 2, 4}) {
    std::size_t calls = 0;
    EXPECT_EQ(outcome([&] { digest_file_progress(file, "sha512", [&](auto, auto) { return ++calls < stop_at; }); }),
              "cancelled: File verification cancelled");
    EXPECT_EQ(calls, stop_at);
  }
  // A file that grows past its size at the start is a mismatch once the reads pass that size.
  std::vector<Call> calls;
  const auto grow = [&](std::uint64_t done, std::uint64_t total) {
    calls.emplace_back(done, total);
    if (calls.size() == 1) testing::write_text(file, pattern(2 * 65536 + 2));
    return true;
  };
  EXPECT_EQ(outcome([&] { digest_file_progress(file, "sha256", grow); }),
            "content_mismatch: File grew beyond its verification bound");
  EXPECT_EQ(calls, (std::vector<Call>{{0, 2 * 65536 + 1}, {65536, 2 * 65536 + 1}, {131072, 2 * 65536 + 1}}));
}

// Around the 64 KiB buffer, in memory and from files, against coreutils; and
// the callback's calls: one before the first read and one after every read,
// the empty read at the end included.
TEST(Digest, MatchesCoreutilsWithTheCallbackAtEveryRead) {
  const testing::TempDir directory;
  const std::vector<std::pair<std::uint64_t, std::vector<Call>>> cases = {
      {0, {{0, 0}, {0, 0}}},
      {10, {{0, 10}, {10, 10}}},
      {65535, {{0, 65535}, {65535, 65535}}},
      {65536, {{0, 65536}, {65536, 65536}, {65536, 65536}}},
      {65537, {{0, 65537}, {65536, 65537}, {65537, 65537}}},
      {131072, {{0, 131072}, {65536, 131072}, {131072, 131072}, {131072, 131072}}},
  };
  for (const auto& [size, expected] : cases) {
    const auto path = directory / std::to_string(size);
    const std::string content = pattern(size);
    testing::write_text(path, content);
    for (const std::string name : {"sha256", "sha512"}) {
      const std::string reference = coreutils_digest(name, path);
      EXPECT_EQ(digest(content, name), reference) << size;
      EXPECT_EQ(digest_file(path, name), reference) << size;
      std::vector<Call> calls;
      const auto record = [&](std::uint64_t done, std::uint64_t total) {
        calls.emplace_back(done, total);
        return true;
      };
      EXPECT_EQ(digest_file_progress(path, name, record), reference) << size;
      EXPECT_EQ(calls, expected) << size;
    }
  }
  // Files of /proc claim a size of 0: without a callback nothing bounds the read.
  EXPECT_EQ(digest_file("/proc/version", "sha512"), coreutils_digest("sha512", "/proc/version"));
}

TEST(DigestState, ValueCanBeReadAtAnyPointWithoutEndingTheHash) {
  for (const std::string name : {"sha256", "sha512"}) {
    DigestState state(name);
    state.update("a");
    EXPECT_EQ(state.value(), digest("a", name));
    state.update("b");
    EXPECT_EQ(state.value(), digest("ab", name));
    EXPECT_EQ(state.value(), digest("ab", name));
  }
}

TEST(RandomId, IsThirtyTwoLowerCaseHexDigitsAndFresh) {
  std::set<std::string> seen;
  for (int i = 0; i < 64; ++i) {
    const std::string id = random_id();
    EXPECT_TRUE(id.size() == 32 && id.find_first_not_of("0123456789abcdef") == std::string::npos) << id;
    EXPECT_TRUE(seen.insert(id).second) << id;
  }
}

}  // namespace
}  // namespace zorvi
