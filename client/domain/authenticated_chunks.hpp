#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace zorvi {

inline constexpr std::size_t aead_key_size = 32;
inline constexpr std::size_t aead_nonce_size = 12;
inline constexpr std::size_t aead_tag_size = 16;
inline constexpr std::size_t max_associated_data = 4096;
// Plaintext sizes stay below this, so that a whole record, tag included,
// still fits the int lengths OpenSSL takes.
inline constexpr std::size_t chunk_plaintext_limit = 0x7FFFFFF0;

inline constexpr std::size_t max_key_derivation_input = 4096;

using AeadKey = std::span<const std::uint8_t, aead_key_size>;
using AeadNonce = std::span<const std::uint8_t, aead_nonce_size>;

// Opens one record, the ciphertext directly followed by its Poly1305 tag,
// into `output`, which must hold the ciphertext. The plaintext must be exactly
// `expected` bytes long. Once the bounds hold, any failure wipes all of
// `output`, so that plaintext that failed authentication never reaches the
// caller; a call refused for its bounds leaves `output` untouched.
void decrypt_chacha20_poly1305(AeadKey key, AeadNonce nonce, std::string_view associated, std::string_view record,
                               std::span<std::uint8_t> output, std::size_t expected);

// PBKDF2-HMAC-SHA256 with a 32-byte result.
std::array<std::uint8_t, 32> pbkdf2_sha256(std::string_view password, std::span<const std::uint8_t> salt,
                                           std::uint32_t iterations);

}  // namespace zorvi
