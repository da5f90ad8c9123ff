#include "client/domain/identifier.hpp"

#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using testing::outcome;

// Each rule, with bounds just inside and just past; the second outcome is the
// repository's reading, which skips the portable rules.
TEST(RelativePath, EachRuleInOrder) {
  const std::string path = "unsafe_path: Path ";
  std::string longest;  // 4096 bytes
  while (longest.size() + 101 <= 4096) longest += std::string(100, 'x') + "/";
  longest += std::string(4096 - longest.size(), 'y');
  const std::vector<std::tuple<std::string, std::string, std::string>> rows = {
      {longest, "ok", "ok"},
      {longest + "y", path + "must be a safe relative path", path + "must be a safe relative path"},
      {std::string(255, 'c') + "/del\x7f/caf\xc3\xa9/COM0/COM10/console/nul_", "ok", "ok"},
      {std::string(256, 'c'), path + "contains an unsafe component", path + "contains an unsafe component"},
      {"a?b", path + "is not portable across supported platforms", "ok"},
      {"dir/LPT9.log", path + "uses a reserved platform name", "ok"},
      {"a/con/", path + "uses a reserved platform name", "unsafe_path: Trailing path separator is not allowed"},
  };
  for (const auto& [text, portable_outcome, repository_outcome] : rows) {
    EXPECT_EQ(outcome([&] { validate_relative_path(text, true); }), portable_outcome) << text;
    EXPECT_EQ(outcome([&] { validate_relative_path(text, false); }), repository_outcome) << text;
  }
  EXPECT_EQ(outcome([] { path_from_utf8(std::string("/a\0b", 4)); }), "unsafe_path: Native path contains a NUL byte");
}

TEST(Identifier, AlphabetLengthThenThePortablePathRule) {
  const std::string identity = "invalid_identity: Game and build IDs use lower-case letters, digits, dots and hyphens";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"a.b-c" + std::string(75, 'a'), "ok"},
      {std::string(81, 'a'), identity},
      {"Abc", identity},
      {"con", "unsafe_path: Path uses a reserved platform name"},
  };
  for (const auto& [value, expected] : rows) EXPECT_EQ(outcome([&] { validate_identifier(value); }), expected) << value;
}

}  // namespace
}  // namespace zorvi
