#include "client/domain/json.hpp"

#include <random>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/domain/json_reader.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

constexpr std::size_t big = 1 << 20;

// "ok", or the refusal as "code: message".
std::string outcome(std::string_view text, std::size_t limit = big) {
  try {
    parse_json(text, limit);
    return "ok";
  } catch (const Error& error) {
    return error.code + ": " + error.what();
  }
}

std::string nested(int count, std::string_view inner = "") {
  return std::string(count, '[') + std::string(inner) + std::string(count, ']');
}

TEST(ParseJson, RefusesWhatCouldMeanTwoThings) {
  const std::string duplicate = "duplicate_key: JSON contains a duplicate object key";
  const std::string floating = "invalid_number: Floating point numbers are not allowed in protocol data";
  const std::string depth = "depth_limit: JSON nesting exceeds 64 levels";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"a":1,"a":2})", duplicate},
      {R"({"a":1,"\u0061":2})", duplicate},
      {R"({"a":{"k":1},"b":{"k":1}})", "ok"},
      {"1.0", floating},
      {"[1e3]", floating},
      {"18446744073709551615", "ok"},
      {"18446744073709551616", floating},
      {"-9223372036854775808", "ok"},
      {"-9223372036854775809", floating},
      {"-0", "ok"},
      // Depth counts enclosing containers: the innermost of 65 arrays is at 64.
      {nested(65), "ok"},
      {nested(64, "1"), "ok"},
      {nested(65, "1"), depth},
      {nested(66), depth},
      {std::string(64, '[') + R"({"k":1})" + std::string(64, ']'), depth},
      {nested(100000), depth},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(outcome(text), expected) << text.substr(0, 80);
  for (const char* text : {"", "{} {}", "/* c */ {}", "\"\xff\"", "{\"a\":tru}", "{"}) {
    EXPECT_TRUE(outcome(text).starts_with("invalid_json: [json.exception.parse_error")) << outcome(text);
  }
}

// The value with integer kinds shown (a signed zero is not an unsigned one),
// or the refusal as "code: message".
std::string typed(const json& value) {
  std::string out = value.is_number_integer() ? "i" : "";
  if (value.is_array() || value.is_object()) {
    out += value.is_array() ? "[" : "{";
    for (const auto& [key, member] : value.items()) {
      out += (value.is_object() ? json(key).dump() + ":" : "") + typed(member) + ",";
    }
    return out + "]";
  }
  return out + value.dump();
}
template <typename Read>
std::string typed_outcome(Read read) {
  try {
    return typed(read());
  } catch (const Error& error) {
    return error.code + ": " + error.what();
  }
}

// Valid documents meant to take the direct reader's every road: escapes,
// surrogate pairs, UTF-8 at each boundary, integer edges, whitespace, runs of
// plain text around the word-wide scan, keys out of order.
const std::vector<std::string> tricky = {
    "{\"b\":\"\\u00e9\\ud83c\\udfae\\u0000x\\/\\b\\f\\n\\r\\t\\\"\\\\\",\"a\":[],\"\\u0061b\":{},\"\":null}",
    "[\"\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf\"]",
    "[0,-0,18446744073709551615,-9223372036854775808,9223372036854775808,-1,true,false]",
    " \t\r\n{ \"z\" : [ 1 , { } ] ,\"Z\":\"1234567\\\"\",\"y\":\"12345678\\u0041bcdefgh\xc3\xa9\"} \n",
    std::string(63, '[') + "{\"k\":\"0123456789abcdef0123456789abcdef0123456789\\\\\"}" + std::string(63, ']'),
};

TEST(ParseJson, DirectReaderAgreesWithAnIndependentParser) {
  testing::TempDir dir;
  std::vector<std::string> paths;
  std::string ours;
  for (const auto& text : tricky) {
    paths.push_back((dir / std::to_string(paths.size())).string());
    testing::write_text(paths.back(), text);
    ASSERT_TRUE(read_json_directly(text).has_value()) << text;
    ours += canonical_json(parse_json(text, big)) + "\n";
  }
  // The canonical form written in Python from Python's own reading.
  EXPECT_EQ(ours, testing::run_python(R"(import json,sys
def c(v):
  if v is None or isinstance(v,bool): return json.dumps(v).encode()
  if isinstance(v,int): return str(v).encode()
  if isinstance(v,str): return b'"'+v.encode().replace(b'\\',b'\\\\').replace(b'"',b'\\"')+b'"'
  if isinstance(v,list): return b'['+b','.join(map(c,v))+b']'
  return b'{'+b','.join(c(k)+b':'+c(v[k]) for k in sorted(v,key=str.encode))+b'}'
for p in sys.argv[1:]: sys.stdout.buffer.write(c(json.loads(open(p,'rb').read()))+b'\n')
)",
                                      paths));
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
      switch (random() % 3) {
        case 0:
          text[at] = byte;
          break;
        case 1:
          text.insert(at, 1, byte);
          break;
        default:
          text.erase(at, 1);
      }
    }
    const std::string direct = typed_outcome([&] { return parse_json(text, big); });
    ASSERT_EQ(direct, typed_outcome([&] { return read_json_with_library(text); })) << ::testing::PrintToString(text);
    same += direct.starts_with("invalid_json") ? 0 : 1;
  }
  EXPECT_GT(same, 1000);  // the loop reaches accepted texts and strict refusals, not only syntax errors
}

