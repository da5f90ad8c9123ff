#include "client/app/cli_entry.hpp"

#include <map>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/json.hpp"

namespace zorvi {
namespace {

using NameSet = std::set<std::string, std::less<>>;

constexpr const char* identifier_message = "Game, build, session, report and operation IDs must be valid identifiers";

std::vector<Grammar> build_grammar() {
  return {
      {{"list"}, 0, {}, {}},
      {{"available"}, 0, {}, {}},
      {{"notices"}, 0, {}, {}},
      {{"preload"}, 1, {}, {"--build"}},
      {{"preloads", "discard"}, 1, {}, {"--build"}},
      {{"preloads"}, 0, {}, {}},
      {{"status"}, 1, {}, {}},
      {{"manage"}, 1, {}, {}},
      {{"locations"}, 1, {}, {}},
      {{"self", "status"}, 0, {}, {}},
      {{"self", "update"}, 0, {}, {}},
      {{"self", "cleanup"}, 0, {}, {}},
      {{"service", "status"}, 0, {"--cached"}, {}},
      {{"crashes", "list"}, 0, {"--all"}, {}},
      {{"crashes", "cleanup"}, 0, {}, {}},
      {{"agreements", "show"}, 1, {}, {}},
      {{"agreements", "agree"}, 1, {"--age-16-or-older"}, {"--agreement-version"}},
      {{"agreements", "withdraw"}, 1, {}, {}},
      {{"agreements"}, 0, {}, {}},
      {{"crashes", "show"}, 1, {}, {}},
      {{"crashes", "discard"}, 1, {}, {}},
      {{"crashes", "restore"}, 1, {}, {}},
      {{"crashes", "delete"}, 1, {}, {"--confirm-report"}},
      {{"crashes", "send"}, 1, {"--age-16-or-older"}, {"--consent-version"}},
      {{"settings", "get"}, 0, {}, {}},
      {{"settings", "set"}, 2, {}, {}},
      {{"operations", "list"}, 0, {}, {}},
      {{"operations", "show"}, 1, {}, {}},
      {{"operations", "wait"}, 1, {}, {}},
      {{"operations", "cancel"}, 1, {}, {}},
      {{"operations", "retry"}, 1, {}, {}},
      {{"repository", "configure"}, 0, {}, {"--origin", "--root", "--ca-bundle"}},
      {{"updates", "check"}, 0, {"--background"}, {}},
      {{"updates", "show"}, 1, {}, {}},
      {{"updates", "defer"}, 1, {}, {"--build"}},
      {{"install"}, 1, {"--launch"}, {}},
      {{"update"}, 1, {"--launch", "--after-exit"}, {"--build", "--session"}},
      {{"repair"}, 1, {}, {}},
      {{"verify"}, 1, {}, {}},
      {{"rollback"}, 1, {}, {}},
      {{"launch"}, 1, {"--play-current"}, {}},
      {{"observe"}, 1, {}, {"--session"}},
      {{"uninstall"}, 1, {"--remove-saves"}, {"--confirm-game"}},
      {{"channel", "set"}, 2, {}, {}},
      {{"channel", "unlock"}, 1, {}, {}},
      {{"open"}, 2, {}, {}},
  };
}

// What one invocation of a table row carries once its tokens are sorted out.
struct Invocation {
  const Grammar* row = nullptr;
  std::map<std::string, std::string, std::less<>> options;
  NameSet flags;
  std::vector<std::string> operands;

  bool has(std::string_view name) const { return options.contains(name); }
  const std::string& value(std::string_view name) const { return options.find(name)->second; }
  bool is(std::string_view first, std::string_view second = {}) const {
    return row->words[0] == first && (row->words.size() > 1 ? std::string_view(row->words[1]) : "") == second;
  }
};

bool bounded_token(const std::string& token) {
  return token.size() <= max_cli_token && token.find('\0') == std::string::npos;
}

void identifier_rule(std::string_view value) {
  try {
    validate_identifier(value);
  } catch (const Error&) {
    throw Error("usage", identifier_message);
  }
}

bool is_prefix(const std::vector<std::string>& words, const std::vector<std::string>& tokens) {
  if (words.size() > tokens.size()) return false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] != tokens[i]) return false;
  }
  return true;
}

// The two self commands that the table cannot express; true when `tokens`
// was one of them and has been checked.
bool validate_self_command(const std::vector<std::string>& tokens) {
  if (tokens.size() < 2 || tokens[0] != "self") return false;
  if (tokens[1] == "uninstall") {
    const bool exact = tokens.size() == 2 || (tokens.size() == 3 && tokens[2] == "--remove-data");
    require(exact, "usage", "Use self uninstall [--remove-data]");
    return true;
  }
  if (tokens[1] != "shortcut") return false;
  if (tokens.size() == 5 && tokens[2] == "create" && tokens[3] == "--game") {
    identifier_rule(tokens[4]);
    return true;
  }
  require(tokens.size() == 3 && (tokens[2] == "create" || tokens[2] == "remove"), "usage",
          "Use self shortcut create [--game GAME] or self shortcut remove");
  return true;
}

