#include "client/platform/process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <algorithm>
#include <thread>

#include "client/domain/json.hpp"
#include "client/platform/interrupt.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::in_subprocess;
using testing::outcome;
using testing::probe_path;

// Everything a test may vary about one start; defaults give a plain child.
struct Launch {
  fs::path path = "/bin/true";
  std::vector<std::string> arguments{};
  fs::path directory = "/";
  EnvironmentOverrides overrides{};
  ChildStreams streams = ChildStreams::Separated;
  ChildEnvironment environment = ChildEnvironment::Clean;
  ChildProcess::SpawnCallback on_spawn{};
  ChildGroup group = ChildGroup::Shared;
  ChildControl control = ChildControl::NoControl;
  std::vector<NativeHandle> handles{};

  ChildProcess start() const {
    return ChildProcess(path, arguments, directory, overrides, streams, environment, on_spawn, group, control, handles);
  }
};

// The shell itself, as its link would be refused.
Launch shell(const std::string& script) {
  return Launch{.path = fs::canonical("/bin/sh"), .arguments = {"-c", script}};
}

// The text of a start or wait: the exit code, or the error's code and message.
std::string ended(const Launch& launch) {
  std::string code;
  const std::string result = outcome([&] { code = std::to_string(launch.start().wait()); });
  return result == "ok" ? code : result;
}

std::vector<std::string> entries_named(const json& environment, const std::string& name) {
  std::vector<std::string> found;
  for (const auto& entry : environment)
    if (entry.get<std::string>().starts_with(name + "=")) found.push_back(entry.get<std::string>());
  return found;
}

