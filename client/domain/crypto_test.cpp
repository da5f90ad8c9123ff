#include "client/domain/crypto.hpp"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using namespace testing;

using Calls = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

// OpenSSL set up as the client sets it up, before any test.
[[maybe_unused]] const bool runtime = (initialize_client_runtime(), true);

std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
  return bytes;
}

// Hexadecimal is read in either case and written in lower case as Python
// writes it, SHA-256 among it; a random id is 32 such digits and fresh each time.
TEST(Hex, ReadsEitherCaseWritesLowerCaseAsPythonDoesAndMakesFreshIds) {
  std::vector<std::uint8_t> bytes(256);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i);
  EXPECT_EQ(hex(bytes) + " " + digest(std::string(bytes.begin(), bytes.end()), "sha256"),
            run_python("import hashlib\nb = bytes(range(256))\nprint(b.hex(), hashlib.sha256(b).hexdigest(), end='')"));
  EXPECT_EQ(hex(unhex("09AFaf", 6)), "09afaf");  // each end of each range
  const std::string id = random_id();
  EXPECT_TRUE(id.size() == 32 && hex(unhex(id, 32)) == id && random_id() != id) << id;
}

TEST(Crypto, FailuresCarryTheirCodeAndMessage) {
  const TempDir directory;
  const auto file = directory / "file";
  write_text(file, pattern(2 * 65536 + 1));
  expect_outcomes({
      {[] { unhex("ABcd", 3); }, "invalid_hex: Invalid hexadecimal data"},  // the bound counts characters
      {[&] { digest_file(directory / "absent", "sha256"); },
       "file_read: Could not open file for verification: " + (directory / "absent").string()},
      {[&] { digest_file(directory.path(), "sha256"); }, "file_read: Error reading file during verification"},
      {[&] { digest_file(file, std::string_view("sha256\0", 7)); },
       "unsupported_hash: Only SHA-256 and SHA-512 hashes are supported"},
  });
  // The characters right beside each accepted range.
  for (const char c : std::string("/:@G`g \0\xff", 9))
    EXPECT_EQ(outcome([&] { unhex(std::string("0") + c, 2); }), "invalid_hex: Invalid hexadecimal character") << int(c);
  // The callback runs before the first read and after each: cancelling stops at that call.
  std::size_t calls = 0;
  EXPECT_EQ(outcome([&] { digest_file_progress(file, "sha512", [&](auto, auto) { return ++calls < 2; }); }),
            "cancelled: File verification cancelled");
  EXPECT_EQ(calls, 2u);
  // A file that grows past its size at the start is a mismatch once the reads pass that size.
  Calls seen;
  const auto grow = [&](std::uint64_t done, std::uint64_t total) {
    if (seen.empty()) write_text(file, pattern(2 * 65536 + 2));
    return seen.emplace_back(done, total), true;
  };
  EXPECT_EQ(outcome([&] { digest_file_progress(file, "sha256", grow); }),
            "content_mismatch: File grew beyond its verification bound");
  EXPECT_EQ(seen, (Calls{{0, 131073}, {65536, 131073}, {131072, 131073}}));
}

// Around the 64 KiB buffer, from files and step by step, as in memory (which
// Python's hashlib and OpenSSL's command check in the manifest and signature
// tests); the callback runs before the first read and after every read, the
// empty read at the end included.
TEST(Digest, FilesAndStepsMatchMemoryWithTheCallbackAtEveryRead) {
  const TempDir directory;
  const std::vector<std::pair<std::uint64_t, Calls>> cases = {
      {0, {{0, 0}, {0, 0}}},
      {65536, {{0, 65536}, {65536, 65536}, {65536, 65536}}},
      {65537, {{0, 65537}, {65536, 65537}, {65537, 65537}}},
  };
  for (const auto& [size, expected] : cases) {
    const auto path = directory / std::to_string(size);
    const std::string content = pattern(size);
    write_text(path, content);
    for (const std::string name : {"sha256", "sha512"}) {
      Calls calls;
      const auto record = [&](std::uint64_t done, std::uint64_t total) {
        return calls.emplace_back(done, total), true;
      };
      EXPECT_EQ(digest_file_progress(path, name, record), digest(content, name)) << size;
      EXPECT_EQ(calls, expected) << size;
      // The value can be read at any point without ending the hash.
      DigestState state(name);
      state.update(content.substr(0, size / 2));
      EXPECT_EQ(state.value(), digest(content.substr(0, size / 2), name));
      state.update(content.substr(size / 2));
      EXPECT_EQ(state.value(), digest(content, name));
    }
  }
  // Files of /proc claim a size of 0: without a callback nothing bounds the read.
  EXPECT_EQ(digest_file("/proc/version", "sha512"), digest(read_text("/proc/version"), "sha512"));
}

}  // namespace
}  // namespace zorvi
