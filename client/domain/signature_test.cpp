#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "client/domain/crypto.hpp"
#include "tests/support/crypto_peers.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

struct Case {
  std::string label;
  json key;
  std::string message;
  std::string signature;
  bool proven_sound = false;  // `openssl dgst -verify` accepts it under the same key
};

json tuf_key(const std::string& keytype, const std::string& scheme, const std::string& public_text) {
  return {{"keytype", keytype}, {"scheme", scheme}, {"keyval", {{"public", public_text}}}};
}

std::string flip_bit(std::string text, std::size_t at) {
  text[at] = static_cast<char>(text[at] ^ 0x10);
  return text;
}

// Flips one bit of the byte that the hexadecimal digit at `at` belongs to.
std::string flip_hex_bit(std::string text, std::size_t at) {
  text[at] = text[at] == '0' ? '1' : '0';
  return text;
}

class SignatureTest : public ::testing::Test {
protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite() {
    delete material;
    material = nullptr;
  }

  struct Material {
    testing::TempDir directory;
    std::string message;
    std::vector<Case> accepted;  // a true case for every row, from both peers
    std::vector<Case> refused;   // false cases, each for one reason
    Case ed25519;
    Case ml_dsa_87;
    std::string encrypted_pem;
  };
  static inline Material* material = nullptr;
};

