#include "client/platform/files.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/platform/posix_files.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;
using testing::TempDir;

// Transaction names end in 32 random hex digits; the tests write them as ID.
// Descriptor numbers in a trace ("3</path>") are left out too.
std::string masked(std::string text) {
  for (std::size_t at = text.find(".tmp"); at != std::string::npos; at = text.find(".tmp", at + 1))
    if (at >= 33 && text[at - 33] == '.' && text.find_first_not_of("0123456789abcdef", at - 32) == at)
      text.replace(at - 32, 32, "ID");
  for (std::size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1))
    while (at > 0 && std::isdigit(static_cast<unsigned char>(text[at - 1]))) text.erase(--at, 1);
  return text;
}

const std::string files_probe = (testing::binary_dir() / "files_probe").string();

// Private writers make their folder private; an export leaves the folder the
// user chose as it is.
TEST(Files, WritersReadersAndMovesDoTheirWork) {
  TempDir dir;
  atomic_write(dir / "new" / "state" / "doc.json", "0123456789");
  replace_private_file(dir / "new" / "marker", "three");
  atomic_private_create(dir / "new" / "created", "four");
  fs::create_directory(dir / "export");
  fs::permissions(dir / "export", static_cast<fs::perms>(0750));
  atomic_create(dir / "export" / "file", "five");
  EXPECT_EQ(testing::modes(dir.path()),
            "./export 750\n./export/file 600\n./new 700\n./new/created 600\n./new/marker 600\n./new/state 700\n"
            "./new/state/doc.json 600\n");
  std::uint64_t size = 0;
  const fs::path doc = dir / "new" / "state" / "doc.json";
  EXPECT_EQ(read_file(doc, 10) + "|" + read_file_tail(doc, 9, &size), "0123456789|123456789");
  EXPECT_EQ(size, 10u);
  private_directory(dir / "prepared");
  commit_private_path_new(dir / "new", dir / "prepared" / "installed", {});
  EXPECT_EQ(read_file(dir / "prepared" / "installed" / "marker", 10), "three");
}

