#include "client/platform/files.hpp"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
using testing::directory_names;
using testing::entry_state;
using testing::error_of;
using testing::mask_transaction_names;
using testing::ProgramChild;
using testing::shell;
using testing::user_symlink;
using testing::TempDir;

std::vector<std::string> probe_lines(const std::vector<std::string>& args) {
  ProgramChild probe("files_probe", args);
  std::vector<std::string> lines;
  for (std::string line = probe.read_line(); !line.empty(); line = probe.read_line()) lines.push_back(line);
  EXPECT_EQ(probe.wait(), 0);
  return lines;
}

std::string transaction_names(const fs::path& directory) {
  std::string found;
  for (const auto& name : directory_names(directory))
    if (name.ends_with(".tmp")) found += name + " ";
  return found;
}

TEST(ReadFile, LimitIsExactAndTailKeepsTheEnd) {
  TempDir dir;
  testing::write_text(dir / "ten", "0123456789");
  testing::write_text(dir / "empty", "");
  EXPECT_EQ(read_file(dir / "ten", 10), "0123456789");
  EXPECT_EQ(error_of([&] { read_file(dir / "ten", 9); }), "size_limit|File exceeds read limit");
  std::uint64_t size = 0;
  EXPECT_EQ(read_file_tail(dir / "ten", 9, &size), "123456789");
  EXPECT_EQ(size, 10u);
  EXPECT_EQ(read_file_tail(dir / "ten", 10, &size), "0123456789");
  EXPECT_EQ(read_file_tail(dir / "ten", 0, &size), "");
  EXPECT_EQ(read_file(dir / "empty", 0), "");
  EXPECT_EQ(read_file_tail(dir / "empty", 4, &size), "");
  EXPECT_EQ(size, 0u);
}

TEST(ReadFile, RefusesWhatIsNoOrdinaryFileWithoutBlocking) {
  TempDir dir;
  testing::write_text(dir / "file", "x");
  fs::create_directory(dir / "directory");
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  fs::create_symlink(dir / "file", dir / "link");
  const std::string base = dir.path().string();
  const struct {
    fs::path path;
    std::string expected;
  } cases[] = {
      {dir / "missing", "file_read|Cannot open file: " + base + "/missing"},
      {dir / "link", "unsafe_path|Cannot open file: " + base + "/link"},
      {dir / "directory", "unsafe_path|Expected an ordinary file: " + base + "/directory"},
      {dir / "fifo", "unsafe_path|Expected an ordinary file: " + base + "/fifo"},
      // A proc file claims size 0 and then delivers bytes: it grew while read.
      {"/proc/self/stat", "file_read|File changed while reading"},
      {base + std::string("/file\0.json", 11), "unsafe_path|Native path contains a NUL byte"},
  };
  for (const auto& item : cases) {
    EXPECT_EQ(error_of([&] { read_file(item.path, 1024); }), item.expected) << item.path;
    EXPECT_EQ(error_of([&] { read_file_tail(item.path, 1024); }), item.expected) << item.path;
  }
}

TEST(SyncFile, RefusesAllButAnOrdinarySingleLinkFile) {
  TempDir dir;
  testing::write_text(dir / "file", "x");
  testing::write_text(dir / "linked", "x");
  ASSERT_EQ(::link((dir / "linked").c_str(), (dir / "second").c_str()), 0);
  fs::create_symlink(dir / "file", dir / "symlink");
  EXPECT_EQ(error_of([&] { sync_file(dir / "file"); }), "no error");
  EXPECT_EQ(error_of([&] { sync_directory(dir.path()); }), "no error");
  const std::string bad_path = "file_sync|File synchronization requires a bounded path without NUL bytes";
  const std::string not_single = "file_sync|Synchronization requires an ordinary single-link file";
  const struct {
    fs::path path;
    std::string expected;
  } cases[] = {
      {"", bad_path},
      {std::string("/tmp/a\0b", 8), bad_path},
      {"/" + std::string(4096, 'a'), bad_path},
      {dir / "linked", not_single},
      {dir / "symlink", not_single},
      {dir.path(), not_single},
      {dir / "missing", not_single},
  };
  for (const auto& item : cases) EXPECT_EQ(error_of([&] { sync_file(item.path); }), item.expected) << item.path;
  EXPECT_EQ(error_of([&] { sync_directory(dir / "missing"); }),
            "file_sync|Cannot open directory for synchronization");
}

