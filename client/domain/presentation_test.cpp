#include "client/domain/presentation.hpp"

#include <functional>

#include <gtest/gtest.h>

#include "client/domain/crypto.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using testing::outcome;

// BMP files written by Python's struct module, bottom-up rows padded to four
// bytes. The variants are the mistakes a bitmap writer really makes.
constexpr const char* bmp_script = R"PY(
import struct, sys
w, h, variant = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
stride = w * 3 if variant == 'unpadded' else (w * 3 + 3) // 4 * 4
pixels = b''.join(bytes((x * 7 + y) % 256 for x in range(w * 3)).ljust(stride, b'\0') for y in range(h))
tail = b'\0' if variant == 'trailing' else b''
size = 54 + len(pixels) + len(tail) + (1 if variant == 'size-lie' else 0)
height = -h if variant == 'top-down' else h
header = struct.pack('<2sIHHIIiiHHIIiiII', b'BM', size, 0, 0, 54, 40, w, height, 1, 24, 0, len(pixels), 2835, 2835, 0, 0)
print((header + pixels + tail).hex())
)PY";

std::string bmp_hex(int width, int height, const std::string& variant = "exact") {
  std::string text = testing::run_python(bmp_script, {std::to_string(width), std::to_string(height), variant});
  return text.substr(0, text.find('\n'));
}

json artwork(int width, int height, const std::string& hex, const std::string& alternative = "A red fox") {
  return {{"format", "bmp-rgb24-v1"}, {"width", width}, {"height", height}, {"bmp_hex", hex},
          {"alternative_text", alternative}};
}

TEST(GamePresentation, RealBitmapsParseAndSummaryLeavesThePixelsOut) {
  for (const auto& [width, height] : {std::pair{128, 128}, {1, 1}, {1, 3}, {5, 2}}) {
    const std::string hex = bmp_hex(width, height);
    const json value = {{"tagline", "Run"}, {"description", "Line one\r\n\tline two"}, {"artwork", artwork(width, height, hex)}};
    const GamePresentation presentation = GamePresentation::parse("Fox Run", value);
    EXPECT_EQ(presentation.artwork->bitmap.size() * 2, hex.size());
    const json expected = {{"display_name", "Fox Run"}, {"tagline", "Run"}, {"description", "Line one\r\n\tline two"},
                           {"monogram", "F"},
                           {"artwork", {{"format", "bmp-rgb24-v1"}, {"width", width}, {"height", height}, {"alternative_text", "A red fox"}}}};
    EXPECT_EQ(presentation.summary(), expected);
  }
  EXPECT_EQ(bmp_hex(128, 128).size(), 98412u);
  EXPECT_EQ(GamePresentation::parse("\xf0\x9f\xa6\x8a Fox", nullptr).monogram, "\xf0\x9f\xa6\x8a");
  EXPECT_EQ(GamePresentation::parse("Fox", {{"monogram", "\xc3\xa9t\xc3\xa9s"}}).summary()["monogram"], "\xc3\xa9t\xc3\xa9s");
}

TEST(GamePresentation, BitmapWhoseHeaderLiesIsRefused) {
  const std::string exact = "invalid_presentation: Game artwork must be an exact uncompressed RGB24 BMP";
  for (const char* variant : {"size-lie", "trailing", "top-down", "unpadded"}) {
    const std::vector<std::uint8_t> bytes = unhex(bmp_hex(1, 3, variant), 400);
    EXPECT_EQ(outcome([&] { validate_presentation_bitmap(bytes, 1, 3); }), exact) << variant;
  }
  const std::vector<std::uint8_t> good = unhex(bmp_hex(5, 2), 200);
  EXPECT_EQ(outcome([&] { validate_presentation_bitmap(good, 2, 5); }), exact);
  EXPECT_EQ(outcome([&] { validate_presentation_bitmap(good, 5, 2); }), "ok");
}

TEST(GamePresentation, RefusesEachRule) {
  const std::string p = "invalid_presentation: ";
  const std::string small = bmp_hex(1, 1);
  struct Row { std::string name; json value; std::string expected; };
  const std::vector<Row> rows{
      {"", nullptr, p + "Game display name is empty"},
      {"Fox", json::array(), p + "Unknown game presentation fields"},
      {"Fox", {{"tagline", ""}, {"description", ""}, {"monogram", "F"}, {"artwork", 1}, {"x", 1}}, p + "Unknown game presentation fields"},
      {"Fox", {{"subtitle", "x"}}, p + "Unknown game presentation field"},
      {"Fox", {{"tagline", 7}}, p + "Game presentation must contain text"},
      {"Fox", {{"tagline", std::string(201, 'a')}}, p + "Game presentation text exceeds its bound"},
      {"Fox", {{"tagline", "a\nb"}}, p + "Game presentation contains unsupported control characters"},
      {"Fox", {{"description", "a\x0c" "b"}}, p + "Game presentation contains unsupported control characters"},
      {"Fox\xc2\x85", nullptr, p + "Game presentation contains unsupported control characters"},
      {"Fox", {{"monogram", "abcde"}}, p + "Game monogram must contain one to four characters"},
      {"Fox", {{"monogram", ""}}, p + "Game monogram must contain one to four characters"},
      {"Fox", {{"artwork", {{"format", "bmp-rgb24-v2"}, {"width", 1}, {"height", 1}, {"bmp_hex", small}, {"alternative_text", "x"}}}}, p + "Unknown game artwork descriptor"},
      {"Fox", {{"artwork", {{"format", "bmp-rgb24-v1"}, {"width", 1}, {"height", 1}, {"bmp_hex", small}}}}, p + "Unknown game artwork descriptor"},
      {"Fox", {{"artwork", artwork(129, 1, small)}}, p + "Game artwork dimensions exceed 128 pixels"},
      {"Fox", {{"artwork", artwork(1, 0, small)}}, p + "Game artwork dimensions exceed 128 pixels"},
      {"Fox", {{"artwork", artwork(1, 1, small, "")}}, p + "Game artwork needs alternative text"},
      {"Fox", {{"artwork", artwork(1, 1, "")}}, p + "Game artwork pixels are missing"},
      {"Fox", {{"artwork", artwork(1, 1, small + "0")}}, p + "Game artwork encoding exceeds its bound"},
      {"Fox", {{"artwork", artwork(1, 1, "424D" + small.substr(4))}}, p + "Game artwork encoding exceeds its bound"},
      {"Fox", {{"artwork", artwork(128, 128, bmp_hex(128, 128) + "00")}}, p + "Game artwork encoding exceeds its bound"},
      {"Fox", {{"artwork", artwork(1, 1, small.substr(0, 106))}}, p + "Game artwork exceeds its 128-pixel bitmap bound"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(outcome([&] { GamePresentation::parse(row.name, row.value); }), row.expected) << row.value.dump();
  }
}

}  // namespace
}  // namespace zorvi
