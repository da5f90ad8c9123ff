#include "client/app/cli_entry.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

using Tokens = std::vector<std::string>;

const std::filesystem::path default_dir = "/home/player/.local/share/zorvi";

Tokens split(const std::string& line) {
  Tokens tokens;
  std::istringstream stream(line);
  for (std::string token; stream >> token;) tokens.push_back(token == "''" ? "" : token);
  return tokens;
}

CliEntry parse(const Tokens& tokens) { return parse_cli_entry(tokens, default_dir, nullptr); }

// One accepted invocation for every row of the table and for the two self
// commands checked by hand, with options in varied positions.
TEST(CliEntry, AcceptsEveryCommand) {
  const char* lines[] = {
      "list",
      "available",
      "notices",
      "preload star-harbor",
      "preload star-harbor --build b-2",
      "preloads discard star-harbor --build b-2",
      "preloads",
      "status star-harbor",
      "manage star-harbor",
      "locations star-harbor",
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
      "operations list",
      "operations show op-1",
      "operations wait op-1",
      "operations cancel op-1",
      "operations retry op-1",
      "repository configure --origin https://example.test --root root.json",
      "repository configure --root root.json --ca-bundle ca.pem --origin https://example.test",
      "updates check --background",
      "updates show star-harbor",
      "updates defer star-harbor --build b-2",
      "install star-harbor --launch",
      "update star-harbor",
      "update star-harbor --launch",
      "update star-harbor --after-exit --build b-2",
      "update --after-exit star-harbor --session s-1 --build b-2",
      "repair star-harbor",
      "verify star-harbor",
      "rollback star-harbor",
      "launch star-harbor --play-current",
      "observe star-harbor --session s-1",
      "uninstall star-harbor --confirm-game star-harbor --remove-saves",
      "channel set star-harbor beta",
      "channel unlock star-harbor",
      "open star-harbor saves",
      "self uninstall",
      "self uninstall --remove-data",
      "self shortcut create",
      "self shortcut remove",
      "self shortcut create --game star-harbor",
      "status -x",  // only a token that begins "--" is an option
  };
  for (const char* line : lines) {
    const Tokens tokens = split(line);
    SCOPED_TRACE(line);
    EXPECT_NO_THROW({
      const CliEntry entry = parse(tokens);
      EXPECT_EQ(entry.arguments, tokens);
      EXPECT_EQ(entry.data_dir, default_dir);
    });
  }
}

struct Refusal {
  const char* line;
  const char* code;
  const char* message;
};

void expect_refusals(const std::vector<Refusal>& refusals) {
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.line);
    try {
      parse(split(refusal.line));
      ADD_FAILURE() << "accepted";
    } catch (const Error& error) {
      EXPECT_EQ(error.code, refusal.code);
      EXPECT_STREQ(error.what(), refusal.message);
    }
  }
}

TEST(CliEntry, RefusesGlobalOptionMistakes) {
  expect_refusals({
      {"--json list --json", "usage", "Duplicate global option: --json"},
      {"--help --help", "usage", "Duplicate global option: --help"},
      {"--data-dir /a list --data-dir /b", "usage", "Duplicate global option: --data-dir"},
      {"list --data-dir", "usage", "--data-dir needs a nonempty path"},
      {"list --data-dir ''", "usage", "--data-dir needs a nonempty path"},
      {"preload g --build", "usage", "Option needs a nonempty value: --build"},
      {"preload g --build ''", "usage", "Option needs a nonempty value: --build"},
      {"self shortcut create --game", "usage", "Option needs a nonempty value: --game"},
  });
}

TEST(CliEntry, RefusesCommandShapes) {
  expect_refusals({
      {"nonsense", "usage", "Unknown command; run zorvi --help"},
      {"self", "usage", "Unknown command; run zorvi --help"},
      {"self destruct", "usage", "Unknown command; run zorvi --help"},
      {"list --create x", "usage", "Unsupported option: --create"},
      {"--keep-bytes 5", "usage", "Unknown command; run zorvi --help"},
      {"list --verbose", "usage", "Unsupported option: --verbose"},
      {"list --", "usage", "Unsupported option: --"},
      {"status", "usage", "Wrong number of command operands; run zorvi --help"},
      {"list extra", "usage", "Wrong number of command operands; run zorvi --help"},
      {"preloads x", "usage", "Wrong number of command operands; run zorvi --help"},
      {"list -x", "usage", "Wrong number of command operands; run zorvi --help"},
      {"status ''", "usage", "Command operands must not be empty"},
      {"preload g --build a --build b", "usage", "Duplicate or missing option value: --build"},
      {"service status --cached --cached", "usage", "Duplicate option: --cached"},
      {"self uninstall now", "usage", "Use self uninstall [--remove-data]"},
      {"self uninstall --remove-data --remove-data", "usage", "Use self uninstall [--remove-data]"},
      {"self shortcut", "usage", "Use self shortcut create [--game GAME] or self shortcut remove"},
      {"self shortcut make", "usage", "Use self shortcut create [--game GAME] or self shortcut remove"},
      {"self shortcut remove --game g", "usage", "Use self shortcut create [--game GAME] or self shortcut remove"},
      {"self shortcut create --game Bad", "usage",
       "Game, build, session, report and operation IDs must be valid identifiers"},
  });
}

