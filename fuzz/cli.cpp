// The command-line grammar over tokens separated by newlines (a token may hold
// any other byte, NUL included). An accepted line says "--json" exactly when
// the early look that lets a refusal answer in JSON saw it.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "client/app/cli_entry.hpp"
#include "client/domain/error.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> tokens(1);
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == '\n') {
      tokens.emplace_back();
    } else {
      tokens.back() += static_cast<char>(data[i]);
    }
  }
  if (size == 0) tokens.clear();
  bool json_seen = false;
  try {
    const zorvi::CliEntry entry = zorvi::parse_cli_entry(tokens, "/var/empty/zorvi", &json_seen);
    if (entry.json != json_seen) std::abort();
    static_cast<void>(zorvi::without_json(entry.arguments));
  } catch (const zorvi::Error&) {
  }
  return 0;
}
