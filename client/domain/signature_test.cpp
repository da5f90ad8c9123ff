#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "client/domain/crypto.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

// Bytes a careless copy would lose: a NUL and a high byte inside the text.
const std::string message("{\"signed\":{\"a\":\"\0\xff\",\"version\":1}}", 34);

struct Signed {
  json key;
  std::string signature;  // hexadecimal
};

json tuf_key(const std::string& keytype, const std::string& scheme, const std::string& public_text) {
  return {{"keytype", keytype}, {"scheme", scheme}, {"keyval", {{"public", public_text}}}};
}

std::string hex_of(std::string_view bytes) {
  return hex(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

// Standard output of `openssl ARGV...` fed `input`; a failure fails the test.
std::string openssl(std::vector<std::string> argv, std::string_view input = {}) {
  argv.insert(argv.begin(), "openssl");
  const testing::CommandResult result = testing::run_command(argv, input);
  EXPECT_EQ(result.status, 0) << argv[1] << ": " << result.err;
  return result.out;
}

// Rows [keytype, scheme, public, signature] over the file argv[1] from Python's
// cryptography package, and an RSA-PSS signature whose salt is as long as the
// key allows.
constexpr std::string_view python_peer = R"(
import json, sys
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, ed25519, padding, rsa
message = open(sys.argv[1], 'rb').read()
def pem(key):
    return key.public_key().public_bytes(serialization.Encoding.PEM,
        serialization.PublicFormat.SubjectPublicKeyInfo).decode()
def pss(salt):
    return rsa_key.sign(message, padding.PSS(padding.MGF1(hashes.SHA256()), salt), hashes.SHA256()).hex()
ed, p256 = ed25519.Ed25519PrivateKey.generate(), ec.generate_private_key(ec.SECP256R1())
rsa_key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
rows = [['ed25519', 'ed25519', ed.public_key().public_bytes_raw().hex(), ed.sign(message).hex()],
        ['rsa', 'rsassa-pss-sha256', pem(rsa_key), pss(padding.PSS.DIGEST_LENGTH)],
        ['ecdsa', 'ecdsa-sha2-nistp256', pem(p256), p256.sign(message, ec.ECDSA(hashes.SHA256())).hex()]]
print(json.dumps({'rows': rows, 'rsa': pem(rsa_key), 'max_salt': pss(padding.PSS.MAX_LENGTH)}))
)";

struct Material {
  std::map<std::string, Signed> accepted;               // each family, from one peer or both
  std::vector<std::pair<std::string, Signed>> refused;  // each for one reason
  std::string encrypted_pem;
};

// The peers' keys and signatures, made once for the whole run.
Material make_material() {
  initialize_client_runtime();
  const testing::TempDir directory;
  Material material;
  auto& [accepted, refused, encrypted_pem] = material;
  const auto key_file = [&](const std::string& name) { return (directory / (name + ".pem")).string(); };
  const auto generate = [&](const std::string& name, std::vector<std::string> options) {
    options.insert(options.begin(), "genpkey");
    options.insert(options.end(), {"-out", key_file(name)});
    openssl(options);
    return openssl({"pkey", "-in", key_file(name), "-pubout"});
  };
  const auto sign = [&](const std::string& name, const std::string& md, const std::vector<std::string>& sigopts) {
    std::vector<std::string> argv{"dgst", "-" + md, "-sign", key_file(name)};
    for (const std::string& option : sigopts) argv.insert(argv.end(), {"-sigopt", option});
    return hex_of(openssl(argv, message));
  };
  // ML-DSA signs the bytes as they are; pkeyutl reads them from a file.
  const auto sign_raw = [&](const std::string& name, std::string_view bytes) {
    testing::write_text(directory / "input", bytes);
    return hex_of(
        openssl({"pkeyutl", "-sign", "-rawin", "-inkey", key_file(name), "-in", (directory / "input").string()}));
  };
  const std::vector<std::string> pss = {"rsa_padding_mode:pss", "rsa_pss_saltlen:digest"};

  const std::string rsa = generate("rsa", {"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"});
  accepted["openssl rsa"] = {tuf_key("rsa", "rsassa-pss-sha512", rsa), sign("rsa", "sha512", pss)};
  const std::string p384 = generate("P-384", {"-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-384"});
  accepted["openssl ecdsa"] = {tuf_key("ecdsa", "ecdsa-sha2-nistp384", p384), sign("P-384", "sha384", {})};
  // ML-DSA signs "tuf", a version byte and SHA-512 of the message.
  const std::string prehash = std::string("tuf\x01", 4) + openssl({"dgst", "-sha512", "-binary"}, message);
  const std::string ml_dsa = generate("ml", {"-algorithm", "ML-DSA-65"});
  // The PEM bound counts the whole text, trailing line ends included: this one is at it.
  const std::string longest_pem = ml_dsa + std::string(16384 - ml_dsa.size(), '\n');
  const std::string ml_signature = sign_raw("ml", prehash);
  accepted["openssl ml-dsa"] = {tuf_key("ml-dsa", "ml-dsa-65/1", longest_pem), ml_signature};
  testing::write_text(directory / "message", message);
  const json python = json::parse(testing::run_python(python_peer, {(directory / "message").string()}));
  for (const json& row : python["rows"])
    accepted["python " + row[1].get<std::string>()] = {tuf_key(row[0], row[1], row[2]), row[3]};
  // Members beyond the known ones are no reason to refuse.
  accepted["python ed25519"].key["keyval"]["private"] = "";

  const std::string rsa_signature = accepted.at("openssl rsa").signature;
  const auto refuse = [&](std::string label, json key, std::string signature) {
    refused.push_back({std::move(label), {std::move(key), std::move(signature)}});
  };
  refuse("python rsa, longest salt", tuf_key("rsa", "rsassa-pss-sha256", python["rsa"]), python["max_salt"]);
  refuse("rsa sha512 signature under sha384", tuf_key("rsa", "rsassa-pss-sha384", rsa), rsa_signature);
  // The next two signatures are sound under their keys: only the key checks refuse them.
  const std::string weak = generate("rsa2047", {"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2047"});
  refuse("2047-bit rsa", tuf_key("rsa", "rsassa-pss-sha256", weak), sign("rsa2047", "sha256", pss));
  refuse("p-384 key under nistp256", tuf_key("ecdsa", "ecdsa-sha2-nistp256", p384), sign("P-384", "sha256", {}));
  refuse("rsa key under ecdsa", tuf_key("ecdsa", "ecdsa-sha2-nistp384", rsa), rsa_signature);
  refuse("ml-dsa-65 key under ml-dsa-44/1", tuf_key("ml-dsa", "ml-dsa-44/1", ml_dsa), ml_signature);
  refuse("ml-dsa over the plain message", tuf_key("ml-dsa", "ml-dsa-65/1", ml_dsa), sign_raw("ml", message));
  refuse("pem a byte past its bound", tuf_key("ml-dsa", "ml-dsa-65/1", longest_pem + "\n"), ml_signature);
  encrypted_pem = openssl({"rsa", "-in", key_file("rsa"), "-traditional", "-aes128", "-passout", "pass:secret"});
  refuse("encrypted pem", tuf_key("rsa", "rsassa-pss-sha512", encrypted_pem), rsa_signature);
  return material;
}

const Material& material() {
  static const Material made = make_material();
  return made;
}

// Each family takes both peers' signatures, and none that is one bit off or
// of the wrong kind, strength or salt. Padding and MGF1 need no rows: the
// peers' signatures pass only under PSS, and OpenSSL's MGF1 default is the
// signature's own digest.
TEST(Signature, EachFamilyAcceptsBothPeersAndRefusesAnyOtherSignatureQuietly) {
  ASSERT_EQ(material().accepted.size(), 6u);
  ERR_clear_error();
  for (const auto& [label, c] : material().accepted) {
    EXPECT_TRUE(verify_signature(c.key, message, c.signature)) << label;
    std::string signature = c.signature, changed = message;
    const std::size_t at = signature.size() / 2;
    signature[at] = signature[at] == '0' ? '1' : '0';
    changed[at % message.size()] ^= 0x10;
    EXPECT_FALSE(verify_signature(c.key, message, signature)) << label;
    EXPECT_FALSE(verify_signature(c.key, changed, c.signature)) << label;
  }
  for (const auto& [label, c] : material().refused)
    EXPECT_FALSE(verify_signature(c.key, message, c.signature)) << label;
  // Malformed and out-of-bound texts and keys are a plain refusal, never an
  // exception.
  const Signed ed = material().accepted.at("python ed25519");
  const std::string sig = ed.signature, pub = ed.key["keyval"]["public"];
  const std::vector<std::pair<json, std::string>> malformed{
      {ed.key, sig.substr(0, 126) + "g0"},                  // not hexadecimal
      {ed.key, sig + "00"},                                 // a byte long
      {ed.key, sig + std::string(16258, '0')},              // past 16384 characters
      {tuf_key("ed25519", "ed25519", pub.substr(2)), sig},  // a byte short
      {tuf_key("ED25519", "ed25519", pub), sig},            // no such scheme
      {json::object(), sig},                                // members missing
  };
  for (const auto& [key, signature] : malformed)
    EXPECT_FALSE(verify_signature(key, message, signature)) << key.dump() << " " << signature.size();
  // Failed checks must not leave entries on OpenSSL's error queue either: a
  // later TLS call would take them for its own.
  EXPECT_EQ(ERR_peek_error(), 0u);
}

// OpenSSL asks on the controlling terminal for the passphrase of a PEM with an
// encryption header unless told otherwise; a repository's key must never make
// the client wait on such a prompt.
TEST(Signature, EncryptedPemAsksForNothingOnTheTerminal) {
  const json key = tuf_key("rsa", "rsassa-pss-sha256", material().encrypted_pem);
  int master = -1;
  const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);  // the pty becomes the child's controlling terminal
  if (pid == 0) ::_exit(verify_signature(key, message, std::string(512, '0')) ? 1 : 0);
  ASSERT_GT(pid, 0);
  std::string shown;
  char buffer[256];
  for (ssize_t n = 0; (n = ::read(master, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR);) {
    const std::string_view read(buffer, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));  // none on EINTR
    shown += read;
    // Answer each prompt, so that a failing child ends instead of hanging.
    if (read.find("phrase") != std::string_view::npos) (void)!::write(master, "secret\n", 7);
  }  // ends with EIO once the child has gone
  ::close(master);
  EXPECT_EQ(std::to_string(testing::wait_status(pid)) + shown, "0");
}

}  // namespace
}  // namespace zorvi
