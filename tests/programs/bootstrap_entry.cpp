// A bootstrap for the tests: bootstrap_entry DATA-DIR cli|gui LIMIT-MS ARGS...
// Holds the installation's lifetime lock as the real one does, then runs the
// bootstrap; a raised Error is printed as "zorvi: CODE: MESSAGE", status 1.
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "client/app/launcher_bootstrap.hpp"
#include "client/domain/error.hpp"

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  try {
    const std::filesystem::path data_dir = argv[1];
    const zorvi::NativeFileLock lifetime(data_dir / ".native-bootstrap.lock", true,
                                         zorvi::NativeLockSharing::exclusive_install, zorvi::LockMode::shared);
    return zorvi::run_launcher_bootstrap(data_dir, argv[2], std::vector<std::string>(argv + 4, argv + argc),
                                         std::stoll(argv[3]), lifetime);
  } catch (const zorvi::Error& error) {
    std::cerr << "zorvi: " << error.code << ": " << error.what() << std::endl;
    return 1;
  }
}
