#include "client/platform/macos_shortcuts.hpp"

#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

#include "client/domain/error.hpp"
#include "client/domain/json.hpp"

namespace zorvi {
namespace {

const DesktopShortcut sample{"/home/p/.local/share/zorvi/native/bootstrap/bin/zorvi-bootstrap",
                             "/home/p/.local/share/zorvi", "star-harbor", "Star Harbor"};

json sample_document() { return json::parse(macos_launch_document(sample)); }

using testing::outcome;

std::string read_outcome(const json& document) {
  return outcome([&] { parse_macos_launch_document(document.dump()); });
}

const std::string fields = "shortcut_document: Unknown launch document fields";
const std::string incomplete = "shortcut_document: Incomplete launch document";
const std::string not_strings = "shortcut_document: Launch document choices must be strings";
const std::string schema = "unsupported_schema: Unknown launch document schema was preserved";
const std::string bounded = "shortcut_text: Shortcut text must be bounded and contain no control characters";
const std::string utf8 = "shortcut_text: Shortcut text must be valid UTF-8";
const std::string path_rule = "shortcut_path: Shortcut paths must be absolute and normalized below a filesystem root";

TEST(LaunchDocument, WritesCompactSortedDocumentThatReadsBack) {
  const std::string text = macos_launch_document(sample);
  EXPECT_EQ(text, R"({"bootstrap":"/home/p/.local/share/zorvi/native/bootstrap/bin/zorvi-bootstrap",)"
                  R"("data_root":"/home/p/.local/share/zorvi","game_id":"star-harbor",)"
                  R"("kind":"zorvi-launch-document","name":"Star Harbor","schema_version":1})");
  const DesktopShortcut back = parse_macos_launch_document(text);
  EXPECT_EQ(back.bootstrap, sample.bootstrap);
  EXPECT_EQ(back.data_root, sample.data_root);
  EXPECT_EQ(back.game_id, sample.game_id);
  EXPECT_EQ(back.name, sample.name);

  DesktopShortcut launcher = sample;
  launcher.game_id = "";
  launcher.name = "Zorvi \xe2\x80\x94 Caf\xc3\xa9";
  const std::string launcher_text = macos_launch_document(launcher);
  EXPECT_NE(launcher_text.find("Caf\xc3\xa9"), std::string::npos);  // non-ASCII stays as it is
  EXPECT_EQ(parse_macos_launch_document(launcher_text).game_id, "");
}

TEST(LaunchDocument, ShapeIsCheckedBeforeSchemaBeforeTypes) {
  json seven = sample_document();
  seven["extra"] = "x";
  EXPECT_EQ(read_outcome(seven), fields);
  EXPECT_EQ(read_outcome(json::array()), fields);
  EXPECT_EQ(read_outcome("text"), fields);

  json renamed = sample_document();
  renamed.erase("name");
  renamed["Name"] = "Star Harbor";
  EXPECT_EQ(read_outcome(renamed), incomplete);

  for (const json& version : {json(2), json("1"), json(-1)}) {
    json wrong = sample_document();
    wrong["schema_version"] = version;
    EXPECT_EQ(read_outcome(wrong), schema) << version;
  }
  json kind = sample_document();
  kind["kind"] = "zorvi-launch";
  EXPECT_EQ(read_outcome(kind), schema);
  // A float is refused by the strict reader's own rule before any of these.
  std::string float_version = macos_launch_document(sample);
  float_version.replace(float_version.find("\"schema_version\":1"), 18, "\"schema_version\":1.0");
  EXPECT_EQ(outcome([&] { parse_macos_launch_document(float_version); }),
            "invalid_number: Floating point numbers are not allowed in protocol data");

  json schema_and_type = sample_document();
  schema_and_type["schema_version"] = 2;
  schema_and_type["name"] = 7;
  EXPECT_EQ(read_outcome(schema_and_type), schema);

  for (const char* member : {"bootstrap", "data_root", "game_id", "name"}) {
    json typed = sample_document();
    typed[member] = 7;
    EXPECT_EQ(read_outcome(typed), not_strings) << member;
  }
}

// Each choice goes through the writer and, as a document's bytes, the reader.
TEST(LaunchDocument, TextAndPathRulesOnBothSides) {
  const std::string long_path = "/" + std::string(4095, 'p');
  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
      {"name", std::string(512, 'n'), "ok"},
      {"name", std::string(513, 'n'), bounded},
      {"name", "", bounded},
      {"name", "tab\there", bounded},
      {"name", "del\x7f", bounded},
      {"game_id", "", "ok"},
      {"game_id", "Star", "invalid_identity: Game and build IDs use lower-case letters, digits, dots and hyphens"},
      {"bootstrap", long_path, "ok"},
      {"bootstrap", long_path + "p", bounded},
      {"bootstrap", "/", path_rule},
      {"data_root", "relative/path", path_rule},
      {"data_root", "/a/../b", path_rule},
      {"data_root", "/a/./b", path_rule},
      {"data_root", "/a//b", path_rule},
      {"data_root", "/a/b/", path_rule},
  };
  for (const auto& [member, value, expected] : cases) {
    json document = sample_document();
    document[member] = value;
    EXPECT_EQ(read_outcome(document), expected) << member << " = " << value.substr(0, 40);
    DesktopShortcut shortcut = sample;
    if (member == "name") shortcut.name = value;
    if (member == "game_id") shortcut.game_id = value;
    if (member == "bootstrap") shortcut.bootstrap = value;
    if (member == "data_root") shortcut.data_root = value;
    EXPECT_EQ(outcome([&] { macos_launch_document(shortcut); }), expected) << member;
  }
}

TEST(LaunchDocument, IllFormedUtf8) {
  // The writer's own check names it; a document's bytes meet the strict JSON reader first.
  for (const std::string name : {"lone \x80 byte", "cut \xe2\x82"}) {
    DesktopShortcut shortcut = sample;
    shortcut.name = name;
    EXPECT_EQ(outcome([&] { macos_launch_document(shortcut); }), utf8);
    std::string text = macos_launch_document(sample);
    text.replace(text.find("Star Harbor"), 11, name);
    EXPECT_TRUE(outcome([&] { parse_macos_launch_document(text); }).starts_with("invalid_json: "));
  }
}

TEST(LaunchDocument, WholeDocumentIsBounded) {
  // Two long paths and a long name come close; a padded copy goes over.
  DesktopShortcut shortcut = sample;
  shortcut.bootstrap = "/" + std::string(4095, 'b');
  std::string text = macos_launch_document(shortcut);
  ASSERT_LT(text.size(), max_launch_document);
  std::string padded = text;
  padded.insert(padded.size() - 1, std::string(max_launch_document + 1 - padded.size(), ' '));
  ASSERT_EQ(padded.size(), max_launch_document + 1);
  EXPECT_EQ(outcome([&] { parse_macos_launch_document(padded); }), "size_limit: JSON exceeds its size limit");
  padded.erase(padded.size() - 2, 1);
  EXPECT_EQ(outcome([&] { parse_macos_launch_document(padded); }), "ok");
}

}  // namespace
}  // namespace zorvi
