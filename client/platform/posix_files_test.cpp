#include "client/platform/posix_files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/platform/unique_fd.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::shell;
using testing::TempDir;

const std::string not_private =
    "permissions: macOS private storage must be ordinary, owned and accessible only to this user";

testing::CommandResult as_nobody(std::vector<std::string> argv) {
  argv.insert(argv.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
  return testing::run_command(argv);
}

// The entries of an ACL that holds more than the mode bits, numerically; empty for none.
std::string extended_acl(const fs::path& path) {
  return testing::run_command({"getfacl", "-cspnE", path.string()}).out;
}

// A chain is created private; only its last existing component is narrowed,
// and a rule that grants nobody else anything is taken off with it.
TEST(PrivateDirectory, CreatesAMissingChainPrivateAndNarrowsTheLastComponent) {
  TempDir dir;
  // An open folder, a rule granting only the owner, and root's link in root's folder.
  shell("cd '" + dir.path().string() +
        "' && mkdir open owner-rule && chmod 755 open && setfacl -m u:0:rwx owner-rule && ln -s \"$PWD/open\" system");
  private_directory(dir / "open" / "a" / "b");
  private_directory(dir / "system" / "a" / "b" / "c");
  private_directory_new(dir / "open" / "staging");
  EXPECT_EQ(testing::modes(dir.path()),
            "./open 755\n./open/a 700\n./open/a/b 700\n./open/a/b/c 700\n./open/staging 700\n./owner-rule 775\n"
            "./system 777\n");
  private_directory((dir / "open").string() + "/");
  private_directory(dir / "owner-rule");
  EXPECT_EQ(testing::modes(dir.path()),
            "./open 700\n./open/a 700\n./open/a/b 700\n./open/a/b/c 700\n./open/staging 700\n./owner-rule 700\n"
            "./system 777\n");
}

// One row per refusal. Storage someone else can reach is left exactly as it
// was: it may be someone's on purpose.
TEST(PrivateStorage, FailureTable) {
  TempDir dir;
  // Private and open files and folders, a stranger's folder, rules granting another user or inherited by new
  // entries, a user's links, and a folder of our own that grants another user reading.
  testing::shell("cd '" + dir.path().string() +
                 "' && umask 077 && echo x > good && echo x > user-rule && install -m 640 /dev/null group && "
                 "mkdir foreign inheriting && mkdir -m 750 open shared && chown 65534:65534 foreign && "
                 "setfacl -n -m u:65534:r user-rule && setfacl -d -m u::rwx,g::-,o::- inheriting && "
                 "setfacl -m u:65534:r shared && ln -s \"$PWD/good\" symlink && ln -s \"$PWD/open\" user && "
                 "chown -h 65534:65534 symlink user");
  const fs::path good = dir / "good", foreign = dir / "foreign", inheriting = dir / "inheriting",
                 shared = dir / "shared";
  std::string deep = dir.path().string();  // the temporary folder's two components and 126 more: the deepest allowed
  for (int index = 0; index < 126; ++index) deep += "/d";
  const auto file = [](const fs::path& path) { return [=] { posix_files::require_private_path(path, false); }; };
  const auto existing = [](const fs::path& path) { return [=] { private_directory(path); }; };
  const auto fresh = [](const fs::path& path) { return [=] { private_directory_new(path); }; };
  const std::string grants = "permissions: Existing macOS storage grants another identity access; preserve it",
                    existing_bound = "unsafe_path: macOS private directory needs a bounded path below a root",
                    dotdot = (dir / "a" / ".." / "b").string();
  testing::expect_rows(
      {{file(good), "ok"},
       {file(dir / "group"), not_private},
       {file(dir / "user-rule"), grants},
       {file("relative"), "unsafe_path: macOS private storage needs a bounded absolute path"},
       {file(dir / "symlink"), "permissions: Cannot open ordinary macOS private storage"},
       {[&] { posix_files::require_private_path(dir / "open", true); }, not_private},
       {existing(foreign), not_private},
       {existing(inheriting), grants},
       {existing(dir / "user" / "other"), "unsafe_path: macOS directory ancestry is missing or linked"},
       {existing(""), existing_bound},
       {existing("/"), existing_bound},
       {existing(dotdot), "unsafe_path: macOS private directory cannot traverse parents"},
       {existing(deep + "/d"), "size_limit: macOS directory ancestry exceeds its bound"},
       {fresh("/" + std::string(4096, 'a')),
        "unsafe_path: New private directory requires a bounded path without NUL bytes"},
       {fresh(dotdot), "unsafe_path: New private directory cannot traverse parents"},
       {fresh("/"), "unsafe_path: New private directory cannot be a filesystem root or exceed its absolute path bound"},
       {fresh(foreign), "native_install_commit: Cannot reserve new private staging directory"},
       {fresh(dir / "missing" / "new"), "unsafe_path: New private directory requires ordinary existing parents"},
       {fresh(deep + "/d/new"), "size_limit: New private directory ancestry exceeds its bound"}},
      dir.path());
  private_directory(deep);
  private_directory_new(deep + "/new");

  // A directory of the user's own that is merely open is narrowed first,
  // which narrows the rule's mask too; the rule itself stays.
  EXPECT_EQ(testing::outcome([&] { private_directory(shared); }), grants);
  EXPECT_NE(extended_acl(shared).find("user:65534:r--"), std::string::npos);
  EXPECT_EQ(fs::status(shared).permissions(), fs::perms::owner_all);
}

TEST(PrivateStorage, NewEntriesDropInheritedRulesAndKeepStrangersOut) {
  TempDir dir;
  shell("cd '" + dir.path().string() + "' && chmod 755 . && mkdir shared && setfacl -d -m u:65534:rwx shared");
  private_directory(dir / "shared" / "new" / "leaf");
  const fs::path fresh = dir / "shared" / "fresh";
  const UniqueFd file(::open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  ASSERT_NE(extended_acl(fresh), "");
  posix_files::secure_new_private(file.get(), false);
  for (const fs::path& path : {dir / "shared" / "new", dir / "shared" / "new" / "leaf", fresh})
    EXPECT_EQ(extended_acl(path), "") << path;
  EXPECT_EQ(testing::modes(dir / "shared"), "./fresh 600\n./new 700\n./new/leaf 700\n");
  EXPECT_NE(as_nobody({"ls", (dir / "shared" / "new").string()}).status, 0);
  EXPECT_EQ(as_nobody({"ls", (dir / "shared").string()}).status, 0);

  // Only a fresh entry is taken: one with content is refused.
  ASSERT_EQ(::write(file.get(), "x", 1), 1);
  EXPECT_EQ(testing::outcome([&] { posix_files::secure_new_private(file.get(), false); }),
            "permissions: New macOS private storage ownership changed");
}

TEST(PrivateDirectory, AnOrdinaryUserGetsTheSameRules) {
  TempDir dir;
  fs::permissions(dir.path(), static_cast<fs::perms>(0755));
  fs::create_directory(dir / "home");
  ASSERT_EQ(::chown((dir / "home").c_str(), 65534, 65534), 0);
  // Each folder made is flushed into its parent; root's folder is someone else's to this user.
  std::string out;
  for (const fs::path& path : {dir / "home" / "data", dir / "not-mine", dir.path()}) {
    const testing::TracedRun run =
        testing::run_traced({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                             (testing::binary_dir() / "files_probe").string(), "private_directory", path.string()},
                            "mkdir,mkdirat,fsync");
    for (const std::string& call : run.calls)  // without the descriptor number
      out += call.substr(0, call.find('(') + 1) + call.substr(call.find('<')) + "\n";
    out += run.result.out;
  }
  const std::string home = "<" + dir.path().string() + "/home>";
  EXPECT_EQ(out, "mkdirat(" + home + ", \"data\", 0700) = 0\nfsync(" + home + ") = 0\nok\nmkdirat(<" +
                     dir.path().string() + ">, \"not-mine\", 0700) = -1 EACCES (Permission denied)\n" +
                     "permissions: Cannot reserve a new macOS private directory\n" + not_private + "\n");
}

}  // namespace
}  // namespace zorvi
