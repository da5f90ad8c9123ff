#include "client/domain/theme.hpp"

#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"
#include "tests/support/theme_support.hpp"

namespace zorvi {
namespace {

using namespace testing;

namespace fs = std::filesystem;

TEST(Theme, InstalledFolderOfRealFilesBecomesTheLook) {
  TempDir root;
  use_installed_theme(root.path());  // no theme yet: the client's own look stays
  EXPECT_EQ(theme().accent_hover, (Rgb{0x34, 0x74, 0xde}));

  const fs::path folder = theme_directory(root.path());
  write_good_theme(folder, "banner.bmp:2048:1024:24:0");
  use_installed_theme(root.path());
  const Theme& used = theme();
  EXPECT_EQ(used.accent_hover, (Rgb{0x2d, 0x6c, 0xd6}));
  EXPECT_TRUE(used.rounded && used.images.icon->pixel_art && used.images.banner->bytes.size() == 54u + 1024u * 6144u &&
              used.fonts.regular->starts_with(std::string("\0\1\0\0", 4)));
  EXPECT_EQ(used.notices, std::vector<std::string>{"Fonts: Bitstream Vera licence"});

  // A broken installed theme is passed over; the theme in use stays.
  write_text(folder / "theme.json", default_definition().dump());
  use_installed_theme(root.path());
  EXPECT_EQ(theme().accent_hover, (Rgb{0x2d, 0x6c, 0xd6}));
}

TEST(Theme, RefusesEachFaultWithItsOwnSentence) {
  TempDir dir;
  write_theme_files(dir.path(), {"icon.bmp:1:1:24:0", "banner.bmp:64:64:24:0", "wide.bmp:257:1:24:0",
                                 "padded.bmp:1:1:24:1", "deep.bmp:1:1:32:0"});
  fs::create_symlink(dir / "icon.bmp", dir / "linked.bmp");
  write_text(dir / "LICENSE.txt", "notice");
  const auto with = [&](const json& patch) {
    json definition = good_definition();
    definition.merge_patch(patch);
    return outcome([&] { parse_theme(definition, [&](const std::string& name) { return dir / name; }); });
  };
  const std::vector<std::pair<json, std::string>> rows = {
      {R"({"colors": {"text": "#FFF"}})"_json, "Theme colours are written #rrggbb"},
      {R"({"text_sizes": {"body": 9}})"_json, "Theme text sizes are 10 to 48 pixels"},
      {json{{"notices", {"a.txt", "b.txt", "c.txt", "d.txt", "e.txt", "f.txt", "g.txt", "h.txt", "i.txt"}}},
       "A theme names at most 12 distinct files"},
      {R"({"notices": ["theme.json"]})"_json,
       "Theme file names are 1 to 100 letters, digits, '.', '_' or '-': theme.json"},
      {R"({"images": {"icon": {"file": "linked.bmp"}}})"_json,
       "Theme file is missing or not a plain file: " + (dir / "linked.bmp").string()},
      {R"({"images": {"icon": {"file": "padded.bmp"}}})"_json, "Theme images are BMP files"},
      {R"({"images": {"icon": {"pixel_art": 1}}})"_json, "Theme pixel_art is true or false"},
      {R"({"images": {"icon": {"file": "deep.bmp"}}})"_json, "Theme images must be uncompressed 24-bit BMP files"},
      {R"({"images": {"icon": {"file": "wide.bmp"}}})"_json, "Theme image is larger than 256×256 pixels"},
      {R"({"colors": {"button": "#8090a0"}})"_json, "Theme contrast is below 4.5:1 for text on button"},
  };
  // The bound counts distinct names: twelve and a repeat pass.
  json notices = json::array({"a.txt"});
  for (char c = 'a'; c < 'm'; ++c) notices.push_back(std::string(1, c) + ".txt");
  EXPECT_EQ(theme_files(json{{"notices", notices}}).size(), 12u);
  for (const auto& [patch, message] : rows) EXPECT_EQ(with(patch), "invalid_theme: " + message) << patch.dump();
  EXPECT_EQ(with(json::object()), "ok");
}

}  // namespace
}  // namespace zorvi
