#include "client/platform/files.hpp"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <random>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/domain/json.hpp"
#include "client/platform/posix_files.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::error_of;
using testing::expect_rows;
using testing::ProgramChild;
using testing::Row;
using testing::shell;
using testing::TempDir;
using testing::user_symlink;

const fs::perms private_file = fs::perms::owner_read | fs::perms::owner_write;
const std::string grants = "permissions|Existing macOS storage grants another identity access; preserve it";

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

TEST(ReadFile, LimitIsExactAndTailKeepsTheEnd) {
  TempDir dir;
  testing::write_text(dir / "ten", "0123456789");
  testing::write_text(dir / "empty", "");
  EXPECT_EQ(read_file(dir / "ten", 10), "0123456789");
  std::uint64_t size = 0;
  EXPECT_EQ(read_file_tail(dir / "ten", 9, &size), "123456789");
  EXPECT_EQ(size, 10u);
  EXPECT_EQ(read_file(dir / "empty", 0), "");
  EXPECT_EQ(read_file_tail(dir / "empty", 4, &size), "");
  EXPECT_EQ(size, 0u);
}

TEST(ReadAndSync, RefuseWhatIsNoOrdinaryFileWithoutBlocking) {
  TempDir dir;
  testing::write_text(dir / "ten", "0123456789");
  testing::write_text(dir / "file", "x");
  ASSERT_EQ(::link((dir / "file").c_str(), (dir / "second").c_str()), 0);
  testing::write_text(dir / "single", "x");
  fs::create_directory(dir / "directory");
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  fs::create_symlink(dir / "single", dir / "link");
  const std::string base = dir.path().string();
  std::vector<Row> rows = {{[&] { read_file(dir / "ten", 9); }, "size_limit|File exceeds read limit"}};
  for (const auto& [path, expected] : std::vector<std::pair<fs::path, std::string>>{
           {dir / "missing", "file_read|Cannot open file: " + base + "/missing"},
           {dir / "link", "unsafe_path|Cannot open file: " + base + "/link"},
           {dir / "directory", "unsafe_path|Expected an ordinary file: " + base + "/directory"},
           {dir / "fifo", "unsafe_path|Expected an ordinary file: " + base + "/fifo"},
           // A proc file claims size 0 and then delivers bytes: it grew while read.
           {"/proc/self/stat", "file_read|File changed while reading"},
           {base + std::string("/file\0.json", 11), "unsafe_path|Native path contains a NUL byte"},
       }) {
    rows.push_back({[path] { read_file(path, 1024); }, expected});
    rows.push_back({[path] { read_file_tail(path, 1024); }, expected});
  }
  const std::string bad_path = "file_sync|File synchronization requires a bounded path without NUL bytes";
  for (const fs::path& path : {fs::path(), fs::path(std::string("/a\0b", 4)), fs::path("/" + std::string(4096, 'a'))})
    rows.push_back({[path] { sync_file(path); }, bad_path});
  for (const fs::path& path : {dir / "file", dir / "link", dir / "directory", dir / "missing"})
    rows.push_back({[path] { sync_file(path); }, "file_sync|Synchronization requires an ordinary single-link file"});
  rows.push_back({[&] { sync_file(dir / "single"); }, "no error"});
  rows.push_back({[&] { sync_directory(dir.path()); }, "no error"});
  rows.push_back({[&] { sync_directory(dir / "missing"); }, "file_sync|Cannot open directory for synchronization"});
  expect_rows(rows, dir.path());
}

// Private writers make their folder private; an export goes to a folder the
// user chose and leaves it as it is. No transaction file stays behind.
TEST(AtomicWrite, WritersDifferInPrivacyAndReplacement) {
  TempDir dir;
  atomic_write(dir / "new" / "state" / "doc.json", "one");
  atomic_write(dir / "new" / "state" / "doc.json", "two");
  replace_private_file(dir / "new" / "marker", "three");
  atomic_private_create(dir / "new" / "created", "four");
  fs::create_directory(dir / "export");
  fs::permissions(dir / "export", static_cast<fs::perms>(0750));
  atomic_create(dir / "export" / "file", "five");
  EXPECT_EQ(testing::modes(dir.path()),
            "./export 750\n./export/file 600\n./new 700\n./new/created 600\n./new/marker 600\n./new/state 700\n"
            "./new/state/doc.json 600\n");
  EXPECT_EQ(read_file(dir / "new" / "state" / "doc.json", 10), "two");
}

