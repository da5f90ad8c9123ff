#include <array>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "client/domain/crypto.hpp"

namespace zorvi {
namespace {

// Bound on a signature's hexadecimal text, a hexadecimal key and a PEM key.
constexpr std::size_t text_bound = 16384;

enum class Family : std::uint8_t { ed25519, rsa, ecdsa, ml_dsa };

struct Scheme {
  std::string_view keytype;
  std::string_view scheme;
  Family family;
  const EVP_MD* (*md)();  // null where the algorithm hashes by itself
  const char* name;       // curve or ML-DSA parameter set the key must have
};

constexpr std::array<Scheme, 10> schemes{{
    {"ed25519", "ed25519", Family::ed25519, nullptr, ""},
    {"rsa", "rsassa-pss-sha256", Family::rsa, EVP_sha256, ""},
    {"rsa", "rsassa-pss-sha384", Family::rsa, EVP_sha384, ""},
    {"rsa", "rsassa-pss-sha512", Family::rsa, EVP_sha512, ""},
    {"ecdsa", "ecdsa-sha2-nistp256", Family::ecdsa, EVP_sha256, "prime256v1"},
    {"ecdsa", "ecdsa-sha2-nistp384", Family::ecdsa, EVP_sha384, "secp384r1"},
    {"ecdsa", "ecdsa-sha2-nistp521", Family::ecdsa, EVP_sha512, "secp521r1"},
    {"ml-dsa", "ml-dsa-44/1", Family::ml_dsa, nullptr, "ML-DSA-44"},
    {"ml-dsa", "ml-dsa-65/1", Family::ml_dsa, nullptr, "ML-DSA-65"},
    {"ml-dsa", "ml-dsa-87/1", Family::ml_dsa, nullptr, "ML-DSA-87"},
}};

struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

struct MdContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// Failed checks leave entries on the thread's OpenSSL error queue; a later
// TLS call would mistake them for its own, so the queue is restored on exit.
class ErrorQueueMark {
 public:
  ErrorQueueMark() { ERR_set_mark(); }
  ~ErrorQueueMark() { ERR_pop_to_mark(); }
  ErrorQueueMark(const ErrorQueueMark&) = delete;
  ErrorQueueMark& operator=(const ErrorQueueMark&) = delete;
};

const Scheme* find_scheme(std::string_view keytype, std::string_view scheme) {
  for (const Scheme& row : schemes)
    if (row.keytype == keytype && row.scheme == scheme) return &row;
  return nullptr;
}

// ML-DSA signs a fixed-length prehash: "tuf", a version byte and SHA-512.
std::string ml_dsa_message(std::string_view message) {
  const std::vector<std::uint8_t> hash = unhex(digest(message, "sha512"), 128);
  std::string bytes("tuf\x01", 4);
  bytes.append(hash.begin(), hash.end());
  return bytes;
}

Pkey pem_public_key(const std::string& text) {
  if (text.size() > text_bound) return nullptr;
  std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  if (!bio) return nullptr;
  // Without a callback OpenSSL would ask on the terminal for the passphrase
  // of a PEM with an encryption header; the empty passphrase given instead
  // means a key from a repository can never make the client wait on a prompt.
  static char no_passphrase[] = "";
  return Pkey(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, no_passphrase));
}

bool key_matches(const Scheme& row, EVP_PKEY* key) {
  switch (row.family) {
    case Family::ed25519:
      return true;
    case Family::rsa:
      return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA && EVP_PKEY_get_bits(key) >= 2048;
    case Family::ecdsa: {
      std::array<char, 80> group{};
      std::size_t length = 0;
      if (EVP_PKEY_get_utf8_string_param(key, "group", group.data(), group.size(), &length) != 1) return false;
      return std::string_view(group.data(), length) == row.name;
    }
    case Family::ml_dsa:
      return EVP_PKEY_is_a(key, row.name) == 1;
  }
  return false;
}

bool set_pss(EVP_PKEY_CTX* context, const EVP_MD* md) {
  return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) >= 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md(context, md) >= 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) >= 1;
}

bool verify(const json& key, std::string_view message, std::string_view signature_text) {
  const auto scheme = key.at("scheme").get<std::string>();
  const auto keytype = key.at("keytype").get<std::string>();
  const auto public_text = key.at("keyval").at("public").get<std::string>();
  const std::vector<std::uint8_t> signature = unhex(signature_text, text_bound);

  const Scheme* row = find_scheme(keytype, scheme);
  if (row == nullptr) return false;

  const std::string prehashed = row->family == Family::ml_dsa ? ml_dsa_message(message) : std::string();
  const std::string_view signed_bytes = row->family == Family::ml_dsa ? std::string_view(prehashed) : message;

  Pkey pkey;
  if (row->family == Family::ed25519) {
    const std::vector<std::uint8_t> raw = unhex(public_text, text_bound);
    if (raw.size() != 32 || signature.size() != 64) return false;
    pkey.reset(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, raw.data(), raw.size()));
  } else {
    pkey = pem_public_key(public_text);
  }
  if (!pkey || !key_matches(*row, pkey.get())) return false;

  std::unique_ptr<EVP_MD_CTX, MdContextFree> context(EVP_MD_CTX_new());
  if (!context) return false;
  const EVP_MD* md = row->md != nullptr ? row->md() : nullptr;
  EVP_PKEY_CTX* key_context = nullptr;  // owned by `context`
  if (EVP_DigestVerifyInit(context.get(), &key_context, md, nullptr, pkey.get()) != 1) return false;
  if (row->family == Family::rsa && !set_pss(key_context, md)) return false;

  const auto* data = reinterpret_cast<const unsigned char*>(signed_bytes.data());
  return EVP_DigestVerify(context.get(), signature.data(), signature.size(), data, signed_bytes.size()) == 1;
}

}  // namespace

bool verify_signature(const json& key, std::string_view message, std::string_view signature) {
  const ErrorQueueMark mark;
  try {
    return verify(key, message, signature);
  } catch (const std::exception&) {
    // One malformed entry must not stop a threshold count over the others.
    return false;
  }
}

}  // namespace zorvi
