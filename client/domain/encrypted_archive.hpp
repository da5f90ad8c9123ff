#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string_view>

#include "client/domain/authenticated_chunks.hpp"

namespace zorvi {

// The encrypted archive "zorvi-chacha20-poly1305-v1": a 96-byte header, then
// the plaintext in chunks of 65,536 bytes (the last may be short), each sealed
// as its own record.
//
// Header: the format name padded with zero bytes to 32; the plaintext length,
// 64-bit big-endian; a 12-byte random nonce base; 28 zero bytes; and the tag
// of an empty record under the nonce base whose associated data is those first
// 80 bytes. Chunk i takes the nonce base with i + 1 (64-bit big-endian) XORed
// into its last 8 bytes, and the same 80 bytes as associated data: the header
// is bound into every chunk, and a chunk cannot move to another place.
inline constexpr std::string_view encrypted_archive_format = "zorvi-chacha20-poly1305-v1";
inline constexpr std::size_t encrypted_archive_header = 96;
inline constexpr std::size_t encrypted_archive_chunk = 65536;
inline constexpr std::uint64_t max_encrypted_archive_plaintext = std::uint64_t{1} << 42;

// Size of the archive of `plaintext` bytes; `size_limit` above the bound.
std::uint64_t encrypted_archive_length(std::uint64_t plaintext);

// Decrypts an archive file chunk by chunk. `sink` receives each chunk's
// plaintext only after that chunk has been authenticated; the buffer is
// reused for the next chunk and wiped at the end.
using PlaintextSink = std::function<void(std::span<const std::uint8_t>)>;
void decrypt_archive_file(const std::filesystem::path& path, AeadKey key, const PlaintextSink& sink);

}  // namespace zorvi