// One row per refusal; none of them changes anything.
TEST(Files, FailureTable) {
  TempDir dir;
  const fs::path base = dir.path();
  // Private folders and files, an open folder, a file with two names, a fifo, and links a user placed.
  testing::shell("cd '" + base.string() +
                 "' && umask 077 && mkdir -p source foreign shared-later root/a/nested root/b swapped && "
                 "mkdir -m 755 open && echo tree > source/content && printf 0123456789 > file && ln file second && "
                 "echo x > single && mkfifo fifo && ln -s \"$PWD/single\" link && ln -s \"$PWD/open\" linked && "
                 "chown -h 65534:65534 link linked foreign");
  const auto commit = [](const fs::path& from, const fs::path& to, const VerifyCallback& verify = {}) {
    return [=] { commit_private_path_new(from, to, verify); };
  };
  const auto exchange = [](const fs::path& a, const fs::path& b, const VerifyCallback& verify = {}) {
    return [=] { exchange_private_directories(a, b, verify); };
  };
  const fs::path a = dir / "root" / "a", b = dir / "root" / "b";
  const std::string exists = "Cannot atomically install without replacing an existing destination",
                    single = "file_sync: Synchronization requires an ordinary single-link file";
  testing::expect_rows(
      {{[&] { read_file(dir / "file", 9); }, "size_limit: File exceeds read limit"},
       {[&] { read_file(dir / "missing", 9); }, "file_read: Cannot open file: " + base.string() + "/missing"},
       {[&] { read_file_tail(dir / "link", 9); }, "unsafe_path: Cannot open file: " + base.string() + "/link"},
       {[&] { read_file(dir / "fifo", 9); }, "unsafe_path: Expected an ordinary file: " + base.string() + "/fifo"},
       // A proc file claims size 0 and then delivers bytes: it grew while read.
       {[&] { read_file("/proc/self/stat", 1024); }, "file_read: File changed while reading"},
       // A sysfs file claims a page and delivers a few bytes: it shrank while read.
       {[&] { read_file("/sys/kernel/uevent_seqnum", 8192); }, "file_read: File changed while reading"},
       {[&] { read_file(base.string() + std::string("/file\0", 6), 9); },
        "unsafe_path: Native path contains a NUL byte"},
       {[&] { sync_file("/" + std::string(4096, 'a')); },
        "file_sync: File synchronization requires a bounded path without NUL bytes"},
       {[&] { sync_file(dir / "file"); }, single},
       {[&] { sync_directory(dir / "missing"); }, "file_sync: Cannot open directory for synchronization"},
       {[&] { atomic_create(dir / "linked" / "file", "new"); },
        "unsafe_path: Export parent must be an existing plain directory"},
       {[&] { atomic_write(dir / "link", "new"); }, "unsafe_path: Refusing to replace a symbolic link"},
       {[&] { atomic_create(dir / "single", "new"); },
        "file_write: Cannot create export; the destination may already exist (17)"},
       {[&] { atomic_write(dir / "source", "new"); }, "file_write: Cannot commit transaction file (21)"},
       {commit(dir / "source", dir / "x" / ".." / "source"),
        "unsafe_path: Directory commit requires distinct bounded paths"},
       {commit(dir / "linked" / "source", dir / "new"),
        "unsafe_path: Directory commit requires ordinary existing ancestry"},
       {commit(dir / "foreign", dir / "new"),
        "native_install_commit: Commit source must be private and owned by this user"},
       {commit(dir / "source", dir / "open"), "already_installed: " + exists},
       {commit(dir / "source", dir / "source" / "inside"), "native_install_commit: " + exists},
       {commit(dir / "source", dir / "new", [] { throw Error("snapshot_invalid", "Refused"); }),
        "snapshot_invalid: Refused"},
       {exchange(a, dir / "root" / "x" / ".." / "a"), "unsafe_path: Directory exchange needs distinct bounded paths"},
       {exchange(a, dir / "open"),
        "native_install_commit: Directory exchange requires private owned roots and parents"},
       {exchange(a, a / "nested"), "native_install_commit: Cannot atomically exchange native directories"}},
      dir.path());
  const fs::path long_name = dir / std::string(250, 'n');  // the transaction name adds 38 bytes
  EXPECT_EQ(masked(outcome([&] { atomic_write(long_name, "new"); })),
            "file_write: Cannot create transaction file " + long_name.string() + ".ID.tmp (36)");

  // What a verifier looked at must still be what moves: a change meanwhile stops the move.
  const auto share = [&] { testing::shell("setfacl -n -m u:65534:rx " + (dir / "shared-later").string()); };
  // A new private folder takes the name, the one looked at moves aside.
  const auto replaced = [](const fs::path& path, const fs::path& aside) {
    return [=] {
      fs::rename(path, aside);
      private_directory(path);
    };
  };
  testing::expect_rows({{commit(dir / "swapped", dir / "new", replaced(dir / "swapped", dir / "swapped-aside")),
                         "native_install_commit: Source identity changed during verification"},
                        {commit(dir / "shared-later", dir / "new", share),
                         "permissions: Existing macOS storage grants another identity access; preserve it"}},
                       dir / "new");
  EXPECT_EQ(outcome(exchange(a, b, replaced(b, dir / "root" / "elsewhere"))),
            "native_install_commit: Directory exchange identities changed during verification");
  EXPECT_TRUE(fs::exists(dir / "root" / "elsewhere") && fs::exists(a));
}

