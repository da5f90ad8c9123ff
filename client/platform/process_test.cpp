#include "client/platform/process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <algorithm>
#include <thread>

#include "client/domain/error.hpp"
#include "client/domain/json.hpp"
#include "client/platform/interrupt.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::eventually;
using testing::in_subprocess;
using testing::outcome;
using testing::probe_path;
using testing::TempDir;

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

std::vector<std::string> entries_named(const json& environment, const std::string& name) {
  std::vector<std::string> found;
  for (const auto& entry : environment)
    if (entry.get<std::string>().starts_with(name + "=")) found.push_back(entry.get<std::string>());
  return found;
}

TEST(Process, EachRefusalHasItsCodeAndMessage) {
  TempDir dir;
  fs::permissions(dir.path(), fs::perms(0755));
  fs::create_directory(dir / "locked");
  fs::permissions(dir / "locked", fs::perms(0700));
  fs::create_symlink("/bin/true", dir / "image-link");
  fs::create_directory_symlink("/", dir / "directory-link");
  testing::write_text(dir / "no-execute", "#!/bin/sh\n");
  fs::permissions(dir / "no-execute", fs::perms(0644));
  // A directory opener that records what it was asked to show and where its
  // output went.
  fs::create_directory(dir / "bin");
  testing::write_text(dir / "bin/xdg-open",
                      "#!/bin/sh\n[ -z \"$ZORVI_OPENER_STATUS\" ] || exit $ZORVI_OPENER_STATUS\n"
                      "echo \"$@\" \"$(readlink /proc/$$/fd/1)\" > " +
                          (dir / "shown").string());
  fs::permissions(dir / "bin/xdg-open", fs::perms(0755));
  const std::string opener_path = (dir / "bin").string() + ":/bin";
  ::setenv("ZORVI_PROBE_VALUE", "abcdef", 1);
  const std::string half(65536, 'a'), over(65537, 'b'), full(4096, 'a');
  std::vector<const char*> many(258, "x");
  const char* const fitting[] = {"zorvi", half.c_str(), half.c_str()};
  const char* const too_long[] = {"zorvi", half.c_str(), over.c_str()};
  const char* const with_null[] = {"zorvi", "first", nullptr};
  const std::string reserved(launcher_interrupt_reader_environment);
  const auto start = [](const std::function<void(Launch&)>& change) {
    Launch launch;
    change(launch);
    launch.start().terminate(0);
  };
  const auto replace = [](const fs::path& path, const std::vector<std::string>& arguments, const fs::path& directory,
                          const EnvironmentOverrides& overrides = {}) {
    replace_process(path, arguments, directory, overrides);
  };
  struct Row {
    const char* name;
    std::function<void()> call;
    std::string expected;
  } rows[] = {
      {"no arguments", [&] { process_arguments(0, fitting); },
       "argument_encoding: Native command arguments are missing"},
      {"257 arguments", [&] { process_arguments(257, many.data()); }, "ok"},
      {"258 arguments", [&] { process_arguments(258, many.data()); },
       "argument_limit: Too many native command arguments"},
      {"missing argument", [&] { process_arguments(3, with_null); }, "argument_limit: Native process text is missing"},
      {"exactly the total", [&] { process_arguments(3, fitting); }, "ok"},
      {"a byte over the total", [&] { process_arguments(3, too_long); },
       "argument_limit: Native process text exceeds its byte bound"},
      {"invalid key", [] { process_environment("ZORVI-PROBE", 8); },
       "environment_key: Native environment key is invalid"},
      {"no bound", [] { process_environment("ZORVI_PROBE_VALUE", 0); },
       "environment_limit: Native environment bound is invalid"},
      {"value over the bound", [] { process_environment("ZORVI_PROBE_VALUE", 5); },
       "environment_limit: Native process text exceeds its byte bound"},
      {"value at the bound", [] { process_environment("ZORVI_PROBE_VALUE", 6); }, "ok"},
      {"nine handles", [&] { start([](Launch& l) { l.handles.assign(9, 3); }); },
       "launch_handles: Too many private native child handles"},
      {"one handle", [&] { start([](Launch& l) { l.handles.assign(1, 3); }); },
       "launch_handles: Native handle inheritance is Windows-only"},
      {"linked image", [&] { start([&](Launch& l) { l.path = dir / "image-link"; }); },
       "launch_executable: The installed game executable is missing or linked"},
      {"linked directory", [&] { start([&](Launch& l) { l.directory = dir / "directory-link"; }); },
       "launch_directory: Game working directory is missing or linked"},
      {"65 arguments", [&] { start([](Launch& l) { l.arguments.assign(65, "a"); }); },
       "argument_limit: Too many launch arguments"},
      {"4097-byte argument", [&] { start([&](Launch& l) { l.arguments = {full + "a"}; }); },
       "argument_limit: Launch argument is invalid or too long"},
      {"eight of 4096", [&] { start([&](Launch& l) { l.arguments.assign(8, full); }); }, "ok"},
      {"nine of 4096", [&] { start([&](Launch& l) { l.arguments.assign(9, full); }); },
       "argument_limit: Launch arguments exceed the total bound"},
      {"NUL in a value", [&] { start([](Launch& l) { l.overrides = {{"A", std::string("x\0y", 3)}}; }); },
       "argument_encoding: Process environment entry is invalid"},
      {"reserved variable", [&] { start([&](Launch& l) { l.overrides = {{reserved, "1:3"}}; }); },
       "process_control: Launcher interrupt authority cannot be supplied as an environment override"},
      {"interrupt in a shared group", [&] { start([](Launch& l) { l.control = ChildControl::Interrupt; }); },
       "process_control: Only an isolated console launcher child receives interrupt control"},
      {"unenterable directory",
       [&] {
         testing::drop_to_nobody();
         start([&](Launch& l) { l.directory = dir / "locked"; });
       },
       "process_start: Cannot execute the installed game"},
      {"grace beyond two seconds", [] { Launch().start().terminate(2001); },
       "process_wait: Child termination grace must be bounded to two seconds"},
      {"interruptible wait without a channel", [] { Launch().start().wait([] { return true; }); },
       "process_control: Interruptible waiting needs this owned child's private channel"},
      {"child reaped elsewhere",
       [] {
         ChildProcess child = Launch().start();
         ::waitpid(static_cast<pid_t>(child.pid()), nullptr, 0);
         child.poll();
       },
       "process_wait: Cannot inspect game process"},
      {"linked replacement image", [&] { replace(dir / "image-link", {}, "/"); },
       "process_start: Replacement image or directory is unavailable"},
      {"65 replacement arguments", [&] { replace("/bin/true", std::vector<std::string>(65, "a"), "/"); },
       "argument_limit: Too many replacement arguments"},
      {"4097-byte replacement argument", [&] { replace("/bin/true", {full + "a"}, "/"); },
       "argument_limit: Invalid maintenance argument"},
      {"nine replacement arguments of 4096", [&] { replace("/bin/true", std::vector<std::string>(9, full), "/"); },
       "argument_limit: Maintenance arguments exceed their bound"},
      {"key with =", [&] { replace("/bin/true", {}, "/", {{"A=B", "x"}}); },
       "argument_encoding: Invalid maintenance environment"},
      {"reserved replacement variable", [&] { replace("/bin/true", {}, "/", {{reserved, "1:3"}}); },
       "process_control: Maintenance cannot inherit launcher interrupt authority"},
      {"unenterable replacement directory",
       [&] {
         testing::drop_to_nobody();
         replace("/bin/true", {}, dir / "locked");
       },
       "process_start: Cannot enter the external maintenance runtime"},
      // A failed exec must also leave this process where it was.
      {"refused replacement image",
       [&] {
         fs::current_path(dir.path());
         try {
           replace(dir / "no-execute", {}, "/");
         } catch (const Error&) {
           if (fs::current_path() != dir.path()) throw std::runtime_error("moved");
           throw;
         }
       },
       "process_start: Cannot replace this process (native error 13)"},
      {"linked folder", [&] { open_directory(dir / "directory-link"); },
       "location_unavailable: Local directory is unavailable"},
      {"no opener on PATH",
       [&] {
         ::setenv("PATH", (dir / "locked").c_str(), 1);
         open_directory(dir.path());
       },
       "desktop_unavailable: No native directory opener is available"},
      {"opener fails",
       [&] {
         ::setenv("PATH", opener_path.c_str(), 1);
         ::setenv("ZORVI_OPENER_STATUS", "3", 1);
         open_directory(dir.path());
       },
       "desktop_unavailable: Native directory opening failed"},
      {"opener succeeds",
       [&] {
         ::setenv("PATH", opener_path.c_str(), 1);
         const UniqueFd err(::open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
         ::dup2(err.get(), 2);
         open_directory(dir.path());
       },
       "ok"},
  };
  // Each in a copy of this process: a replacement check that wrongly passed
  // would replace it.
  for (const auto& row : rows) EXPECT_EQ(in_subprocess([&] { return outcome(row.call); }), row.expected) << row.name;
  EXPECT_EQ(testing::read_text(dir / "shown"), dir.path().string() + " " + (dir / "err").string() + "\n");
  EXPECT_EQ(process_arguments(3, fitting), (std::vector<std::string>{half, half}));
  EXPECT_EQ(process_environment("ZORVI_PROBE_VALUE", 6), "abcdef");
  ::unsetenv("ZORVI_PROBE_VALUE");
  EXPECT_EQ(process_environment("ZORVI_PROBE_VALUE", 6), std::nullopt);
  EXPECT_EQ(current_executable_path(), fs::weakly_canonical(testing::binary_dir() / "process_test"));
}

TEST(ChildProcess, AStartThatCannotFinishFailsInTheConstructorAndLeavesNoChild) {
  TempDir dir;
  testing::write_text(dir / "no-execute", "#!/bin/sh\nexit 0\n");
  fs::permissions(dir / "no-execute", fs::perms(0644));
  testing::write_text(dir / "not-an-image", "these bytes are no program");
  fs::permissions(dir / "not-an-image", fs::perms(0755));
  const fs::path marker = dir / "touched";
  struct Row {
    fs::path image;
    std::function<void(std::uint64_t)> on_spawn;
    std::string expected;
  } rows[] = {
      {dir / "no-execute", {}, "process_start: Cannot execute the installed game"},
      {dir / "not-an-image", {}, "process_start: Cannot execute the installed game"},
      {fs::canonical("/bin/sh"), [](std::uint64_t) { throw Error("record", "Cannot record the start"); },
       "record: Cannot record the start"},
      {fs::canonical("/bin/sh"), [](std::uint64_t pid) { ASSERT_TRUE(testing::kill_unreaped(static_cast<long>(pid))); },
       "process_start: Cannot activate the prepared game"},
  };
  for (const auto& row : rows) {
    Launch launch = shell("echo > " + marker.string());
    launch.path = row.image;
    std::uint64_t seen = 0;
    launch.on_spawn = [&](std::uint64_t pid) {
      seen = pid;
      if (row.on_spawn) row.on_spawn(pid);
    };
    EXPECT_EQ(outcome([&] { launch.start(); }), row.expected);
    ASSERT_NE(seen, 0U) << row.expected;
    EXPECT_FALSE(testing::pid_exists(static_cast<long>(seen))) << row.expected << ": a child was left behind";
    EXPECT_FALSE(fs::exists(marker)) << row.expected;
  }
  try {
    Launch{.path = dir / "no-execute"}.start();
  } catch (const Error& error) {
    EXPECT_EQ(error.details, (std::vector<std::string>{"verify GAME", "repair GAME"}));
  }
}

TEST(ChildProcess, ChildDoesNothingBeforeItsActivation) {
  TempDir dir;
  const fs::path marker = dir / "touched";
  Launch launch = shell("echo touched > " + marker.string());
  launch.directory = dir.path();
  int calls = 0;
  launch.on_spawn = [&](std::uint64_t pid) {
    ++calls;
    // Still this program's image in this program's directory: no chdir and
    // no exec have happened, and the file the child would write is absent.
    const std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_EQ(fs::read_symlink(proc + "/exe"), fs::read_symlink("/proc/self/exe"));
    EXPECT_EQ(fs::read_symlink(proc + "/cwd"), fs::current_path());
    EXPECT_FALSE(fs::exists(marker));
  };
  ChildProcess child = launch.start();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(testing::read_text(marker), "touched\n");
}

TEST(ChildProcess, NothingLeaksIntoAChild) {
  TempDir dir;
  const std::string reader_variable(launcher_interrupt_reader_environment);
  struct Row {
    ChildStreams streams;
    ChildEnvironment environment;
    ChildGroup group;
    ChildControl control;
  } rows[] = {
      {ChildStreams::Separated, ChildEnvironment::Inherited, ChildGroup::Shared, ChildControl::NoControl},
      {ChildStreams::Console, ChildEnvironment::Clean, ChildGroup::Isolated, ChildControl::NoControl},
      {ChildStreams::Console, ChildEnvironment::Inherited, ChildGroup::Isolated, ChildControl::Interrupt},
  };
  for (const auto& row : rows) {
    const fs::path report_path = dir / ("report-" + std::to_string(&row - rows));
    SCOPED_TRACE(report_path.filename());
    // The parent carries what no child may inherit: loader and interrupt
    // variables, a descriptor without close-on-exec, a blocked and an
    // ignored signal. Its own output streams are files here.
    const std::string started = in_subprocess([&] {
      if (::open("/dev/null", O_RDONLY) < 3) return std::string("no stray descriptor");
      ::dup2(UniqueFd(::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)).get(), 1);
      ::dup2(UniqueFd(::open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)).get(), 2);
      ::setenv("LD_ZORVI_PROBE", "1", 1);
      ::setenv("DYLD_ZORVI_PROBE", "1", 1);
      ::setenv(reader_variable.c_str(), "1:9", 1);
      sigset_t set;
      sigemptyset(&set);
      sigaddset(&set, SIGUSR1);
      ::sigprocmask(SIG_BLOCK, &set, nullptr);
      ::signal(SIGUSR2, SIG_IGN);
      ChildProcess child(probe_path(), {"report", report_path.string()}, dir.path(), {{"PATH", "/override/bin"}},
                         row.streams, row.environment, {}, row.group, row.control);
      return std::to_string(child.wait());
    });
    ASSERT_EQ(started, "0");
    const json report = json::parse(testing::read_text(report_path));
    const json& environment = report["environment"];
    std::vector<int> expected_descriptors{0, 1, 2};
    const auto reader = entries_named(environment, reader_variable);
    ASSERT_EQ(reader.size(), row.control == ChildControl::Interrupt ? 1U : 0U);
    if (!reader.empty()) {
      ASSERT_TRUE(reader[0].starts_with(reader_variable + "=1:")) << reader[0];
      expected_descriptors.push_back(std::stoi(reader[0].substr(reader_variable.size() + 3)));
    }
    auto descriptors = report["descriptors"].get<std::vector<int>>();
    std::sort(descriptors.begin(), descriptors.end());
    EXPECT_EQ(descriptors, expected_descriptors);
    const std::size_t loader = row.environment == ChildEnvironment::Inherited ? 1 : 0;
    EXPECT_EQ(entries_named(environment, "LD_ZORVI_PROBE").size(), loader);
    EXPECT_EQ(entries_named(environment, "DYLD_ZORVI_PROBE").size(), loader);
    EXPECT_EQ(entries_named(environment, "PATH"), std::vector<std::string>{"PATH=/override/bin"});
    EXPECT_EQ(report["pgid"], row.group == ChildGroup::Isolated ? report["pid"] : json(::getpgrp()));
    EXPECT_EQ(fs::path(report["cwd"].get<std::string>()), fs::canonical(dir.path()));
    EXPECT_EQ(report["blocked"], "0000000000000000");
    EXPECT_EQ(report["ignored"], "0000000000000000");
    EXPECT_EQ(report["stdin"], "/dev/null");
    // Separated keeps the child's output off the parent's own stdout.
    const bool separated = row.streams == ChildStreams::Separated;
    EXPECT_EQ(testing::read_text(dir / "out"), separated ? "" : "out\n");
    EXPECT_EQ(testing::read_text(dir / "err"), separated ? "out\nerr\n" : "err\n");
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
    Launch launch;
    launch.on_spawn = [](std::uint64_t pid) { ::kill(static_cast<pid_t>(pid), SIGUSR1); };
    std::string code;
    const std::string ended = outcome([&] { code = std::to_string(launch.start().wait()); });
    return (ended == "ok" ? code : ended) + (handled != 0 ? " and our handler ran" : "");
  });
  EXPECT_TRUE(result == std::to_string(128 + SIGUSR1) || result == "process_start: Cannot activate the prepared game")
      << result;
}

