// Saves a launcher store's state over and over, for a test that kills it at
// an arbitrary point of a durable write.
//   launcher_probe DATA_DIR    prints "ready" after the first save
#include <iostream>

#include "client/app/launcher.hpp"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const zorvi::LauncherStore store(argv[1], true);
  for (bool first = true;; first = false) {
    const zorvi::FileLock lock = store.owner();
    zorvi::json state = store.load();
    store.save(state);
    if (first) std::cout << "ready" << std::endl;
  }
}
