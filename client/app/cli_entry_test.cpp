#include "client/app/cli_entry.hpp"

#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

#include <functional>
#include <sstream>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

using Tokens = std::vector<std::string>;

const std::filesystem::path default_dir = "/home/player/.local/share/zorvi";

// Words between spaces; '' stands for an empty token.
Tokens split(const std::string& line) {
  Tokens tokens;
  std::istringstream stream(line);
  for (std::string token; stream >> token;) tokens.push_back(token == "''" ? "" : token);
  return tokens;
}

CliEntry parse(const Tokens& tokens) { return parse_cli_entry(tokens, default_dir, nullptr); }

using testing::outcome;

std::string verdict(const Tokens& tokens) {
  return outcome([&] { parse(tokens); });
}

// One line for every row of the table and for the self commands checked by
// hand, with options in varied positions.
TEST(CliEntry, AcceptsEveryCommand) {
  const char* lines[] = {
      "list",
      "available",
      "notices",
      "preload g",
      "preload star-harbor --build b-2",
      "preloads discard g --build b",
      "preloads",
      "status g",
      "manage g",
      "locations g",
      "self status",
      "self update",
      "self cleanup",
      "service status",
      "service status --cached",
      "crashes list --all",
      "crashes cleanup",
      "agreements show terms",
      "agreements agree terms --agreement-version 3 --age-16-or-older",
      "agreements withdraw terms",
      "agreements",
      "crashes show r1",
      "crashes discard r1",
      "crashes restore r1",
      "crashes delete r1 --confirm-report r1",
      "crashes send r1 --consent-version 2 --age-16-or-older",
      "settings get",
      "settings set volume {\"level\":3}",
      "settings set key 1000",
      "operations list",
      "operations show op-1",
      "operations wait o",
      "operations cancel o",
      "operations retry o",
      "repository configure --origin https://example.test --root root.json",
      "repository configure --root root.json --ca-bundle ca.pem --origin https://example.test",
      "updates check --background",
      "updates show g",
      "updates defer g --build b",
      "install g --launch",
      "update g",
      "update g --launch",
      "update g --after-exit --build b",
      "update --after-exit g --session s --build b",
      "repair g",
      "verify g",
      "rollback g",
      "launch g --play-current",
      "observe g --session s",
      "uninstall g --confirm-game g --remove-saves",
      "uninstall g --confirm-game g",
      "channel set g beta",
      "channel unlock g",
      "open g saves",
      "self uninstall",
      "self uninstall --remove-data",
      "self shortcut create",
      "self shortcut remove",
      "self shortcut create --game g",
      "status -x",  // only a token that begins "--" is an option
      "help",       // the lone word skips validation, as --help does
  };
  for (const char* line : lines) {
    CliEntry entry;
    EXPECT_NO_THROW(entry = parse(split(line))) << line;
    EXPECT_EQ(entry.arguments, split(line)) << line;
    EXPECT_EQ(entry.data_dir, default_dir) << line;
  }
}

TEST(CliEntry, RefusesEveryMistakeWithItsCodeAndMessage) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> table = {
      {"usage: Duplicate global option: --json", {"--json list --json"}},
      {"usage: Duplicate global option: --help", {"--help --help"}},
      {"usage: Duplicate global option: --data-dir", {"--data-dir /a list --data-dir /b"}},
      {"usage: --data-dir needs a nonempty path", {"list --data-dir", "list --data-dir ''"}},
      {"usage: Option needs a nonempty value: --build", {"preload g --build", "preload g --build ''"}},
      {"usage: Option needs a nonempty value: --game", {"self shortcut create --game"}},
      {"usage: Unknown command; run zorvi --help", {"nonsense", "self", "self destruct", "--keep-bytes 5", "help me"}},
      {"usage: Unsupported option: --create", {"list --create x"}},
      {"usage: Unsupported option: --verbose", {"list --verbose"}},
      {"usage: Unsupported option: --", {"list --"}},
      // Operand words are never command words ("preloads x" is not "preload x"),
      // and each longer phrase stands before its head.
      {"usage: Wrong number of command operands; run zorvi --help",
       {"status", "list extra", "preloads x", "list -x", "agreements terms"}},
      {"usage: Command operands must not be empty", {"status ''"}},
      {"usage: Duplicate or missing option value: --build", {"preload g --build a --build b"}},
      {"usage: Duplicate option: --cached", {"service status --cached --cached"}},
      {"usage: Use self uninstall [--remove-data]",
       {"self uninstall now", "self uninstall --remove-data --remove-data"}},
      {"usage: Use self shortcut create [--game GAME] or self shortcut remove",
       {"self shortcut", "self shortcut make", "self shortcut remove --game g"}},
      // A confirmation the user forgot matters more than a typing mistake: "uninstall BAD".
      {"confirmation_required: Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves",
       {"uninstall a", "uninstall a --confirm-game b", "uninstall BAD"}},
      {"confirmation_required: Confirm the exact report with --confirm-report REPORT",
       {"crashes delete r1", "crashes delete r1 --confirm-report r2"}},
      {"agreement_version: Read it with agreements show ID, then agree with --agreement-version VERSION",
       {"agreements agree terms --age-16-or-older"}},
      {"crash_consent: Review the report, then supply its exact --consent-version", {"crashes send r1"}},
      {"usage: Repository setup needs --origin and an out-of-band trusted --root",
       {"repository configure --origin https://example.test", "repository configure --root root.json"}},
      {"usage: Deferral needs --build BUILD", {"updates defer g"}},
      {"usage: Removing a preload needs GAME --build BUILD", {"preloads discard g"}},
      {"usage: Use update GAME --after-exit --build BUILD [--session SESSION], or update GAME [--launch]",
       {"update g --build b", "update g --session s", "update g --after-exit",
        "update g --after-exit --launch --build b"}},
      {"usage: Setting value must be bounded valid JSON",
       {"settings set key 1e3", "settings set key {", "settings set key {\"a\":1,\"a\":2}"}},
      {"usage: Open expects content, saves or state", {"open g files"}},
      {"usage: Game, build, session, report and operation IDs must be valid identifiers",
       {"self shortcut create --game Bad", "preload Star", "preloads discard ../x --build b", "preload g --build B",
        "update g --after-exit --build b --session S", "channel set g Beta", "crashes show ..", "operations wait op/1",
        "agreements show Terms", "updates show G", "open G saves"}},
  };
  for (const auto& [expected, lines] : table)
    for (const std::string& line : lines) EXPECT_EQ(verdict(split(line)), expected) << line;
  EXPECT_EQ(outcome([] { parse_cli_entry({"list"}, {}, nullptr); }), "usage: Data directory must not be empty");
}