// Each start has its own stack and plan in the shared memory.
TEST(ChildProcess, ConcurrentStartsKeepTheirOwnOutcomes) {
  TempDir dir;
  testing::write_text(dir / "no-execute", "#!/bin/sh\nexit 0\n");
  std::vector<std::string> seen[2];
  std::vector<std::string> expected[2];
  const auto run = [&](int id) {
    for (int round = 0; round < 20; ++round) {
      const int code = id * 20 + round;
      Launch launch = round % 2 == 0 ? shell("exit " + std::to_string(code)) : Launch{.path = dir / "no-execute"};
      expected[id].push_back(round % 2 == 0 ? std::to_string(code)
                                            : "process_start: Cannot execute the installed game");
      std::string exit_code;
      const std::string ended = outcome([&] { exit_code = std::to_string(launch.start().wait()); });
      seen[id].push_back(ended == "ok" ? exit_code : ended);
    }
  };
  std::thread other(run, 1);
  run(0);
  other.join();
  EXPECT_EQ(seen[0], expected[0]);
  EXPECT_EQ(seen[1], expected[1]);
}

TEST(ChildProcess, ExitCodesStickAndTerminationEscalates) {
  TempDir dir;
  ChildProcess child = shell("exit 7").start();
  EXPECT_EQ(child.wait(), 7);
  EXPECT_FALSE(child.ended_by_signal());
  // The child is reaped: only the stored code can answer this.
  EXPECT_EQ(child.poll(), 7);

  ChildProcess polite = shell("exec sleep 60").start();
  EXPECT_EQ(polite.poll(), std::nullopt);
  EXPECT_TRUE(polite.terminate(2000));
  EXPECT_EQ(polite.exit_code(), 128 + SIGTERM);
  EXPECT_TRUE(polite.ended_by_signal());
  EXPECT_TRUE(polite.terminate(0));

  ChildProcess stubborn = shell("trap '' TERM; echo > " + (dir / "ready").string() + "; exec sleep 60").start();
  ASSERT_TRUE(eventually([&] { return fs::exists(dir / "ready"); }));
  EXPECT_TRUE(stubborn.terminate(0));
  EXPECT_EQ(stubborn.exit_code(), 128 + SIGKILL);
}

