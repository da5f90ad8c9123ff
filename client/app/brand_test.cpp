#include "client/app/brand.hpp"

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;
using testing::TempDir;

const json acme = R"({"name": "Acme Arcade", "id": "acme", "publisher": "Acme Ltd", "icon": true})"_json;

void write_record(const fs::path& root, const json& record) {
  fs::create_directories(root / "native");
  testing::write_text(root / "native/installation.json", record.dump());
}

TEST(Brand, InstalledBrandRenamesTheClient) {
  TempDir root;
  const std::string sentence = "Zorvi setup did not finish; run the Zorvi installer";
  EXPECT_EQ(branded(sentence), sentence);
  json record = {{"schema_version", 1}, {"kind", "zorvi-installation"}, {"origin", "https://updates.example"}};
  write_record(root.path(), record);
  EXPECT_FALSE(installed_brand(root.path()));

  record["brand"] = acme;
  write_record(root.path(), record);
  use_installed_brand(root.path());
  EXPECT_EQ(product_name(), "Acme Arcade");
  EXPECT_EQ(product_icon(), root / "native/brand.ico");
  EXPECT_EQ(branded(sentence), "Acme Arcade setup did not finish; run the Acme Arcade installer");
  EXPECT_EQ(brand_json(*installed_brand(root.path())), acme);
}

TEST(Brand, RefusesEachFaultWithItsOwnSentence) {
  TempDir root;
  write_record(root.path(), {{"schema_version", 1}, {"kind", "zorvi-launcher-installation"}});
  const auto with = [](const json& patch) {
    json brand = acme;
    brand.merge_patch(patch);
    return [brand] { parse_brand(brand); };
  };
  const std::string refused = "invalid_native_package: ";
  const std::vector<std::pair<std::function<void()>, std::string>> rows = {
      {[] { validate_brand_name(std::string(65, 'a')); },
       refused + "A brand name is 1 to 64 bytes and also names a folder: no control characters, none of < > : \" / \\ "
                 "| ? *, and no leading space or trailing space or dot"},
      {[] { validate_brand_name("Lpt9.games"); }, refused + "A brand name cannot be a Windows device name"},
      {with(R"({"theme": {}})"_json), refused + "Brand has unknown or missing fields"},
      {with(json{{"id", std::string(81, 'a')}}), refused + "id must be 1 to 80 bytes of plain text"},
      {[&] { installed_brand(root.path()); },
       "unsupported_schema: Unsupported installation record " + (root / "native/installation.json").string()},
  };
  for (const auto& [call, expected] : rows) EXPECT_EQ(outcome(call), expected);
  for (const std::string& name : {std::string("Acme.Games"), std::string("COM0"), std::string(64, 'a')})
    EXPECT_EQ(outcome([&] { validate_brand_name(name); }), "ok");
  EXPECT_EQ(outcome(with({{"publisher", "Acme\xc2"}})), "ok");  // a lead byte at the very end reads nothing past it
}

}  // namespace
}  // namespace zorvi
