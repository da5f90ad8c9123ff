#include "tests/support/tuf_support.hpp"

#include <sstream>

#include <gtest/gtest.h>

namespace zorvi::testing {

TufRepository::TufRepository(const std::string& build) {
  run("build " + build);
  TufClient::initialize(trust, read_text(repo / "metadata/1.root.json"));
  serve();
}

void TufRepository::run(const std::string& command) const {
  std::vector<std::string> argv{"python3", (source_dir() / "tests/tuf_repository.py").string(), repo.string()};
  std::istringstream words(command);
  for (std::string word; words >> word;) argv.push_back(word);
  const CommandResult result = run_command(argv);
  ASSERT_EQ(result.status, 0) << result.err;
}

void TufRepository::serve(const std::string& nginx) {
  server.emplace(repo, nginx);
  metadata.emplace(server->base_url() + "metadata/", server->ca_bundle(), 0, nullptr);
  targets.emplace(server->base_url() + "targets/", server->ca_bundle(), 0, nullptr);
}

std::vector<std::string> TufRepository::fetch_command(const std::string& target, const std::string& rate,
                                                      const std::string& scope) const {
  return {binary_dir() / "tuf_fetch", trust, server->base_url(), server->ca_bundle(), out, target, rate, scope};
}

TufClient TufRepository::client(std::uint64_t rotations, std::uint64_t delegations) {
  return TufClient(trust, *metadata, *targets, {1 << 20, 1 << 16, 1 << 22, rotations, delegations}, {});
}

}  // namespace zorvi::testing
