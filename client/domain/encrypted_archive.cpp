#include "client/domain/encrypted_archive.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <openssl/crypto.h>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/read_ahead.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/full_io.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

constexpr std::size_t name_field = 32;
constexpr std::size_t length_offset = 32;
constexpr std::size_t nonce_offset = 40;
constexpr std::size_t sealed_header = 80;  // the part the header tag and every chunk authenticate

using Header = std::array<std::uint8_t, encrypted_archive_header>;
using Nonce = std::array<std::uint8_t, aead_nonce_size>;

// One plaintext chunk, wiped when the buffer goes.
struct PlaintextBuffer {
  std::array<std::uint8_t, encrypted_archive_chunk> bytes;
  ~PlaintextBuffer() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

constexpr std::size_t record_size = encrypted_archive_chunk + aead_tag_size;
constexpr std::size_t records_per_batch = 16;
constexpr std::size_t batch_slots = 4;

// Reads exactly `size` bytes unless the file ends first; the count read.
std::size_t read_archive(int descriptor, void* buffer, std::size_t size, const std::filesystem::path& path) {
  const FullRead got = read_full(descriptor, buffer, size);
  if (got.error != 0)
    throw Error("file_read", with_errno("Cannot read encrypted archive: " + path_utf8(path), got.error));
  return got.count;
}

struct ParsedHeader {
  std::uint64_t plaintext = 0;
  Nonce nonce_base{};
};

ParsedHeader parse_header(const Header& header, AeadKey key) {
  const bool named = std::equal(encrypted_archive_format.begin(), encrypted_archive_format.end(), header.begin()) &&
                     std::all_of(header.begin() + encrypted_archive_format.size(), header.begin() + name_field,
                                 [](std::uint8_t b) { return b == 0; }) &&
                     std::all_of(header.begin() + nonce_offset + aead_nonce_size, header.begin() + sealed_header,
                                 [](std::uint8_t b) { return b == 0; });
  require(named, "encrypted_format", "Encrypted archive header is not of the known format");
  ParsedHeader parsed;
  for (std::size_t i = 0; i < 8; ++i) parsed.plaintext = parsed.plaintext << 8 | header[length_offset + i];
  std::copy_n(header.begin() + nonce_offset, aead_nonce_size, parsed.nonce_base.begin());
  // An empty record under the nonce base: a wrong key or a changed header
  // fails here, before any chunk is read.
  const std::string_view view(reinterpret_cast<const char*>(header.data()), header.size());
  decrypt_chacha20_poly1305(key, parsed.nonce_base, view.substr(0, sealed_header), view.substr(sealed_header), {}, 0);
  return parsed;
}

Nonce chunk_nonce(const Nonce& base, std::uint64_t index) {
  Nonce nonce = base;
  const std::uint64_t counter = index + 1;
  for (std::size_t i = 0; i < 8; ++i) nonce[aead_nonce_size - 1 - i] ^= static_cast<std::uint8_t>(counter >> (8 * i));
  return nonce;
}

std::uint64_t file_size(int descriptor, const std::filesystem::path& path) {
  struct stat status{};
  if (::fstat(descriptor, &status) != 0)
    throw Error("file_read", with_errno("Cannot inspect encrypted archive: " + path_utf8(path), errno));
  require(S_ISREG(status.st_mode), "file_read", "Encrypted archive is not a regular file: " + path_utf8(path));
  return static_cast<std::uint64_t>(status.st_size);
}

// Reads the records ahead on a thread of its own while the caller decrypts,
// so that the copy out of the page cache and the cipher overlap instead of
// taking turns. Batches of whole records pass through a small ring.
ReadAhead record_reader(int descriptor, const std::filesystem::path& path, std::uint64_t record_bytes) {
  return ReadAhead(batch_slots, records_per_batch * record_size,
                   [descriptor, &path, left = record_bytes](char* bytes, std::size_t capacity) mutable {
                     if (left == 0) {
                       char extra = 0;
                       require(read_archive(descriptor, &extra, 1, path) == 0, "encrypted_format",
                               "Encrypted archive length differs from its header");
                       return std::size_t{0};
                     }
                     const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(left, capacity));
                     require(read_archive(descriptor, bytes, want, path) == want, "encrypted_format",
                             "Encrypted archive length differs from its header");
                     left -= want;
                     return want;
                   });
}

}  // namespace

std::uint64_t encrypted_archive_length(std::uint64_t plaintext) {
  require(plaintext <= max_encrypted_archive_plaintext, "size_limit", "Encrypted archive exceeds its size bound");
  const std::uint64_t chunks = (plaintext + encrypted_archive_chunk - 1) / encrypted_archive_chunk;
  return encrypted_archive_header + plaintext + chunks * aead_tag_size;
}

void decrypt_archive_file(const std::filesystem::path& path, AeadKey key, const PlaintextSink& sink) {
  UniqueFd file(retry_on_eintr([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  if (!file) throw Error("file_read", with_errno("Cannot open encrypted archive: " + path_utf8(path), errno));
  const std::uint64_t size = file_size(file.get(), path);

  Header header{};
  require(size >= header.size() && read_archive(file.get(), header.data(), header.size(), path) == header.size(),
          "encrypted_format", "Encrypted archive is shorter than its header");
  const ParsedHeader parsed = parse_header(header, key);
  const std::string_view associated(reinterpret_cast<const char*>(header.data()), sealed_header);
  require(size == encrypted_archive_length(parsed.plaintext), "encrypted_format",
          "Encrypted archive length differs from its header");

  const auto plaintext = std::make_unique<PlaintextBuffer>();
  ReadAhead reader = record_reader(file.get(), path, size - encrypted_archive_header);
  std::uint64_t done = 0;
  std::uint64_t index = 0;
  for (std::string_view batch = reader.next(); !batch.empty(); batch = reader.next()) {
    while (!batch.empty()) {
      const auto chunk =
          static_cast<std::size_t>(std::min<std::uint64_t>(parsed.plaintext - done, encrypted_archive_chunk));
      const std::size_t record = chunk + aead_tag_size;
      decrypt_chacha20_poly1305(key, chunk_nonce(parsed.nonce_base, index), associated, batch.substr(0, record),
                                plaintext->bytes, chunk);
      sink(std::span<const std::uint8_t>(plaintext->bytes.data(), chunk));
      batch.remove_prefix(record);
      done += chunk;
      ++index;
    }
  }
}

}  // namespace zorvi
