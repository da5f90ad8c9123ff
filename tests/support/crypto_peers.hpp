#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "client/domain/json.hpp"

namespace zorvi::testing {

// Keys and signatures made by the `openssl` command, kept as files in a
// directory the caller owns. Failures of the command fail the calling test.
class OpensslPeer {
public:
  explicit OpensslPeer(std::filesystem::path directory) : directory_(std::move(directory)) {}

  // `openssl genpkey` with `options`; returns the public key in PEM form.
  std::string generate(const std::string& name, const std::vector<std::string>& options);
  // The public key as the 32 raw bytes of an Ed25519 key, in hexadecimal.
  std::string raw_public_hex(const std::string& name);
  // `openssl rsa -traditional` encrypted under a passphrase: a PEM with an
  // encryption header.
  std::string encrypted_pem(const std::string& name);

  // `openssl dgst -<md> -sign` with `-sigopt` options; hexadecimal signature.
  std::string sign_digest(const std::string& name, const std::string& md, std::string_view message,
                          const std::vector<std::string>& sigopts = {});
  // `openssl pkeyutl -sign -rawin`, for algorithms that sign the bytes as they are.
  std::string sign_raw(const std::string& name, std::string_view message);
  // Whether `openssl dgst -verify` accepts a signature from sign_digest.
  bool verifies_digest(const std::string& name, const std::string& md, std::string_view message,
                       const std::string& signature_hex, const std::vector<std::string>& sigopts = {});
  // Raw bytes of `openssl dgst -<md> -binary` over `message`.
  std::string raw_digest(const std::string& md, std::string_view message);

private:
  std::filesystem::path write_message(std::string_view message);
  std::filesystem::path file(const std::string& name) const { return directory_ / name; }

  std::filesystem::path directory_;
  int files_ = 0;
};

// Keys and signatures over `message` made by Python's cryptography package:
// {"ed25519": {"public", "signature"}, "rsa": {"public", "<scheme>"...,
// "max_salt"}, "<ecdsa scheme>": {"public", "signature"}...}, all hexadecimal
// except the PEM keys.
json python_signatures(const std::filesystem::path& directory, std::string_view message);

}  // namespace zorvi::testing
