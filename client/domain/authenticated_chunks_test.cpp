#include "client/domain/authenticated_chunks.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "client/domain/crypto.hpp"
#include "client/domain/encrypted_archive.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

const std::string key_hex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
const std::vector<std::uint8_t> key_bytes = unhex(key_hex, 64);
const AeadKey key(key_bytes.data(), aead_key_size);
constexpr std::size_t record = encrypted_archive_chunk + aead_tag_size;

// Writes an archive with Python's cryptography; gives the SHA-256 of its plaintext.
std::string make_archive(const std::filesystem::path& path, std::uint64_t size) {
  const auto script = (testing::source_dir() / "tests/encrypted_archive.py").string();
  return testing::run_command({"python3", script, path.string(), key_hex, std::to_string(size)}).out.substr(0, 64);
}

// Decrypts into `plain`; the SHA-256 of what came out.
std::string decrypt(const std::filesystem::path& path, std::string& plain) {
  decrypt_archive_file(path, key,
                       [&](auto bytes) { plain.append(reinterpret_cast<const char*>(bytes.data()), bytes.size()); });
  return digest(plain, "sha256");
}

TEST(Pbkdf2Sha256, MatchesPublishedVectorsAndPython) {
  const auto derive = [](std::string_view password, std::string_view salt, std::uint32_t iterations) {
    return hex(pbkdf2_sha256(password, {reinterpret_cast<const std::uint8_t*>(salt.data()), salt.size()}, iterations));
  };
  // RFC 7914, section 11: the first 32 bytes of its first result.
  EXPECT_EQ(derive("passwd", "salt", 1), "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc");
  const std::string longest(4096, 'k');
  EXPECT_EQ(derive(longest, longest, 1000) + "\n" + derive("", "", 2) + "\n",
            testing::run_python("import hashlib, sys\nfor k, n in ((sys.argv[1].encode(), 1000), (b'', 2)):\n"
                                "  print(hashlib.pbkdf2_hmac('sha256', k, k, n).hex())",
                                {longest}));
}

// Archives written by Python decrypt chunk by chunk: with a short last chunk,
// with every chunk full and more of them than the reader may run ahead, and
// with none. Then the failures, on the two-chunk one: rows that open a record
// start from a full output buffer and must leave it wiped, or untouched when
// refused for its bounds; rows that read the archive must have handed out no
// plaintext past the last chunk proved.
TEST(AuthenticatedChunks, PythonArchivesDecryptAndFailuresReleaseNothingUnproved) {
  const testing::TempDir dir;
  for (const auto& [name, size] :
       std::vector<std::pair<std::string, std::uint64_t>>{{"a", 65546}, {"big", 100 * 65536}, {"empty", 0}}) {
    const std::string expected = make_archive(dir / name, size);
    std::string plain;
    EXPECT_EQ(decrypt(dir / name, plain), expected) << size;
  }
  const auto flip = [](std::string text, std::size_t at, char mask = 4) { return text[at] ^= mask, text; };
  const std::string file = testing::read_text(dir / "a"), chunk = file.substr(96, record), aad = file.substr(0, 80);
  const std::string nonce = flip(file.substr(40, 12), 11, 1);  // the first chunk's
  std::vector<std::uint8_t> output;
  std::string released;
  const auto open = [&](std::string associated, std::string sealed, std::size_t size, std::size_t expected,
                        std::string used = {}) {
    return [&, associated, sealed, size, expected, used] {
      output.assign(size, 0xAA);
      const auto bytes = reinterpret_cast<const std::uint8_t*>((used.empty() ? nonce : used).data());
      decrypt_chacha20_poly1305(key, AeadNonce(bytes, 12), associated, sealed, output, expected);
    };
  };
  const auto archive = [&](std::string content) {
    return [&, content] { testing::write_text(dir / "b", content), decrypt(dir / "b", released); };
  };
  const std::string bound = "encrypted_format: AEAD record or associated data exceeds its bound";
  const std::string auth = "authentication_failed: Encrypted chunk authentication failed";
  const std::string derivation = "crypto_failure: Key derivation input exceeds its bound";
  const std::tuple<std::function<void()>, std::string, std::size_t> rows[] = {
      {open(aad, chunk.substr(0, 15), 15, 0), bound, 0},
      {open(std::string(4097, 'a'), chunk, record, 65536), bound, 0},
      {open(aad, chunk, 65535, 65536), bound, 0},
      {open(std::string(4096, 'a'), chunk, record, 65536), auth, 0},  // within the bound, and authenticated
      {open(aad, flip(chunk, 7), record, 65536), auth, 0},
      {open(aad, chunk, record, 65536, flip(nonce, 0)), auth, 0},
      {open(aad, chunk, record, 65537), "crypto_failure: Authenticated chunk length differs", 0},
      {[] { pbkdf2_sha256("p", {}, 0); }, derivation, 0},
      {[] { pbkdf2_sha256(std::string(4097, 'p'), {}, 1); }, derivation, 0},
      {archive(flip(file, file.size() - 1)), auth, 65536},  // the second chunk's tag
      {archive(flip(testing::read_text(dir / "big"), 96 + record - 1)), auth, 0},
      {archive(file.substr(0, 95)), "encrypted_format: Encrypted archive is shorter than its header", 0},
      {archive("Z" + file.substr(1)), "encrypted_format: Encrypted archive header is not of the known format", 0},
      {archive(file + "x"), "encrypted_format: Encrypted archive length differs from its header", 0},
      {[] { encrypted_archive_length((std::uint64_t{1} << 42) + 1); },
       "size_limit: Encrypted archive exceeds its size bound", 0},
  };
  for (const auto& [action, result, plaintext] : rows) {
    output.clear(), released.clear();
    const std::string got = testing::outcome(action);
    const bool kept = std::ranges::count(output, result == bound ? 0xAA : 0) == std::ssize(output);
    EXPECT_EQ((std::tuple{got, kept, released.size()}), (std::tuple{result, true, plaintext}));
  }
}

}  // namespace
}  // namespace zorvi