Invocation match(const std::vector<std::string>& tokens) {
  Invocation call;
  for (const Grammar& row : cli_grammar()) {
    if (is_prefix(row.words, tokens)) {
      call.row = &row;
      break;
    }
  }
  require(call.row != nullptr, "usage", "Unknown command; run zorvi --help");
  for (std::size_t i = call.row->words.size(); i < tokens.size(); ++i) {
    const std::string& token = tokens[i];
    if (call.row->options.contains(token)) {
      require(!call.has(token) && i + 1 < tokens.size(), "usage", "Duplicate or missing option value: " + token);
      call.options.emplace(token, tokens[++i]);
    } else if (call.row->flags.contains(token)) {
      require(call.flags.insert(token).second, "usage", "Duplicate option: " + token);
    } else if (token.starts_with("--")) {
      throw Error("usage", "Unsupported option: " + token);
    } else {
      call.operands.push_back(token);
    }
  }
  require(call.operands.size() == call.row->operands, "usage", "Wrong number of command operands; run zorvi --help");
  for (const std::string& operand : call.operands) {
    require(!operand.empty(), "usage", "Command operands must not be empty");
  }
  return call;
}

void check_confirmations(const Invocation& call) {
  if (call.is("uninstall")) {
    require(call.has("--confirm-game") && call.value("--confirm-game") == call.operands[0], "confirmation_required",
            "Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves");
  }
  if (call.is("crashes", "delete")) {
    require(call.has("--confirm-report") && call.value("--confirm-report") == call.operands[0], "confirmation_required",
            "Confirm the exact report with --confirm-report REPORT");
  }
  if (call.is("agreements", "agree")) {
    require(call.has("--agreement-version"), "agreement_version",
            "Read it with agreements show ID, then agree with --agreement-version VERSION");
  }
  if (call.is("crashes", "send")) {
    require(call.has("--consent-version"), "crash_consent",
            "Review the report, then supply its exact --consent-version");
  }
  if (call.is("repository", "configure")) {
    require(call.has("--origin") && call.has("--root"), "usage",
            "Repository setup needs --origin and an out-of-band trusted --root");
  }
  if (call.is("updates", "defer")) require(call.has("--build"), "usage", "Deferral needs --build BUILD");
  if (call.is("preloads", "discard")) {
    require(call.has("--build"), "usage", "Removing a preload needs GAME --build BUILD");
  }
}

void check_command_values(const Invocation& call) {
  if (call.is("preload") || call.is("preloads", "discard")) identifier_rule(call.operands[0]);
  if (call.is("update")) {
    const bool valid = call.flags.contains("--after-exit") ? !call.flags.contains("--launch") && call.has("--build")
                                                           : call.options.empty();
    require(valid, "usage",
            "Use update GAME --after-exit --build BUILD [--session SESSION], or update GAME [--launch]");
  }
  if (call.is("settings", "set")) {
    try {
      (void)parse_json(call.operands[1], max_cli_setting);
    } catch (const Error&) {
      throw Error("usage", "Setting value must be bounded valid JSON");
    }
  }
  if (call.is("open")) {
    const std::string& place = call.operands[1];
    require(place == "content" || place == "saves" || place == "state", "usage",
            "Open expects content, saves or state");
  }
}

void check_identifiers(const Invocation& call) {
  static const NameSet identified = {"status", "manage",   "locations",  "install",   "update",    "repair",
                                     "verify", "rollback", "launch",     "observe",   "uninstall", "channel",
                                     "open",   "crashes",  "agreements", "operations"};
  const std::string& first = call.row->words[0];
  const bool updates_row = first == "updates" && !call.is("updates", "check");
  if (!call.operands.empty() && (identified.contains(first) || updates_row)) identifier_rule(call.operands[0]);
  for (const char* name : {"--game", "--build", "--session"}) {
    if (call.has(name)) identifier_rule(call.value(name));
  }
  if (call.is("channel", "set")) identifier_rule(call.operands[1]);
}

void validate(const std::vector<std::string>& tokens) {
  if (validate_self_command(tokens)) return;
  const Invocation call = match(tokens);
  check_confirmations(call);
  check_command_values(call);
  check_identifiers(call);
}

// Steps through a handler's list the way the parser does: every value
// option swallows the token behind it. Returns the index of `name`, or the
// size of the list when it is absent.
std::size_t find_option(const std::vector<std::string>& arguments, std::string_view name) {
  const NameSet& values = cli_value_options();
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == name) return i;
    if (values.contains(arguments[i])) {
      require(i + 1 < arguments.size(), "usage", arguments[i] + " needs a value");
      ++i;
    }
  }
  return arguments.size();
}

}  // namespace

const std::vector<Grammar>& cli_grammar() {
  static const std::vector<Grammar> grammar = build_grammar();
  return grammar;
}

const NameSet& cli_value_options() {
  static const NameSet values = {
      "--create",           "--remove",          "--data-dir",       "--origin",          "--root",
      "--ca-bundle",        "--confirm-cleanup", "--confirm-report", "--consent-version", "--build",
      "--session",          "--confirm-game",    "--game",           "--manifest-target", "--keep-bytes",
      "--agreement-version"};
  return values;
}

