#include "client/platform/interrupt.hpp"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/platform/unique_fd.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using testing::outcome;

const std::string reader_variable(launcher_interrupt_reader_environment);

// A console interrupt attached to the variable's `value`, the variable gone again.
std::unique_ptr<ConsoleInterrupt> attached(const std::string& value) {
  ::setenv(reader_variable.c_str(), value.c_str(), 1);
  std::unique_ptr<ConsoleInterrupt> console;
  const std::string result = outcome([&] { console = std::make_unique<ConsoleInterrupt>(true); });
  ::unsetenv(reader_variable.c_str());
  if (result != "ok") throw Error("attach", result);
  return console;
}

TEST(ConsoleInterrupt, RealSigintSetsTheFlagAndTheOldActionReturns) {
  struct sigaction before{}, after{};
  ::sigaction(SIGINT, nullptr, &before);
  {
    ConsoleInterrupt console(false);
    EXPECT_FALSE(console.requested() || ConsoleInterrupt::parent_reader_attached());
    EXPECT_EQ(outcome([] { ConsoleInterrupt second(false); }),
              "signal: Console cancellation handler is already installed");
    // From another process, as a terminal would send it.
    const pid_t self = ::getpid();
    EXPECT_EQ(testing::in_subprocess([self] { return std::to_string(::kill(self, SIGINT)); }), "0");
    EXPECT_TRUE(testing::eventually([&] { return console.requested(); }));
  }
  ::sigaction(SIGINT, nullptr, &after);
  EXPECT_EQ(after.sa_handler, before.sa_handler);
  EXPECT_FALSE(ConsoleInterrupt(false).requested());
}

TEST(ConsoleInterrupt, AttachesOnlyAnInheritedReadPipeAndAnswersWhatTheParentSends) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const UniqueFd spare_reader(ends[0]), spare_writer(ends[1]);
  const std::pair<std::string, std::string> refused[] = {
      {"", "ok"},
      {"2:7", "attach: launcher_control: Launcher interrupt channel version is invalid"},
      {"1:07", "attach: launcher_control: Launcher interrupt channel handle is invalid"},
      {"1:1", "attach: launcher_control: Launcher interrupt descriptor is invalid"},
      {"1:" + std::to_string(spare_writer.get()),
       "attach: launcher_control: Launcher interrupt reader must be an inherited read pipe"},
      {"1:" + std::string(31, '1'), "attach: environment_limit: Native process text exceeds its byte bound"},
  };
  for (const auto& [value, expected] : refused) EXPECT_EQ(outcome([&] { attached(value); }), expected) << value;
  EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());

  // Each act of a parent on its pipe, and the child's answer.
  const std::pair<std::string, std::string> acts[] = {
      {"request", "requested"},
      {"parent gone", "not requested"},
      {"wrong byte", "launcher_control: Launcher interrupt channel request is invalid"},
      {"unreadable", "launcher_control: Cannot read launcher interrupt channel"},
  };
  for (const auto& [act, expected] : acts) {
    ASSERT_EQ(::pipe(ends), 0);
    UniqueFd writer(ends[1]);
    const int reader = ends[0];  // adopted by the console interrupt
    const auto console = attached("1:" + std::to_string(reader));
    // Attached, kept from further children, and nothing asked yet.
    ASSERT_EQ((std::tuple{ConsoleInterrupt::parent_reader_attached(), ::fcntl(reader, F_GETFD), console->requested()}),
              std::tuple(true, FD_CLOEXEC, false));
    const auto byte = static_cast<unsigned char>(act == "request" ? 1 : 2);
    if (act == "parent gone") writer.reset();
    // A directory where the reader was: reading it fails outright.
    else if (act == "unreadable") ::dup2(UniqueFd(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)).get(), reader);
    else ASSERT_EQ(::write(writer.get(), &byte, 1), 1);
    const auto answer = [&] {
      const std::string result = outcome([&] { console->requested(); });
      return result != "ok" ? result : console->requested() ? "requested" : "not requested";
    };
    EXPECT_EQ(answer(), expected) << act;
    if (!expected.ends_with("requested")) continue;
    // The answer stands: an answered or abandoned channel is closed.
    EXPECT_EQ((std::tuple{answer(), ::fcntl(reader, F_GETFD), ConsoleInterrupt::parent_reader_attached()}),
              std::tuple(expected, -1, act == "request"))
        << act;
  }
}

TEST(InterruptPipe, KeepsClearOfStandardStreamsAndRaisesNoSignalWhenTheReaderIsGone) {
  const std::string result = testing::in_subprocess([] {
    ::close(0);
    ::close(1);
    InterruptPipe pipe;
    const bool standard_free = ::fcntl(0, F_GETFD) == -1 && ::fcntl(1, F_GETFD) == -1;
    const std::string reader = pipe.child_environment();
    pipe.close_reader();
    const bool delivered = pipe.request();
    sigset_t pending;
    ::sigpending(&pending);
    return reader + (standard_free ? " free" : " taken") + (delivered ? " delivered" : "") +
           (sigismember(&pending, SIGPIPE) ? " SIGPIPE" : "");
  });
  EXPECT_TRUE(result.starts_with("1:") && std::stoi(result.substr(2)) >= 3 && result.ends_with(" free")) << result;
}

}  // namespace
}  // namespace zorvi
