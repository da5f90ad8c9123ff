#include "client/domain/presentation.hpp"

#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

// BMP files written by Python's struct module, bottom-up rows padded to four
// bytes, or left unpadded as a careless bitmap writer leaves them.
constexpr const char* bmp_script = R"PY(
import struct, sys
w, h, padded = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3] == 'padded'
stride = (w * 3 + 3) // 4 * 4 if padded else w * 3
pixels = b''.join(bytes((x * 7 + y) % 256 for x in range(w * 3)).ljust(stride, b'\0') for y in range(h))
header = struct.pack('<2sIHHIIiiHHIIiiII', b'BM', 54 + len(pixels), 0, 0, 54, 40, w, h, 1, 24, 0, len(pixels), 2835,
                     2835, 0, 0)
print((header + pixels).hex(), end='')
)PY";

std::string bmp_hex(int width, int height, const std::string& rows = "padded") {
  return testing::run_python(bmp_script, {std::to_string(width), std::to_string(height), rows});
}

json artwork(int width, int height, const std::string& hex, const std::string& alt = "A red fox") {
  return {
      {"format", "bmp-rgb24-v1"}, {"width", width}, {"height", height}, {"bmp_hex", hex}, {"alternative_text", alt}};
}

TEST(GamePresentation, SummaryOfARealBitmapLeavesThePixelsOut) {
  json value = {{"artwork", artwork(128, 128, bmp_hex(128, 128))}};
  value.update({{"tagline", "Run"}, {"description", "Line one\r\n\tline two"}});
  json expected = value;
  expected.merge_patch({{"artwork", {{"bmp_hex", nullptr}}}, {"display_name", "Fox Run"}, {"monogram", "F"}});
  EXPECT_EQ(GamePresentation::parse("Fox Run", value).summary(), expected);
  EXPECT_EQ(GamePresentation::parse("\xf0\x9f\xa6\x8a Fox", nullptr).monogram, "\xf0\x9f\xa6\x8a");
}

TEST(GamePresentation, RefusesEachRule) {
  const std::string p = "invalid_presentation: ";
  const std::string small = bmp_hex(1, 1);
  json other_format = artwork(1, 1, small);
  other_format["format"] = "bmp-rgb24-v2";
  EXPECT_EQ(testing::outcome([] { GamePresentation::parse("", nullptr); }), p + "Game display name is empty");
  const std::vector<std::pair<json, std::string>> rows{
      {{{"monogram", "\xc3\xa9t\xc3\xa9s"}, {"artwork", artwork(1, 1, small)}}, "ok"},
      {{{"tagline", ""}, {"description", ""}, {"monogram", "F"}, {"artwork", 1}, {"x", 1}},
       p + "Unknown game presentation fields"},
      {{{"subtitle", "x"}}, p + "Unknown game presentation field"},
      {{{"tagline", std::string(201, 'a')}}, p + "Game presentation text exceeds its bound"},
      {{{"tagline", "a\nb"}}, p + "Game presentation contains unsupported control characters"},
      {{{"monogram", "abcde"}}, p + "Game monogram must contain one to four characters"},
      {{{"artwork", other_format}}, p + "Unknown game artwork descriptor"},
      {{{"artwork", artwork(129, 1, small)}}, p + "Game artwork dimensions exceed 128 pixels"},
      {{{"artwork", artwork(1, 1, small, "")}}, p + "Game artwork needs alternative text"},
      {{{"artwork", artwork(1, 1, "")}}, p + "Game artwork pixels are missing"},
      {{{"artwork", artwork(128, 128, bmp_hex(128, 128) + "00")}}, p + "Game artwork encoding exceeds its bound"},
      {{{"artwork", artwork(1, 1, small.substr(0, 106))}}, p + "Game artwork exceeds its 128-pixel bitmap bound"},
      {{{"artwork", artwork(1, 3, bmp_hex(1, 3, "unpadded"))}},
       p + "Game artwork must be an exact uncompressed RGB24 BMP"},
  };
  for (const auto& [value, expected] : rows)
    EXPECT_EQ(testing::outcome([&] { GamePresentation::parse("Fox", value); }), expected) << value.dump();
}

}  // namespace
}  // namespace zorvi
