#pragma once

#include <optional>

#include "client/tuf/tuf.hpp"
#include "tests/support/https_server.hpp"

namespace zorvi::testing {

// A repository made by tests/tuf_repository.py and served by nginx, and a
// trust folder that starts from its first root.
struct TufRepository {
  explicit TufRepository(const std::string& build = "");
  void run(const std::string& command) const;  // one more fixture-script command, words split at blanks
  void serve(const std::string& nginx = "");   // restarts the server with this configuration
  TufClient client(std::uint64_t rotations = 8, std::uint64_t delegations = 8);
  // tests/programs/tuf_fetch fetching `target` into `out`: the program's path, then its arguments.
  std::vector<std::string> fetch_command(const std::string& target, const std::string& rate = "0",
                                         const std::string& scope = "crash-test") const;

  TempDir dir;
  std::filesystem::path repo = dir / "repo", trust = dir / "trust", out = dir / "out";
  std::optional<HttpsServer> server;
  std::optional<HttpsTransport> metadata, targets;
};

}  // namespace zorvi::testing