TEST(CliEntry, RefusesMissingConfirmations) {
  expect_refusals({
      {"uninstall a", "confirmation_required",
       "Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves"},
      {"uninstall a --confirm-game b", "confirmation_required",
       "Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves"},
      {"crashes delete r1", "confirmation_required", "Confirm the exact report with --confirm-report REPORT"},
      {"crashes delete r1 --confirm-report r2", "confirmation_required",
       "Confirm the exact report with --confirm-report REPORT"},
      {"agreements agree terms --age-16-or-older", "agreement_version",
       "Read it with agreements show ID, then agree with --agreement-version VERSION"},
      {"crashes send r1", "crash_consent", "Review the report, then supply its exact --consent-version"},
      {"repository configure --origin https://example.test", "usage",
       "Repository setup needs --origin and an out-of-band trusted --root"},
      {"repository configure --root root.json", "usage",
       "Repository setup needs --origin and an out-of-band trusted --root"},
      {"updates defer g", "usage", "Deferral needs --build BUILD"},
      {"preloads discard g", "usage", "Removing a preload needs GAME --build BUILD"},
  });
}

TEST(CliEntry, RefusesCommandValues) {
  const char* ids = "Game, build, session, report and operation IDs must be valid identifiers";
  const char* update = "Use update GAME --after-exit --build BUILD [--session SESSION], or update GAME [--launch]";
  expect_refusals({
      {"update g --build b", "usage", update},
      {"update g --session s", "usage", update},
      {"update g --after-exit", "usage", update},
      {"update g --after-exit --launch --build b", "usage", update},
      {"settings set key 1e3", "usage", "Setting value must be bounded valid JSON"},
      {"settings set key {", "usage", "Setting value must be bounded valid JSON"},
      {"settings set key {\"a\":1,\"a\":2}", "usage", "Setting value must be bounded valid JSON"},
      {"open g files", "usage", "Open expects content, saves or state"},
      {"preload Star", "usage", ids},
      {"preloads discard ../x --build b", "usage", ids},
      {"preload g --build B", "usage", ids},
      {"update g --after-exit --build b --session S", "usage", ids},
      {"channel set g Beta", "usage", ids},
      {"crashes show ..", "usage", ids},
      {"operations wait op/1", "usage", ids},
      {"agreements show Terms", "usage", ids},
      {"updates show G", "usage", ids},
      {"open G saves", "usage", ids},
  });
}

TEST(CliEntry, ChecksConfirmationsBeforeIdentifiers) {
  // A confirmation the user forgot matters more than a typing mistake.
  expect_refusals({{"uninstall BAD", "confirmation_required",
                    "Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves"}});
  EXPECT_NO_THROW(parse(split("uninstall g --confirm-game g")));
}

TEST(CliEntry, MatchesTheFirstRowWhoseWordsPrefixTheLine) {
  // "preloads discard" stands before "preloads", so the longer phrase wins.
  EXPECT_NO_THROW(parse(split("preloads discard x --build b")));
  // Operand words are never command words: "preloads" does not match "preload".
  expect_refusals({{"preloads x", "usage", "Wrong number of command operands; run zorvi --help"}});
  // Each "agreements ..." row stands before the bare "agreements" row.
  EXPECT_NO_THROW(parse(split("agreements withdraw terms")));
  expect_refusals({{"agreements terms", "usage", "Wrong number of command operands; run zorvi --help"}});
}

