#include "client/tuf/metadata.hpp"

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using testing::expect_outcomes;
using testing::outcome;

const std::string h64(64, 'a');
const json key_a = {{"keytype", "ed25519"}, {"scheme", "ed25519"}, {"keyval", {{"public", h64}}}};
const std::string id_a = digest(canonical_json(key_a), "sha256");

// A valid document of each role, all signing authorities naming `key_a`.
json valid(const std::string& role) {
  const json authority = {{"keyids", {id_a}}, {"threshold", 1}}, keys = {{id_a, key_a}};
  json paths = authority, bins = authority, body;
  paths.update({{"name", "project"}, {"paths", {"a/*"}}, {"terminating", false}});
  bins.update({{"name", "bins"}, {"path_hash_prefixes", {"0a"}}, {"terminating", true}});
  const json file = {{"length", 5}, {"hashes", {{"sha256", std::string(64, 'A')}}}, {"custom", json::object()}};
  if (role == "targets")
    body = {{"targets", {{"a.txt", file}}}, {"delegations", {{"keys", keys}, {"roles", {paths, bins}}}}};
  else if (role == "root")
    body = {
        {"keys", keys},
        {"roles", {{"root", authority}, {"timestamp", authority}, {"snapshot", authority}, {"targets", authority}}}};
  else body = {{"meta", {{role == "timestamp" ? "snapshot.json" : "targets.json", {{"version", 1}}}}}};
  body.update({{"_type", role}, {"spec_version", "1.0.31"}, {"version", 1}, {"expires", "2030-01-01T00:00:00Z"}});
  return {{"signatures", {{{"keyid", h64}, {"sig", "00"}}}}, {"signed", body}};
}

// Three Ed25519 keys from Python's cryptography, named and signing `body` as a repository would.
json signers(const std::string& body) {
  return json::parse(testing::run_python(R"(
import hashlib, json, sys
from cryptography.hazmat.primitives.asymmetric import ed25519
def made(private):
    public = private.public_key().public_bytes_raw().hex()
    key = {'keytype': 'ed25519', 'scheme': 'ed25519', 'keyval': {'public': public}}
    keyid = hashlib.sha256(json.dumps(key, sort_keys=True, separators=(',', ':')).encode()).hexdigest()
    return keyid, key, {'keyid': keyid, 'sig': private.sign(sys.argv[1].encode()).hex()}
rows = [made(ed25519.Ed25519PrivateKey.generate()) for _ in range(3)]
print(json.dumps({'keys': {keyid: key for keyid, key, _ in rows}, 'sigs': [sig for _, _, sig in rows]})))",
                                         {body}));
}

TEST(Metadata, AcceptsValidDocumentsTimesAndSignatures) {
  for (const char* role : {"root", "timestamp", "snapshot", "targets"})
    EXPECT_EQ(outcome([&] { shape(valid(role), role); }), "ok") << role;
  const json online = {{id_a, key_a}};
  EXPECT_EQ(online_keys(valid("root")), json({{"timestamp", online}, {"snapshot", online}}));
  // Microseconds since 1970, exact across leap years and before the epoch; digits past the sixth are cut.
  // clang-format off
  for (const auto& [text, micros] : std::vector<std::pair<std::string, std::int64_t>>{
           {"1969-12-31T23:59:59.999999Z", -1}, {"2030-01-01T00:00:00.123456789Z", 1893456000123456},
           {"2024-02-29T00:00:00Z", 1709164800000000}, {"2000-02-29T00:00:00Z", 951782400000000}})
    EXPECT_EQ(parse_tuf_time(text), micros) << text;
  // clang-format on
  EXPECT_EQ(outcome([] { unexpired(valid("root"), 1893455999999999); }), "ok");
}