TEST(AtomicWrite, EveryFailureLeavesTargetAndNoTransactionFile) {
  TempDir dir;
  fs::create_directory(dir / "real");
  user_symlink(dir / "real", dir / "linked");
  testing::write_text(dir / "existing", "old");
  user_symlink(dir / "existing", dir / "symlink");
  fs::create_directory(dir / "occupied");
  testing::write_text(dir / "occupied" / "inside", "x");
  const fs::path long_name = dir / std::string(250, 'n');  // the transaction name adds 38 bytes
  const std::string export_parent = "unsafe_path|Export parent must be an existing plain directory";
  const std::string exists = "file_write|Cannot create export; the destination may already exist (17)";
  const std::string symlink = "unsafe_path|Refusing to replace a symbolic link";
  expect_rows({{[&] { atomic_create(dir / "missing" / "file", "new"); }, export_parent},
               {[&] { atomic_create(dir / "linked" / "file", "new"); }, export_parent},
               {[&] { atomic_write(dir / "symlink", "new"); }, symlink},
               {[&] { atomic_create(dir / "symlink", "new"); }, symlink},
               {[&] { atomic_create(dir / "existing", "new"); }, exists},
               {[&] { atomic_private_create(dir / "existing", "new"); }, exists},
               {[&] { atomic_write(dir / "occupied", "new"); }, "file_write|Cannot commit transaction file (21)"},
               {[&] { atomic_write((dir / "existing").string() + std::string("\0x", 2), "new"); },
                "unsafe_path|Native path contains a NUL byte"}},
              dir.path());
  const std::string before = testing::tree_state(dir.path());
  EXPECT_EQ(masked(error_of([&] { atomic_write(long_name, "new"); })),
            "file_write|Cannot create transaction file " + long_name.string() + ".ID.tmp (36)");
  EXPECT_EQ(testing::tree_state(dir.path()), before);
}

// A tmpfs in a private mount namespace: moves between it and another volume
// fail before anything moves, and once it is full writers fail with
// insufficient_space and leave no transaction file.
TEST(AtomicWrite, FullVolumeIsInsufficientSpaceAndOtherVolumesRefuseMoves) {
  TempDir dir;
  fs::create_directory(dir / "mount");
  private_directory(dir / "root" / "tree");
  testing::write_text(dir / "root" / "tree" / "marker", "disk");
  const std::string before = testing::tree_state(dir / "root");
  const std::string script = R"(
    mount -t tmpfs -o size=64k,mode=0700 tmpfs "$1" && cd "$1" && probe=$2 other=$3
    $probe private_directory "$1/tree" && $probe exchange "$other" "$1/tree" && $probe commit "$other" "$1/moved"
    $probe atomic_write "$1/doc.json" old
    big=$(head -c 100000 /dev/zero | tr '\0' x)
    for writer in atomic_write atomic_create atomic_private_create replace_private_file; do
      $probe $writer "$1/$writer" "$big"
    done
    $probe replace_private_file "$1/doc.json" "$big"
    ls && cat doc.json)";
  const testing::CommandResult result = testing::run_command(
      {"unshare", "--mount", "--propagation", "private", "sh", "-c", script, "sh", (dir / "mount").string(),
       (testing::binary_dir() / "files_probe").string(), (dir / "root" / "tree").string()});
  const std::string space = "insufficient_space|Local storage cannot save data; free space and try again\n";
  EXPECT_EQ(result.out,
            "ok\nnative_install_commit|Directory exchange requires distinct roots on one volume\n"
            "native_install_commit|Cannot atomically install without replacing an existing destination\n"
            "ok\n" +
                space + space + space + space + space + "doc.json\ntree\nold")
      << result.err;
  EXPECT_EQ(testing::tree_state(dir / "root"), before);
}

// The order that makes a replace durable: data, flush of the data, rename,
// flush of the name. Nothing else may flush.
TEST(AtomicWrite, DurableReplaceFlushesExactlyTwice) {
  TempDir dir;
  const fs::path target = dir / "doc.json";
  testing::write_text(target, "old");
  const fs::path log = dir.path().string() + ".strace";
  const testing::CommandResult traced = testing::run_command(
      {"strace", "-E", "ASAN_OPTIONS=detect_leaks=0", "-qq", "-a1", "-y", "-o", log.string(), "-e",
       "trace=write,pwrite64,writev,fsync,fdatasync,sync,syncfs,sync_file_range,msync,rename,renameat,renameat2,link,"
       "linkat",
       (testing::binary_dir() / "files_probe").string(), "atomic_write", target.string(), "new"});
  const std::string trace = masked(testing::read_text(log));
  fs::remove(log);
  ASSERT_EQ(traced.out, "ok\n") << traced.err;
  // Every flush, and every call on a path in the folder.
  std::string steps;
  std::istringstream lines(trace);
  for (std::string line; std::getline(lines, line);)
    if (line.find("sync") != std::string::npos || line.find(dir.path().string()) != std::string::npos)
      steps += line + "\n";
  const std::string temporary = target.string() + ".ID.tmp";
  EXPECT_EQ(steps, "write(<" + temporary + ">, \"new\", 3) = 3\nfsync(<" + temporary + ">) = 0\nrename(\"" + temporary +
                       "\", \"" + target.string() + "\") = 0\nfsync(<" + dir.path().string() + ">) = 0\n");
  EXPECT_EQ(testing::read_text(target), "new");
}

