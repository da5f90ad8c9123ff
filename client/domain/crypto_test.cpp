#include "client/domain/crypto.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <set>
#include <string>
#include <thread>
#include <tuple>
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

// "code: message" of the Error that `action` raises, or "ok".
template <typename Action>
std::string outcome(Action&& action) {
  try {
    action();
    return "ok";
  } catch (const Error& error) {
    return error.code + ": " + error.what();
  }
}

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

TEST(Hex, UnhexBoundsTheTextAndReadsEitherCase) {
  const std::vector<std::tuple<std::string, std::size_t, std::string>> cases = {
      {"ABcd", 4, "ok abcd"},
      {"ABcd", 3, "invalid_hex: Invalid hexadecimal data"},
      {"abc", 8, "invalid_hex: Invalid hexadecimal data"},
      {"", 0, "ok "},
      {"f0", 2, "ok f0"},
      {"0123456789abcdefABCDEF", 22, "ok 0123456789abcdefabcdef"},
  };
  for (const auto& [text, maximum, expected] : cases) {
    std::string result;
    const std::string failure = outcome([&] { result = "ok " + hex(unhex(text, maximum)); });
    EXPECT_EQ(failure == "ok" ? result : failure, expected) << text << " under " << maximum;
  }
  // The characters right beside each accepted range, in either place of a pair.
  for (const char c : std::string("/:@G`g \0\xff", 9)) {
    for (const std::string& text : {std::string("0") + c, std::string(1, c) + "0"})
      EXPECT_EQ(outcome([&] { unhex(text, 2); }), "invalid_hex: Invalid hexadecimal character")
          << static_cast<int>(c);
  }
}

TEST(Hex, AllByteValuesRoundTripAsPythonWritesThem) {
  std::vector<std::uint8_t> bytes(256);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i);
  const std::string expected = testing::run_python("print(bytes(range(256)).hex(), end='')");
  EXPECT_EQ(hex(bytes), expected);
  std::string upper = expected;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  EXPECT_EQ(unhex(upper, 512), bytes);
}

TEST(Digest, OnlyTheTwoExactAlgorithmNamesAreKnown) {
  EXPECT_EQ(algorithm("sha256"), EVP_sha256());
  EXPECT_EQ(algorithm("sha512"), EVP_sha512());
  const testing::TempDir directory;
  testing::write_text(directory / "file", "x");
  const std::string refused = "unsupported_hash: Only SHA-256 and SHA-512 hashes are supported";
  const std::vector<std::string_view> names = {"SHA256", "sha-256", "Sha512", "sha384", "sha1", "", " sha256",
                                               std::string_view("sha256\0", 7)};
  for (const std::string_view name : names) {
    EXPECT_EQ(outcome([&] { digest("x", name); }), refused) << name;
    EXPECT_EQ(outcome([&] { DigestState state(name); }), refused) << name;
    EXPECT_EQ(outcome([&] { digest_file(directory / "file", name); }), refused) << name;
  }
}

TEST(Digest, MatchesPythonHashlib) {
  const testing::TempDir directory;
  const std::vector<std::string> contents = {"", "abc", std::string("a\0b\xff", 4), pattern(200001)};
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < contents.size(); ++i) {
    paths.push_back((directory / std::to_string(i)).string());
    testing::write_text(paths.back(), contents[i]);
  }
  const std::string expected = testing::run_python(
      "import hashlib, sys\n"
      "for p in sys.argv[1:]:\n"
      "    d = open(p, 'rb').read()\n"
      "    print(hashlib.sha256(d).hexdigest(), hashlib.sha512(d).hexdigest())\n",
      paths);
  std::string actual;
  for (const auto& content : contents) actual += digest(content, "sha256") + " " + digest(content, "sha512") + "\n";
  EXPECT_EQ(actual, expected);
}

TEST(DigestState, ValueCanBeReadAtAnyPointWithoutEndingTheHash) {
  for (const std::string name : {"sha256", "sha512"}) {
    DigestState state(name);
    state.update("a");
    EXPECT_EQ(state.value(), digest("a", name));
    state.update("b");
    EXPECT_EQ(state.value(), digest("ab", name));
    EXPECT_EQ(state.value(), digest("ab", name));

    const std::string content = pattern(300007);
    DigestState pieces(name);
    for (std::size_t at = 0, step = 1; at < content.size(); at += step, step = step * 3 + 1)
      pieces.update(std::string_view(content).substr(at, step));
    pieces.update("");
    EXPECT_EQ(pieces.value(), digest(content, name));
  }
}

