#include "client/platform/macos_shortcuts.hpp"

#include <array>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/json.hpp"

namespace zorvi {
namespace {

constexpr std::string_view document_kind = "zorvi-launch-document";
constexpr std::array<const char*, 6> document_members = {"schema_version", "kind",    "bootstrap",
                                                         "data_root",      "game_id", "name"};

void check_choices(const DesktopShortcut& shortcut) {
  absolute_path(shortcut.bootstrap);
  absolute_path(shortcut.data_root);
  bounded_text(shortcut.name, max_shortcut_name);
  if (!shortcut.game_id.empty()) validate_identifier(shortcut.game_id);
}

}  // namespace

void bounded_text(std::string_view text, std::size_t limit) {
  bool plain = !text.empty() && text.size() <= limit;
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) plain = false;
  }
  require(plain, "shortcut_text", "Shortcut text must be bounded and contain no control characters");
  try {
    (void)json(std::string(text)).dump();
  } catch (const json::exception&) {
    throw Error("shortcut_text", "Shortcut text must be valid UTF-8");
  }
}

void absolute_path(const std::filesystem::path& path) {
  const std::string text = path_utf8(path);
  bounded_text(text, max_shortcut_path);
  // Compared as text: path equality would let "/a//b" pass as "/a/b".
  require(path.has_root_directory() && text == path.lexically_normal().native() && text.back() != '/', "shortcut_path",
          "Shortcut paths must be absolute and normalized below a filesystem root");
}

std::string macos_launch_document(const DesktopShortcut& shortcut) {
  check_choices(shortcut);
  const json document = {{"schema_version", 1},
                         {"kind", document_kind},
                         {"bootstrap", path_utf8(shortcut.bootstrap)},
                         {"data_root", path_utf8(shortcut.data_root)},
                         {"game_id", shortcut.game_id},
                         {"name", shortcut.name}};
  std::string text = document.dump();
  require(text.size() <= max_launch_document, "size_limit", "Launch document exceeds its byte bound");
  return text;
}

DesktopShortcut parse_macos_launch_document(std::string_view text) {
  const json document = parse_json(text, max_launch_document);
  require(document.is_object() && document.size() == document_members.size(), "shortcut_document",
          "Unknown launch document fields");
  for (const char* member : document_members) {
    require(document.contains(member), "shortcut_document", "Incomplete launch document");
  }
  const json& version = document["schema_version"];
  require((version.is_number_integer() || version.is_number_unsigned()) && version == 1 &&
              document["kind"] == document_kind,
          "unsupported_schema", "Unknown launch document schema was preserved");
  for (const char* member : {"bootstrap", "data_root", "game_id", "name"}) {
    require(document[member].is_string(), "shortcut_document", "Launch document choices must be strings");
  }
  DesktopShortcut shortcut{path_from_utf8(document["bootstrap"].get<std::string>()),
                           path_from_utf8(document["data_root"].get<std::string>()),
                           document["game_id"].get<std::string>(), document["name"].get<std::string>()};
  check_choices(shortcut);
  return shortcut;
}

}  // namespace zorvi
