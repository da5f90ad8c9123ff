// A bootstrap build that fails the start check an update asks of it: it exits
// 1, or, in a build whose id ends in "-hang", never answers at all.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

int main() {
  if (std::getenv("ZORVI_BOOTSTRAP_START_CHECK") == nullptr) return 0;
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path tree = fs::read_symlink("/proc/self/exe", error).parent_path().parent_path();
  for (const auto& entry : fs::directory_iterator(tree, error))
    if (entry.path().filename().string().ends_with("-hang"))
      for (;;) ::pause();
  return 1;
}
