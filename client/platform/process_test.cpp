#include "client/platform/process.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/platform/interrupt.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::eventually;
using testing::in_subprocess;
using testing::outcome;
using testing::pid_exists;
using testing::probe_path;
using testing::TempDir;

std::string read_link(const fs::path& path) {
  std::error_code error;
  return fs::read_symlink(path, error).string();
}

// Everything a test may vary about one start; defaults give a plain child.
struct Launch {
  fs::path path = probe_path();
  std::vector<std::string> arguments{"exit", "0"};
  fs::path directory = "/";
  EnvironmentOverrides overrides;
  ChildStreams streams = ChildStreams::Separated;
  ChildEnvironment environment = ChildEnvironment::Clean;
  ChildProcess::SpawnCallback on_spawn;
  ChildGroup group = ChildGroup::Shared;
  ChildControl control = ChildControl::NoControl;
  std::vector<NativeHandle> handles;

  ChildProcess start() const {
    return ChildProcess(path, arguments, directory, overrides, streams, environment, on_spawn, group, control,
                        handles);
  }
};

std::string start_outcome(const Launch& launch) {
  return outcome([&] {
    ChildProcess child = launch.start();
    child.terminate(0);
  });
}

TEST(ProcessArguments, CheckedAgainstTheirBounds) {
  const std::string half(65536, 'a');
  const std::string over(65537, 'b');
  std::vector<const char*> many(258, "x");
  const char* const with_null[] = {"zorvi", "first", nullptr};
  const char* const fitting[] = {"zorvi", half.c_str(), half.c_str()};
  const char* const too_long[] = {"zorvi", half.c_str(), over.c_str()};
  struct Row {
    const char* name;
    int argc;
    const char* const* argv;
    std::string expected;
  } rows[] = {
      {"no arguments", 0, fitting, "argument_encoding: Native command arguments are missing"},
      {"no vector", 1, nullptr, "argument_encoding: Native command arguments are missing"},
      {"257 is the most", 257, many.data(), "ok"},
      {"258 are too many", 258, many.data(), "argument_limit: Too many native command arguments"},
      {"missing text", 3, with_null, "argument_limit: Native process text is missing"},
      {"exactly the total", 3, fitting, "ok"},
      {"one byte over the total", 3, too_long, "argument_limit: Native process text exceeds its byte bound"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(outcome([&] { process_arguments(row.argc, row.argv); }), row.expected) << row.name;
  EXPECT_EQ(process_arguments(3, fitting), (std::vector<std::string>{half, half}));
}

TEST(ProcessEnvironment, ReadsOneCheckedVariable) {
  ::setenv("ZORVI_PROBE_VALUE", "abcdef", 1);
  ::unsetenv("ZORVI_PROBE_ABSENT");
  struct Row {
    std::string name;
    std::size_t limit;
    std::string expected;
  } rows[] = {
      {"", 8, "environment_key: Native environment key is invalid"},
      {std::string(129, 'A'), 8, "environment_key: Native environment key is invalid"},
      {"ZORVI-PROBE", 8, "environment_key: Native environment key is invalid"},
      {"ZORVI_PROBE_VALUE", 0, "environment_limit: Native environment bound is invalid"},
      {"ZORVI_PROBE_VALUE", 131073, "environment_limit: Native environment bound is invalid"},
      {"ZORVI_PROBE_VALUE", 5, "environment_limit: Native process text exceeds its byte bound"},
      {"ZORVI_PROBE_VALUE", 6, "ok"},
      {std::string(128, 'A'), 131072, "ok"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(outcome([&] { process_environment(row.name, row.limit); }), row.expected) << row.name;
  EXPECT_EQ(process_environment("ZORVI_PROBE_VALUE", 6), "abcdef");
  EXPECT_EQ(process_environment("ZORVI_PROBE_ABSENT", 6), std::nullopt);
  ::unsetenv("ZORVI_PROBE_VALUE");
}

TEST(CurrentExecutablePath, NamesThisTestProgram) {
  EXPECT_EQ(current_executable_path(), fs::weakly_canonical(testing::binary_dir() / "process_test"));
}

TEST(ChildProcess, ConstructorChecksComeBeforeAnyResource) {
  TempDir dir;
  fs::create_symlink("/bin/true", dir / "image-link");
  fs::create_directory_symlink("/", dir / "directory-link");
  const std::string limit_argument(4096, 'a');
  struct Row {
    const char* name;
    std::function<void(Launch&)> change;
    std::string expected;
  } rows[] = {
      {"nine handles", [](Launch& l) { l.handles.assign(9, 3); },
       "launch_handles: Too many private native child handles"},
      {"one handle", [](Launch& l) { l.handles = {3}; }, "launch_handles: Native handle inheritance is Windows-only"},
      {"relative image", [](Launch& l) { l.path = "bin/true"; },
       "launch_executable: The installed game executable is missing or linked"},
      {"missing image", [&](Launch& l) { l.path = dir / "missing"; },
       "launch_executable: The installed game executable is missing or linked"},
      {"linked image", [&](Launch& l) { l.path = dir / "image-link"; },
       "launch_executable: The installed game executable is missing or linked"},
      {"directory as image", [](Launch& l) { l.path = "/"; },
       "launch_executable: The installed game executable is missing or linked"},
      {"relative directory", [](Launch& l) { l.directory = "tmp"; },
       "launch_directory: Game working directory is missing or linked"},
      {"linked directory", [&](Launch& l) { l.directory = dir / "directory-link"; },
       "launch_directory: Game working directory is missing or linked"},
      {"file as directory", [](Launch& l) { l.directory = "/bin/true"; },
       "launch_directory: Game working directory is missing or linked"},
      {"65 arguments", [](Launch& l) { l.arguments.assign(65, "a"); }, "argument_limit: Too many launch arguments"},
      {"4097 bytes", [&](Launch& l) { l.arguments = {limit_argument + "a"}; },
       "argument_limit: Launch argument is invalid or too long"},
      {"NUL inside", [](Launch& l) { l.arguments = {std::string("a\0b", 3)}; },
       "argument_limit: Launch argument is invalid or too long"},
      {"nine of 4096", [&](Launch& l) { l.arguments.assign(9, limit_argument); },
       "argument_limit: Launch arguments exceed the total bound"},
      {"empty key", [](Launch& l) { l.overrides = {{"", "x"}}; },
       "argument_encoding: Process environment entry is invalid"},
      {"key with =", [](Launch& l) { l.overrides = {{"A=B", "x"}}; },
       "argument_encoding: Process environment entry is invalid"},
      {"value with NUL", [](Launch& l) { l.overrides = {{"A", std::string("x\0y", 3)}}; },
       "argument_encoding: Process environment entry is invalid"},
      {"reserved name",
       [](Launch& l) { l.overrides = {{std::string(launcher_interrupt_reader_environment), "1:3"}}; },
       "process_control: Launcher interrupt authority cannot be supplied as an environment override"},
      {"interrupt, separated streams",
       [](Launch& l) {
         l.control = ChildControl::Interrupt;
         l.group = ChildGroup::Isolated;
       },
       "process_control: Only an isolated console launcher child receives interrupt control"},
      {"interrupt, shared group",
       [](Launch& l) {
         l.control = ChildControl::Interrupt;
         l.streams = ChildStreams::Console;
       },
       "process_control: Only an isolated console launcher child receives interrupt control"},
      {"64 arguments of 512 bytes", [](Launch& l) { l.arguments.assign(64, std::string(512, 'a')); }, "ok"},
      {"eight of 4096", [&](Launch& l) { l.arguments.assign(8, limit_argument); }, "ok"},
  };
  for (const auto& row : rows) {
    Launch launch;
    launch.path = "/bin/true";
    launch.arguments = {};
    row.change(launch);
    EXPECT_EQ(start_outcome(launch), row.expected) << row.name;
  }
}

TEST(ChildProcess, RefusedImageFailsInsideTheConstructorAndIsReaped) {
  TempDir dir;
  testing::write_text(dir / "no-execute", "#!/bin/sh\nexit 0\n");
  fs::permissions(dir / "no-execute", fs::perms(0644));
  testing::write_text(dir / "not-an-image", "these bytes are no program");
  fs::permissions(dir / "not-an-image", fs::perms(0755));
  for (const char* name : {"no-execute", "not-an-image"}) {
    Launch launch;
    launch.path = dir / name;
    std::uint64_t seen = 0;
    launch.on_spawn = [&](std::uint64_t pid) { seen = pid; };
    try {
      launch.start();
      ADD_FAILURE() << name << " started";
    } catch (const Error& error) {
      EXPECT_EQ(error.code + ": " + error.what(), "process_start: Cannot execute the installed game") << name;
      EXPECT_EQ(error.details, (std::vector<std::string>{"verify GAME", "repair GAME"}));
    }
    ASSERT_NE(seen, 0U);
    EXPECT_FALSE(pid_exists(static_cast<long>(seen))) << name << " left a child behind";
  }
}

TEST(ChildProcess, ChildDoesNothingBeforeItsActivation) {
  TempDir dir;
  const fs::path marker = dir / "touched";
  Launch launch;
  launch.arguments = {"touch", marker.string()};
  launch.directory = dir.path();
  int calls = 0;
  launch.on_spawn = [&](std::uint64_t pid) {
    ++calls;
    const fs::path proc = "/proc/" + std::to_string(pid);
    // Still this program's image in this program's directory: no chdir and
    // no exec have happened, and the file the child would write is absent.
    EXPECT_EQ(read_link(proc / "exe"), read_link("/proc/self/exe"));
    EXPECT_EQ(read_link(proc / "cwd"), read_link("/proc/self/cwd"));
    EXPECT_FALSE(fs::exists(marker));
  };
  ChildProcess child = launch.start();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(testing::read_text(marker), "touched");
}

TEST(ChildProcess, ThrowingSpawnCallbackLeavesNoChild) {
  TempDir dir;
  Launch launch;
  launch.arguments = {"touch", (dir / "touched").string()};
  std::uint64_t seen = 0;
  launch.on_spawn = [&](std::uint64_t pid) {
    seen = pid;
    throw std::runtime_error("cannot record the child");
  };
  EXPECT_THROW(launch.start(), std::runtime_error);
  EXPECT_FALSE(pid_exists(static_cast<long>(seen)));
  EXPECT_FALSE(fs::exists(dir / "touched"));
}

TEST(ChildProcess, ActivationOfAVanishedChildFails) {
  Launch launch;
  std::uint64_t seen = 0;
  launch.on_spawn = [&](std::uint64_t pid) {
    seen = pid;
    ::kill(static_cast<pid_t>(pid), SIGKILL);
    ASSERT_TRUE(eventually([&] { return testing::process_state_letter(static_cast<long>(pid)) == 'Z'; }));
  };
  EXPECT_EQ(start_outcome(launch), "process_start: Cannot activate the prepared game");
  EXPECT_FALSE(pid_exists(static_cast<long>(seen)));
}

// What the test process carries that no child may inherit: loader and
// interrupt variables, a descriptor without close-on-exec, a blocked and an
// ignored signal.
class InheritedClutter {
public:
  InheritedClutter() : stray_(::open("/dev/null", O_RDONLY)) {
    ::setenv("LD_ZORVI_PROBE", "1", 1);
    ::setenv("DYLD_ZORVI_PROBE", "1", 1);
    ::setenv(std::string(launcher_interrupt_reader_environment).c_str(), "1:9", 1);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &set, &saved_mask_);
    saved_usr2_ = ::signal(SIGUSR2, SIG_IGN);
  }
  ~InheritedClutter() {
    ::unsetenv("LD_ZORVI_PROBE");
    ::unsetenv("DYLD_ZORVI_PROBE");
    ::unsetenv(std::string(launcher_interrupt_reader_environment).c_str());
    ::pthread_sigmask(SIG_SETMASK, &saved_mask_, nullptr);
    ::signal(SIGUSR2, saved_usr2_);
  }
  int stray() const { return stray_.get(); }

private:
  UniqueFd stray_;
  sigset_t saved_mask_{};
  sighandler_t saved_usr2_ = SIG_DFL;
};

std::vector<std::string> entries_named(const json& environment, const std::string& name) {
  std::vector<std::string> found;
  for (const auto& entry : environment) {
    const auto text = entry.get<std::string>();
    if (text.starts_with(name + "=")) found.push_back(text);
  }
  return found;
}

TEST(ChildProcess, NothingLeaksIntoAChild) {
  const InheritedClutter clutter;
  ASSERT_GE(clutter.stray(), 3);
  TempDir dir;
  struct Row {
    ChildStreams streams;
    ChildEnvironment environment;
    ChildGroup group;
    ChildControl control;
  } rows[] = {
      {ChildStreams::Separated, ChildEnvironment::Inherited, ChildGroup::Shared, ChildControl::NoControl},
      {ChildStreams::Console, ChildEnvironment::Clean, ChildGroup::Isolated, ChildControl::NoControl},
      {ChildStreams::Separated, ChildEnvironment::Clean, ChildGroup::Shared, ChildControl::NoControl},
      {ChildStreams::Console, ChildEnvironment::Inherited, ChildGroup::Isolated, ChildControl::Interrupt},
  };
  int index = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE("row " + std::to_string(index));
    const fs::path report_path = dir / ("report-" + std::to_string(index++));
    Launch launch;
    launch.arguments = {"report", report_path.string()};
    launch.directory = dir.path();
    launch.overrides = {{"PATH", "/override/bin"}, {"ZORVI_PROBE_OVERRIDE", "1"}};
    launch.streams = row.streams;
    launch.environment = row.environment;
    launch.group = row.group;
    launch.control = row.control;
    ChildProcess child = launch.start();
    ASSERT_EQ(child.wait(), 0);
    const json report = testing::read_json(report_path);

    const bool interrupt = row.control == ChildControl::Interrupt;
    const auto reader = entries_named(report["environment"], std::string(launcher_interrupt_reader_environment));
    std::vector<int> expected_descriptors{0, 1, 2};
    if (interrupt) {
      ASSERT_EQ(reader.size(), 1U);
      const int descriptor = std::stoi(reader[0].substr(reader[0].find('=') + 3));
      EXPECT_EQ(reader[0].substr(reader[0].find('=') + 1, 2), "1:");
      EXPECT_GE(descriptor, 3);
      expected_descriptors.push_back(descriptor);
    } else {
      EXPECT_TRUE(reader.empty());
    }
    auto descriptors = report["descriptors"].get<std::vector<int>>();
    std::sort(descriptors.begin(), descriptors.end());
    EXPECT_EQ(descriptors, expected_descriptors);

    const bool inherited = row.environment == ChildEnvironment::Inherited;
    EXPECT_EQ(entries_named(report["environment"], "LD_ZORVI_PROBE").size(), inherited ? 1U : 0U);
    EXPECT_EQ(entries_named(report["environment"], "DYLD_ZORVI_PROBE").size(), inherited ? 1U : 0U);
    EXPECT_EQ(entries_named(report["environment"], "PATH"), std::vector<std::string>{"PATH=/override/bin"});
    EXPECT_EQ(entries_named(report["environment"], "ZORVI_PROBE_OVERRIDE").size(), 1U);

    const auto pid = static_cast<std::int64_t>(child.pid());
    EXPECT_EQ(report["pid"], pid);
    EXPECT_EQ(report["pgid"], row.group == ChildGroup::Isolated ? pid : ::getpgrp());
    EXPECT_EQ(fs::path(report["cwd"].get<std::string>()), fs::canonical(dir.path()));
    EXPECT_EQ(report["blocked"], "0000000000000000");
    EXPECT_EQ(report["ignored"], "0000000000000000");
    EXPECT_EQ(report["stdin"], "/dev/null");
    if (row.streams == ChildStreams::Separated) {
      EXPECT_EQ(report["stdout_is_stderr"], true);
    }
  }
}

TEST(ChildProcess, StreamsFollowTheChoice) {
  TempDir dir;
  for (const auto streams : {ChildStreams::Separated, ChildStreams::Console}) {
    const std::string result = in_subprocess([&] {
      const UniqueFd out(::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      const UniqueFd err(::open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      ::dup2(out.get(), 1);
      ::dup2(err.get(), 2);
      Launch launch;
      launch.arguments = {"streams"};
      launch.streams = streams;
      return std::to_string(launch.start().wait());
    });
    EXPECT_EQ(result, "0");
    if (streams == ChildStreams::Separated) {
      EXPECT_EQ(testing::read_text(dir / "out"), "");
      EXPECT_EQ(testing::read_text(dir / "err"), "probe-out\nprobe-err\n");
    } else {
      EXPECT_EQ(testing::read_text(dir / "out"), "probe-out\n");
      EXPECT_EQ(testing::read_text(dir / "err"), "probe-err\n");
    }
  }
}

TEST(ChildProcess, ExitCodesStick) {
  Launch launch;
  launch.arguments = {"exit", "7"};
  ChildProcess child = launch.start();
  EXPECT_EQ(child.wait(), 7);
  EXPECT_FALSE(child.ended_by_signal());
  // The child is reaped: a second system call would fail, so this answer
  // can only come from the stored code.
  EXPECT_EQ(child.poll(), 7);

  launch.arguments = {"linger"};
  ChildProcess killed = launch.start();
  EXPECT_EQ(killed.poll(), std::nullopt);
  ::kill(static_cast<pid_t>(killed.pid()), SIGKILL);
  EXPECT_EQ(killed.wait(), 137);
  EXPECT_TRUE(killed.ended_by_signal());
}

TEST(ChildProcess, PollFailsWhenTheChildIsNotOurs) {
  Launch launch;
  ChildProcess child = launch.start();
  int status = 0;
  ASSERT_EQ(::waitpid(static_cast<pid_t>(child.pid()), &status, 0), static_cast<pid_t>(child.pid()));
  EXPECT_EQ(outcome([&] { child.poll(); }), "process_wait: Cannot inspect game process");
}

TEST(ChildProcess, TerminateEscalatesWithinItsBound) {
  TempDir dir;
  Launch launch;
  launch.arguments = {"linger"};
  ChildProcess polite = launch.start();
  EXPECT_EQ(outcome([&] { polite.terminate(2001); }),
            "process_wait: Child termination grace must be bounded to two seconds");
  EXPECT_EQ(outcome([&] { polite.wait([] { return true; }); }),
            "process_control: Interruptible waiting needs this owned child's private channel");
  EXPECT_TRUE(polite.terminate(2000));
  EXPECT_EQ(polite.exit_code(), 128 + SIGTERM);
  EXPECT_TRUE(polite.terminate(0));

  launch.arguments = {"stubborn", (dir / "ready").string()};
  ChildProcess stubborn = launch.start();
  ASSERT_TRUE(eventually([&] { return fs::exists(dir / "ready"); }));
  EXPECT_TRUE(stubborn.terminate(0));
  EXPECT_EQ(stubborn.exit_code(), 128 + SIGKILL);
}

Launch interruptible_launch() {
  Launch launch;
  launch.arguments = {"interruptible"};
  launch.streams = ChildStreams::Console;
  launch.group = ChildGroup::Isolated;
  launch.control = ChildControl::Interrupt;
  return launch;
}

TEST(ChildProcess, InterruptPipeReachesAnIsolatedChild) {
  ChildProcess asked = interruptible_launch().start();
  int calls = 0;
  EXPECT_EQ(asked.wait([&] { return ++calls >= 3; }), 0);
  EXPECT_GE(calls, 3);

  ChildProcess twice = interruptible_launch().start();
  EXPECT_TRUE(twice.request_interrupt());
  EXPECT_TRUE(twice.request_interrupt());
  EXPECT_EQ(twice.wait(), 0);
  EXPECT_FALSE(twice.request_interrupt());

  ChildProcess plain = Launch().start();
  EXPECT_FALSE(plain.request_interrupt());
  EXPECT_EQ(plain.wait(), 0);
}

TEST(ChildProcess, ChildSeesItsParentGo) {
  std::uint64_t pid = 0;
  {
    ChildProcess orphan = interruptible_launch().start();
    pid = orphan.pid();
  }
  // The destructor neither signals nor waits: the child runs on, reads end
  // of file and leaves without having been asked.
  int status = 0;
  ASSERT_EQ(::waitpid(static_cast<pid_t>(pid), &status, 0), static_cast<pid_t>(pid));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(ChildProcess, StartFailuresFromExhaustedResources) {
  struct Row {
    int free_slots;
    ChildControl control;
    bool free_standard_input;
    std::string expected;
  } rows[] = {
      {0, ChildControl::NoControl, false, "process_start: Cannot allocate process-start channel"},
      {2, ChildControl::NoControl, false, "process_start: Cannot create game input stream"},
      {3, ChildControl::NoControl, false, "process_start: Cannot allocate process activation channel"},
      {0, ChildControl::Interrupt, false, "process_control: Cannot create launcher interrupt pipe"},
      {1, ChildControl::Interrupt, true, "process_control: Cannot relocate launcher interrupt pipe"},
      {8, ChildControl::Interrupt, false, "ok"},
  };
  for (const auto& row : rows) {
    const std::string result = in_subprocess([&] {
      testing::leave_free_descriptors(row.free_slots);
      if (row.free_standard_input) ::close(0);
      Launch launch = interruptible_launch();
      launch.path = "/bin/true";
      launch.arguments = {};
      launch.control = row.control;
      return start_outcome(launch);
    });
    EXPECT_EQ(result, row.expected) << row.free_slots;
  }
}

TEST(ChildProcess, StartFailuresOfAnUnprivilegedParent) {
  TempDir dir;
  fs::permissions(dir.path(), fs::perms(0755));
  fs::create_directory(dir / "locked");
  fs::permissions(dir / "locked", fs::perms(0700));
  const auto result = [&](const std::function<void()>& work) {
    return in_subprocess([&] {
      testing::drop_to_nobody();
      return outcome(work);
    });
  };
  Launch launch;
  launch.path = "/bin/true";
  launch.arguments = {};
  EXPECT_EQ(result([&] {
              const rlimit none{0, 0};
              ::setrlimit(RLIMIT_NPROC, &none);
              launch.start();
            }),
            "process_start: Cannot create game process");
  launch.directory = dir / "locked";
  EXPECT_EQ(result([&] { launch.start(); }), "process_start: Cannot execute the installed game");
  EXPECT_EQ(result([&] { replace_process("/bin/true", {}, dir / "locked", {}); }),
            "process_start: Cannot enter the external maintenance runtime");
}

TEST(ReplaceProcess, ChecksComeFirst) {
  TempDir dir;
  fs::create_symlink("/bin/true", dir / "image-link");
  fs::create_directory_symlink("/", dir / "directory-link");
  const std::string limit_argument(4096, 'a');
  struct Row {
    const char* name;
    fs::path path;
    fs::path directory;
    std::vector<std::string> arguments;
    EnvironmentOverrides overrides;
    std::string expected;
  } rows[] = {
      {"linked image", dir / "image-link", "/", {}, {}, "process_start: Replacement image or directory is unavailable"},
      {"relative image", "bin/true", "/", {}, {}, "process_start: Replacement image or directory is unavailable"},
      {"linked directory", "/bin/true", dir / "directory-link", {}, {},
       "process_start: Replacement image or directory is unavailable"},
      {"file as directory", "/bin/true", "/bin/true", {}, {},
       "process_start: Replacement image or directory is unavailable"},
      {"65 arguments", "/bin/true", "/", std::vector<std::string>(65, "a"), {},
       "argument_limit: Too many replacement arguments"},
      {"4097 bytes", "/bin/true", "/", {limit_argument + "a"}, {}, "argument_limit: Invalid maintenance argument"},
      {"NUL inside", "/bin/true", "/", {std::string("a\0b", 3)}, {}, "argument_limit: Invalid maintenance argument"},
      {"nine of 4096", "/bin/true", "/", std::vector<std::string>(9, limit_argument), {},
       "argument_limit: Maintenance arguments exceed their bound"},
      {"key with =", "/bin/true", "/", {}, {{"A=B", "x"}}, "argument_encoding: Invalid maintenance environment"},
      {"reserved name", "/bin/true", "/", {}, {{std::string(launcher_interrupt_reader_environment), "1:3"}},
       "process_control: Maintenance cannot inherit launcher interrupt authority"},
  };
  // In a copy of this process: a check that wrongly passed would replace it.
  for (const auto& row : rows) {
    const auto replace = [&] { replace_process(row.path, row.arguments, row.directory, row.overrides); };
    EXPECT_EQ(in_subprocess([&] { return outcome(replace); }), row.expected) << row.name;
  }
}

TEST(ReplaceProcess, FailedExecLeavesTheDirectoryAlone) {
  TempDir dir;
  testing::write_text(dir / "no-execute", "#!/bin/sh\n");
  fs::permissions(dir / "no-execute", fs::perms(0644));
  const std::string result = in_subprocess([&] {
    fs::current_path(dir.path());
    const std::string failure = outcome([&] { exec_process(dir / "no-execute", {}, "/", {}); });
    return failure + " in " + fs::current_path().string();
  });
  EXPECT_EQ(result, "process_start: Cannot replace this process (native error 13) in " + dir.path().string());
}

TEST(ReplaceProcess, NewImageKeepsThePid) {
  TempDir dir;
  for (const std::string mode : {"replace", "exec"}) {
    const fs::path report_path = dir / mode;
    Launch launch;
    launch.arguments = {"replace", mode, report_path.string()};
    launch.environment = ChildEnvironment::Inherited;
    ChildProcess child = launch.start();
    ASSERT_EQ(child.wait(), 0) << mode;
    const json report = testing::read_json(report_path);
    EXPECT_EQ(report["pid"], static_cast<std::int64_t>(child.pid())) << mode;
    EXPECT_EQ(report["cwd"], "/");
    const json& environment = report["environment"];
    EXPECT_EQ(entries_named(environment, "ZORVI_PROBE_OVERRIDE"),
              std::vector<std::string>{"ZORVI_PROBE_OVERRIDE=replaced"});
    EXPECT_TRUE(entries_named(environment, std::string(launcher_interrupt_reader_environment)).empty()) << mode;
    EXPECT_EQ(entries_named(environment, "LD_ZORVI_PROBE").size(), mode == "exec" ? 1U : 0U) << mode;
  }
}

TEST(OpenDirectory, RunsTheOpenerOnPath) {
  TempDir dir;
  fs::create_directory(dir / "bin");
  fs::create_directory(dir / "empty");
  fs::create_directory(dir / "shown");
  fs::create_directory_symlink(dir / "shown", dir / "shown-link");
  const auto opener = [&](int status) {
    const std::string log = (dir / "log").string();
    testing::write_text(dir / "bin/xdg-open", "#!/bin/sh\nout=$(readlink /proc/$$/fd/1)\nprintf '%s\\n' \"$@\" \"$out\" > " +
                                                  log + "\nexit " + std::to_string(status) + "\n");
    fs::permissions(dir / "bin/xdg-open", fs::perms(0755));
  };
  const auto open_with_path = [&](const std::string& path_variable, const fs::path& target) {
    return in_subprocess([&] {
      const UniqueFd err(::open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      ::dup2(err.get(), 2);
      ::setenv("PATH", path_variable.c_str(), 1);
      return outcome([&] { open_directory(target); });
    });
  };
  const std::string search = (dir / "bin").string() + ":/usr/bin:/bin";
  opener(0);
  EXPECT_EQ(open_with_path(search, dir / "shown"), "ok");
  // The opener's output went to the error stream.
  EXPECT_EQ(testing::read_text(dir / "log"), (dir / "shown").string() + "\n" + (dir / "err").string() + "\n");
  opener(3);
  EXPECT_EQ(open_with_path(search, dir / "shown"), "desktop_unavailable: Native directory opening failed");
  EXPECT_EQ(open_with_path((dir / "empty").string(), dir / "shown"),
            "desktop_unavailable: No native directory opener is available");
  for (const fs::path& refused : {dir / "shown-link", dir / "bin/xdg-open", fs::path("tmp"), dir / "missing"})
    EXPECT_EQ(outcome([&] { open_directory(refused); }), "location_unavailable: Local directory is unavailable")
        << refused;
}

}  // namespace
}  // namespace zorvi
