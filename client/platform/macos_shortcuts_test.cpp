#include "client/platform/macos_shortcuts.hpp"

#include <gtest/gtest.h>

#include "client/domain/json.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using testing::outcome;

const DesktopShortcut sample{"/p/zorvi/native/bootstrap/bin/zorvi-bootstrap", "/p/zorvi", "star-harbor",
                             "Star Harbor \xe2\x80\x94 Caf\xc3\xa9"};

// The sample's document with one member set to `value`, or removed when null.
json changed(const std::string& member, const json& value) {
  json document = json::parse(macos_launch_document(sample));
  value.is_null() ? (void)document.erase(member) : (void)(document[member] = value);
  return document;
}

TEST(LaunchDocument, WritesCompactSortedTextAndReadsOnlyThatShape) {
  const std::string text = macos_launch_document(sample);
  EXPECT_EQ(text, R"({"bootstrap":"/p/zorvi/native/bootstrap/bin/zorvi-bootstrap","data_root":"/p/zorvi",)"
                  R"("game_id":"star-harbor","kind":"zorvi-launch-document","name":")" +
                      sample.name + R"(","schema_version":1})");
  const DesktopShortcut back = parse_macos_launch_document(text);
  EXPECT_EQ(std::tie(back.bootstrap, back.data_root, back.game_id, back.name),
            std::tie(sample.bootstrap, sample.data_root, sample.game_id, sample.name));
  const std::string fields = "shortcut_document: Unknown launch document fields";
  const std::string schema = "unsupported_schema: Unknown launch document schema was preserved";
  json renamed = changed("name", nullptr), schema_and_type = changed("schema_version", 2);
  renamed["Name"] = schema_and_type["name"] = 7;
  const std::pair<json, std::string> rows[] = {
      {changed("extra", "x"), fields},
      {json::array(), fields},
      {renamed, "shortcut_document: Incomplete launch document"},
      {changed("kind", "zorvi-launch"), schema},
      {schema_and_type, schema},  // the schema is judged before the types
      {changed("name", 7), "shortcut_document: Launch document choices must be strings"},
  };
  for (const auto& [document, expected] : rows)
    EXPECT_EQ(outcome([&] { parse_macos_launch_document(document.dump()); }), expected) << document.dump();
  // The whole document is bounded, however its members are spaced.
  std::string padded = text;
  padded.insert(1, std::string(max_launch_document - padded.size(), ' '));
  EXPECT_EQ(outcome([&] { parse_macos_launch_document(padded); }), "ok");
  EXPECT_EQ(outcome([&] { parse_macos_launch_document(padded + " "); }), "size_limit: JSON exceeds its size limit");
}

// Each choice goes through the writer and, as a document's bytes, the reader.
TEST(LaunchDocument, WriterAndReaderRefuseTheSameChoices) {
  const std::string bounded = "shortcut_text: Shortcut text must be bounded and contain no control characters";
  const std::string long_path = "/" + std::string(4095, 'p');
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {"name", std::string(512, 'n'), "ok"},
      {"name", std::string(513, 'n'), bounded},
      {"game_id", "", "ok"},
      {"bootstrap", long_path, "ok"},
      {"bootstrap", long_path + "p", bounded},
      {"data_root", "relative/path",
       "shortcut_path: Shortcut paths must be absolute and normalized below a filesystem root"},
  };
  for (const auto& [member, value, expected] : rows) {
    const json document = changed(member, value);
    EXPECT_EQ(outcome([&] { parse_macos_launch_document(document.dump()); }), expected) << member << " " << value;
    const DesktopShortcut shortcut{document["bootstrap"].get<std::string>(), document["data_root"].get<std::string>(),
                                   document["game_id"], document["name"]};
    EXPECT_EQ(outcome([&] { macos_launch_document(shortcut); }), expected) << member << " " << value;
  }
  // Ill-formed UTF-8: the writer's own check names it; a document's bytes
  // meet the strict JSON reader first.
  const std::string cut = "cut \xe2\x82";
  EXPECT_EQ(outcome([&] { macos_launch_document({"/b", "/d", "", cut}); }),
            "shortcut_text: Shortcut text must be valid UTF-8");
  std::string text = macos_launch_document(sample);
  text.replace(text.find(sample.name), sample.name.size(), cut);
  EXPECT_TRUE(outcome([&] { parse_macos_launch_document(text); }).starts_with("invalid_json: ")) << text;
}

}  // namespace
}  // namespace zorvi