TEST(ParseJson, SizeLimitComesBeforeParsing) {
  EXPECT_EQ(outcome("[1]", 3), "ok");
  EXPECT_EQ(outcome("[1]", 2), "size_limit: JSON exceeds its size limit");
  EXPECT_EQ(outcome("not json at all", 3), "size_limit: JSON exceeds its size limit");
}

TEST(CanonicalJson, WritesSortedCompactAndMinimallyQuoted) {
  EXPECT_EQ(canonical_json(parse_json(R"({"b":[1,"x\"y"],"a":null})", big)), R"({"a":null,"b":[1,"x\"y"]})");
  EXPECT_EQ(canonical_json(parse_json(R"({"k\n":"\\","e":[],"o":{}})", big)), "{\"e\":[],\"k\n\":\"\\\\\",\"o\":{}}");
  EXPECT_EQ(canonical_json(parse_json(R"({"a":1,"Z":2,"\u00e9":3,"ab":4})", big)),
            "{\"Z\":2,\"a\":1,\"ab\":4,\"\xc3\xa9\":3}");
  EXPECT_EQ(canonical_json(parse_json("[true,false,-0,-12,18446744073709551615,\"/\"]", big)),
            "[true,false,0,-12,18446744073709551615,\"/\"]");
  for (const json& value : {json{{"a", 1.5}}, json::binary({1, 2})}) {
    try {
      canonical_json(value);
      ADD_FAILURE();
    } catch (const Error& error) {
      EXPECT_EQ(error.code + ": " + error.what(), "invalid_number: Cannot canonicalize floating point data");
    }
  }
}

// Random documents without control characters, backslashes or quotes in their
// strings: there the canonical form and Python's sorted compact dump agree.
json random_document(std::mt19937& random, int depth) {
  const auto pick = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };
  const auto text = [&] {
    static const std::vector<std::string> pieces = {
        "a", "B", "z", "0", " ", "/", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x8e\xae", "~", "key", "_"};
    std::string out;
    for (int i = pick(5); i > 0; --i) out += pieces[pick(static_cast<int>(pieces.size()))];
    return out;
  };
  switch (depth > 3 ? pick(4) : pick(6)) {
    case 0:
      return nullptr;
    case 1:
      return pick(2) == 1;
    case 2:
      return static_cast<std::int64_t>(random()) - (1LL << 31);
    case 3:
      return text();
    case 4: {
      json array = json::array();
      for (int i = pick(4); i > 0; --i) array.push_back(random_document(random, depth + 1));
      return array;
    }
    default: {
      json object = json::object();
      for (int i = pick(5); i > 0; --i) object[text()] = random_document(random, depth + 1);
      return object;
    }
  }
}

TEST(CanonicalJson, AgreesWithAnIndependentWriterWhereFormsMustAgree) {
  std::mt19937 random(20261122);
  json documents = json::array();
  for (int i = 0; i < 300; ++i) documents.push_back(random_document(random, 0));
  testing::TempDir dir;
  testing::write_text(dir / "in.json", documents.dump());
  const std::string python = testing::run_python(
      "import json,sys\n"
      "docs=json.load(open(sys.argv[1],encoding='utf-8'))\n"
      "for d in docs: sys.stdout.buffer.write(json.dumps(d,sort_keys=True,separators=(',',':'),"
      "ensure_ascii=False).encode('utf-8')+b'\\n')\n",
      {(dir / "in.json").string()});
  std::string ours;
  for (const auto& document : documents) ours += canonical_json(document) + "\n";
  EXPECT_EQ(ours, python);
}

TEST(CanonicalJson, DiffersFromTheIndependentWriterOnlyInEscaping) {
  // Python escapes control characters; this form copies them raw. Both escape
  // only the quote and the backslash among printable characters.
  const std::string python = testing::run_python(
      "import json,sys\n"
      "sys.stdout.write(json.dumps({'k':'line\\nbreak\\x01','q':'\"\\\\/'},sort_keys=True,separators=(',',':')))");
  EXPECT_EQ(python, R"({"k":"line\nbreak\u0001","q":"\"\\/"})");
  EXPECT_EQ(canonical_json(json{{"k", "line\nbreak\x01"}, {"q", "\"\\/"}}),
            "{\"k\":\"line\nbreak\x01\",\"q\":\"\\\"\\\\/\"}");
}

TEST(PositiveVersion, AcceptsOnlyPositiveIntegers) {
  EXPECT_EQ(positive_version(parse_json("7", big)), 7u);
  EXPECT_EQ(positive_version(parse_json("18446744073709551615", big)), 18446744073709551615u);
  EXPECT_EQ(positive_version(json(std::int64_t{3})), 3u);
  const std::vector<std::pair<json, std::string>> refused = {
      {json(std::int64_t{-1}), "Metadata version must be a positive integer"},
      {json(std::int64_t{0}), "Metadata version must be a positive integer"},
      {json("1"), "Metadata version must be a positive integer"},
      {json(1.0), "Metadata version must be a positive integer"},
      {parse_json("0", big), "Metadata version must be positive"},
  };
  for (const auto& [value, message] : refused) {
    try {
      positive_version(value);
      ADD_FAILURE() << value.dump();
    } catch (const Error& error) {
      EXPECT_EQ(error.code, "invalid_version");
      EXPECT_EQ(error.what(), message);
    }
  }
}

}  // namespace
}  // namespace zorvi