void SignatureTest::SetUpTestSuite() {
  initialize_client_runtime();
  material = new Material;
  Material& m = *material;
  testing::OpensslPeer openssl(m.directory.path());
  // Bytes a careless copy would lose: a NUL and a high byte inside the text.
  m.message = std::string("{\"signed\":{\"a\":\"\0\xff\",\"version\":1}}", 34);
  const std::string& message = m.message;
  const std::vector<std::string> pss = {"rsa_padding_mode:pss", "rsa_pss_saltlen:digest"};
  auto accept = [&](std::string label, json key, std::string signature) {
    m.accepted.push_back({std::move(label), std::move(key), message, std::move(signature)});
    return m.accepted.back();
  };
  auto refuse = [&](std::string label, json key, std::string signature, bool proven_sound = false) {
    m.refused.push_back({std::move(label), std::move(key), message, std::move(signature), proven_sound});
  };
  auto row = [&](const std::string& label) -> Case {
    for (const Case& c : m.accepted)
      if (c.label == label) return c;
    ADD_FAILURE() << "no row " << label;
    return {};
  };
  auto public_of = [&](const std::string& label) { return row(label).key["keyval"]["public"].get<std::string>(); };

  const std::string ed_pem = openssl.generate("ed", {"-algorithm", "ED25519"});
  m.ed25519 = accept("openssl ed25519", tuf_key("ed25519", "ed25519", openssl.raw_public_hex("ed")),
                     openssl.sign_raw("ed", message));
  const std::string rsa = openssl.generate("rsa", {"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"});
  for (const std::string bits : {"256", "384", "512"})
    accept("openssl rsa sha" + bits, tuf_key("rsa", "rsassa-pss-sha" + bits, rsa),
           openssl.sign_digest("rsa", "sha" + bits, message, pss));
  struct Curve {
    std::string name, scheme, md;
  };
  for (const Curve& curve : {Curve{"P-256", "ecdsa-sha2-nistp256", "sha256"},
                             Curve{"P-384", "ecdsa-sha2-nistp384", "sha384"},
                             Curve{"P-521", "ecdsa-sha2-nistp521", "sha512"}}) {
    const std::string pem = openssl.generate(curve.name, {"-algorithm", "EC", "-pkeyopt",
                                                          "ec_paramgen_curve:" + curve.name});
    accept("openssl " + curve.scheme, tuf_key("ecdsa", curve.scheme, pem),
           openssl.sign_digest(curve.name, curve.md, message));
  }
  // ML-DSA signs "tuf", a version byte and SHA-512 of the message.
  const std::string prehash = std::string("tuf\x01", 4) + openssl.raw_digest("sha512", message);
  for (const std::string level : {"44", "65", "87"}) {
    const std::string pem = openssl.generate("ML-DSA-" + level, {"-algorithm", "ML-DSA-" + level});
    const Case signed_row = accept("openssl ml-dsa-" + level, tuf_key("ml-dsa", "ml-dsa-" + level + "/1", pem),
                            openssl.sign_raw("ML-DSA-" + level, prehash));
    if (level == "87") m.ml_dsa_87 = signed_row;
  }

  const json python = testing::python_signatures(m.directory.path(), message);
  accept("python ed25519", tuf_key("ed25519", "ed25519", python["ed25519"]["public"]),
         python["ed25519"]["signature"]);
  for (const std::string bits : {"256", "384", "512"}) {
    const std::string scheme = "rsassa-pss-sha" + bits;
    accept("python rsa sha" + bits, tuf_key("rsa", scheme, python["rsa"]["public"]), python["rsa"][scheme]);
  }
  for (const std::string scheme : {"ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521"})
    accept("python " + scheme, tuf_key("ecdsa", scheme, python[scheme]["public"]), python[scheme]["signature"]);

  const std::string rsa_sha256 = row("openssl rsa sha256").signature;
  const std::string p256 = public_of("openssl ecdsa-sha2-nistp256");
  const std::string p256_sha256 = row("openssl ecdsa-sha2-nistp256").signature;
  const std::string ed_signature = m.ed25519.signature;
  refuse("python rsa, salt as long as possible", tuf_key("rsa", "rsassa-pss-sha256", python["rsa"]["public"]),
         python["rsa"]["max_salt"]);
  for (const std::string salt : {"20", "max"})
    refuse("rsa salt " + salt, tuf_key("rsa", "rsassa-pss-sha256", rsa),
           openssl.sign_digest("rsa", "sha256", message, {"rsa_padding_mode:pss", "rsa_pss_saltlen:" + salt}));
  refuse("rsa pkcs1 v1.5 padding", tuf_key("rsa", "rsassa-pss-sha256", rsa),
         openssl.sign_digest("rsa", "sha256", message));
  refuse("rsa mgf1 over sha1", tuf_key("rsa", "rsassa-pss-sha256", rsa),
         openssl.sign_digest("rsa", "sha256", message, {pss[0], pss[1], "rsa_mgf1_md:sha1"}));
  refuse("rsa sha256 signature under sha384", tuf_key("rsa", "rsassa-pss-sha384", rsa), rsa_sha256);
  const std::string weak = openssl.generate("rsa2047", {"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2047"});
  std::string signature = openssl.sign_digest("rsa2047", "sha256", message, pss);
  refuse("2047-bit rsa", tuf_key("rsa", "rsassa-pss-sha256", weak), signature,
         openssl.verifies_digest("rsa2047", "sha256", message, signature, pss));
  const std::string pss_typed =
      openssl.generate("rsapss", {"-algorithm", "RSA-PSS", "-pkeyopt", "rsa_keygen_bits:2048"});
  signature = openssl.sign_digest("rsapss", "sha256", message, pss);
  refuse("rsa-pss typed key", tuf_key("rsa", "rsassa-pss-sha256", pss_typed), signature,
         openssl.verifies_digest("rsapss", "sha256", message, signature, pss));
  signature = openssl.sign_digest("P-384", "sha256", message);
  refuse("p-384 key under nistp256", tuf_key("ecdsa", "ecdsa-sha2-nistp256", public_of("openssl ecdsa-sha2-nistp384")),
         signature, openssl.verifies_digest("P-384", "sha256", message, signature));
  refuse("rsa key under ecdsa", tuf_key("ecdsa", "ecdsa-sha2-nistp256", rsa), rsa_sha256);
  refuse("ec key under rsa", tuf_key("rsa", "rsassa-pss-sha256", p256), p256_sha256);
  refuse("ecdsa scheme under keytype rsa", tuf_key("rsa", "ecdsa-sha2-nistp256", p256), p256_sha256);
  refuse("ed25519 scheme under keytype ecdsa", tuf_key("ecdsa", "ed25519", public_of("openssl ed25519")),
         ed_signature);
  refuse("ed25519 key in pem form", tuf_key("ed25519", "ed25519", ed_pem), ed_signature);
  refuse("ml-dsa-65 key under ml-dsa-44/1", tuf_key("ml-dsa", "ml-dsa-44/1", public_of("openssl ml-dsa-65")),
         row("openssl ml-dsa-65").signature);
  refuse("ml-dsa over the plain message", row("openssl ml-dsa-44").key, openssl.sign_raw("ML-DSA-44", message));
  m.encrypted_pem = openssl.encrypted_pem("rsa");
  refuse("encrypted pem", tuf_key("rsa", "rsassa-pss-sha256", m.encrypted_pem), rsa_sha256);
}

