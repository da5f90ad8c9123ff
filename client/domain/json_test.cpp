#include "client/domain/json.hpp"

#include <gtest/gtest.h>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

std::string code_of(std::string_view text, std::size_t limit = 1 << 20) {
  try {
    parse_json(text, limit);
    return "ok";
  } catch (const Error& error) {
    return error.code;
  }
}

TEST(ParseJson, Smoke) { EXPECT_EQ(code_of("{\"a\":1}"), "ok"); }

}  // namespace
}  // namespace zorvi
