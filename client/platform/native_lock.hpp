#pragma once

#include <cstdint>
#include <filesystem>

namespace zorvi {

enum class LockMode : std::uint8_t { exclusive = 0, shared = 1 };

// Advisory lock on a private file in a private directory, for operations on state.
class FileLock {
 public:
  FileLock(const std::filesystem::path& path, bool wait, LockMode mode);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  bool matches_path(const std::filesystem::path& path) const;
  // Keeps the lock until the process ends, even after this object is gone.
  void retain_until_process_exit();

 private:
  int descriptor_ = -1;
};

// Whether other installers may share the installation; only its range is checked here.
enum class NativeLockSharing : std::uint8_t { exclusive_install = 0, shared_install = 1 };

// Ownership of a native installation: a private, empty lock file in an ordinary folder.
class NativeFileLock {
 public:
  NativeFileLock(const std::filesystem::path& path, bool create, NativeLockSharing sharing, LockMode mode);
  ~NativeFileLock();
  NativeFileLock(const NativeFileLock&) = delete;
  NativeFileLock& operator=(const NativeFileLock&) = delete;

  bool matches_path(const std::filesystem::path& path) const;

 private:
  int descriptor_ = -1;
};

}  // namespace zorvi
