#include "tests/support/theme_support.hpp"

#include <filesystem>

#include "tests/support/test_support.hpp"

namespace zorvi::testing {
namespace {

constexpr const char* fixture_script = R"(
import shutil, struct, sys
for face in ('DejaVuSans.ttf', 'DejaVuSans-Bold.ttf'): shutil.copy('/usr/share/fonts/truetype/dejavu/' + face, sys.argv[1])
for image in sys.argv[2:]:
    name, width, height, bits, extra = image.split(':')[0], *map(int, image.split(':')[1:])
    row = (width * 3 + 3) // 4 * 4; size = 54 + row * height + extra
    header = struct.pack('<2sIHHIIiiHHIIiiII', b'BM', size, 0, 0, 54, 40, width, height, 1, bits, 0, row * height, 2835, 2835, 0, 0)
    open(sys.argv[1] + '/' + name, 'wb').write(header + bytes(size - 54))
)";

}  // namespace

void write_theme_files(const std::filesystem::path& folder, const std::vector<std::string>& images) {
  std::vector<std::string> args{folder.string()};
  args.insert(args.end(), images.begin(), images.end());
  run_python(fixture_script, args);
}

json default_definition() {
  return R"({"schema_version": 1, "kind": "zorvi-theme", "colors": {"background": "#14181f", "panel": "#1d232e",
      "raised": "#28303e", "well": "#14181f", "border": "#546073", "text": "#f0f3f7", "muted": "#aab5c4",
      "accent": "#2563c9", "accent_hover": "#3474de", "accent_text": "#ffffff", "danger": "#c4314b",
      "danger_hover": "#d6425c", "danger_text": "#ffffff", "warning": "#f0b429", "success": "#3fb37f",
      "focus": "#ffd24a", "disabled": "#303744", "disabled_text": "#7d8796", "paper": "#0d1117", "ink": "#f0f3f7",
      "ink_muted": "#aab5c4"}})"_json;
}

json good_definition() {
  json definition = default_definition();
  definition.merge_patch(R"({"colors": {"accent_hover": "#2D6CD6", "danger_hover": "#c8384f"},
      "corners": "rounded", "bevel": true, "text_sizes": {"title": 48, "small": 10},
      "frame": {"outline": "#000000", "trim": "#546073", "gap": "#14181f", "rivet": "#aab5c4"},
      "fonts": {"regular": "DejaVuSans.ttf", "bold": "DejaVuSans-Bold.ttf", "title": "DejaVuSans.ttf"},
      "images": {"icon": {"file": "icon.bmp", "pixel_art": true}, "banner": {"file": "banner.bmp"}},
      "notices": ["LICENSE.txt"]})"_json);
  return definition;
}

void write_good_theme(const std::filesystem::path& folder, const std::string& banner) {
  std::filesystem::create_directories(folder);
  write_theme_files(folder, {"icon.bmp:1:1:24:0", banner});
  write_text(folder / "LICENSE.txt", "Fonts: Bitstream Vera licence");
  write_text(folder / "theme.json", good_definition().dump());
}

}  // namespace zorvi::testing
