#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/evp.h>

#include "client/domain/json.hpp"

namespace zorvi {

class UniqueFd;

// Progress of a long operation in bytes; returning false cancels it.
using Progress = std::function<bool(std::uint64_t done, std::uint64_t total)>;

// Decodes hexadecimal of either case; `maximum` bounds the text, not the result.
std::vector<std::uint8_t> unhex(std::string_view text, std::size_t maximum);
std::string hex(std::span<const std::uint8_t> bytes);
// Only 0-9 and a-f, the form digests, nonces and identifiers take in protocol
// text; the second form also fixes the length.
bool is_lower_hex(std::string_view text);
bool is_lower_hex(std::string_view text, std::size_t length);

// "sha256" or "sha512", spelled exactly so.
const EVP_MD* algorithm(std::string_view name);

std::string digest(std::string_view content, std::string_view algorithm_name);
std::string digest_file(const std::filesystem::path& path, std::string_view algorithm_name);
std::string digest_file_progress(const std::filesystem::path& path, std::string_view algorithm_name,
                                 const Progress& progress);
// The same over a file already open, rewound to its first byte, so that a
// caller can go on to use exactly the file it hashed, whatever happens to
// the path meanwhile.
std::string digest_open_file(const UniqueFd& file, std::string_view algorithm_name, const Progress& progress);

// An incremental digest whose value can be read at any point without ending it.
class DigestState {
 public:
  explicit DigestState(std::string_view algorithm_name);
  ~DigestState();
  DigestState(const DigestState&) = delete;
  DigestState& operator=(const DigestState&) = delete;

  void update(std::string_view bytes);
  std::string value() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// 32 lower-case hexadecimal characters from the system's random source.
std::string random_id();

// Makes OpenSSL ignore any configuration file on the machine; once per process.
void initialize_client_runtime();

// Checks one signature by a key in TUF's key form. Never raises: anything
// malformed is simply not a valid signature.
bool verify_signature(const json& key, std::string_view message, std::string_view signature);

}  // namespace zorvi