// A tmpfs in a private mount namespace: moves between it and another volume
// fail before anything moves, and once it is full writers fail with
// insufficient_space and leave no transaction file.
TEST(Files, FullVolumeIsInsufficientSpaceAndOtherVolumesRefuseMoves) {
  TempDir dir;
  fs::create_directory(dir / "mount");
  private_directory(dir / "root" / "tree");
  const std::string before = testing::tree_state(dir / "root");
  const std::string script = R"(
    mount -t tmpfs -o size=64k,mode=0700 tmpfs "$1" && cd "$1" && probe=$2 other=$3
    $probe private_directory "$1/tree" && $probe exchange "$other" "$1/tree" && $probe commit "$other" "$1/moved"
    $probe atomic_write "$1/doc.json" old
    big=$(head -c 100000 /dev/zero | tr '\0' x)
    $probe atomic_create "$1/new" "$big"
    $probe replace_private_file "$1/doc.json" "$big"
    ls && cat doc.json)";
  const testing::CommandResult result =
      testing::run_command({"unshare", "--mount", "--propagation", "private", "sh", "-c", script, "sh",
                            (dir / "mount").string(), files_probe, (dir / "root" / "tree").string()});
  const std::string space = "insufficient_space: Local storage cannot save data; free space and try again\n";
  EXPECT_EQ(result.out,
            "ok\nnative_install_commit: Directory exchange requires distinct roots on one volume\n"
            "native_install_commit: Cannot atomically install without replacing an existing destination\n"
            "ok\n" +
                space + space + "doc.json\ntree\nold")
      << result.err;
  EXPECT_EQ(testing::tree_state(dir / "root"), before);
}

// The order that makes a replace durable: data, flush of the data, rename,
// flush of the name; an exchange flushes both parents. Nothing else may flush.
TEST(Files, DurableStepsFlushExactlyWhatTheyChanged) {
  TempDir dir;
  const fs::path target = dir / "doc.json", first = dir / "p1" / "a", second = dir / "p2" / "b";
  testing::write_text(target, "old");
  private_directory(first);
  private_directory(second);
  // Every flush, and every call on a path in the folder.
  const auto steps = [&](const std::vector<std::string>& argv) {
    const testing::TracedRun traced = testing::run_traced(
        argv,
        "write,pwrite64,writev,fsync,fdatasync,sync,syncfs,sync_file_range,msync,rename,renameat,renameat2,"
        "link,linkat");
    std::string text = traced.result.out;
    for (const std::string& line : traced.calls)
      if (line.find("sync") != std::string::npos || line.find(dir.path().string()) != std::string::npos)
        text += masked(line) + "\n";
    return text;
  };
  const std::string temporary = target.string() + ".ID.tmp", p1 = dir.path().string() + "/p1>",
                    p2 = dir.path().string() + "/p2>";
  EXPECT_EQ(steps({files_probe, "atomic_write", target.string(), "new"}),
            "ok\nwrite(<" + temporary + ">, \"new\", 3) = 3\nfsync(<" + temporary + ">) = 0\nrename(\"" + temporary +
                "\", \"" + target.string() + "\") = 0\nfsync(<" + dir.path().string() + ">) = 0\n");
  EXPECT_EQ(steps({files_probe, "exchange", first.string(), second.string()}),
            "ok\nrenameat2(<" + p1 + ", \"a\", <" + p2 + ", \"b\", RENAME_EXCHANGE) = 0\nfsync(<" + p1 +
                ") = 0\nfsync(<" + p2 + ") = 0\n");
}

// A writer killed after any durable step leaves the old document or the
// whole new one with its single name, and the next writer goes on.
TEST(Files, KilledAfterEachDurableStepLeavesOldOrWholeDocument) {
  TempDir dir;
  private_directory(dir / "state");
  for (const std::string writer : {"atomic_write", "atomic_private_create"})
    for (int kill_at = 1;; ++kill_at) {
      const fs::path target = dir / "state" / (writer + std::to_string(kill_at));
      if (writer == "atomic_write") atomic_write(target, "old");
      const testing::CommandResult run = testing::run_command(
          {"env", "ZORVI_TEST_KILL_AT_STEP=" + std::to_string(kill_at), files_probe, writer, target.string(), "whole"});
      struct stat status{};
      if (::lstat(target.c_str(), &status) == 0) {
        EXPECT_EQ(status.st_nlink, 1u) << writer << " killed at " << kill_at;
        posix_files::require_private_path(target, false);
        EXPECT_TRUE(read_file(target, 64) == "whole" || read_file(target, 64) == "old") << kill_at;
      }
      atomic_write(target, "again");
      if (run.out == "ok\n") break;
      ASSERT_LT(kill_at, 10) << run.out << run.err;
    }
}

}  // namespace
}  // namespace zorvi
