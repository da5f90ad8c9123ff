// Runs one durable-file scenario for a test that needs a process of its own:
// to be killed, traced, run as another user, or given a private mount.
//   files_probe write TARGET TEXT          one atomic_write
//   files_probe loop TARGET GENERATION PAD atomic_write of one document, forever
//   files_probe private DIR                private_directory
//   files_probe reserve FILE SIZE          posix_files::reserve on an existing file
//   files_probe fsize TARGET               atomic_write past RLIMIT_FSIZE
//   files_probe full MOUNT                 writers on a full tmpfs mounted at MOUNT
//   files_probe volumes MOUNT OTHER        commit and exchange between OTHER and a tmpfs
// Each outcome is one line: "ok" or "CODE|MESSAGE", some after a label.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "client/domain/error.hpp"
#include "client/domain/json.hpp"
#include "client/platform/files.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/unique_fd.hpp"

namespace {

using Path = std::filesystem::path;

std::string outcome(const std::function<void()>& action) {
  try {
    action();
  } catch (const zorvi::Error& error) {
    return error.code + "|" + error.what();
  }
  return "ok";
}

std::string names(const Path& directory) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) found.push_back(entry.path().filename());
  std::sort(found.begin(), found.end());
  std::string joined;
  for (const auto& name : found) joined += (joined.empty() ? "" : ",") + name;
  return joined;
}

// A tmpfs visible only to this process: the test's mounts vanish with it.
void mount_private_tmpfs(const Path& mount_point, const std::string& options) {
  if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("tmpfs", mount_point.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    std::perror("mount");
    std::exit(3);
  }
}

std::string document(std::uint64_t generation, std::size_t pad) {
  return zorvi::json{{"generation", generation}, {"pad", std::string(pad, 'x')}}.dump();
}

int loop(const Path& target, std::uint64_t generation, std::size_t pad) {
  const std::string bytes = document(generation, pad);
  std::cout << "ready" << std::endl;
  for (;;) zorvi::atomic_write(target, bytes);
}

int fsize(const Path& target) {
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{1024, 1024};
  if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 3;
  std::cout << outcome([&] { zorvi::atomic_write(target, std::string(4096, 'x')); }) << "\n"
            << "names|" << names(target.parent_path()) << std::endl;
  return 0;
}

int full(const Path& mount_point) {
  mount_private_tmpfs(mount_point, "size=64k,mode=0700");
  const Path doc = mount_point / "doc.json";
  const std::string big(1 << 20, 'x');
  std::cout << "small|" << outcome([&] { zorvi::atomic_write(doc, "{\"state\":\"old\"}"); }) << "\n";
  std::cout << "atomic_write|" << outcome([&] { zorvi::atomic_write(doc, big); }) << "\n";
  std::cout << "atomic_create|" << outcome([&] { zorvi::atomic_create(mount_point / "new.json", big); }) << "\n";
  std::cout << "atomic_private_create|"
            << outcome([&] { zorvi::atomic_private_create(mount_point / "private.json", big); }) << "\n";
  std::cout << "replace_private_file|" << outcome([&] { zorvi::replace_private_file(doc, big); }) << "\n";
  const zorvi::UniqueFd reserved(::open((mount_point / "reserved").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  std::cout << "reserve|" << zorvi::posix_files::reserve(reserved.get(), 1 << 20) << "\n";
  std::cout << "names|" << names(mount_point) << "\n";
  std::cout << "doc|" << zorvi::read_file(doc, 100) << std::endl;
  return 0;
}

int volumes(const Path& mount_point, const Path& other) {
  mount_private_tmpfs(mount_point, "size=1m,mode=0700");
  const Path there = mount_point / "tree";
  zorvi::private_directory(there);
  zorvi::atomic_write(there / "marker", "tmpfs");
  std::cout << "exchange|" << outcome([&] { zorvi::exchange_private_directories(other, there, {}); }) << "\n";
  std::cout << "commit|" << outcome([&] { zorvi::commit_private_path_new(other, mount_point / "moved", {}); })
            << "\n";
  std::cout << "names|" << names(mount_point) << "\n";
  std::cout << "marker|" << zorvi::read_file(there / "marker", 100) << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return 2;
  const std::string& command = args[0];
  if (command == "write" && args.size() == 3) {
    std::cout << outcome([&] { zorvi::atomic_write(args[1], args[2]); }) << std::endl;
    return 0;
  }
  if (command == "loop" && args.size() == 4) return loop(args[1], std::stoull(args[2]), std::stoull(args[3]));
  if (command == "private" && args.size() == 2) {
    std::cout << outcome([&] { zorvi::private_directory(args[1]); }) << std::endl;
    return 0;
  }
  if (command == "reserve" && args.size() == 3) {
    const zorvi::UniqueFd file(::open(args[1].c_str(), O_RDWR | O_CLOEXEC));
    std::cout << zorvi::posix_files::reserve(file.get(), std::stoull(args[2])) << std::endl;
    return 0;
  }
  if (command == "fsize" && args.size() == 2) return fsize(args[1]);
  if (command == "full" && args.size() == 2) return full(args[1]);
  if (command == "volumes" && args.size() == 3) return volumes(args[1], args[2]);
  return 2;
}
