// Holds one lock for a test until its standard input ends.
//   lock_holder file|native PATH exclusive|shared [retain]
// Prints "locked" once the lock is held, or "error|CODE|MESSAGE".
#include <iostream>
#include <memory>
#include <string>

#include "client/domain/error.hpp"
#include "client/platform/native_lock.hpp"

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const std::string kind = argv[1];
  const std::filesystem::path path = argv[2];
  const auto mode = std::string(argv[3]) == "shared" ? zorvi::LockMode::shared : zorvi::LockMode::exclusive;
  const bool retain = argc > 4 && std::string(argv[4]) == "retain";
  std::unique_ptr<zorvi::FileLock> file_lock;
  std::unique_ptr<zorvi::NativeFileLock> native_lock;
  try {
    if (kind == "file") {
      file_lock = std::make_unique<zorvi::FileLock>(path, false, mode);
      if (retain) {
        file_lock->retain_until_process_exit();
        file_lock.reset();
      }
    } else {
      native_lock = std::make_unique<zorvi::NativeFileLock>(path, true, zorvi::NativeLockSharing::exclusive_install, mode);
    }
  } catch (const zorvi::Error& error) {
    std::cout << "error|" << error.code << "|" << error.what() << std::endl;
    return 1;
  }
  std::cout << "locked" << std::endl;
  std::string line;
  std::getline(std::cin, line);
  return 0;
}