TEST(Process, EachRefusalHasItsCodeAndMessage) {
  testing::TempDir dir;
  // A folder closed to others, links to an image and to a folder, and a script that may not run.
  testing::shell("cd '" + dir.path().string() + "' && chmod 755 . && mkdir -m 700 locked && mkdir locked/bin && " +
                 "ln -s /bin/true image-link && ln -s / directory-link && echo '#!/bin/sh' > no-execute");
  // A directory opener that records what it was asked to show and where its output went.
  testing::write_text(dir / "locked/bin/xdg-open",
                      "#!/bin/sh\n[ -z \"$ZORVI_OPENER_STATUS\" ] || exit 3\necho \"$@\" "
                      "\"$(readlink /proc/$$/fd/1)\" > " +
                          (dir / "shown").string());
  fs::permissions(dir / "locked/bin/xdg-open", fs::perms(0755));
  ::setenv("ZORVI_PROBE_VALUE", "abcdef", 1);
  const std::string opener = (dir / "locked/bin").string() + ":/bin";
  const std::string half(65536, 'a'), over(65537, 'b'), reserved(launcher_interrupt_reader_environment);
  const std::vector<const char*> many(258, "x"), fitting{"zorvi", half.c_str(), half.c_str()},
      too_long{"zorvi", half.c_str(), over.c_str()}, with_null{"zorvi", "first", nullptr};
  const auto own_arguments = [](int count, const std::vector<const char*>& argv) {
    return [=] { process_arguments(count, argv.data()); };
  };
  const auto start = [](const Launch& launch) { return [=] { launch.start().terminate(0); }; };
  const auto replace = [](fs::path path, EnvironmentOverrides overrides = {}) {
    return [=] { replace_process(path, {}, "/", overrides); };
  };
  const auto show = [&](const fs::path& path, const std::string& search, const char* status) {
    return [=, &dir] {
      ::setenv("PATH", search.c_str(), 1);
      ::setenv("ZORVI_OPENER_STATUS", status, 1);
      ::dup2(UniqueFd(::open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)).get(), 2);
      open_directory(path);
    };
  };
  const std::pair<std::function<void()>, std::string> rows[] = {
      {own_arguments(0, fitting), "argument_encoding: Native command arguments are missing"},
      {own_arguments(257, many), "ok"},
      {own_arguments(258, many), "argument_limit: Too many native command arguments"},
      {own_arguments(3, with_null), "argument_limit: Native process text is missing"},
      {own_arguments(3, too_long), "argument_limit: Native process text exceeds its byte bound"},
      {[] { process_environment("ZORVI-PROBE", 8); }, "environment_key: Native environment key is invalid"},
      {[] { process_environment("ZORVI_PROBE_VALUE", 0); }, "environment_limit: Native environment bound is invalid"},
      {start({.handles = std::vector<NativeHandle>(9, 3)}), "launch_handles: Too many private native child handles"},
      {start({.handles = {3}}), "launch_handles: Native handle inheritance is Windows-only"},
      {start({.path = dir / "image-link"}), "launch_executable: The installed game executable is missing or linked"},
      {start({.directory = dir / "directory-link"}), "launch_directory: Game working directory is missing or linked"},
      {start({.arguments = std::vector<std::string>(65, "a")}), "argument_limit: Too many launch arguments"},
      {start({.arguments = {std::string(4097, 'a')}}), "argument_limit: Launch argument is invalid or too long"},
      {start({.arguments = std::vector(8, std::string(4096, 'a'))}), "ok"},
      {start({.arguments = std::vector(9, std::string(4096, 'a'))}),
       "argument_limit: Launch arguments exceed the total bound"},
      {start({.overrides = {{"A", std::string("x\0y", 3)}}}),
       "argument_encoding: Process environment entry is invalid"},
      {start({.overrides = {{reserved, "1:3"}}}),
       "process_control: Launcher interrupt authority cannot be supplied as an environment override"},
      {start({.control = ChildControl::Interrupt}),
       "process_control: Only an isolated console launcher child receives interrupt control"},
      {[] { Launch().start().terminate(2001); },
       "process_wait: Child termination grace must be bounded to two seconds"},
      {[] { Launch().start().wait([] { return true; }); },
       "process_control: Interruptible waiting needs this owned child's private channel"},
      {[] {
         ChildProcess child = Launch().start();
         ::waitpid(static_cast<pid_t>(child.pid()), nullptr, 0);
         child.poll();
       },
       "process_wait: Cannot inspect game process"},
      {replace(dir / "image-link"), "process_start: Replacement image or directory is unavailable"},
      {replace("/bin/true", {{"A=B", "x"}}), "argument_encoding: Invalid maintenance environment"},
      {replace("/bin/true", {{reserved, "1:3"}}),
       "process_control: Maintenance cannot inherit launcher interrupt authority"},
      {[&] {
         testing::drop_to_nobody();
         replace_process("/bin/true", {}, dir / "locked", {});
       },
       "process_start: Cannot enter the external maintenance runtime"},
      // A failed exec leaves this process where it was: its folder follows the message.
      {[&] {
         fs::current_path(dir.path());
         throw Error(outcome(replace(dir / "no-execute")), fs::current_path().string());
       },
       "process_start: Cannot replace this process (native error 13): " + dir.path().string()},
      {show(dir / "directory-link", opener, ""), "location_unavailable: Local directory is unavailable"},
      {show(dir.path(), (dir / "locked").string(), ""), "desktop_unavailable: No native directory opener is available"},
      {show(dir.path(), opener, "3"), "desktop_unavailable: Native directory opening failed"},
      {show(dir.path(), opener, ""), "ok"},
  };
  // Each in a copy of this process: a replacement check that wrongly passed
  // would replace it.
  for (const auto& [call, expected] : rows)
    EXPECT_EQ(in_subprocess([&] { return outcome(call); }), expected) << &call - &rows[0].first;
  EXPECT_EQ(testing::read_text(dir / "shown"), dir.path().string() + " " + (dir / "err").string() + "\n");
  EXPECT_EQ(process_arguments(3, fitting.data()), (std::vector<std::string>{half, half}));
  EXPECT_EQ(process_environment("ZORVI_PROBE_VALUE", 6), "abcdef");
  ::unsetenv("ZORVI_PROBE_VALUE");
  EXPECT_EQ(process_environment("ZORVI_PROBE_VALUE", 6), std::nullopt);
  EXPECT_EQ(current_executable_path(), fs::weakly_canonical(testing::binary_dir() / "process_test"));
}

// The child waits for its activation byte; a start that cannot finish, or
// whose spawn callback fails, ends in the constructor and leaves no child.
TEST(ChildProcess, NothingRunsBeforeActivationAndAFailedStartLeavesNoChild) {
  testing::TempDir dir;
  testing::write_text(dir / "no-execute", "#!/bin/sh\nexit 0\n");
  const fs::path marker = dir / "touched";
  const std::tuple<fs::path, std::function<void(std::uint64_t)>, std::string> rows[] = {
      {fs::canonical("/bin/sh"),
       [&](std::uint64_t pid) {
         // Still this program's image in this program's directory: no chdir
         // and no exec have happened.
         EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(pid) + "/exe"), fs::read_symlink("/proc/self/exe"));
         EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(pid) + "/cwd"), fs::current_path());
       },
       "0"},
      {dir / "no-execute", {}, "process_start: Cannot execute the installed game"},
      {fs::canonical("/bin/sh"), [](std::uint64_t) { throw Error("record", "Cannot record the start"); },
       "record: Cannot record the start"},
      {fs::canonical("/bin/sh"), [](std::uint64_t pid) { ASSERT_TRUE(testing::kill_unreaped(static_cast<long>(pid))); },
       "process_start: Cannot activate the prepared game"},
  };
  for (const auto& [image, on_spawn, expected] : rows) {
    Launch launch{.path = image, .arguments = {"-c", "echo touched > " + marker.string()}, .directory = dir.path()};
    std::uint64_t seen = 0;
    launch.on_spawn = [&](std::uint64_t pid) {
      seen = pid;
      EXPECT_FALSE(fs::exists(marker));
      if (on_spawn) on_spawn(pid);
    };
    // The outcome, whether a child was made, whether one was left behind, whether it ran.
    const std::string result = ended(launch);
    EXPECT_EQ((std::tuple{result, seen != 0, testing::pid_exists(static_cast<long>(seen)), fs::remove(marker)}),
              std::tuple(expected, true, false, expected == "0"));
  }
  EXPECT_EQ(testing::caught([&] { Launch{.path = dir / "no-execute"}.start(); }).details,
            (std::vector<std::string>{"verify GAME", "repair GAME"}));
}

