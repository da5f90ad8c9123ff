#include "client/platform/posix_files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/platform/files.hpp"
#include "client/platform/unique_fd.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::error_of;
using testing::expect_rows;
using testing::shell;
using testing::TempDir;
using testing::user_symlink;

const std::string not_private =
    "permissions|macOS private storage must be ordinary, owned and accessible only to this user";
const std::string grants = "permissions|Existing macOS storage grants another identity access; preserve it";
const std::string linked_ancestry = "unsafe_path|macOS directory ancestry is missing or linked";
const std::string nul_path("/tmp/a\0b", 8);
const std::string long_path = "/" + std::string(4096, 'a');

fs::perms mode_of(const fs::path& path) { return fs::symlink_status(path).permissions(); }

testing::CommandResult as_nobody(std::vector<std::string> argv) {
  argv.insert(argv.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
  return testing::run_command(argv);
}

// The entries of an ACL that holds more than the mode bits, numerically; empty for none.
std::string extended_acl(const fs::path& path) {
  return testing::run_command({"getfacl", "-cspnE", path.string()}).out;
}

TEST(PrivateDirectory, CreatesAMissingChainPrivateAndNarrowsTheLastComponent) {
  TempDir dir;
  for (const char* name : {"open", "owner-rule"}) {
    fs::create_directory(dir / name);
    fs::permissions(dir / name, static_cast<fs::perms>(0755));
  }
  shell("setfacl -m u:0:rwx " + (dir / "owner-rule").string());  // grants nobody else anything
  fs::create_directory_symlink(dir / "open", dir / "system");    // root's link in root's folder
  private_directory(dir / "open" / "a" / "b");
  private_directory(dir / "system" / "a" / "b" / "c");
  EXPECT_EQ(testing::modes(dir.path()),
            "./open 755\n./open/a 700\n./open/a/b 700\n./open/a/b/c 700\n./owner-rule 775\n./system 777\n");
  private_directory((dir / "open").string() + "/");
  private_directory(dir / "owner-rule");
  EXPECT_EQ(testing::modes(dir.path()),
            "./open 700\n./open/a 700\n./open/a/b 700\n./open/a/b/c 700\n./owner-rule 700\n./system 777\n");
  user_symlink(dir / "open", dir / "user");
  expect_rows({{[&] { private_directory(dir / "user" / "other"); }, linked_ancestry},
               {[&] { private_directory(dir / "user"); }, linked_ancestry}},
              dir.path());
}

// Storage that someone else can reach is refused with the reason and left
// exactly as it was: it may be someone's on purpose.
TEST(PrivateStorage, RefusesWhatOthersCanReachAndLeavesIt) {
  TempDir dir;
  const auto entry = [&](const std::string& name, int mode, bool directory = false) {
    if (directory) fs::create_directory(dir / name);
    else testing::write_text(dir / name, "x");
    fs::permissions(dir / name, static_cast<fs::perms>(mode));
    return dir / name;
  };
  const fs::path good = entry("good", 0600);
  const fs::path linked = entry("linked", 0600);
  ASSERT_EQ(::link(linked.c_str(), (dir / "second").c_str()), 0);
  const fs::path foreign = entry("foreign", 0600);
  const fs::path foreign_directory = entry("foreign-directory", 0700, true);
  for (const fs::path& path : {foreign, foreign_directory}) ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
  const fs::path user_rule = entry("user-rule", 0600);
  const fs::path group_rule = entry("group-rule", 0700, true);
  shell("setfacl -n -m u:65534:r " + user_rule.string() + " && setfacl -n -m g:65534:rx " + group_rule.string());
  const fs::path inheriting = entry("inheriting", 0700, true);
  shell("setfacl -d -m u::rwx,g::-,o::- " + inheriting.string());
  user_symlink(good, dir / "symlink");

  const auto file = [](const fs::path& path) { return [=] { posix_files::require_private_path(path, false); }; };
  const auto directory = [](const fs::path& path) { return [=] { posix_files::require_private_path(path, true); }; };
  const auto make_private = [](const fs::path& path) { return [=] { private_directory(path); }; };
  const std::string bounded = "unsafe_path|macOS private storage needs a bounded absolute path";
  const std::string cannot_open = "permissions|Cannot open ordinary macOS private storage";
  expect_rows({{file(good), "no error"},
               {file(entry("group", 0640)), not_private},
               {file(entry("other", 0604)), not_private},
               {file(entry("setuid", 04600)), not_private},
               {file(linked), not_private},
               {file(foreign), not_private},
               {file(user_rule), grants},
               {file("relative"), bounded},
               {file(nul_path), bounded},
               {file(long_path), bounded},
               {file(dir / "missing"), cannot_open},
               {file(dir / "symlink"), cannot_open},
               {directory(good), cannot_open},
               {directory(entry("open-directory", 0750, true)), not_private},
               {make_private(foreign_directory), not_private},
               {make_private(group_rule), grants},
               {make_private(inheriting), grants},
               {make_private(good), linked_ancestry}},
              dir.path());

  // A directory of the user's own that is merely open is narrowed first,
  // which narrows the rule's mask too; the rule itself stays.
  const fs::path shared = entry("shared", 0700, true);
  shell("setfacl -m u:65534:r " + shared.string());
  EXPECT_EQ(error_of([&] { private_directory(shared); }), grants);
  EXPECT_NE(extended_acl(shared).find("user:65534:r--"), std::string::npos);
  EXPECT_EQ(mode_of(shared), fs::perms::owner_all);
}

TEST(PrivateDirectory, PathAndParentRows) {
  TempDir dir;
  private_directory_new(dir / "staging");
  EXPECT_EQ(mode_of(dir / "staging"), fs::perms::owner_all);
  testing::write_text(dir / "staging" / "content", "x");
  fs::create_directory(dir / "open");
  user_symlink(dir / "open", dir / "linked");
  const auto existing = [](const std::string& path) { return [=] { private_directory(path); }; };
  const auto fresh = [](const std::string& path) { return [=] { private_directory_new(path); }; };
  const std::string bounded = "unsafe_path|macOS private directory needs a bounded path below a root";
  const std::string new_bounded = "unsafe_path|New private directory requires a bounded path without NUL bytes";
  const std::string reserve = "native_install_commit|Cannot reserve new private staging directory";
  const std::string parents = "unsafe_path|New private directory requires ordinary existing parents";
  const std::string dotdot = (dir / "a" / ".." / "b").string();
  expect_rows(
      {{existing(""), bounded},
       {existing(nul_path), bounded},
       {existing("/"), bounded},
       {existing(long_path), bounded},
       {existing(dotdot), "unsafe_path|macOS private directory cannot traverse parents"},
       {fresh(""), new_bounded},
       {fresh(nul_path), new_bounded},
       {fresh(long_path), new_bounded},
       {fresh(dotdot), "unsafe_path|New private directory cannot traverse parents"},
       {fresh("/"), "unsafe_path|New private directory cannot be a filesystem root or exceed its absolute path bound"},
       {fresh((dir / "staging").string()), reserve},
       {fresh((dir / "open").string()), reserve},
       {fresh((dir / "missing" / "new").string()), parents},
       {fresh((dir / "linked" / "new").string()), parents}},
      dir.path());
}

TEST(PrivateStorage, NewEntriesDropInheritedRulesAndKeepStrangersOut) {
  TempDir dir;
  fs::permissions(dir.path(), static_cast<fs::perms>(0755));
  fs::create_directory(dir / "shared");
  shell("setfacl -d -m u:65534:rwx " + (dir / "shared").string());
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

  // Only a fresh entry is taken: one with content, or of the other kind, is refused.
  ASSERT_EQ(::write(file.get(), "x", 1), 1);
  const UniqueFd directory(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::string changed = "permissions|New macOS private storage ownership changed";
  expect_rows({{[&] { posix_files::secure_new_private(file.get(), false); }, changed},
               {[&] { posix_files::secure_new_private(file.get(), true); }, changed},
               {[&] { posix_files::secure_new_private(directory.get(), false); }, changed}},
              dir.path());
}

TEST(PrivateDirectory, AnOrdinaryUserGetsTheSameRules) {
  TempDir dir;
  fs::permissions(dir.path(), static_cast<fs::perms>(0755));
  fs::create_directory(dir / "home");
  ASSERT_EQ(::chown((dir / "home").c_str(), 65534, 65534), 0);
  const auto probe = [&](const fs::path& path) {
    return as_nobody({(testing::binary_dir() / "files_probe").string(), "private_directory", path.string()}).out;
  };
  EXPECT_EQ(probe(dir / "home" / "data"), "ok\n");
  EXPECT_EQ(probe(dir / "home"), "ok\n");
  EXPECT_EQ(mode_of(dir / "home"), fs::perms::owner_all);
  EXPECT_EQ(probe(dir / "not-mine"), "permissions|Cannot reserve a new macOS private directory\n");
  EXPECT_EQ(probe(dir.path()), not_private + "\n");  // root's folder is someone else's to this user
}

// The temporary folder's path holds two components, so depth 126 below it is
// the deepest chain allowed.
TEST(PrivateDirectory, AncestryBoundIs128Components) {
  TempDir dir;
  const fs::path relative = dir.path().relative_path();
  ASSERT_EQ(std::distance(relative.begin(), relative.end()), 2);
  const auto deep = [&](int components) {
    std::string path = dir.path().string();
    for (int index = 0; index < components; ++index) path += "/d";
    return path;
  };
  EXPECT_EQ(error_of([&] { private_directory(deep(126)); }), "no error");
  EXPECT_EQ(error_of([&] { private_directory_new(deep(126) + "/new"); }), "no error");
  expect_rows({{[&] { private_directory(deep(127)); }, "size_limit|macOS directory ancestry exceeds its bound"},
               {[&] { private_directory_new(deep(127) + "/new"); },
                "size_limit|New private directory ancestry exceeds its bound"}},
              dir.path());
}

TEST(Reserve, AllocatesWhatIsMissingAndSetsTheLength) {
  TempDir dir;
  testing::write_text(dir / "holding", std::string(8192, 'x'));
  testing::write_text(dir / "empty", "");
  const UniqueFd holding(::open((dir / "holding").c_str(), O_RDWR | O_CLOEXEC));
  const UniqueFd empty(::open((dir / "empty").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(posix_files::reserve(empty.get(), 1 << 20), 0);
  struct stat status{};
  ASSERT_EQ(::fstat(empty.get(), &status), 0);
  EXPECT_EQ(status.st_size, 1 << 20);
  EXPECT_GE(status.st_blocks * 512, 1 << 20);
  EXPECT_EQ(posix_files::reserve(holding.get(), 4096), 0);
  EXPECT_EQ(posix_files::reserve(holding.get(), 0), 0);  // changes nothing, not even the length
  EXPECT_EQ(testing::read_text(dir / "holding"), std::string(4096, 'x'));
  EXPECT_EQ(posix_files::reserve(holding.get(), std::uint64_t{1} << 63), EFBIG);
}

}  // namespace
}  // namespace zorvi
