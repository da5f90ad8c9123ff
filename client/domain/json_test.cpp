#include "client/domain/json.hpp"

#include <random>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

constexpr std::size_t big = 1 << 20;

std::string outcome(std::string_view text, std::size_t limit = big) {
  try {
    parse_json(text, limit);
    return "ok";
  } catch (const Error& error) {
    return error.code;
  }
}

std::string nested_arrays(int count, std::string_view inner = "") {
  return std::string(count, '[') + std::string(inner) + std::string(count, ']');
}

TEST(ParseJson, RefusesWhatCouldMeanTwoThings) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"a":1,"a":2})", "duplicate_key"},
      {R"({"a":1,"\u0061":2})", "duplicate_key"},
      {R"({"a":{"k":1},"b":{"k":1}})", "ok"},
      {R"([{"k":1},{"k":2}])", "ok"},
      {"1.0", "invalid_number"},
      {"1e3", "invalid_number"},
      {"[0.5]", "invalid_number"},
      {"18446744073709551615", "ok"},
      {"18446744073709551616", "invalid_number"},
      {"-9223372036854775808", "ok"},
      {"-9223372036854775809", "invalid_number"},
      {"-0", "ok"},
      {"", "invalid_json"},
      {"{} {}", "invalid_json"},
      {"/* c */ {}", "invalid_json"},
      {"\"\xff\"", "invalid_json"},
      {"{\"a\":tru}", "invalid_json"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(outcome(text), expected) << text;
}

TEST(ParseJson, DepthCountsEnclosingContainers) {
  EXPECT_EQ(outcome(nested_arrays(65)), "ok");
  EXPECT_EQ(outcome(nested_arrays(65, "1")), "depth_limit");
  EXPECT_EQ(outcome(nested_arrays(66)), "depth_limit");
  EXPECT_EQ(outcome(nested_arrays(64, "1")), "ok");
  // A key inside the 65th object is at depth 65 as well.
  EXPECT_EQ(outcome(std::string(64, '[') + R"({"k":1})" + std::string(64, ']')), "depth_limit");
  EXPECT_EQ(outcome(nested_arrays(100000)), "depth_limit");
}

TEST(ParseJson, SizeLimitComesBeforeParsing) {
  EXPECT_EQ(outcome("[1]", 3), "ok");
  EXPECT_EQ(outcome("[1]", 2), "size_limit");
  EXPECT_EQ(outcome("not json at all", 3), "size_limit");
  try {
    parse_json("{}", 1);
    FAIL();
  } catch (const Error& error) {
    EXPECT_STREQ(error.what(), "JSON exceeds its size limit");
  }
}

TEST(ParseJson, MessagesAreTheSystemsOwn) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {nested_arrays(66), "JSON nesting exceeds 64 levels"},
      {R"({"a":1,"a":1})", "JSON contains a duplicate object key"},
      {"2.5", "Floating point numbers are not allowed in protocol data"},
  };
  for (const auto& [text, message] : cases) {
    try {
      parse_json(text, big);
      ADD_FAILURE() << text;
    } catch (const Error& error) {
      EXPECT_EQ(error.what(), message);
    }
  }
  try {
    parse_json("{", big);
  } catch (const Error& error) {
    EXPECT_EQ(error.code, "invalid_json");
    EXPECT_NE(std::string(error.what()).find("parse error"), std::string::npos);
  }
}

TEST(CanonicalJson, WritesSortedCompactAndMinimallyQuoted) {
  EXPECT_EQ(canonical_json(parse_json(R"({"b":[1,"x\"y"],"a":null})", big)), R"({"a":null,"b":[1,"x\"y"]})");
  EXPECT_EQ(canonical_json(parse_json(R"({"k\n":"\\","e":[],"o":{}})", big)), "{\"e\":[],\"k\n\":\"\\\\\",\"o\":{}}");
  EXPECT_EQ(canonical_json(parse_json(R"({"a":1,"Z":2,"\u00e9":3,"ab":4})", big)),
            "{\"Z\":2,\"a\":1,\"ab\":4,\"\xc3\xa9\":3}");
  EXPECT_EQ(canonical_json(parse_json("[true,false,-0,-12,18446744073709551615,\"/\"]", big)),
            "[true,false,0,-12,18446744073709551615,\"/\"]");
  EXPECT_EQ(quote("a\tb\x01\"\\"), "\"a\tb\x01\\\"\\\\\"");
}

TEST(CanonicalJson, RefusesFloatingPoint) {
  try {
    canonical_json(json{{"a", 1.5}});
    FAIL();
  } catch (const Error& error) {
    EXPECT_EQ(error.code, "invalid_number");
    EXPECT_STREQ(error.what(), "Cannot canonicalize floating point data");
  }
  EXPECT_THROW(canonical_json(json::binary({1, 2})), Error);
}

// Random documents without control characters, backslashes or quotes in their
// strings: there the canonical form and Python's sorted compact dump agree.
json random_document(std::mt19937& random, int depth) {
  const auto pick = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };
  const auto text = [&] {
    static const std::vector<std::string> pieces = {"a", "B", "z", "0", " ", "/", "\xc3\xa9", "\xe2\x82\xac",
                                                    "\xf0\x9f\x8e\xae", "~", "key", "_"};
    std::string out;
    for (int i = pick(5); i > 0; --i) out += pieces[pick(static_cast<int>(pieces.size()))];
    return out;
  };
  switch (depth > 3 ? pick(4) : pick(6)) {
    case 0: return nullptr;
    case 1: return pick(2) == 1;
    case 2: return static_cast<std::int64_t>(random()) - (1LL << 31);
    case 3: return text();
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
  // Python escapes control characters; this form copies them raw.
  const json document = {{"k", std::string("line\nbreak\x01")}};
  const std::string python = testing::run_python(
      "import json,sys\n"
      "sys.stdout.write(json.dumps({'k':'line\\nbreak\\x01'},sort_keys=True,separators=(',',':')))");
  EXPECT_EQ(python, R"({"k":"line\nbreak\u0001"})");
  EXPECT_EQ(canonical_json(document), "{\"k\":\"line\nbreak\x01\"}");
  // Both escape only the quote and the backslash among printable characters.
  EXPECT_EQ(canonical_json(json{{"q", "\"\\/"}}), R"({"q":"\"\\/"})");
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
