#pragma once

#include <filesystem>

#include "client/domain/json.hpp"

namespace zorvi::testing {

// Copies the DejaVu regular and bold fonts into `folder` and writes BMPs
// with Python's struct module, so the fixtures come from tools that are not
// ours. Each image is NAME:WIDTH:HEIGHT:BITS:EXTRA.
void write_theme_files(const std::filesystem::path& folder, const std::vector<std::string>& images);

// The client's own colours, written out as a definition.
json default_definition();

// Readable everywhere: the two hover colours deepened, sizes at both bounds,
// both fonts, "icon.bmp", "banner.bmp" and the notice "LICENSE.txt".
json good_definition();

// A folder good_definition() reads: its theme.json, the fonts, a 1×1 icon,
// the banner image given and the notice.
void write_good_theme(const std::filesystem::path& folder, const std::string& banner);

}  // namespace zorvi::testing