TEST(AtomicWrite, WritersDifferInPrivacyAndReplacement) {
  TempDir dir;
  const fs::path state = dir / "new" / "state";
  atomic_write(state / "doc.json", "one");
  atomic_write(state / "doc.json", "two");
  EXPECT_EQ(read_file(state / "doc.json", 10), "two");
  EXPECT_EQ(fs::status(state).permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(dir / "new").permissions(), fs::perms::owner_all);

  replace_private_file(state / "doc.json", "three");
  EXPECT_EQ(read_file(state / "doc.json", 10), "three");
  atomic_private_create(dir / "other" / "created", "four");
  EXPECT_EQ(error_of([&] { atomic_private_create(dir / "other" / "created", "five"); }),
            "file_write|Cannot create export; the destination may already exist (17)");
  EXPECT_EQ(read_file(dir / "other" / "created", 10), "four");

  // An export goes to a folder the user chose and leaves it as it is.
  fs::create_directory(dir / "export");
  fs::permissions(dir / "export", fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);
  atomic_create(dir / "export" / "file", "six");
  EXPECT_EQ(fs::status(dir / "export").permissions(),
            fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);
  EXPECT_EQ(fs::status(dir / "export" / "file").permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(transaction_names(state) + transaction_names(dir / "other") + transaction_names(dir / "export"), "");
}

TEST(AtomicWrite, EveryFailureLeavesTargetAndNoTransactionFile) {
  TempDir dir;
  fs::create_directory(dir / "real");
  user_symlink(dir / "real", dir / "linked");
  testing::write_text(dir / "existing", "old");
  fs::permissions(dir / "existing", fs::perms::owner_read | fs::perms::owner_write);
  user_symlink(dir / "existing", dir / "symlink");
  fs::create_directory(dir / "occupied");
  testing::write_text(dir / "occupied" / "inside", "x");
  const std::string export_parent = "unsafe_path|Export parent must be an existing plain directory";
  const struct {
    std::function<void()> action;
    std::string expected;
  } cases[] = {
      {[&] { atomic_create(dir / "missing" / "file", "new"); }, export_parent},
      {[&] { atomic_create(dir / "linked" / "file", "new"); }, export_parent},
      {[&] { atomic_write(dir / "symlink", "new"); }, "unsafe_path|Refusing to replace a symbolic link"},
      {[&] { atomic_create(dir / "symlink", "new"); }, "unsafe_path|Refusing to replace a symbolic link"},
      {[&] { atomic_create(dir / "existing", "new"); },
       "file_write|Cannot create export; the destination may already exist (17)"},
      {[&] { atomic_write(dir / "occupied", "new"); }, "file_write|Cannot commit transaction file (21)"},
      {[&] { atomic_create("", "new"); }, export_parent},
      {[&] { atomic_write("", "new"); },
       "unsafe_path|macOS private directory needs a bounded path below a root"},
      {[&] { atomic_write((dir / "existing").string() + std::string("\0x", 2), "new"); },
       "unsafe_path|Native path contains a NUL byte"},
  };
  const std::vector<std::string> names = directory_names(dir.path());
  const std::string existing = entry_state(dir / "existing");
  const std::string occupied = entry_state(dir / "occupied");
  for (const auto& item : cases) {
    EXPECT_EQ(error_of(item.action), item.expected);
    EXPECT_EQ(directory_names(dir.path()), names);
    EXPECT_EQ(entry_state(dir / "existing"), existing);
    EXPECT_EQ(entry_state(dir / "occupied"), occupied);
  }
  EXPECT_EQ(directory_names(dir / "real"), std::vector<std::string>{});

  // The transaction name adds 38 bytes to the last component.
  const fs::path long_name = dir / std::string(250, 'n');
  EXPECT_EQ(mask_transaction_names(error_of([&] { atomic_write(long_name, "new"); }), long_name.string()),
            "file_write|Cannot create transaction file " + long_name.string() + ".ID.tmp (36)");
  EXPECT_EQ(directory_names(dir.path()), names);
}

TEST(AtomicWrite, WriteFailureNamesItsErrorNumber) {
  TempDir dir;
  const auto lines = probe_lines({"fsize", (dir / "doc.json").string()});
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "file_write|Cannot write transaction file (27)");
  EXPECT_EQ(lines[1], "names|");  // nothing left behind
}