// A writer killed at any instant leaves the old or the new document, and
// whatever it left behind does not stop the next writer.
TEST(AtomicWrite, SigkillAtRandomMomentsLeavesOldOrNewDocument) {
  TempDir dir;
  const fs::path target = dir / "state" / "doc.json";
  constexpr std::size_t pad = 100 * 1024;  // below the bound of one command-line argument
  const auto document = [](std::uint64_t generation) {
    return json{{"generation", generation}, {"pad", std::string(pad, 'x')}};
  };
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> delay_us(0, 3000);
  std::uint64_t took_new = 0;
  constexpr std::uint64_t rounds = 100;
  atomic_write(target, document(0).dump());
  for (std::uint64_t round = 0; round < rounds; ++round) {
    const std::uint64_t old_generation = 2 * round;
    {
      ProgramChild writer("files_probe", {"loop", target.string(), document(old_generation + 1).dump()});
      ASSERT_EQ(writer.read_line(), "ready");
      std::this_thread::sleep_for(std::chrono::microseconds(delay_us(random)));
      writer.kill(SIGKILL);
      ASSERT_EQ(writer.wait(), 128 + SIGKILL);
    }
    const json found = parse_json(read_file(target, 2 * pad), 2 * pad);
    if (found != document(old_generation)) {
      ASSERT_EQ(found, document(old_generation + 1)) << "round " << round;
      ++took_new;
    }
    atomic_write(target, document(old_generation + 2).dump());
  }
  std::cout << "rounds keeping the old document: " << rounds - took_new << ", taking the new: " << took_new << "\n";
  EXPECT_EQ(parse_json(read_file(target, 2 * pad), 2 * pad), document(2 * rounds));
}

// A private create killed after any durable step leaves no document or the
// whole one with its single name, so the next reader and writer go on.
TEST(AtomicCreate, KilledAfterEachStepLeavesNothingOrOneWholeDocument) {
  TempDir dir;
  private_directory(dir / "state");
  for (int kill_at = 1;; ++kill_at) {
    const fs::path target = dir / "state" / ("doc" + std::to_string(kill_at) + ".json");
    const testing::CommandResult run = testing::run_command(
        {"env", "ZORVI_TEST_KILL_AT_STEP=" + std::to_string(kill_at), (testing::binary_dir() / "files_probe").string(),
         "atomic_private_create", target.string(), "whole"});
    struct stat status{};
    if (::lstat(target.c_str(), &status) == 0) {
      EXPECT_EQ(status.st_nlink, 1u) << "kill at " << kill_at;
      posix_files::require_private_path(target, false);
      EXPECT_EQ(read_file(target, 64), "whole");
    } else {
      atomic_private_create(target, "again");
      EXPECT_EQ(read_file(target, 64), "again");
    }
    if (run.out == "ok\n") break;
    ASSERT_LT(kill_at, 10) << run.out << run.err;
  }
}

