// The bootstrap self-update, driven from outside the installed tree:
//   bootstrap_update_entry stage TRUST BASE_URL CA_BUNDLE DATA_DIR
//   bootstrap_update_entry apply IMAGE
// "stage" prints its result, "apply" acts for IMAGE as its own start would;
// an Error prints "CODE: MESSAGE" and exits 1. A crash-test build: see
// durable_kill.hpp.
#include "client/app/bootstrap_update.hpp"
#include "tests/programs/durable_kill.hpp"
#include "tests/programs/program.hpp"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  const bool apply = args.size() == 2 && args[0] == "apply";
  if (!apply && args.size() != 5) return 2;
  durable_kill::from_environment();
  return program::reporting([&] {
    if (apply) {
      zorvi::apply_pending_bootstrap_update(args[1]);
      return 0;
    }
    zorvi::HttpsTransport metadata(args[2] + "metadata/", args[3], 0, nullptr);
    zorvi::HttpsTransport targets(args[2] + "targets/", args[3], 0, nullptr);
    zorvi::TufClient client(args[1], metadata, targets, {1 << 20, 1 << 16, 1 << 22, 8, 8}, {});
    client.refresh();
    std::cout << zorvi::stage_bootstrap_update(args[4], client, {}) << std::endl;
    return 0;
  });
}