TEST(AtomicWrite, FullVolumeIsInsufficientSpaceAndLeavesNoTransactionFile) {
  TempDir dir;
  fs::create_directory(dir / "mount");
  const std::string space = "insufficient_space|Local storage cannot save data; free space and try again";
  const auto lines = probe_lines({"full", (dir / "mount").string()});
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "small|ok",
                       "atomic_write|" + space,
                       "atomic_create|" + space,
                       "atomic_private_create|" + space,
                       "replace_private_file|" + space,
                       "reserve|28",
                       "names|doc.json,reserved",
                       "doc|{\"state\":\"old\"}",
                   }));
}

// The order that makes a replace durable: data, flush of the data, rename,
// flush of the name. Nothing else may flush.
TEST(AtomicWrite, DurableReplaceFlushesExactlyTwice) {
  TempDir dir;
  const fs::path target = dir / "doc.json";
  testing::write_text(target, "old");
  const fs::path log = dir.path().parent_path() / (dir.path().filename().string() + ".strace");
  const testing::CommandResult traced = testing::run_command(
      {"strace", "-E", "ASAN_OPTIONS=detect_leaks=0", "-f", "-qq", "-y", "-o", log.string(), "-e",
       "trace=write,pwrite64,writev,fsync,fdatasync,sync,syncfs,sync_file_range,msync,rename,renameat,renameat2,link,"
       "linkat",
       (testing::binary_dir() / "files_probe").string(), "write", target.string(), "{\"state\":\"new\"}"});
  const std::string trace = testing::read_text(log);
  fs::remove(log);
  ASSERT_EQ(traced.status, 0) << traced.err;
  ASSERT_EQ(traced.out, "ok\n");

  std::vector<std::string> steps;
  int flushes = 0;
  const std::string base = dir.path().string();
  std::istringstream lines(mask_transaction_names(trace, target.string()));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t start = line.find_first_not_of("0123456789 ");
    const std::size_t open = line.find('(');
    if (start == std::string::npos || open == std::string::npos || open < start) continue;
    const std::string name = line.substr(start, open - start);
    std::string rest = line.substr(open + 1);
    if (name.find("sync") != std::string::npos) ++flushes;
    if (rest.find(base) == std::string::npos) continue;
    const std::size_t digits = rest.find_first_not_of("0123456789");
    if (digits > 0 && digits != std::string::npos && rest[digits] == '<') rest.replace(0, digits, "FD");
    if (name.starts_with("write") || name == "pwrite64") steps.push_back("write " + rest.substr(0, rest.find('>') + 1));
    else if (name.starts_with("rename")) steps.push_back("rename " + rest.substr(0, rest.find(')')));
    else steps.push_back(name + " " + rest.substr(0, rest.find(')')));
  }
  EXPECT_EQ(flushes, 2) << trace;
  EXPECT_EQ(steps, (std::vector<std::string>{
                       "write FD<" + base + "/doc.json.ID.tmp>",
                       "fsync FD<" + base + "/doc.json.ID.tmp>",
                       "rename \"" + base + "/doc.json.ID.tmp\", \"" + base + "/doc.json\"",
                       "fsync FD<" + base + ">",
                   }))
      << trace;
  EXPECT_EQ(testing::read_text(target), "{\"state\":\"new\"}");
}