TEST(DigestFile, MatchesCoreutilsAroundTheBufferSize) {
  const testing::TempDir directory;
  for (const std::size_t size : {0, 1, 65535, 65536, 65537, 3 * 65536 + 5}) {
    const auto path = directory / std::to_string(size);
    testing::write_text(path, pattern(size));
    for (const std::string name : {"sha256", "sha512"})
      EXPECT_EQ(digest_file(path, name), coreutils_digest(name, path)) << size << " " << name;
  }
}

TEST(DigestFile, CallbackRunsBeforeTheFirstReadAndAfterEveryRead) {
  const testing::TempDir directory;
  const std::vector<std::pair<std::uint64_t, std::vector<Call>>> cases = {
      {0, {{0, 0}, {0, 0}}},
      {10, {{0, 10}, {10, 10}}},
      {65536, {{0, 65536}, {65536, 65536}, {65536, 65536}}},
      {65537, {{0, 65537}, {65536, 65537}, {65537, 65537}}},
      {131072, {{0, 131072}, {65536, 131072}, {131072, 131072}, {131072, 131072}}},
  };
  for (const auto& [size, expected] : cases) {
    const auto path = directory / std::to_string(size);
    testing::write_text(path, pattern(size));
    std::vector<Call> calls;
    const std::string value = digest_file_progress(path, "sha256", [&](std::uint64_t done, std::uint64_t total) {
      calls.emplace_back(done, total);
      return true;
    });
    EXPECT_EQ(calls, expected) << size;
    EXPECT_EQ(value, coreutils_digest("sha256", path)) << size;
  }
}

TEST(DigestFile, CancellingStopsAtThatCall) {
  const testing::TempDir directory;
  const auto path = directory / "file";
  testing::write_text(path, pattern(2 * 65536 + 1));
  for (const std::size_t stop_at : {1, 2, 4}) {
    std::size_t calls = 0;
    const auto progress = [&](std::uint64_t, std::uint64_t) { return ++calls < stop_at; };
    EXPECT_EQ(outcome([&] { digest_file_progress(path, "sha512", progress); }),
              "cancelled: File verification cancelled");
    EXPECT_EQ(calls, stop_at);
  }
}

TEST(DigestFile, GrowthPastTheSizeAtTheStartIsAMismatchWithACallback) {
  const testing::TempDir directory;
  const auto path = directory / "file";
  testing::write_text(path, pattern(1000));
  std::vector<Call> calls;
  const auto grow = [&](std::uint64_t done, std::uint64_t total) {
    calls.emplace_back(done, total);
    if (calls.size() == 1) testing::write_text(path, pattern(1001));
    return true;
  };
  EXPECT_EQ(outcome([&] { digest_file_progress(path, "sha256", grow); }),
            "content_mismatch: File grew beyond its verification bound");
  EXPECT_EQ(calls, (std::vector<Call>{{0, 1000}}));
}

// Without a callback there is no bound: a pipe, whose size is never known,
// is hashed to its end however its writer splits the bytes.
TEST(DigestFile, WithoutACallbackEverythingUpToTheEndIsHashed) {
  const testing::TempDir directory;
  const auto path = directory / "pipe";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  ::signal(SIGPIPE, SIG_IGN);  // a failing reader must not take the test down
  const std::string content = pattern(300000);
  std::thread writer([&] {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    for (std::size_t at = 0; fd >= 0 && at < content.size(); at += 1000)
      if (::write(fd, content.data() + at, 1000) != 1000) break;
    ::close(fd);
  });
  std::string value;
  EXPECT_EQ(outcome([&] { value = digest_file(path, "sha256"); }), "ok");
  writer.join();
  EXPECT_EQ(value, digest(content, "sha256"));
}

TEST(DigestFile, UnreadablePathsFailAsFileReads) {
  const testing::TempDir directory;
  const auto missing = directory / "missing file";
  EXPECT_EQ(outcome([&] { digest_file(missing, "sha256"); }),
            "file_read: Could not open file for verification: " + missing.string());
  EXPECT_EQ(outcome([&] { digest_file(directory.path(), "sha256"); }),
            "file_read: Error reading file during verification");
}

TEST(RandomId, IsThirtyTwoLowerCaseHexDigitsAndFresh) {
  std::set<std::string> seen;
  for (int i = 0; i < 64; ++i) {
    const std::string id = random_id();
    EXPECT_EQ(id.size(), 32u);
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 64u);
}

}  // namespace
}  // namespace zorvi
