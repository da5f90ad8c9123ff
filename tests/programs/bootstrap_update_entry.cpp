// The bootstrap self-update, driven from outside the installed tree:
//   bootstrap_update_entry stage TRUST BASE_URL CA_BUNDLE DATA_DIR
//   bootstrap_update_entry apply IMAGE
// "stage" prints its result, "apply" acts for IMAGE as its own start would;
// an Error prints "CODE: MESSAGE" and exits 1. A crash-test build: see
// durable_kill.hpp.
#include <iostream>
#include <string_view>

#include "client/app/bootstrap_update.hpp"
#include "client/domain/error.hpp"
#include "client/transport/https.hpp"
#include "tests/programs/durable_kill.hpp"

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  durable_kill::from_environment();
  try {
    if (std::string_view(argv[1]) == "apply") {
      zorvi::apply_pending_bootstrap_update(argv[2]);
      return 0;
    }
    if (argc != 6) return 2;
    const std::string base = argv[3];
    zorvi::HttpsTransport metadata(base + "metadata/", argv[4], 0, nullptr);
    zorvi::HttpsTransport targets(base + "targets/", argv[4], 0, nullptr);
    zorvi::TufClient client(argv[2], metadata, targets, {1 << 20, 1 << 16, 1 << 22, 8, 8}, {});
    client.refresh();
    std::cout << zorvi::stage_bootstrap_update(argv[5], client, {}) << std::endl;
    return 0;
  } catch (const zorvi::Error& error) {
    std::cout << error.code << ": " << error.what() << std::endl;
    return 1;
  }
}