// A writer killed at any instant leaves the old or the new document, and
// whatever it left behind does not stop the next writer.
TEST(AtomicWrite, SigkillAtRandomMomentsLeavesOldOrNewDocument) {
  TempDir dir;
  const fs::path target = dir / "state" / "doc.json";
  constexpr std::size_t pad = 256 * 1024;
  const auto document = [](std::uint64_t generation) {
    return json{{"generation", generation}, {"pad", std::string(pad, 'x')}};
  };
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> delay_us(0, 4000);
  int kept_old = 0;
  int took_new = 0;
  atomic_write(target, document(0).dump());
  for (std::uint64_t round = 0; round < 200; ++round) {
    const std::uint64_t old_generation = 2 * round;
    {
      ProgramChild writer("files_probe", {"loop", target.string(), std::to_string(old_generation + 1),
                                          std::to_string(pad)});
      ASSERT_EQ(writer.read_line(), "ready");
      std::this_thread::sleep_for(std::chrono::microseconds(delay_us(random)));
      writer.kill(SIGKILL);
      ASSERT_EQ(writer.wait(), 128 + SIGKILL);
    }
    const json found = parse_json(read_file(target, 2 * pad), 2 * pad);
    if (found == document(old_generation)) {
      ++kept_old;
    } else {
      ASSERT_EQ(found, document(old_generation + 1)) << "round " << round;
      ++took_new;
    }
    atomic_write(target, document(old_generation + 2).dump());
  }
  ::testing::Test::RecordProperty("kept_old", kept_old);
  ::testing::Test::RecordProperty("took_new", took_new);
  const std::string leftovers = transaction_names(target.parent_path());
  std::cout << "rounds keeping the old document: " << kept_old << ", taking the new: " << took_new
            << ", transaction files left by killed writers: "
            << std::count(leftovers.begin(), leftovers.end(), ' ') << "\n";
  EXPECT_EQ(parse_json(read_file(target, 2 * pad), 2 * pad), document(400));
}

class Commit : public ::testing::Test {
protected:
  void SetUp() override {
    fs::create_directory(dir / "source");
    fs::permissions(dir / "source", fs::perms::owner_all);
    testing::write_text(dir / "source" / "content", "tree");
    testing::write_text(dir / "file", "file");
    fs::permissions(dir / "file", fs::perms::owner_read | fs::perms::owner_write);
  }
  TempDir dir;
};

TEST_F(Commit, MovesAPrivateEntryToANewName) {
  int verified = 0;
  commit_private_path_new(dir / "source", dir / "installed", [&] { ++verified; });
  commit_private_path_new(dir / "file", dir / "moved-file", {});
  EXPECT_EQ(verified, 1);
  EXPECT_EQ(read_file(dir / "installed" / "content", 10), "tree");
  EXPECT_EQ(read_file(dir / "moved-file", 10), "file");
  EXPECT_EQ(directory_names(dir.path()), (std::vector<std::string>{"installed", "moved-file"}));
}

TEST_F(Commit, ExistingDestinationIsAlreadyInstalledAndNothingMoves) {
  fs::create_directory(dir / "destination");
  const std::string before = entry_state(dir / "source") + entry_state(dir / "destination");
  EXPECT_EQ(error_of([&] { commit_private_path_new(dir / "source", dir / "destination", {}); }),
            "already_installed|Cannot atomically install without replacing an existing destination");
  EXPECT_EQ(error_of([&] { commit_private_path_new(dir / "file", dir / "destination", {}); }),
            "already_installed|Cannot atomically install without replacing an existing destination");
  EXPECT_EQ(entry_state(dir / "source") + entry_state(dir / "destination"), before);
}

