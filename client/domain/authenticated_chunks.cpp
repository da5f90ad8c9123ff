#include "client/domain/authenticated_chunks.hpp"

#include <climits>
#include <memory>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

struct CipherContextFree {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextFree>;

// Wipes the caller's buffer on the way out unless the decryption finished.
class WipeUnlessDone {
 public:
  explicit WipeUnlessDone(std::span<std::uint8_t> buffer) : buffer_(buffer) {}
  ~WipeUnlessDone() {
    if (!done_ && !buffer_.empty()) OPENSSL_cleanse(buffer_.data(), buffer_.size());
  }
  WipeUnlessDone(const WipeUnlessDone&) = delete;
  WipeUnlessDone& operator=(const WipeUnlessDone&) = delete;
  void done() { done_ = true; }

 private:
  std::span<std::uint8_t> buffer_;
  bool done_ = false;
};

const unsigned char* bytes(std::string_view text) { return reinterpret_cast<const unsigned char*>(text.data()); }

void open_record(EVP_CIPHER_CTX* context, AeadKey key, AeadNonce nonce, std::string_view associated,
                 std::string_view record, std::span<std::uint8_t> output, std::size_t expected) {
  const std::size_t ciphertext = record.size() - aead_tag_size;
  require(EVP_DecryptInit_ex2(context, EVP_chacha20_poly1305(), nullptr, nullptr, nullptr) == 1, "crypto_failure",
          "Cannot initialize authenticated chunk decryption");
  // The tag is a const input; OpenSSL's control call merely lacks the const.
  void* tag = const_cast<char*>(record.data() + ciphertext);
  require(EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, static_cast<int>(aead_tag_size), tag) == 1 &&
              EVP_DecryptInit_ex2(context, nullptr, key.data(), nonce.data(), nullptr) == 1,
          "crypto_failure", "Cannot set authenticated chunk parameters");
  int ignored = 0;
  int written = 0;
  require(EVP_DecryptUpdate(context, nullptr, &ignored, bytes(associated), static_cast<int>(associated.size())) == 1 &&
              EVP_DecryptUpdate(context, output.data(), &written, bytes(record), static_cast<int>(ciphertext)) == 1,
          "crypto_failure", "Cannot decrypt authenticated chunk");
  require(written >= 0 && static_cast<std::size_t>(written) <= ciphertext, "crypto_failure",
          "Unexpected authenticated chunk output");
  // Poly1305 ends with nothing to emit, but the final call may write up to a
  // block; it goes to a local buffer that is wiped at once.
  unsigned char final_block[aead_tag_size];
  int final_written = 0;
  const int verified = EVP_DecryptFinal_ex(context, final_block, &final_written);
  OPENSSL_cleanse(final_block, sizeof final_block);
  require(verified == 1, "authentication_failed", "Encrypted chunk authentication failed");
  require(final_written == 0 && static_cast<std::size_t>(written) == expected, "crypto_failure",
          "Authenticated chunk length differs");
}

}  // namespace

void decrypt_chacha20_poly1305(AeadKey key, AeadNonce nonce, std::string_view associated, std::string_view record,
                               std::span<std::uint8_t> output, std::size_t expected) {
  require(record.size() >= aead_tag_size && expected < chunk_plaintext_limit &&
              record.size() <= expected + aead_tag_size && output.size() >= record.size() - aead_tag_size &&
              associated.size() <= max_associated_data,
          "encrypted_format", "AEAD record or associated data exceeds its bound");
  // A refused call has written nothing, so the buffer keeps what the caller
  // put there; from here on it may hold unauthenticated plaintext.
  WipeUnlessDone wipe(output);
  const CipherContext context(EVP_CIPHER_CTX_new());
  require(static_cast<bool>(context), "crypto_failure", "Cannot initialize authenticated chunk decryption");
  open_record(context.get(), key, nonce, associated, record, output, expected);
  wipe.done();
}

std::array<std::uint8_t, 32> pbkdf2_sha256(std::string_view password, std::span<const std::uint8_t> salt,
                                           std::uint32_t iterations) {
  require(password.size() <= max_key_derivation_input && salt.size() <= max_key_derivation_input && iterations > 0 &&
              iterations <= static_cast<std::uint32_t>(INT_MAX),
          "crypto_failure", "Key derivation input exceeds its bound");
  std::array<std::uint8_t, 32> key{};
  if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt.data(), static_cast<int>(salt.size()),
                        static_cast<int>(iterations), EVP_sha256(), static_cast<int>(key.size()), key.data()) != 1) {
    OPENSSL_cleanse(key.data(), key.size());
    throw Error("crypto_failure", "Cannot derive a key");
  }
  return key;
}

}  // namespace zorvi
