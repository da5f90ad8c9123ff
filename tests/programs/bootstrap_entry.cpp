// bootstrap_entry DATA-DIR cli|gui LIMIT-MS ARGS...: the bootstrap under its
// lifetime lock, as the real one runs; an Error prints "zorvi: CODE: MESSAGE".
// A crash-test build: see durable_kill.hpp.
#include "client/app/launcher_bootstrap.hpp"
#include "tests/programs/durable_kill.hpp"
#include "tests/programs/program.hpp"

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  durable_kill::from_environment();
  return program::reporting(std::cerr, "zorvi: ", [&] {
    const zorvi::NativeFileLock lifetime(std::filesystem::path(argv[1]) / ".native-bootstrap.lock", true,
                                         zorvi::NativeLockSharing::exclusive_install, zorvi::LockMode::shared);
    return zorvi::run_launcher_bootstrap(argv[1], argv[2], {argv + 4, argv + argc}, std::stoll(argv[3]), lifetime);
  });
}