TEST(ChildProcess, NothingLeaksIntoAChild) {
  testing::TempDir dir;
  const std::string reader_variable(launcher_interrupt_reader_environment);
  // Each choice of each kind once: a plain child, and an isolated console child under interrupt control.
  std::vector<Launch> rows = {{},
                              {.streams = ChildStreams::Console,
                               .environment = ChildEnvironment::Inherited,
                               .group = ChildGroup::Isolated,
                               .control = ChildControl::Interrupt}};
  for (std::size_t i = 0; i < rows.size(); ++i) {
    rows[i].path = probe_path();
    rows[i].arguments = {"report", (dir / std::to_string(i)).string()};
    rows[i].directory = dir.path();
    rows[i].overrides = {{"PATH", "/override/bin"}};
  }
  // The parent carries what no child may inherit: loader and interrupt
  // variables, a descriptor without close-on-exec, a blocked and an ignored
  // signal. Its own output streams are files here.
  ASSERT_EQ(in_subprocess([&] {
              if (::open("/dev/null", O_RDONLY) < 3) return std::string("no stray descriptor");
              for (const char* name : {"LD_ZORVI_PROBE", "DYLD_ZORVI_PROBE", reader_variable.c_str()})
                ::setenv(name, "1:9", 1);
              sigset_t set;
              sigemptyset(&set);
              sigaddset(&set, SIGUSR1);
              ::sigprocmask(SIG_BLOCK, &set, nullptr);
              ::signal(SIGUSR2, SIG_IGN);
              std::string codes;
              for (std::size_t i = 0; i < rows.size(); ++i) {
                for (const int stream : {1, 2}) {
                  const fs::path file = dir / (std::to_string(i) + (stream == 1 ? "-out" : "-err"));
                  ::dup2(UniqueFd(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)).get(), stream);
                }
                codes += ended(rows[i]);
              }
              return codes;
            }),
            "00");
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const std::string name = (dir / std::to_string(i)).string();
    const json report = json::parse(testing::read_text(name));
    const json& environment = report["environment"];
    // Beyond the standard three, an interrupt child holds its reader and nothing else.
    const auto reader = entries_named(environment, reader_variable);
    std::vector<int> descriptors = report["descriptors"], expected{0, 1, 2};
    if (!reader.empty()) expected.push_back(std::stoi(reader[0].substr(reader_variable.size() + 3)));
    std::sort(descriptors.begin(), descriptors.end());
    // Separated keeps the child's output off the parent's own stdout.
    EXPECT_EQ(std::tuple(testing::read_text(name + "-out") + "|" + testing::read_text(name + "-err"), descriptors,
                         reader.size(), entries_named(environment, "LD_ZORVI_PROBE").size(),
                         entries_named(environment, "DYLD_ZORVI_PROBE").size(), entries_named(environment, "PATH"),
                         report["pgid"], fs::path(report["cwd"].get<std::string>()),
                         report["blocked"].get<std::string>() + report["ignored"].get<std::string>() +
                             report["stdin"].get<std::string>()),
              std::tuple(std::string(i == 0 ? "|out\nerr\n" : "out\n|err\n"), expected, i, i, i,
                         std::vector<std::string>{"PATH=/override/bin"}, i == 0 ? json(::getpgrp()) : report["pid"],
                         fs::canonical(dir.path()), std::string(32, '0') + "/dev/null"))
        << i;
  }
}

