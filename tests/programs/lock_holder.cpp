// Holds one lock for a test until it is killed.
//   lock_holder file|native PATH exclusive|shared
// Prints "locked" once the lock is held, or "error|CODE|MESSAGE".
#include <unistd.h>

#include <iostream>
#include <optional>
#include <string>

#include "client/domain/error.hpp"
#include "client/platform/native_lock.hpp"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const std::filesystem::path path = argv[2];
  const auto mode = std::string(argv[3]) == "shared" ? zorvi::LockMode::shared : zorvi::LockMode::exclusive;
  std::optional<zorvi::FileLock> file_lock;
  std::optional<zorvi::NativeFileLock> native_lock;
  try {
    if (std::string(argv[1]) == "file") file_lock.emplace(path, false, mode);
    else native_lock.emplace(path, true, zorvi::NativeLockSharing::exclusive_install, mode);
  } catch (const zorvi::Error& error) {
    std::cout << "error|" << error.code << "|" << error.what() << std::endl;
    return 1;
  }
  std::cout << "locked" << std::endl;
  for (;;) ::pause();
}
