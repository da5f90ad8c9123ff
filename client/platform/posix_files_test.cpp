#include "client/platform/posix_files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/platform/files.hpp"
#include "client/platform/unique_fd.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::entry_state;
using testing::error_of;
using testing::shell;
using testing::TempDir;
using testing::user_symlink;

const std::string not_private =
    "permissions|macOS private storage must be ordinary, owned and accessible only to this user";
const std::string grants = "permissions|Existing macOS storage grants another identity access; preserve it";

std::string as_nobody(const std::string& command) {
  return "setpriv --reuid=65534 --regid=65534 --clear-groups " + command;
}

fs::perms mode_of(const fs::path& path) { return fs::symlink_status(path).permissions(); }

std::string deep_path(const fs::path& base, int components) {
  std::string path = base.string();
  for (int index = 0; index < components; ++index) path += "/d";
  return path;
}

std::string named_acl_entries(const fs::path& path) {
  const testing::CommandResult result = testing::run_command({"getfacl", "-cpE", path.string()});
  std::string named;
  std::istringstream lines(result.out);
  for (std::string line; std::getline(lines, line);)
  {
    const std::string entry = line.starts_with("default:") ? line.substr(8) : line;
    const std::size_t colon = entry.find(':');
    const std::string tag = entry.substr(0, colon);
    if ((tag == "user" || tag == "group") && colon + 1 < entry.size() && entry[colon + 1] != ':') named += line + ";";
  }
  return named;
}

TEST(PrivateDirectory, CreatesAMissingChainPrivateAndNarrowsTheLastComponent) {
  TempDir dir;
  fs::create_directory(dir / "open");
  fs::permissions(dir / "open", fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                    fs::perms::others_read | fs::perms::others_exec);
  private_directory(dir / "open" / "a" / "b");
  private_directory(dir / "open" / "a" / "b");
  EXPECT_EQ(mode_of(dir / "open" / "a"), fs::perms::owner_all);
  EXPECT_EQ(mode_of(dir / "open" / "a" / "b"), fs::perms::owner_all);
  // An existing ancestor need not be private and is left alone.
  EXPECT_EQ(mode_of(dir / "open"), static_cast<fs::perms>(0755));
  private_directory(dir / "open");
  EXPECT_EQ(mode_of(dir / "open"), fs::perms::owner_all);
  // A trailing separator names the same directory.
  private_directory((dir / "open").string() + "/");

  // A rule naming the owner grants nobody else anything.
  fs::create_directory(dir / "owner-rule");
  shell("setfacl -m u:0:rwx " + (dir / "owner-rule").string());
  private_directory(dir / "owner-rule");
  EXPECT_EQ(mode_of(dir / "owner-rule"), fs::perms::owner_all);
}

TEST(PrivateDirectory, SystemLinksAreFollowedAndUserLinksRefused) {
  TempDir dir;
  fs::create_directory(dir / "real");
  fs::create_directory_symlink(dir / "real", dir / "system");  // root's link in root's private folder
  user_symlink(dir / "real", dir / "user");
  private_directory(dir / "system" / "inside");
  EXPECT_TRUE(fs::is_directory(dir / "real" / "inside"));
  EXPECT_EQ(error_of([&] { private_directory(dir / "user" / "other"); }),
            "unsafe_path|macOS directory ancestry is missing or linked");
  EXPECT_EQ(error_of([&] { private_directory(dir / "user"); }),
            "unsafe_path|macOS directory ancestry is missing or linked");
  EXPECT_FALSE(fs::exists(dir / "real" / "other"));
}

