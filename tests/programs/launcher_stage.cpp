// Refreshes a repository and stages its launcher release into a data folder:
//   launcher_stage TRUST BASE_URL CA_BUNDLE DATA_DIR
// Prints the staging result, or "CODE: MESSAGE" and exits 1. A crash-test
// build: see durable_kill.hpp.
#include "client/app/launcher.hpp"
#include "client/tuf/tuf.hpp"
#include "tests/programs/durable_kill.hpp"
#include "tests/programs/program.hpp"

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  durable_kill::from_environment();
  return program::reporting([&] {
    const std::string base = argv[2];
    zorvi::HttpsTransport metadata(base + "metadata/", argv[3], 0, nullptr);
    zorvi::HttpsTransport targets(base + "targets/", argv[3], 0, nullptr);
    zorvi::TufClient client(argv[1], metadata, targets, {1 << 20, 1 << 16, 1 << 22, 8, 8}, {});
    client.refresh();
    std::cout << zorvi::LauncherStore(argv[4], true).stage(client, {}, {}, false).dump() << std::endl;
    return 0;
  });
}