TEST(CliEntry, TakesGlobalOptionsAnywhere) {
  CliEntry entry = parse(split("--json status g"));
  EXPECT_TRUE(entry.json);
  EXPECT_EQ(entry.arguments, split("status g"));
  entry = parse(split("status --data-dir /srv/z g --json"));
  EXPECT_TRUE(entry.json);
  EXPECT_TRUE(entry.data_dir_given);
  EXPECT_EQ(entry.data_dir, "/srv/z");
  EXPECT_EQ(entry.arguments, split("status g"));
  EXPECT_FALSE(parse(split("list")).data_dir_given);
  // A value is never a global option.
  entry = parse(split("repository configure --origin --json --root r"));
  EXPECT_FALSE(entry.json);
  EXPECT_EQ(entry.arguments, split("repository configure --origin --json --root r"));
}

TEST(CliEntry, HelpSkipsValidation) {
  EXPECT_TRUE(parse(split("--help nonsense")).help);
  EXPECT_EQ(parse(split("--help nonsense")).arguments, split("nonsense"));
  EXPECT_NO_THROW(parse(split("help")));
  expect_refusals({{"help me", "usage", "Unknown command; run zorvi --help"}});
  EXPECT_TRUE(parse({}).arguments.empty());
}

TEST(CliEntry, RequiresADataDirectory) {
  try {
    parse_cli_entry({"list"}, {}, nullptr);
    ADD_FAILURE();
  } catch (const Error& error) {
    EXPECT_STREQ(error.what(), "Data directory must not be empty");
  }
  EXPECT_EQ(parse_cli_entry({"--data-dir", "/d", "list"}, {}, nullptr).data_dir, "/d");
}

TEST(CliEntry, ReportsJsonEvenForARefusedLine) {
  bool json_seen = false;
  EXPECT_THROW(parse_cli_entry(split("nonsense --json"), default_dir, &json_seen), Error);
  EXPECT_TRUE(json_seen);
  json_seen = false;
  EXPECT_THROW(parse_cli_entry(split("nonsense --origin --json"), default_dir, &json_seen), Error);
  EXPECT_FALSE(json_seen);
  // The first pass runs before the bounds, so even a line that is too long answers in JSON.
  Tokens many(200, "x");
  many.push_back("--json");
  EXPECT_THROW(parse_cli_entry(many, default_dir, &json_seen), Error);
  EXPECT_TRUE(json_seen);
}

TEST(CliEntry, BoundsTokens) {
  Tokens tokens{"--help"};
  tokens.resize(max_cli_tokens, "word");
  EXPECT_NO_THROW(parse(tokens));
  tokens.push_back("word");
  try {
    parse(tokens);
    ADD_FAILURE();
  } catch (const Error& error) {
    EXPECT_STREQ(error.what(), "CLI invocation exceeds 128 arguments");
  }
  const std::string longest(max_cli_token, 'a');
  EXPECT_NO_THROW(parse({"--help", longest}));
  for (const Tokens& bad : {Tokens{"--help", longest + "a"}, Tokens{"--help", std::string("a\0b", 3)},
                            Tokens{"status", longest + "a"}}) {
    try {
      parse(bad);
      ADD_FAILURE();
    } catch (const Error& error) {
      EXPECT_EQ(error.code, "usage");
      EXPECT_STREQ(error.what(), "CLI argument exceeds its bound or contains NUL");
    }
  }
}

TEST(CliEntry, BoundsSettingValues) {
  const std::string fits = "\"" + std::string(max_cli_setting - 2, 'v') + "\"";
  EXPECT_NO_THROW(parse({"settings", "set", "key", fits}));
  EXPECT_NO_THROW(parse(split("settings set key 1000")));
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

  for (const char* line : {"x --build", "x --session"}) {
    arguments = split(line);
    try {
      cli_option(arguments, "--build", "");
      ADD_FAILURE();
    } catch (const Error& error) {
      EXPECT_EQ(error.code, "usage");
      EXPECT_EQ(std::string(error.what()), split(line)[1] + " needs a value");
    }
  }
}

TEST(CliEntry, HelpTextListsEveryCommandLine) {
  const std::string help = cli_help();
  EXPECT_TRUE(help.starts_with("Zorvi 0.1.0\nUsage: zorvi [--data-dir PATH] [--json] COMMAND\n"));
  EXPECT_TRUE(help.ends_with("\nCommands share the GUI backend.\n"));
  EXPECT_EQ(std::count(help.begin(), help.end(), '\n'), 25);
  EXPECT_NE(help.find("  channel unlock GAME      (reads the access code from standard input)\n"), std::string::npos);
}

}  // namespace
}  // namespace zorvi