TEST(Commit, MovesAPrivateEntryToANewNameOrNothing) {
  TempDir dir;
  private_directory(dir / "source");
  testing::write_text(dir / "source" / "content", "tree");
  testing::write_text(dir / "file", "file");
  fs::permissions(dir / "file", private_file);
  fs::create_directory(dir / "open");
  user_symlink(dir.path(), dir / "linked");
  testing::write_text(dir / "two-links", "x");
  fs::permissions(dir / "two-links", private_file);
  ASSERT_EQ(::link((dir / "two-links").c_str(), (dir / "second").c_str()), 0);
  for (const char* name : {"foreign", "shared", "narrowed", "shared-later"}) private_directory(dir / name);
  ASSERT_EQ(::chown((dir / "foreign").c_str(), 65534, 65534), 0);
  shell("setfacl -n -m u:65534:rx " + (dir / "shared").string());

  const auto commit = [](const fs::path& source, const fs::path& destination, const VerifyCallback& verify = {}) {
    return [=] { commit_private_path_new(source, destination, verify); };
  };
  // What a verifier looked at must still be what moves: a rule added meanwhile could reach it.
  const auto narrow = [&] { fs::permissions(dir / "narrowed", fs::perms::owner_write, fs::perm_options::remove); };
  const auto share = [&] { shell("setfacl -n -m u:65534:rx " + (dir / "shared-later").string()); };
  const std::string distinct = "unsafe_path|Directory commit requires distinct bounded paths";
  const std::string ancestry = "unsafe_path|Directory commit requires ordinary existing ancestry";
  const std::string not_private = "native_install_commit|Commit source must be private and owned by this user";
  const std::string exists = "Cannot atomically install without replacing an existing destination";
  const std::string changed = "native_install_commit|Source identity changed during verification";
  std::vector<Row> rows = {
      {commit(dir / "source", dir / "x" / ".." / "source"), distinct},
      {commit(dir / "linked" / "source", dir / "new"), ancestry},
      {commit(dir / "source", dir / "linked" / "new"), ancestry},
      {commit(dir / "missing", dir / "new"), not_private},
      {commit(dir / "open", dir / "new"), not_private},
      {commit(dir / "two-links", dir / "new"), not_private},
      {commit(dir / "foreign", dir / "new"), not_private},
      {commit(dir / "shared", dir / "new"), grants},
      {commit(dir / "source", dir / "open"), "already_installed|" + exists},
      {commit(dir / "file", dir / "open"), "already_installed|" + exists},
      {commit(dir / "source", dir / "source" / "inside"), "native_install_commit|" + exists},
      {commit(dir / "source", dir / "new", [] { throw Error("snapshot_invalid", "Refused"); }),
       "snapshot_invalid|Refused"},
  };
  expect_rows(rows, dir.path());
  // These verifiers change the source, so only the absence of a move is compared.
  rows = {{commit(dir / "narrowed", dir / "new", narrow), changed},
          {commit(dir / "shared-later", dir / "new", share), grants}};
  expect_rows(rows, dir / "new");

  int verified = 0;
  commit_private_path_new(dir / "source", dir / "installed", [&] { ++verified; });
  commit_private_path_new(dir / "file", dir / "moved-file", {});
  EXPECT_EQ(verified, 1);
  EXPECT_EQ(read_file(dir / "installed" / "content", 10), "tree");
  EXPECT_EQ(read_file(dir / "moved-file", 10), "file");
}

TEST(Exchange, SwapsBackAndForthOrRefusesBeforeAnythingMoves) {
  TempDir dir;
  const fs::path first = dir / "root" / "installed";
  const fs::path second = dir / "root" / "prepared";
  for (const fs::path& path : {first, second}) {
    private_directory(path);
    testing::write_text(path / "marker", path.filename().string());
  }
  private_directory(first / "nested");
  fs::create_directory(dir / "root" / "open");
  private_directory(dir / "loose" / "tree");
  fs::permissions(dir / "loose", fs::perms::owner_all | fs::perms::others_exec);
  private_directory(dir / "probed");
  user_symlink(dir.path(), dir / "probed" / "exchange-ancestry");

  const auto exchange = [](const fs::path& a, const fs::path& b, const VerifyCallback& verify = {}) {
    return [=] { exchange_private_directories(a, b, verify); };
  };
  const auto replace_second = [&] {
    fs::rename(second, dir / "root" / "elsewhere");
    private_directory(second);
  };
  const std::string distinct = "unsafe_path|Directory exchange needs distinct bounded paths";
  const std::string not_private = "native_install_commit|Directory exchange requires private owned roots and parents";
  expect_rows(
      {{exchange(first, dir / "root" / "x" / ".." / "installed"), distinct},
       {exchange(first, dir / "root" / "missing"), not_private},
       {exchange(first, dir / "root" / "open"), not_private},
       {exchange(dir / "loose" / "tree", second), not_private},
       {exchange(dir / "probed", second), "unsafe_path|Managed path contains a symbolic link"},
       {exchange(first, first / "nested"), "native_install_commit|Cannot atomically exchange native directories"}},
      dir.path());
  EXPECT_EQ(error_of(exchange(first, second, replace_second)),
            "native_install_commit|Directory exchange identities changed during verification");
  EXPECT_EQ(read_file(first / "marker", 20), "installed");
  fs::remove(second);
  fs::rename(dir / "root" / "elsewhere", second);

  int verified = 0;
  exchange_private_directories(first, second, [&] { ++verified; });
  EXPECT_EQ(read_file(first / "marker", 20) + read_file(second / "marker", 20), "preparedinstalled");
  exchange_private_directories(first, second, {});
  EXPECT_EQ(read_file(first / "marker", 20) + read_file(second / "marker", 20), "installedprepared");
  EXPECT_EQ(verified, 1);
}

}  // namespace
}  // namespace zorvi