// Every refusal of the module: a valid document with one member changed (a
// discarded value erases it), a time, a signature set or a target file.
TEST(Metadata, RefusesEachFaultWithItsCodeAndMessage) {
  const json gone(json::value_t::discarded), none = json::array();
  const json big = {{"keytype", "x"}, {"scheme", "x"}, {"keyval", {{"public", std::string(16385, 'a')}}}};
  const std::string paths = "/signed/delegations/roles/0/", bins = "/signed/delegations/roles/1/",
                    file = "/signed/targets/a.txt/";
  const auto shaped = [](const std::string& role, const std::string& pointer, const json& value) {
    return [=] {
      json changed = valid(role);
      const json::json_pointer at(pointer);
      if (value.is_discarded()) changed[at.parent_pointer()].erase(at.back());
      else changed[at] = value;
      shape(changed, role);
    };
  };
  const auto timed = [](const std::string& text) { return [=] { parse_tuf_time(text); }; };
  const json body = valid("snapshot")["signed"];
  const json made = signers(canonical_json(body));
  const json &keys = made["keys"], &sigs = made["sigs"];
  const json a = sigs[0]["keyid"], b = sigs[1]["keyid"], c = sigs[2]["keyid"],
             forged = {{"keyid", c}, {"sig", sigs[0]["sig"]}};
  const auto signatures = [&](std::vector<json> given, std::vector<json> ids, int threshold, const json& with_keys) {
    return [=] {
      verify_threshold({{"signed", body}, {"signatures", given}}, with_keys,
                       {{"keyids", ids}, {"threshold", threshold}});
    };
  };
  const testing::TempDir directory;
  testing::write_text(directory / "t", "hello");
  std::filesystem::create_symlink(directory / "t", directory / "link");
  const auto target = [&](const std::string& name, const std::string& at, const json& value) {
    json described = {{"length", 5},
                      {"hashes", {{"sha256", digest("hello", "sha256")}, {"sha512", digest("hello", "sha512")}}}};
    if (!at.empty()) described[json::json_pointer(at)] = value;
    return [=, &directory] { verify_target_file(directory / name, described, Progress()); };
  };
  const std::string calendar = "invalid_expiry: Invalid UTC calendar time";
  const std::string short_of = "signature_threshold: Metadata does not meet its authorized signature threshold";
  // clang-format off
  expect_outcomes({
      {shaped("root", "/signed/_type", gone), "invalid_metadata: Metadata is missing a required field or has an invalid field type"},
      {shaped("root", "/signed", none), "invalid_metadata: Metadata must contain a signed object and signature array"},
      {shaped("root", "/signatures/1", json{{"keyid", h64}, {"sig", "11"}}), "invalid_metadata: Metadata repeats a signature key ID"},
      {shaped("root", "/signed/_type", "targets"), "metadata_type: Unexpected metadata type"},
      {shaped("root", "/signed/spec_version", "1.0.0-rc1"), "unsupported_spec: A stable TUF 1.x[.y] specification version is required"},
      {shaped("root", "/signed/expires", "2030-01-01"), "invalid_expiry: Expiry must use a UTC ISO-8601 timestamp"},
      {shaped("root", "/signed/keys/" + id_a + "/extra", 1), "keyid_mismatch: Signing key ID does not identify its canonical key"},
      {shaped("root", "/signed/keys", json{{digest(canonical_json(big), "sha256"), big}}), "size_limit: Signing key exceeds its size limit"},
      {shaped("root", "/signed/roles/mirrors", json{{"keyids", 1}, {"threshold", 1}}), "invalid_metadata: Invalid signing authority"},
      {shaped("root", "/signed/roles/targets/keyids/0", h64), "invalid_metadata: Role references a key absent from its delegator"},
      {shaped("timestamp", "/signed/meta/targets.json", json{{"version", 1}}), "invalid_metadata: Timestamp must describe only snapshot.json; snapshot must describe targets.json"},
      {shaped("snapshot", "/signed/meta/targets.json/length", -1), "invalid_length: Length must be a nonnegative integer"},
      {shaped("snapshot", "/signed/meta/targets.json/hashes", json::object()), "invalid_hashes: Hashes must be a nonempty object"},
      {shaped("targets", "/signed/targets/a~1..~1b", json::object()), "unsafe_path: Path contains an unsafe component"},
      {shaped("targets", file + "hashes", gone), "invalid_hashes: Target has no authenticated hashes"},
      {shaped("targets", file + "hashes/md5", h64), "unsupported_hash: Only SHA-256 and SHA-512 hashes are supported"},
      {shaped("targets", file + "hashes/sha256", 1), "invalid_hashes: Hash must be a hexadecimal string"},
      {shaped("targets", file + "hashes/sha512", h64), "invalid_hashes: Hash has an invalid length or hexadecimal encoding"},
      {shaped("targets", paths + "name", ""), "size_limit: Delegated role name exceeds its bound"},
      {shaped("targets", bins + "name", "project"), "invalid_metadata: Delegated role names must be unique and non-top-level"},
      {shaped("targets", paths + "path_hash_prefixes", none), "invalid_metadata: Delegation needs exactly one path selector and a terminating boolean"},
      {shaped("targets", paths + "paths/0", std::string(4097, '*')), "size_limit: Delegation pattern exceeds path limit"},
      {shaped("targets", bins + "path_hash_prefixes/0", "0A"), "invalid_metadata: Invalid delegation hash prefix"},
      {timed("2023-02-29T00:00:00Z"), calendar},
      {timed("1900-02-29T00:00:00Z"), calendar},
      {timed("2030-01-01T00:00:60Z"), calendar},
      {timed("2030-01-01T24:00:00Z"), calendar},
      {timed("2030-01-01T00:60:00Z"), calendar},
      {timed("2030-01-01T00:00:00.1234567890Z"), "invalid_expiry: Expiry must use a UTC ISO-8601 timestamp"},
      {timed("2030-01-01T00:00:0aZ"), "invalid_expiry: Timestamp fields must contain decimal digits"},
      {timed("2030-01-01T00:00:00.12a4Z"), "invalid_expiry: Invalid fractional second"},
      {[] { unexpired(valid("root"), 1893456000000000); }, "expired_metadata: Repository metadata has expired; previously installed games remain playable"},
      {[] { path_pattern_matches("*", std::string(4097, 'a')); }, "size_limit: Delegation pattern exceeds path limit"},
      {signatures({{{"keyid", h64}, {"sig", "zz"}}, sigs[0], sigs[1]}, {a, b, c}, 2, keys), "ok"},
      {signatures({sigs[0], sigs[1], forged}, {a, b, c}, 3, keys), short_of},
      {signatures({sigs[0], sigs[0]}, {a, b, c}, 2, keys), short_of},
      {signatures({sigs[0], sigs[1]}, {a, a}, 2, keys), "invalid_threshold: Signing threshold exceeds unique authorized keys"},
      {target("t", "", nullptr), "ok"},
      {target("t", "/length", 6), "length_mismatch: Target length does not match signed metadata"},
      {target("t", "/hashes/sha512", digest("hellO", "sha512")), "hash_mismatch: Target hash does not match signed metadata"},
      {target("t", "/hashes", json::object()), "invalid_hashes: Target has no authenticated hashes"},
      {target("link", "", nullptr), "unsafe_path: Target is not an ordinary file"},
  });
  // clang-format on
}