TEST(ChildProcess, InterruptPipeReachesAnIsolatedChild) {
  const Launch interruptible{.path = probe_path(),
                             .arguments = {"interruptible"},
                             .streams = ChildStreams::Console,
                             .group = ChildGroup::Isolated,
                             .control = ChildControl::Interrupt};
  ChildProcess asked = interruptible.start();
  int calls = 0;
  EXPECT_EQ(asked.wait([&] { return ++calls >= 3; }), 0);
  EXPECT_FALSE(asked.request_interrupt());

  ChildProcess plain = Launch().start();
  EXPECT_FALSE(plain.request_interrupt());
  EXPECT_EQ(plain.wait(), 0);

  std::uint64_t pid = 0;
  {
    ChildProcess orphan = interruptible.start();
    pid = orphan.pid();
  }
  // The destructor neither signals nor waits: the child runs on, reads end
  // of file and leaves without having been asked.
  int status = 0;
  ASSERT_EQ(::waitpid(static_cast<pid_t>(pid), &status, 0), static_cast<pid_t>(pid));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
}

TEST(ReplaceProcess, NewImageKeepsThePid) {
  TempDir dir;
  for (const std::string mode : {"replace", "exec"}) {
    const fs::path report_path = dir / mode;
    ChildProcess child(probe_path(), {"replace", mode, report_path.string()}, "/", {}, ChildStreams::Separated,
                       ChildEnvironment::Inherited);
    ASSERT_EQ(child.wait(), 0) << mode;
    const json report = json::parse(testing::read_text(report_path));
    EXPECT_EQ(report["pid"], static_cast<std::int64_t>(child.pid())) << mode;
    EXPECT_EQ(report["cwd"], "/");
    const json& environment = report["environment"];
    EXPECT_EQ(entries_named(environment, "ZORVI_PROBE_OVERRIDE"),
              std::vector<std::string>{"ZORVI_PROBE_OVERRIDE=replaced"});
    EXPECT_TRUE(entries_named(environment, std::string(launcher_interrupt_reader_environment)).empty()) << mode;
    EXPECT_EQ(entries_named(environment, "LD_ZORVI_PROBE").size(), mode == "exec" ? 1U : 0U) << mode;
  }
}

}  // namespace
}  // namespace zorvi