// Until its exec the child runs in this process's memory: a handler of ours
// running there would write our state. A signal reaching the waiting child
// must act as on a fresh process and leave the flag alone.
TEST(ChildProcess, ASignalBeforeTheExecNeverRunsTheParentsHandler) {
  const std::string result = in_subprocess([] {
    static volatile sig_atomic_t handled = 0;
    struct sigaction action{};
    action.sa_handler = [](int) { handled = 1; };
    ::sigaction(SIGUSR1, &action, nullptr);
    const std::string code = ended({.on_spawn = [](std::uint64_t pid) { ::kill(static_cast<pid_t>(pid), SIGUSR1); }});
    return code + (handled != 0 ? " and our handler ran" : "");
  });
  EXPECT_TRUE(result == std::to_string(128 + SIGUSR1) || result == "process_start: Cannot activate the prepared game")
      << result;
}

// Each start has its own stack and plan in the shared memory.
TEST(ChildProcess, ConcurrentStartsKeepTheirOwnOutcomes) {
  testing::TempDir dir;
  testing::write_text(dir / "no-execute", "#!/bin/sh\nexit 0\n");
  std::vector<std::string> seen[2], expected[2];
  const auto run = [&](int id) {
    for (int round = 0; round < 20; ++round) {
      const std::string code = std::to_string(id * 20 + round);
      expected[id].push_back(round % 2 == 0 ? code : "process_start: Cannot execute the installed game");
      seen[id].push_back(ended(round % 2 == 0 ? shell("exit " + code) : Launch{.path = dir / "no-execute"}));
    }
  };
  std::thread other(run, 1);
  run(0);
  other.join();
  for (int id : {0, 1}) EXPECT_EQ(seen[id], expected[id]) << id;
}

TEST(ChildProcess, ExitCodesStickTerminationEscalatesAndTheInterruptPipeReachesAnIsolatedChild) {
  testing::TempDir dir;
  // Reaped, only the stored code can answer a poll.
  ChildProcess child = shell("exit 7").start();
  EXPECT_EQ((std::tuple{child.wait(), child.ended_by_signal(), child.poll()}), std::tuple(7, false, 7));
  ChildProcess polite = shell("exec sleep 60").start();
  EXPECT_EQ((std::tuple{polite.poll(), polite.terminate(2000), polite.exit_code(), polite.ended_by_signal(),
                        polite.terminate(0)}),
            std::tuple(std::nullopt, true, 128 + SIGTERM, true, true));
  ChildProcess stubborn = shell("trap '' TERM; echo > " + (dir / "ready").string() + "; exec sleep 60").start();
  ASSERT_TRUE(testing::eventually([&] { return fs::exists(dir / "ready"); }));
  EXPECT_EQ((std::pair{stubborn.terminate(0), stubborn.exit_code()}), std::pair(true, 128 + SIGKILL));

  const Launch interruptible{.path = probe_path(),
                             .arguments = {"interruptible"},
                             .streams = ChildStreams::Console,
                             .group = ChildGroup::Isolated,
                             .control = ChildControl::Interrupt};
  ChildProcess asked = interruptible.start(), plain = Launch().start();
  int calls = 0;
  EXPECT_EQ((std::tuple{asked.wait([&] { return ++calls >= 3; }), asked.request_interrupt(), plain.request_interrupt(),
                        plain.wait()}),
            std::tuple(0, false, false, 0));
  // The destructor neither signals nor waits: the child runs on, reads end
  // of file and leaves without having been asked.
  const auto pid = static_cast<pid_t>(interruptible.start().pid());
  EXPECT_EQ(testing::wait_status(pid), 3);
}

// The probe sets a loader and an interrupt variable, then becomes its own
// report; only exec keeps the environment as it stands.
TEST(ReplaceProcess, NewImageKeepsThePid) {
  testing::TempDir dir;
  for (const std::string mode : {"replace", "exec"}) {
    ChildProcess child(probe_path(), {"replace", mode, (dir / mode).string()}, "/", {}, ChildStreams::Separated,
                       ChildEnvironment::Inherited);
    ASSERT_EQ(child.wait(), 0) << mode;
    const json report = json::parse(testing::read_text(dir / mode));
    const json& environment = report["environment"];
    EXPECT_EQ(std::tuple(report["pid"], report["cwd"], entries_named(environment, "ZORVI_PROBE_OVERRIDE"),
                         entries_named(environment, std::string(launcher_interrupt_reader_environment)).size(),
                         entries_named(environment, "LD_ZORVI_PROBE").size()),
              std::tuple(json(child.pid()), json("/"), std::vector<std::string>{"ZORVI_PROBE_OVERRIDE=replaced"}, 0U,
                         mode == "exec" ? 1U : 0U))
        << mode;
  }
}

}  // namespace
}  // namespace zorvi
