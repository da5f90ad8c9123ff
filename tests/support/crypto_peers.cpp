#include "tests/support/crypto_peers.hpp"

#include <gtest/gtest.h>

#include "client/domain/crypto.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi::testing {
namespace {

void run_openssl(std::vector<std::string> argv) {
  argv.insert(argv.begin(), "openssl");
  const CommandResult result = run_command(argv);
  ASSERT_EQ(result.status, 0) << argv[1] << ": " << result.err;
}

std::string hex_of(const std::string& bytes) {
  return hex(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

std::string binary_of(const std::string& hex_text) {
  const auto bytes = unhex(hex_text, hex_text.size());
  return std::string(bytes.begin(), bytes.end());
}

std::vector<std::string> with_sigopts(std::vector<std::string> argv, const std::vector<std::string>& sigopts) {
  for (const auto& option : sigopts) argv.insert(argv.end(), {"-sigopt", option});
  return argv;
}

constexpr std::string_view python_script = R"(
import json, sys
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, ed25519, padding, rsa

message = open(sys.argv[1], 'rb').read()
def pem(key):
    return key.public_key().public_bytes(serialization.Encoding.PEM,
        serialization.PublicFormat.SubjectPublicKeyInfo).decode()
def pss(key, digest, salt):
    return key.sign(message, padding.PSS(padding.MGF1(digest), salt), digest).hex()

out = {}
key = ed25519.Ed25519PrivateKey.generate()
out['ed25519'] = {'public': key.public_key().public_bytes_raw().hex(), 'signature': key.sign(message).hex()}
key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
out['rsa'] = {'public': pem(key), 'max_salt': pss(key, hashes.SHA256(), padding.PSS.MAX_LENGTH)}
for bits, digest in ((256, hashes.SHA256()), (384, hashes.SHA384()), (512, hashes.SHA512())):
    out['rsa']['rsassa-pss-sha%d' % bits] = pss(key, digest, padding.PSS.DIGEST_LENGTH)
for name, curve, digest in (('nistp256', ec.SECP256R1(), hashes.SHA256()),
                            ('nistp384', ec.SECP384R1(), hashes.SHA384()),
                            ('nistp521', ec.SECP521R1(), hashes.SHA512())):
    key = ec.generate_private_key(curve)
    out['ecdsa-sha2-' + name] = {'public': pem(key), 'signature': key.sign(message, ec.ECDSA(digest)).hex()}
print(json.dumps(out))
)";

}  // namespace

std::string OpensslPeer::generate(const std::string& name, const std::vector<std::string>& options) {
  std::vector<std::string> argv{"genpkey"};
  argv.insert(argv.end(), options.begin(), options.end());
  argv.insert(argv.end(), {"-out", file(name + ".pem").string()});
  run_openssl(argv);
  run_openssl({"pkey", "-in", file(name + ".pem").string(), "-pubout", "-out", file(name + ".pub").string()});
  return read_text(file(name + ".pub"));
}

std::string OpensslPeer::raw_public_hex(const std::string& name) {
  const auto der = file(name + ".der");
  run_openssl({"pkey", "-in", file(name + ".pem").string(), "-pubout", "-outform", "DER", "-out", der.string()});
  const std::string bytes = read_text(der);
  return hex_of(bytes.substr(bytes.size() - 32));  // the key ends the structure
}

std::string OpensslPeer::encrypted_pem(const std::string& name) {
  const auto out = file(name + ".enc");
  run_openssl({"rsa", "-in", file(name + ".pem").string(), "-traditional", "-aes128", "-passout", "pass:secret",
               "-out", out.string()});
  return read_text(out);
}

std::string OpensslPeer::sign_digest(const std::string& name, const std::string& md, std::string_view message,
                                     const std::vector<std::string>& sigopts) {
  const auto input = write_message(message);
  const auto out = input.string() + ".sig";
  auto argv = with_sigopts({"dgst", "-" + md, "-sign", file(name + ".pem").string(), "-out", out}, sigopts);
  argv.push_back(input.string());
  run_openssl(argv);
  return hex_of(read_text(out));
}

std::string OpensslPeer::sign_raw(const std::string& name, std::string_view message) {
  const auto input = write_message(message);
  const auto out = input.string() + ".sig";
  run_openssl({"pkeyutl", "-sign", "-rawin", "-inkey", file(name + ".pem").string(), "-in", input.string(), "-out",
               out});
  return hex_of(read_text(out));
}

bool OpensslPeer::verifies_digest(const std::string& name, const std::string& md, std::string_view message,
                                  const std::string& signature_hex, const std::vector<std::string>& sigopts) {
  const auto input = write_message(message);
  const auto signature = input.string() + ".sig";
  write_text(signature, binary_of(signature_hex));
  auto argv = with_sigopts({"openssl", "dgst", "-" + md, "-verify", file(name + ".pub").string()}, sigopts);
  argv.insert(argv.end(), {"-signature", signature, input.string()});
  return run_command(argv).status == 0;
}

std::string OpensslPeer::raw_digest(const std::string& md, std::string_view message) {
  const auto input = write_message(message);
  const auto out = input.string() + ".digest";
  run_openssl({"dgst", "-" + md, "-binary", "-out", out, input.string()});
  return read_text(out);
}

std::filesystem::path OpensslPeer::write_message(std::string_view message) {
  const auto path = file("message-" + std::to_string(files_++));
  write_text(path, message);
  return path;
}

json python_signatures(const std::filesystem::path& directory, std::string_view message) {
  const auto input = directory / "python-message";
  write_text(input, message);
  return json::parse(run_python(python_script, {input.string()}));
}

}  // namespace zorvi::testing