TEST_F(SignatureTest, EveryRowAcceptsItsSignatureFromBothPeers) {
  ASSERT_EQ(material->accepted.size(), 17u);
  for (const Case& c : material->accepted) EXPECT_TRUE(verify_signature(c.key, c.message, c.signature)) << c.label;
}

TEST_F(SignatureTest, OneFlippedBitInSignatureOrMessageIsRefused) {
  for (const Case& c : material->accepted) {
    for (const std::size_t at : {std::size_t{0}, c.signature.size() / 2, c.signature.size() - 1})
      EXPECT_FALSE(verify_signature(c.key, c.message, flip_hex_bit(c.signature, at))) << c.label << " at " << at;
    for (const std::size_t at : {std::size_t{0}, std::size_t{17}, c.message.size() - 1})
      EXPECT_FALSE(verify_signature(c.key, flip_bit(c.message, at), c.signature)) << c.label << " at " << at;
  }
}

TEST_F(SignatureTest, KeysOfTheWrongKindOrStrengthAreRefused) {
  ASSERT_FALSE(material->refused.empty());
  for (const Case& c : material->refused) EXPECT_FALSE(verify_signature(c.key, c.message, c.signature)) << c.label;
  // These signatures are sound under their keys, so their refusal can only
  // come from the checks of the key itself.
  for (const std::string label : {"2047-bit rsa", "rsa-pss typed key", "p-384 key under nistp256"}) {
    const auto found = std::find_if(material->refused.begin(), material->refused.end(),
                                    [&](const Case& c) { return c.label == label; });
    ASSERT_NE(found, material->refused.end()) << label;
    EXPECT_TRUE(found->proven_sound) << label;
  }
}

TEST_F(SignatureTest, HexadecimalAndPemTextsAreBounded) {
  const Case& ed = material->ed25519;
  const std::string& message = material->message;
  const std::string public_hex = ed.key["keyval"]["public"];
  auto upper = [](std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
  };
  EXPECT_TRUE(verify_signature(tuf_key("ed25519", "ed25519", upper(public_hex)), message, upper(ed.signature)));

  const std::vector<std::pair<std::string, std::string>> bad_signatures = {
      {"empty", ""},
      {"odd length", ed.signature.substr(1)},
      {"non-hexadecimal digit", ed.signature.substr(0, 126) + "g0"},
      {"63 bytes", ed.signature.substr(2)},
      {"65 bytes", ed.signature + "00"},
      {"over 16384 characters", ed.signature + std::string(16384 - 128 + 2, '0')},
  };
  for (const auto& [label, signature] : bad_signatures)
    EXPECT_FALSE(verify_signature(ed.key, message, signature)) << label;
  for (const std::string& bad_public : {public_hex.substr(2), public_hex + "00", public_hex + std::string(16384, '0')})
    EXPECT_FALSE(verify_signature(tuf_key("ed25519", "ed25519", bad_public), message, ed.signature));

  // The PEM bound counts the whole text, trailing line ends included.
  const Case& ml = material->ml_dsa_87;
  const std::string pem = ml.key["keyval"]["public"];
  ASSERT_LT(pem.size(), 16384u);
  const std::string at_bound = pem + std::string(16384 - pem.size(), '\n');
  EXPECT_TRUE(verify_signature(tuf_key("ml-dsa", "ml-dsa-87/1", at_bound), message, ml.signature));
  EXPECT_FALSE(verify_signature(tuf_key("ml-dsa", "ml-dsa-87/1", at_bound + "\n"), message, ml.signature));
}

