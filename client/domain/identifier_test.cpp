#include "client/domain/identifier.hpp"

#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

constexpr const char* safe_relative = "Path must be a safe relative path";
constexpr const char* unsafe_component = "Path contains an unsafe component";
constexpr const char* not_portable = "Path is not portable across supported platforms";
constexpr const char* reserved = "Path uses a reserved platform name";
constexpr const char* trailing = "Trailing path separator is not allowed";
constexpr const char* identity = "Game and build IDs use lower-case letters, digits, dots and hyphens";

using testing::outcome;

std::string relative(const std::string& text, bool portable) {
  return outcome([&] { validate_relative_path(text, portable); });
}

std::string unsafe(const char* message) { return std::string("unsafe_path: ") + message; }

TEST(RelativePath, RulesApplyInOrder) {
  struct Case {
    std::string text;
    std::string portable;
    std::string repository;
  };
  const std::string component255(255, 'c');
  const std::vector<Case> cases = {
      {"a/b.txt", "ok", "ok"},
      {"", unsafe(safe_relative), unsafe(safe_relative)},
      {"/a", unsafe(safe_relative), unsafe(safe_relative)},
      {"a\\b", unsafe(safe_relative), unsafe(safe_relative)},
      {std::string("a\0b", 3), unsafe(safe_relative), unsafe(safe_relative)},
      {"a/../b", unsafe(unsafe_component), unsafe(unsafe_component)},
      {"./a", unsafe(unsafe_component), unsafe(unsafe_component)},
      {"a//b", unsafe(unsafe_component), unsafe(unsafe_component)},
      {"a:b", unsafe(unsafe_component), unsafe(unsafe_component)},
      {component255, "ok", "ok"},
      {component255 + "c", unsafe(unsafe_component), unsafe(unsafe_component)},
      {"a?b", unsafe(not_portable), "ok"},
      {"name.", unsafe(not_portable), "ok"},
      {"name ", unsafe(not_portable), "ok"},
      {"tab\there", unsafe(not_portable), "ok"},
      {"del\x7f", "ok", "ok"},
      {"caf\xc3\xa9", "ok", "ok"},
      {"con", unsafe(reserved), "ok"},
      {"con.txt", unsafe(reserved), "ok"},
      {"Aux", unsafe(reserved), "ok"},
      {"dir/LPT9.log", unsafe(reserved), "ok"},
      {"COM0", "ok", "ok"},
      {"COM10", "ok", "ok"},
      {"console", "ok", "ok"},
      {"nul_", "ok", "ok"},
      {"a/", unsafe(trailing), unsafe(trailing)},
      {"a/con/", unsafe(reserved), unsafe(trailing)},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(relative(c.text, true), c.portable) << c.text;
    EXPECT_EQ(relative(c.text, false), c.repository) << c.text;
  }
}

TEST(RelativePath, WholeLengthIsBoundedInBytes) {
  std::string path;
  while (path.size() + 101 <= 4096) path += std::string(100, 'x') + "/";
  path += std::string(4096 - path.size(), 'y');
  ASSERT_EQ(path.size(), 4096u);
  EXPECT_EQ(relative(path, true), "ok");
  EXPECT_EQ(relative(path + "y", true), unsafe(safe_relative));
}

TEST(Identifier, AlphabetLengthAndDots) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"a.b-c", "ok"},
      {std::string(80, 'a'), "ok"},
      {std::string(81, 'a'), std::string("invalid_identity: ") + identity},
      {"abc_", std::string("invalid_identity: ") + identity},
      {"Abc", std::string("invalid_identity: ") + identity},
      {"a/b", std::string("invalid_identity: ") + identity},
      {"", std::string("invalid_identity: ") + identity},
      {".", std::string("invalid_identity: ") + identity},
      {"..", std::string("invalid_identity: ") + identity},
      // The alphabet allows these; the portable path rule does not.
      {"con", unsafe(reserved)},
      {"game.", unsafe(not_portable)},
  };
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(outcome([&] { validate_identifier(value); }), expected) << value;
  }
}

TEST(NativePath, CarriesUtf8BytesUnchanged) {
  const std::string text = "/tmp/caf\xc3\xa9/\xf0\x9f\x8e\xae";
  EXPECT_EQ(path_utf8(path_from_utf8(text)), text);
  EXPECT_EQ(native_length(text), text.size());
  EXPECT_EQ(outcome([] { path_from_utf8(std::string("/a\0b", 4)); }), unsafe("Native path contains a NUL byte"));
}

}  // namespace
}  // namespace zorvi
