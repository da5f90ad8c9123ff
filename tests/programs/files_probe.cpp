// Runs one durable-file operation for a test that needs a process of its own:
// to be killed, traced, run as another user, or given a private mount.
//   files_probe atomic_write|atomic_create|atomic_private_create|replace_private_file TARGET TEXT
//   files_probe private_directory DIR
//   files_probe commit|exchange FIRST SECOND
//   files_probe hold_lock|hold_native_lock PATH exclusive|shared
//                                    prints "locked" and holds the lock until killed
// Prints "ok" or "CODE|MESSAGE". ZORVI_TEST_KILL_AT_STEP kills it after a durable step.
#include <map>

#include "client/platform/files.hpp"
#include "client/platform/native_lock.hpp"
#include "client/platform/posix_files.hpp"
#include "tests/programs/durable_kill.hpp"
#include "tests/programs/program.hpp"

namespace {

using namespace zorvi;

LockMode lock_mode(const std::string& name) { return name == "shared" ? LockMode::shared : LockMode::exclusive; }

// Holds `lock` (taken by the caller) until killed.
template <class Lock>
[[noreturn]] void hold(const Lock&) {
  std::cout << "locked" << std::endl;
  for (;;) ::pause();
}

}  // namespace

int main(int argc, char** argv) {
  durable_kill::from_environment();
  const std::vector<std::string> args(argv + 1, argv + argc);
  using Operation = std::function<void(const std::string&, const std::string&)>;
  const std::map<std::string, Operation> operations = {
      {"atomic_write", [](auto& path, auto& text) { atomic_write(path, text); }},
      {"atomic_create", [](auto& path, auto& text) { atomic_create(path, text); }},
      {"atomic_private_create", [](auto& path, auto& text) { atomic_private_create(path, text); }},
      {"replace_private_file", [](auto& path, auto& text) { replace_private_file(path, text); }},
      {"private_directory", [](auto& path, auto&) { private_directory(path); }},
      {"commit", [](auto& first, auto& second) { commit_private_path_new(first, second, {}); }},
      {"exchange", [](auto& first, auto& second) { exchange_private_directories(first, second, {}); }},
      {"hold_lock", [](auto& path, auto& mode) { hold(FileLock(path, false, lock_mode(mode))); }},
      {"hold_native_lock", [](auto& path, auto& mode) { hold(NativeFileLock(path, true, {}, lock_mode(mode))); }},
  };
  if (args.size() < 2 || args.size() > 3 || !operations.contains(args[0])) return 2;
  try {
    operations.at(args[0])(args[1], args.size() == 3 ? args[2] : "");
    std::cout << "ok" << std::endl;
  } catch (const Error& error) {
    std::cout << error.code << ": " << error.what() << std::endl;
  }
  return 0;
}