TEST_F(SignatureTest, MalformedKeysAreFalseAndNeverRaise) {
  const json good = material->ed25519.key;
  std::vector<std::pair<std::string, json>> keys = {
      {"null", nullptr}, {"array", json::array({good})}, {"text", "ed25519"}, {"empty object", json::object()}};
  for (const std::string member : {"keytype", "scheme", "keyval"}) {
    json missing = good;
    missing.erase(member);
    keys.emplace_back("without " + member, missing);
    for (const json& wrong : {json(1), json(nullptr), json::array({good[member]}), json(true)}) {
      json retyped = good;
      retyped[member] = wrong;
      keys.emplace_back(member + " as " + wrong.dump(), retyped);
    }
  }
  json no_public = good;
  no_public["keyval"].erase("public");
  keys.emplace_back("keyval without public", no_public);
  json numeric_public = good;
  numeric_public["keyval"]["public"] = 7;
  keys.emplace_back("public as a number", numeric_public);
  json upper_type = good;
  upper_type["keytype"] = "ED25519";
  keys.emplace_back("keytype in upper case", upper_type);

  for (const auto& [label, key] : keys) {
    bool verdict = true;
    EXPECT_NO_THROW(verdict = verify_signature(key, material->message, material->ed25519.signature)) << label;
    EXPECT_FALSE(verdict) << label;
  }
  json extended = good;
  extended["keyid_hash_algorithms"] = json::array({"sha256"});
  extended["keyval"]["private"] = "";
  EXPECT_TRUE(verify_signature(extended, material->message, material->ed25519.signature));
}

TEST_F(SignatureTest, OpenSslErrorQueueIsLeftAsItWas) {
  ERR_clear_error();
  for (const Case& c : material->refused) verify_signature(c.key, c.message, c.signature);
  EXPECT_EQ(ERR_peek_error(), 0u);
}

// OpenSSL asks on the controlling terminal for the passphrase of a PEM with
// an encryption header unless told otherwise; a key from a repository must
// never make the client wait on such a prompt.
TEST_F(SignatureTest, EncryptedPemAsksForNothingOnTheTerminal) {
  const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(::grantpt(master), 0);
  ASSERT_EQ(::unlockpt(master), 0);
  const std::string terminal = ::ptsname(master);
  const json key = tuf_key("rsa", "rsassa-pss-sha256", material->encrypted_pem);
  const std::string signature(512, '0');
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(master);
    ::setsid();
    const int slave = ::open(terminal.c_str(), O_RDWR);  // becomes the controlling terminal
    if (slave < 0) ::_exit(3);
    ::dup2(slave, 0);
    ::dup2(slave, 1);
    ::dup2(slave, 2);
    ::_exit(verify_signature(key, material->message, signature) ? 1 : 0);
  }
  ASSERT_GT(pid, 0);
  std::string shown;
  char buffer[256];
  for (;;) {
    const ssize_t n = ::read(master, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // EIO once the child has gone
    shown.append(buffer, static_cast<std::size_t>(n));
    // Answer a prompt, so that a failing child ends instead of hanging.
    if (std::string_view(buffer, static_cast<std::size_t>(n)).find("phrase") != std::string_view::npos)
      (void)!::write(master, "secret\n", 7);
  }
  ::close(master);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_EQ(shown, "");
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace zorvi
