#include "client/domain/json.hpp"

#include <functional>
#include <random>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/domain/json_reader.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using testing::outcome;
constexpr std::size_t big = 1 << 20;

std::string nested(int count, std::string_view inner = "") {
  return std::string(count, '[') + std::string(inner) + std::string(count, ']');
}

TEST(ParseJson, RefusesWhatCouldMeanTwoThingsAndWhatIsTooLarge) {
  const std::string floating = "invalid_number: Floating point numbers are not allowed in protocol data";
  const std::string depth = "depth_limit: JSON nesting exceeds 64 levels";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {R"({"a":1,"\u0061":2})", "duplicate_key: JSON contains a duplicate object key"},
      {R"({"a":{"k":1},"b":{"k":1}})", "ok"},
      {"18446744073709551615", "ok"},
      {"18446744073709551616", floating},
      {"-9223372036854775808", "ok"},
      {"-9223372036854775809", floating},
      // Depth counts enclosing containers: the innermost of 65 arrays is at 64.
      {nested(65), "ok"},
      {nested(65, "1"), depth},
      {std::string(64, '[') + R"({"k":1})" + std::string(64, ']'), depth},
      {nested(100000), depth},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(outcome([&] { parse_json(text, big); }), expected) << text;
  for (const char* text : {"{} {}", "/* c */ {}", "\"\xff\""})
    EXPECT_TRUE(outcome([&] { parse_json(text, big); }).starts_with("invalid_json: [json.exception.parse_error"));
  // The bound comes before parsing.
  EXPECT_EQ(outcome([] { parse_json("[1]", 3); }), "ok");
  EXPECT_EQ(outcome([] { parse_json("not json at all", 3); }), "size_limit: JSON exceeds its size limit");
}

// The value with integer kinds shown (a signed zero is not an unsigned one),
// or the refusal as "code: message".
std::string typed(const json& value) {
  std::string out = value.is_number_integer() ? "i" : "";
  if (!value.is_array() && !value.is_object()) return out + value.dump();
  out += value.is_array() ? "[" : "{";
  for (const auto& [key, member] : value.items())
    out += (value.is_object() ? json(key).dump() + ":" : "") + typed(member) + ",";
  return out + "]";
}
std::string typed_outcome(const std::function<json()>& read) {
  std::string result;
  const std::string refusal = outcome([&] { result = typed(read()); });
  return refusal == "ok" ? result : refusal;
}

// Valid documents meant to take the direct reader's every road: escapes,
// surrogate pairs, UTF-8 at each boundary, integer edges, whitespace, runs of
// plain text around the word-wide scan, keys out of order.
const std::vector<std::string> tricky = {
    "{\"b\":\"\\u00e9\\ud83c\\udfae\\u0000x\\/"
    "\\b\\f\\n\\r\\t\\\"\\\\\",\"a\":[],\"\\u0061b\":{},\"\":null,\"\xc3\xa9\":1,\"Z\":2}",
    "[\"\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf\"]",
    "[0,-0,18446744073709551615,-9223372036854775808,9223372036854775808,-1,true,false]",
    " \t\r\n{ \"z\" : [ 1 , { } ] ,\"Z\":\"1234567\\\"\",\"y\":\"12345678\\u0041bcdefgh\xc3\xa9\"} \n",
    std::string(63, '[') + "{\"k\":\"0123456789abcdef0123456789abcdef0123456789\\\\\"}" + std::string(63, ']'),
};

// The canonical form of what parse_json read equals the canonical form
// written in Python from Python's own reading.
TEST(ParseJson, DirectReaderAgreesWithPython) {
  std::string ours;
  for (const auto& text : tricky) {
    ASSERT_TRUE(read_json_directly(text).has_value()) << text;
    ours += canonical_json(parse_json(text, big)) + "\n";
  }
  EXPECT_EQ(ours, testing::run_python(R"(import json,sys
def c(v):
  if v is None or isinstance(v,bool): return json.dumps(v).encode()
  if isinstance(v,int): return str(v).encode()
  if isinstance(v,str): return b'"'+v.encode().replace(b'\\',b'\\\\').replace(b'"',b'\\"')+b'"'
  if isinstance(v,list): return b'['+b','.join(map(c,v))+b']'
  return b'{'+b','.join(c(k)+b':'+c(v[k]) for k in sorted(v,key=str.encode))+b'}'
for t in sys.argv[1:]: sys.stdout.buffer.write(c(json.loads(t))+b'\n')
)",
                                      tricky));
}

// Mutated documents give the same value or the same refusal, code and message,
// whichever reader answers.
TEST(ParseJson, DirectReaderAndLibraryGiveOneAnswer) {
  std::mt19937 random(14);
  const std::string bytes = std::string("\"\\u{}[],:09-.eE \t\x01\x7f\x80\xbf\xc3\xed\xf0\xf4\xff") + '\0' + "dD8a";
  using namespace std::string_literals;
  std::vector<std::string> seeds = tricky;
  // The library's lenient forms (a byte-order mark, NUL as the end) and refusals.
  seeds.insert(seeds.end(), {"\xef\xbb\xbf[1]", "{}\0trailing"s, "[\"\\ud800\"]", "[01]", "[1,]", "-", "[1.5]"});
  int same = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text = seeds[random() % seeds.size()];
    for (auto edits = 1 + random() % 3; edits > 0 && !text.empty(); --edits) {
      const std::size_t at = random() % text.size();
      const char byte = bytes[random() % bytes.size()];
      const auto kind = random() % 3;  // replace, insert or erase a byte
      text.replace(at, kind == 1 ? 0 : 1, kind == 2 ? 0 : 1, byte);
    }
    const std::string direct = typed_outcome([&] { return parse_json(text, big); });
    ASSERT_EQ(direct, typed_outcome([&] { return read_json_with_library(text); })) << ::testing::PrintToString(text);
    same += direct.starts_with("invalid_json") ? 0 : 1;
  }
  EXPECT_GT(same, 1000);  // the loop reaches accepted texts and strict refusals, not only syntax errors
}

TEST(Numbers, CanonicalFormAndVersionsTakeIntegersOnly) {
  EXPECT_EQ(positive_version(parse_json("18446744073709551615", big)), 18446744073709551615u);
  EXPECT_EQ(positive_version(json(std::int64_t{3})), 3u);
  testing::expect_outcomes({
      {[] { canonical_json(json{{"a", 1.5}}); }, "invalid_number: Cannot canonicalize floating point data"},
      {[] { positive_version(json(std::int64_t{0})); }, "invalid_version: Metadata version must be a positive integer"},
      {[] { positive_version(parse_json("0", big)); }, "invalid_version: Metadata version must be positive"},
  });
}

}  // namespace
}  // namespace zorvi
