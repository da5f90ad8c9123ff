#include "client/app/cli_entry.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "client/domain/error.hpp"
#include "client/domain/json.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using Tokens = std::vector<std::string>;
using testing::outcome;

const std::filesystem::path default_dir = "/home/player/.local/share/zorvi";

// Words between spaces; '' stands for an empty token.
Tokens split(const std::string& line) {
  Tokens tokens;
  std::istringstream stream(line);
  for (std::string token; stream >> token;) tokens.push_back(token == "''" ? "" : token);
  return tokens;
}

CliEntry parse(const Tokens& tokens) { return parse_cli_entry(tokens, default_dir, nullptr); }
std::string verdict(const Tokens& tokens) {
  return outcome([&] { parse(tokens); });
}

// One line for each way through the grammar: options and flags in any
// position, each command's own rule, and the self commands checked by hand.
// An accepted line is passed on whole. The refusals name the rule each
// command checks; an accepted line shows the rule is not too strict.
TEST(CliEntry, AcceptsOrRefusesEachCodePathWithItsCodeAndMessage) {
  const std::pair<const char*, std::string> rows[] = {
      {"crashes delete r1 --confirm-report r1", "ok"},
      {"settings set volume {\"level\":3}", "ok"},
      {"update --after-exit g --session s --build b", "ok"},
      {"update g --launch", "ok"},
      {"uninstall g --confirm-game g --remove-saves", "ok"},
      {"self uninstall --remove-data", "ok"},
      {"self shortcut create", "ok"},
      {"self shortcut create --game g", "ok"},
      {"status -x", "ok"},
      {"help", "ok"},
      {"--json list --json", "usage: Duplicate global option: --json"},
      {"list --data-dir ''", "usage: --data-dir needs a nonempty path"},
      {"preload g --build", "usage: Option needs a nonempty value: --build"},
      {"self destruct", "usage: Unknown command; run zorvi --help"},
      {"list --verbose", "usage: Unsupported option: --verbose"},
      {"preloads x", "usage: Wrong number of command operands; run zorvi --help"},
      {"status ''", "usage: Command operands must not be empty"},
      {"preload g --build a --build b", "usage: Duplicate or missing option value: --build"},
      {"service status --cached --cached", "usage: Duplicate option: --cached"},
      {"self uninstall now", "usage: Use self uninstall [--remove-data]"},
      {"self shortcut remove --game g", "usage: Use self shortcut create [--game GAME] or self shortcut remove"},
      {"uninstall a --confirm-game b",
       "confirmation_required: Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves"},
      {"crashes delete r1 --confirm-report r2",
       "confirmation_required: Confirm the exact report with --confirm-report REPORT"},
      {"agreements agree terms",
       "agreement_version: Read it with agreements show ID, then agree with --agreement-version VERSION"},
      {"crashes send r1", "crash_consent: Review the report, then supply its exact --consent-version"},
      {"repository configure --origin https://e.test",
       "usage: Repository setup needs --origin and an out-of-band trusted --root"},
      {"updates defer g", "usage: Deferral needs --build BUILD"},
      {"preloads discard g", "usage: Removing a preload needs GAME --build BUILD"},
      {"update g --after-exit --launch --build b",
       "usage: Use update GAME --after-exit --build BUILD [--session SESSION], or update GAME [--launch]"},
      {"settings set key {\"a\":1,\"a\":2}", "usage: Setting value must be bounded valid JSON"},
      {"open g files", "usage: Open expects content, saves or state"},
      {"preload Star", "usage: Game, build, session, report and operation IDs must be valid identifiers"},
  };
  for (const auto& [line, expected] : rows) {
    EXPECT_EQ(verdict(split(line)), expected) << line;
    EXPECT_TRUE(expected != "ok" || parse(split(line)).arguments == split(line)) << line;
  }
  EXPECT_EQ(outcome([] { parse_cli_entry({"list"}, {}, nullptr); }), "usage: Data directory must not be empty");
}

TEST(CliEntry, TakesGlobalOptionsAnywhereButNeverAsAValueAndReportsJsonFirst) {
  const auto seen = [](const std::string& line) {
    const CliEntry entry = parse(split(line));
    return json({entry.json, entry.help, entry.data_dir_given, entry.data_dir.string(), entry.arguments});
  };
  EXPECT_EQ(seen("status --data-dir /srv/z g --json"), json({true, false, true, "/srv/z", split("status g")}));
  EXPECT_EQ(seen("repository configure --origin --json --root r")[0], false);
  EXPECT_EQ(seen("--help nonsense"), json({false, true, false, default_dir.string(), split("nonsense")}));  // unchecked
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

TEST(CliEntry, BoundsTokensAtAndPastTheLimit) {
  Tokens tokens(max_cli_tokens, "word");
  tokens[0] = "--help";
  EXPECT_EQ(verdict(tokens), "ok");
  tokens.push_back("word");
  EXPECT_EQ(verdict(tokens), "usage: CLI invocation exceeds 128 arguments");
  const std::string longest(max_cli_token, 'a');
  EXPECT_EQ(verdict({"--help", longest}), "ok");
  for (const Tokens& bad : {Tokens{"--help", longest + "a"}, Tokens{"--help", std::string("a\0b", 3)}})
    EXPECT_EQ(verdict(bad), "usage: CLI argument exceeds its bound or contains NUL");
}

TEST(CliEntry, TakesOptionsOutOfAHandlersList) {
  Tokens arguments = split("update g --session s --after-exit --build b");
  EXPECT_EQ(cli_option(arguments, "--build", "none"), "b");
  EXPECT_EQ(cli_option(arguments, "--build", "none"), "none");
  EXPECT_TRUE(cli_flag(arguments, "--after-exit"));
  EXPECT_EQ(arguments, split("update g --session s"));
  // A value that looks like the wanted name is stepped over, not taken.
  arguments = split("repository configure --origin --root --root r");
  EXPECT_EQ(cli_option(arguments, "--root", ""), "r");
  arguments = split("x --session --launch");
  EXPECT_FALSE(cli_flag(arguments, "--launch"));
  arguments = {"x", "--session"};
  EXPECT_EQ(outcome([&] { cli_option(arguments, "--build", ""); }), "usage: --session needs a value");
}

}  // namespace
}  // namespace zorvi