TEST(PrivateDirectory, RefusesForeignOrSharedStorageAndLeavesIt) {
  TempDir dir;
  const auto directory = [&](const std::string& name, fs::perms mode) {
    fs::create_directory(dir / name);
    fs::permissions(dir / name, mode);
    return dir / name;
  };
  const fs::path foreign = directory("foreign", fs::perms::owner_all);
  ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
  const fs::path foreign_open = directory("foreign-open", static_cast<fs::perms>(0750));
  ASSERT_EQ(::chown(foreign_open.c_str(), 65534, 65534), 0);
  const fs::path inheriting = directory("inheriting", fs::perms::owner_all);
  shell("setfacl -d -m u::rwx,g::-,o::- " + inheriting.string());
  testing::write_text(dir / "file", "x");

  const struct {
    fs::path path;
    std::string expected;
  } cases[] = {
      {foreign, not_private},
      {foreign_open, not_private},
      {inheriting, grants},
      {dir / "file", "unsafe_path|macOS directory ancestry is missing or linked"},
      {dir / "file" / "below", "unsafe_path|macOS directory ancestry is missing or linked"},
  };
  for (const auto& item : cases) {
    const std::string before = entry_state(item.path);
    EXPECT_EQ(error_of([&] { private_directory(item.path); }), item.expected) << item.path;
    EXPECT_EQ(entry_state(item.path), before) << item.path;
  }

  // A rule for another user or group is refused; only the mode was narrowed
  // first (which narrows the ACL mask), the rule itself stays.
  for (const std::string rule : {"u:65534:r", "g:65534:rx"}) {
    const fs::path shared = directory("shared-" + rule.substr(0, 1), fs::perms::owner_all);
    shell("setfacl -m " + rule + " " + shared.string());
    EXPECT_NE(mode_of(shared), fs::perms::owner_all);
    const std::string rules = named_acl_entries(shared);
    EXPECT_EQ(error_of([&] { private_directory(shared); }), grants);
    EXPECT_EQ(named_acl_entries(shared), rules);
    EXPECT_EQ(mode_of(shared), fs::perms::owner_all);
  }
}