CliEntry parse_cli_entry(const std::vector<std::string>& arguments, const std::filesystem::path& default_data_dir,
                         bool* json_seen) {
  CliEntry entry;
  entry.data_dir = default_data_dir;
  const NameSet& values = cli_value_options();
  if (json_seen != nullptr) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      if (arguments[i] == "--json") *json_seen = true;
      if (values.contains(arguments[i])) ++i;
    }
  }
  for (const std::string& token : arguments) {
    require(bounded_token(token), "usage", "CLI argument exceeds its bound or contains NUL");
  }
  require(arguments.size() <= max_cli_tokens, "usage", "CLI invocation exceeds 128 arguments");

  NameSet globals;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& token = arguments[i];
    const bool has_next = i + 1 < arguments.size() && !arguments[i + 1].empty();
    if (token == "--json" || token == "--help" || token == "--data-dir") {
      require(globals.insert(token).second, "usage", "Duplicate global option: " + token);
      if (token == "--json") entry.json = true;
      if (token == "--help") entry.help = true;
      if (token == "--data-dir") {
        require(has_next, "usage", "--data-dir needs a nonempty path");
        entry.data_dir = path_from_utf8(arguments[++i]);
        entry.data_dir_given = true;
      }
      continue;
    }
    entry.arguments.push_back(token);
    if (values.contains(token)) {
      require(has_next, "usage", "Option needs a nonempty value: " + token);
      require(bounded_token(arguments[i + 1]), "usage", "CLI option value exceeds its bound or contains NUL");
      entry.arguments.push_back(arguments[++i]);
    }
  }
  require(!entry.data_dir.empty(), "usage", "Data directory must not be empty");
  const bool help_word = entry.arguments.size() == 1 && entry.arguments[0] == "help";
  if (!entry.help && !entry.arguments.empty() && !help_word) validate(entry.arguments);
  return entry;
}

std::string cli_option(std::vector<std::string>& arguments, std::string_view name, std::string_view fallback) {
  const std::size_t at = find_option(arguments, name);
  if (at == arguments.size()) return std::string(fallback);
  require(at + 1 < arguments.size(), "usage", std::string(name) + " needs a value");
  std::string value = std::move(arguments[at + 1]);
  const auto first = arguments.begin() + static_cast<std::ptrdiff_t>(at);
  arguments.erase(first, first + 2);
  return value;
}

bool cli_flag(std::vector<std::string>& arguments, std::string_view name) {
  const std::size_t at = find_option(arguments, name);
  if (at == arguments.size()) return false;
  arguments.erase(arguments.begin() + static_cast<std::ptrdiff_t>(at));
  return true;
}

std::vector<std::string> without_json(const std::vector<std::string>& arguments) {
  // A "--json" that is an option's value is that option's text, as in the
  // parse: only the global option goes.
  const NameSet& values = cli_value_options();
  std::vector<std::string> words;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] != "--json") words.push_back(arguments[i]);
    if (values.contains(arguments[i]) && i + 1 < arguments.size()) words.push_back(arguments[++i]);
  }
  return words;
}

std::string cli_help() {
  return "Zorvi 0.1.0\n"
         "Usage: zorvi [--data-dir PATH] [--json] COMMAND\n"
         "  repository configure --origin HTTPS_ORIGIN --root FILE [--ca-bundle FILE]\n"
         "  list | status GAME | manage GAME | locations GAME\n"
         "  install GAME [--launch] | update GAME [--launch] | verify GAME | repair GAME | rollback GAME\n"
         "  update GAME --after-exit --build BUILD [--session SESSION]\n"
         "  launch GAME [--play-current]\n"
         "  observe GAME [--session SESSION]\n"
         "  updates check [--background] | updates show GAME | updates defer GAME --build BUILD\n"
         "  preload GAME [--build BUILD] | preloads | preloads discard GAME --build BUILD\n"
         "  self status | self update | self cleanup\n"
         "  self uninstall [--remove-data]\n"
         "  self shortcut create [--game GAME] | self shortcut remove\n"
         "  uninstall GAME --confirm-game GAME [--remove-saves]\n"
         "  operations list | operations show|wait|cancel|retry ID\n"
         "  settings get | settings set KEY JSON_VALUE\n"
         "  channel set GAME CHANNEL\n"
         "  channel unlock GAME      (reads the access code from standard input)\n"
         "  open GAME content|saves|state\n"
         "  available | notices | service status [--cached]\n"
         "  crashes list [--all] | crashes show|discard|restore REPORT | crashes cleanup\n"
         "  crashes delete REPORT --confirm-report REPORT\n"
         "  crashes send REPORT --consent-version VERSION [--age-16-or-older]\n"
         "  agreements | agreements show ID | agreements agree ID --agreement-version VERSION --age-16-or-older | "
         "agreements withdraw ID\n"
         "Commands share the GUI backend.\n";
}

}  // namespace zorvi
