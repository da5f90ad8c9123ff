#pragma once

#include <cstddef>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace zorvi {

// A command line that has passed every lexical check; handlers can rely on it.
struct CliEntry {
  std::filesystem::path data_dir;
  std::vector<std::string> arguments;  // everything but the global options, values included
  bool json = false;
  bool help = false;
  bool data_dir_given = false;
};

// One row of the command table: the words that select it, how many operands
// it takes, and which options it offers with and without a value.
struct Grammar {
  std::vector<std::string> words;
  std::size_t operands = 0;
  std::set<std::string, std::less<>> flags;
  std::set<std::string, std::less<>> options;
};

inline constexpr std::size_t max_cli_tokens = 128;
inline constexpr std::size_t max_cli_token = 16384;
inline constexpr std::size_t max_cli_setting = 16384;

// The command table in matching order: the first row whose words prefix the
// arguments wins, so longer phrases stand before their shorter heads.
const std::vector<Grammar>& cli_grammar();

// Every option name that takes a value, wider than the table so that a value
// is never mistaken for an option or a command word.
const std::set<std::string, std::less<>>& cli_value_options();

// Checks the tokens behind the program name. `json_seen`, when given, is set
// as soon as "--json" appears anywhere, so that even a refusal can be
// answered in JSON.
CliEntry parse_cli_entry(const std::vector<std::string>& arguments, const std::filesystem::path& default_data_dir,
                         bool* json_seen);

// Takes a value option (and its value) out of a handler's arguments.
std::string cli_option(std::vector<std::string>& arguments, std::string_view name, std::string_view fallback);

// Takes a flag out of a handler's arguments; true when it was there.
bool cli_flag(std::vector<std::string>& arguments, std::string_view name);

// The arguments with the global "--json" taken out (an option's value stays,
// even one that reads "--json"), for commands that decide on their words alone.
std::vector<std::string> without_json(const std::vector<std::string>& arguments);

std::string cli_help();

}  // namespace zorvi