TEST(PrivateDirectory, PathRows) {
  TempDir dir;
  const std::string bounded = "unsafe_path|macOS private directory needs a bounded path below a root";
  const struct {
    std::string path;
    std::string expected;
  } cases[] = {
      {"", bounded},
      {std::string("/tmp/a\0b", 8), bounded},
      {"/", bounded},
      {"/" + std::string(4096, 'a'), bounded},
      {(dir / "a" / ".." / "b").string(), "unsafe_path|macOS private directory cannot traverse parents"},
  };
  for (const auto& item : cases)
    EXPECT_EQ(error_of([&] { private_directory(item.path); }), item.expected) << item.path.substr(0, 80);
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST(PrivateDirectory, NewDirectoriesDropInheritedRulesAndKeepStrangersOut) {
  TempDir dir;
  fs::permissions(dir.path(), static_cast<fs::perms>(0755));
  fs::create_directory(dir / "shared");
  fs::permissions(dir / "shared", static_cast<fs::perms>(0755));
  shell("setfacl -d -m u:65534:rwx " + (dir / "shared").string());
  private_directory(dir / "shared" / "new" / "leaf");
  atomic_write(dir / "shared" / "new" / "leaf" / "doc", "secret");
  for (const auto& path : {dir / "shared" / "new", dir / "shared" / "new" / "leaf"}) {
    EXPECT_EQ(named_acl_entries(path), "");
    EXPECT_EQ(mode_of(path), fs::perms::owner_all);
  }
  EXPECT_NE(testing::run_command({"sh", "-c", as_nobody("ls " + (dir / "shared" / "new").string())}).status, 0);
  EXPECT_EQ(testing::run_command({"sh", "-c", as_nobody("ls " + (dir / "shared").string())}).status, 0);
}

TEST(PrivateDirectory, AnOrdinaryUserGetsTheSameRules) {
  TempDir dir;
  fs::permissions(dir.path(), static_cast<fs::perms>(0755));
  fs::create_directory(dir / "home");
  fs::permissions(dir / "home", static_cast<fs::perms>(0755));
  ASSERT_EQ(::chown((dir / "home").c_str(), 65534, 65534), 0);
  const auto probe = [&](const fs::path& path) {
    return testing::run_command(
               {"sh", "-c", as_nobody((testing::binary_dir() / "files_probe").string() + " private " + path.string())})
        .out;
  };
  EXPECT_EQ(probe(dir / "home" / "data"), "ok\n");
  EXPECT_EQ(probe(dir / "home"), "ok\n");
  EXPECT_EQ(mode_of(dir / "home"), fs::perms::owner_all);
  EXPECT_EQ(probe(dir / "not-mine"), "permissions|Cannot reserve a new macOS private directory\n");
  // Root's folder is someone else's to this user.
  EXPECT_EQ(probe(dir.path()), not_private + "\n");
}

// The temporary folder's path holds two components, so depth 126 below it is
// the deepest chain allowed.
TEST(PrivateDirectory, AncestryBoundIs128Components) {
  TempDir dir;
  const fs::path relative = dir.path().relative_path();
  ASSERT_EQ(std::distance(relative.begin(), relative.end()), 2);
  EXPECT_EQ(error_of([&] { private_directory(deep_path(dir.path(), 126)); }), "no error");
  EXPECT_EQ(error_of([&] { private_directory(deep_path(dir.path(), 127)); }),
            "size_limit|macOS directory ancestry exceeds its bound");
  EXPECT_EQ(error_of([&] { private_directory_new(deep_path(dir.path(), 126) + "/new"); }), "no error");
  EXPECT_EQ(error_of([&] { private_directory_new(deep_path(dir.path(), 127) + "/new"); }),
            "size_limit|New private directory ancestry exceeds its bound");
  EXPECT_FALSE(fs::exists(deep_path(dir.path(), 127)));
}

TEST(PrivateDirectoryNew, CreatesOnlyWhatDoesNotExist) {
  TempDir dir;
  private_directory_new(dir / "staging");
  EXPECT_EQ(mode_of(dir / "staging"), fs::perms::owner_all);
  testing::write_text(dir / "staging" / "content", "x");
  fs::create_directory(dir / "open");
  fs::permissions(dir / "open", static_cast<fs::perms>(0755));
  user_symlink(dir / "open", dir / "linked");

  const std::string bounded = "unsafe_path|New private directory requires a bounded path without NUL bytes";
  const std::string parents = "unsafe_path|New private directory requires ordinary existing parents";
  const struct {
    std::string path;
    std::string expected;
  } cases[] = {
      {(dir / "staging").string(), "native_install_commit|Cannot reserve new private staging directory"},
      {(dir / "open").string(), "native_install_commit|Cannot reserve new private staging directory"},
      {"", bounded},
      {std::string("/tmp/a\0b", 8), bounded},
      {"/" + std::string(4096, 'a'), bounded},
      {(dir / "a" / ".." / "b").string(), "unsafe_path|New private directory cannot traverse parents"},
      {"/", "unsafe_path|New private directory cannot be a filesystem root or exceed its absolute path bound"},
      {(dir / "missing" / "new").string(), parents},
      {(dir / "linked" / "new").string(), parents},
  };
  const std::string staging = entry_state(dir / "staging") + entry_state(dir / "open");
  for (const auto& item : cases)
    EXPECT_EQ(error_of([&] { private_directory_new(item.path); }), item.expected) << item.path.substr(0, 80);
  EXPECT_EQ(entry_state(dir / "staging") + entry_state(dir / "open"), staging);
  EXPECT_EQ(testing::read_text(dir / "staging" / "content"), "x");
  EXPECT_TRUE(fs::is_empty(dir / "open"));
}

TEST(PrivateStorage, SecureNewPrivateOnlyTakesAFreshEntry) {
  TempDir dir;
  fs::create_directory(dir / "shared");
  shell("setfacl -m u:65534:rwx -d -m u:65534:rwx " + (dir / "shared").string());
  const fs::path fresh = dir / "shared" / "fresh";
  UniqueFd file(::open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  ASSERT_TRUE(file);
  EXPECT_NE(named_acl_entries(fresh), "");
  posix_files::secure_new_private(file.get(), false);
  EXPECT_EQ(named_acl_entries(fresh), "");
  EXPECT_EQ(mode_of(fresh), fs::perms::owner_read | fs::perms::owner_write);

  ASSERT_EQ(::write(file.get(), "x", 1), 1);
  const std::string changed = "permissions|New macOS private storage ownership changed";
  EXPECT_EQ(error_of([&] { posix_files::secure_new_private(file.get(), false); }), changed);
  EXPECT_EQ(error_of([&] { posix_files::secure_new_private(file.get(), true); }), changed);
  const UniqueFd directory(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(error_of([&] { posix_files::secure_new_private(directory.get(), false); }), changed);

  // A path-only descriptor can be examined but not changed.
  testing::write_text(dir / "empty", "");
  const UniqueFd path_only(::open((dir / "empty").c_str(), O_PATH | O_CLOEXEC));
  EXPECT_EQ(error_of([&] { posix_files::secure_new_private(path_only.get(), false); }),
            "permissions|Cannot make new macOS storage private");
  EXPECT_EQ(error_of([&] { posix_files::require_private_acl(path_only.get()); }),
            "permissions|Cannot inspect the macOS private storage ACL");
}

TEST(PrivateStorage, RequirePrivatePathRows) {
  TempDir dir;
  const auto file = [&](const std::string& name, fs::perms mode) {
    testing::write_text(dir / name, "x");
    fs::permissions(dir / name, mode);
    return dir / name;
  };
  const fs::path good = file("good", fs::perms::owner_read | fs::perms::owner_write);
  const fs::path read_only = file("read-only", fs::perms::owner_read);
  const fs::path group = file("group", static_cast<fs::perms>(0640));
  const fs::path setuid = file("setuid", static_cast<fs::perms>(04600));
  const fs::path linked = file("linked", fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_EQ(::link(linked.c_str(), (dir / "second").c_str()), 0);
  const fs::path foreign = file("foreign", fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
  const fs::path user_rule = file("user-rule", fs::perms::owner_read | fs::perms::owner_write);
  shell("setfacl -n -m u:65534:r " + user_rule.string());
  const fs::path masked_rule = file("masked-rule", fs::perms::owner_read | fs::perms::owner_write);
  shell("setfacl -m u:65534:r " + masked_rule.string());
  user_symlink(good, dir / "symlink");
  fs::create_directory(dir / "open-directory");
  fs::permissions(dir / "open-directory", static_cast<fs::perms>(0750));
  private_directory(dir / "private-directory");

  const std::string bounded = "unsafe_path|macOS private storage needs a bounded absolute path";
  const std::string cannot_open = "permissions|Cannot open ordinary macOS private storage";
  const struct {
    fs::path path;
    bool directory;
    std::string expected;
  } cases[] = {
      {good, false, "no error"},
      {read_only, false, "no error"},
      {dir / "private-directory", true, "no error"},
      {"relative", false, bounded},
      {std::string("/tmp/a\0b", 8), false, bounded},
      {"/" + std::string(4096, 'a'), false, bounded},
      {dir / "missing", false, cannot_open},
      {dir / "symlink", false, cannot_open},
      {good, true, cannot_open},
      {group, false, not_private},
      {setuid, false, not_private},
      {linked, false, not_private},
      {foreign, false, not_private},
      {masked_rule, false, not_private},  // the rule's mask shows as group bits
      {user_rule, false, grants},
      {dir / "open-directory", true, not_private},
      {dir / "private-directory", false, not_private},
  };
  for (const auto& item : cases) {
    const std::string before = entry_state(item.path);
    EXPECT_EQ(error_of([&] { posix_files::require_private_path(item.path, item.directory); }), item.expected)
        << item.path.string().substr(0, 80);
    EXPECT_EQ(entry_state(item.path), before);
  }
}

std::string traced_reserve(const fs::path& file, std::uint64_t size) {
  const testing::CommandResult result = testing::run_command(
      {"strace", "-E", "ASAN_OPTIONS=detect_leaks=0", "-qq", "-e", "trace=fallocate,ftruncate", "-e", "signal=none",
       (testing::binary_dir() / "files_probe").string(), "reserve", file.string(), std::to_string(size)});
  EXPECT_EQ(result.out, "0\n");
  std::string calls;
  std::istringstream lines(result.err);
  for (std::string line; std::getline(lines, line);) calls += line.substr(0, line.find('(')) + " ";
  return calls;
}

TEST(Reserve, AllocatesOnlyWhatIsMissingAndSetsTheLength) {
  TempDir dir;
  testing::write_text(dir / "empty", "");
  EXPECT_EQ(traced_reserve(dir / "empty", 1 << 20), "fallocate ftruncate ");
  struct stat status {};
  ASSERT_EQ(::stat((dir / "empty").c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 1 << 20);
  EXPECT_GE(status.st_blocks * 512, 1 << 20);

  testing::write_text(dir / "holding", std::string(8192, 'x'));
  sync_file(dir / "holding");
  EXPECT_EQ(traced_reserve(dir / "holding", 4096), "ftruncate ");
  EXPECT_EQ(testing::read_text(dir / "holding"), std::string(4096, 'x'));

  testing::write_text(dir / "short", "12345");
  EXPECT_EQ(traced_reserve(dir / "short", 0), "");
  EXPECT_EQ(testing::read_text(dir / "short"), "12345");
}

TEST(Reserve, ErrorNumbers) {
  TempDir dir;
  testing::write_text(dir / "file", "");
  const UniqueFd file(::open((dir / "file").c_str(), O_RDWR | O_CLOEXEC));
  const UniqueFd directory(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  int pipe_ends[2];
  ASSERT_EQ(::pipe2(pipe_ends, O_CLOEXEC), 0);
  const UniqueFd reader(pipe_ends[0]);
  const UniqueFd writer(pipe_ends[1]);
  EXPECT_EQ(posix_files::reserve(file.get(), std::uint64_t{1} << 63), EFBIG);
  EXPECT_EQ(posix_files::reserve(directory.get(), 10), EINVAL);
  EXPECT_EQ(posix_files::reserve(reader.get(), 10), EINVAL);
  EXPECT_EQ(posix_files::reserve(-1, 10), EBADF);
  EXPECT_EQ(posix_files::reserve(-1, 0), 0);
  EXPECT_EQ(fs::file_size(dir / "file"), 0u);
}

}  // namespace
}  // namespace zorvi