TEST(Metadata, PathPatternsNeverCrossSlashesAndStayLinear) {
  // Each pattern with the paths it matches and those it does not. With "!"
  // first the "]" behind it closes the class: a negated empty class.
  // clang-format off
  const std::vector<std::tuple<std::string, std::vector<std::string>, std::vector<std::string>>> rows = {
      {"a/*.txt", {"a/b.txt"}, {"a/b/c.txt"}}, {"*", {""}, {"a/b"}}, {"", {""}, {"a"}}, {"a*b*c", {"axxbyyc"}, {}},
      {"?", {}, {"/"}}, {"[]a]", {"]", "a"}, {"b"}}, {"[]", {"[]"}, {}}, {"[ab", {"[ab"}, {}}, {"[!]", {"x"}, {"[!]"}},
      {"[!a]", {"b"}, {"/"}}, {"[^a]", {}, {"a"}}, {"[a-c]", {"b"}, {"d"}}, {"[a-]", {"-"}, {}}, {"[\x80-a]", {"\xff"}, {}}, {"[a-\x80]", {}, {"b"}},
  };
  // clang-format on
  for (const auto& [pattern, matched, unmatched] : rows) {
    for (const std::string& path : matched) EXPECT_TRUE(path_pattern_matches(pattern, path)) << pattern << " " << path;
    for (const std::string& path : unmatched)
      EXPECT_FALSE(path_pattern_matches(pattern, path)) << pattern << " " << path;
  }
  std::string pathological;  // 4,096 bytes of "*a": exponential for a backtracking matcher
  for (int i = 0; i < 2048; ++i) pathological += "*a";
  EXPECT_FALSE(path_pattern_matches(pathological, std::string(4095, 'a') + "b"));
}

}  // namespace
}  // namespace zorvi