TEST_F(Commit, RefusalsLeaveTheSourceInPlace) {
  fs::create_directory(dir / "open");
  user_symlink(dir.path(), dir / "linked");
  testing::write_text(dir / "two-links", "x");
  fs::permissions(dir / "two-links", fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_EQ(::link((dir / "two-links").c_str(), (dir / "second").c_str()), 0);
  fs::create_directory(dir / "foreign");
  fs::permissions(dir / "foreign", fs::perms::owner_all);
  ASSERT_EQ(::chown((dir / "foreign").c_str(), 65534, 65534), 0);
  fs::create_directory(dir / "shared");
  fs::permissions(dir / "shared", fs::perms::owner_all);
  shell("setfacl -n -m u:65534:rx " + (dir / "shared").string());

  const std::string distinct = "unsafe_path|Directory commit requires distinct bounded paths";
  const std::string ancestry = "unsafe_path|Directory commit requires ordinary existing ancestry";
  const std::string not_private = "native_install_commit|Commit source must be private and owned by this user";
  const struct {
    fs::path source;
    fs::path destination;
    std::string expected;
  } cases[] = {
      {dir / "source", dir / "source", distinct},
      {dir / "source", dir / "x" / ".." / "source", distinct},
      {dir / "source", "/", distinct},
      {"", dir / "new", distinct},
      {dir / "missing" / "source", dir / "new", ancestry},
      {dir / "linked" / "source", dir / "new", ancestry},
      {dir / "source", dir / "linked" / "new", ancestry},
      {dir / "missing", dir / "new", not_private},
      {dir / "open", dir / "new", not_private},
      {dir / "two-links", dir / "new", not_private},
      {dir / "foreign", dir / "new", not_private},
      {dir / "shared", dir / "new", "permissions|Existing macOS storage grants another identity access; preserve it"},
      {dir / "source", dir / "source" / "inside",
       "native_install_commit|Cannot atomically install without replacing an existing destination"},
  };
  const std::vector<std::string> names = directory_names(dir.path());
  const std::string source = entry_state(dir / "source");
  for (const auto& item : cases) {
    EXPECT_EQ(error_of([&] { commit_private_path_new(item.source, item.destination, {}); }), item.expected)
        << item.source << " -> " << item.destination;
    EXPECT_EQ(directory_names(dir.path()), names);
  }
  EXPECT_EQ(entry_state(dir / "source"), source);
}

TEST_F(Commit, VerifierSeesTheEntryThatMoves) {
  const auto private_tree = [&](const std::string& name) {
    fs::create_directory(dir / name);
    fs::permissions(dir / name, fs::perms::owner_all);
    return dir / name;
  };
  const struct {
    fs::path source;
    std::function<void()> verify;
    std::string expected;
  } cases[] = {
      {private_tree("refused"), [] { throw Error("snapshot_invalid", "Refused"); }, "snapshot_invalid|Refused"},
      {private_tree("narrowed"),
       [&] { fs::permissions(dir / "narrowed", fs::perms::owner_write, fs::perm_options::remove); },
       "native_install_commit|Source identity changed during verification"},
      {dir / "file",
       [&] {
         fs::remove(dir / "file");
         testing::write_text(dir / "file", "swapped");
         fs::permissions(dir / "file", fs::perms::owner_read | fs::perms::owner_write);
       },
       "native_install_commit|Source identity changed during verification"},
      // A rule added while verifying could reach what was verified.
      {private_tree("shared"), [&] { shell("setfacl -n -m u:65534:rx " + (dir / "shared").string()); },
       "permissions|Existing macOS storage grants another identity access; preserve it"},
  };
  for (const auto& item : cases) {
    EXPECT_EQ(error_of([&] { commit_private_path_new(item.source, dir / "new", item.verify); }), item.expected)
        << item.source;
    EXPECT_TRUE(fs::exists(item.source));
  }
  EXPECT_FALSE(fs::exists(dir / "new"));
}

class Exchange : public ::testing::Test {
protected:
  void SetUp() override {
    for (const char* name : {"installed", "prepared"}) {
      private_directory(dir / "root" / name);
      testing::write_text(dir / "root" / name / "marker", name);
    }
  }
  std::string marker(const char* name) { return read_file(dir / "root" / name / "marker", 20); }
  fs::path first() { return dir / "root" / "installed"; }
  fs::path second() { return dir / "root" / "prepared"; }
  TempDir dir;
};

TEST_F(Exchange, SwapsAndASecondCallSwapsBack) {
  int verified = 0;
  exchange_private_directories(first(), second(), [&] { ++verified; });
  EXPECT_EQ(marker("installed"), "prepared");
  EXPECT_EQ(marker("prepared"), "installed");
  exchange_private_directories(first(), second(), {});
  EXPECT_EQ(marker("installed"), "installed");
  EXPECT_EQ(marker("prepared"), "prepared");
  EXPECT_EQ(verified, 1);
}

TEST_F(Exchange, RefusesBeforeAnythingMoves) {
  private_directory(dir / "root" / "installed" / "nested");
  fs::create_directory(dir / "root" / "open");
  fs::create_directory(dir / "loose");
  fs::permissions(dir / "loose", fs::perms::owner_all | fs::perms::others_exec);
  private_directory(dir / "loose" / "tree");
  fs::permissions(dir / "loose", fs::perms::owner_all | fs::perms::others_exec);
  private_directory(dir / "probed");
  user_symlink(dir.path(), dir / "probed" / "exchange-ancestry");

  const std::string distinct = "unsafe_path|Directory exchange needs distinct bounded paths";
  const std::string not_private = "native_install_commit|Directory exchange requires private owned roots and parents";
  const struct {
    fs::path first;
    fs::path second;
    std::string expected;
  } cases[] = {
      {first(), first(), distinct},
      {first(), dir / "root" / "x" / ".." / "installed", distinct},
      {"", second(), distinct},
      {first(), "/", distinct},
      {first(), dir / "root" / "missing", not_private},
      {first(), dir / "root" / "open", not_private},
      {dir / "loose" / "tree", second(), not_private},
      {dir / "probed", second(), "unsafe_path|Managed path contains a symbolic link"},
      {first(), dir / "root" / "installed" / "nested",
       "native_install_commit|Cannot atomically exchange native directories"},
  };
  for (const auto& item : cases) {
    EXPECT_EQ(error_of([&] { exchange_private_directories(item.first, item.second, {}); }), item.expected)
        << item.first << " <-> " << item.second;
    EXPECT_EQ(marker("installed"), "installed");
    EXPECT_EQ(marker("prepared"), "prepared");
  }
  EXPECT_EQ(error_of([&] {
              exchange_private_directories(first(), second(), [&] {
                fs::rename(second(), dir / "root" / "elsewhere");
                private_directory(second());
              });
            }),
            "native_install_commit|Directory exchange identities changed during verification");
  EXPECT_EQ(marker("installed"), "installed");
}

TEST(ExchangeVolumes, AcrossTwoVolumesFailsBeforeAnythingMoves) {
  TempDir dir;
  fs::create_directory(dir / "mount");
  private_directory(dir / "root" / "tree");
  testing::write_text(dir / "root" / "tree" / "marker", "disk");
  const auto lines = probe_lines({"volumes", (dir / "mount").string(), (dir / "root" / "tree").string()});
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "exchange|native_install_commit|Directory exchange requires distinct roots on one volume",
                       "commit|native_install_commit|Cannot atomically install without replacing an existing "
                       "destination",
                       "names|tree",
                       "marker|tmpfs",
                   }));
  EXPECT_EQ(read_file(dir / "root" / "tree" / "marker", 10), "disk");
}

}  // namespace
}  // namespace zorvi