TEST(CliEntry, TakesGlobalOptionsAnywhereButNeverAsAValueAndReportsJsonFirst) {
  CliEntry entry = parse(split("--json status g"));
  EXPECT_TRUE(entry.json && !entry.data_dir_given);
  EXPECT_EQ(entry.arguments, split("status g"));
  entry = parse(split("status --data-dir /srv/z g --json"));
  EXPECT_TRUE(entry.json && entry.data_dir_given);
  EXPECT_EQ(entry.data_dir, "/srv/z");
  EXPECT_EQ(entry.arguments, split("status g"));
  EXPECT_EQ(parse_cli_entry(split("--data-dir /d list"), {}, nullptr).data_dir, "/d");
  entry = parse(split("repository configure --origin --json --root r"));
  EXPECT_FALSE(entry.json);
  EXPECT_EQ(entry.arguments, split("repository configure --origin --json --root r"));
  // --help skips validation; no words at all are the caller's to read.
  entry = parse(split("--help nonsense"));
  EXPECT_TRUE(entry.help);
  EXPECT_EQ(entry.arguments, split("nonsense"));
  EXPECT_TRUE(parse({}).arguments.empty());
  // The first pass that reports --json runs before every check, bounds
  // included, so that even a refusal can be answered in JSON.
  Tokens many(200, "x");
  many.push_back("--json");
  for (const Tokens& tokens : {split("nonsense --json"), split("nonsense --origin --json"), many}) {
    bool json_seen = false;
    EXPECT_THROW(parse_cli_entry(tokens, default_dir, &json_seen), Error);
    EXPECT_EQ(json_seen, tokens[1] != "--origin") << tokens[1];
  }
}

TEST(CliEntry, BoundsTokens) {
  Tokens tokens(max_cli_tokens, "word");
  tokens[0] = "--help";
  EXPECT_EQ(verdict(tokens), "ok");
  tokens.push_back("word");
  EXPECT_EQ(verdict(tokens), "usage: CLI invocation exceeds 128 arguments");
  const std::string longest(max_cli_token, 'a');
  EXPECT_EQ(verdict({"--help", longest}), "ok");
  EXPECT_EQ(verdict({"settings", "set", "key", "\"" + longest.substr(2) + "\""}), "ok");
  for (const Tokens& bad :
       {Tokens{"--help", longest + "a"}, Tokens{"--help", std::string("a\0b", 3)}, Tokens{"status", longest + "a"}})
    EXPECT_EQ(verdict(bad), "usage: CLI argument exceeds its bound or contains NUL");
}

TEST(CliEntry, TakesOptionsOutOfAHandlersList) {
  Tokens arguments = split("update g --session s --after-exit --build b");
  EXPECT_EQ(cli_option(arguments, "--build", "none"), "b");
  EXPECT_EQ(arguments, split("update g --session s --after-exit"));
  EXPECT_EQ(cli_option(arguments, "--build", "none"), "none");
  EXPECT_TRUE(cli_flag(arguments, "--after-exit"));
  EXPECT_FALSE(cli_flag(arguments, "--after-exit"));
  EXPECT_EQ(arguments, split("update g --session s"));

  // A value that looks like the wanted name is stepped over, not taken.
  arguments = split("repository configure --origin --root --root r");
  EXPECT_EQ(cli_option(arguments, "--root", ""), "r");
  EXPECT_EQ(arguments, split("repository configure --origin --root"));
  arguments = split("x --session --launch");
  EXPECT_FALSE(cli_flag(arguments, "--launch"));

  for (const std::string name : {"--build", "--session"}) {
    arguments = {"x", name};
    EXPECT_EQ(outcome([&] { cli_option(arguments, "--build", ""); }), "usage: " + name + " needs a value");
  }
}

}  // namespace
}  // namespace zorvi
