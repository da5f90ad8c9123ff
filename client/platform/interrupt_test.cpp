#include "client/platform/interrupt.hpp"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using testing::outcome;

const std::string reader_variable(launcher_interrupt_reader_environment);

// A pipe whose read end a ConsoleInterrupt may adopt, as a child would
// find it after exec: inherited, without close-on-exec.
struct InheritedPipe {
  InheritedPipe() {
    int ends[2];
    if (::pipe(ends) != 0) throw std::runtime_error("pipe failed");
    reader = ends[0];
    writer.reset(ends[1]);
  }
  ~InheritedPipe() {
    // The reader belongs to whoever adopted it; close it only if nobody did.
    if (!adopted) ::close(reader);
  }
  void send(unsigned char byte) const { ASSERT_EQ(::write(writer.get(), &byte, 1), 1); }

  int reader = -1;
  UniqueFd writer;
  bool adopted = false;
};

TEST(ConsoleInterrupt, RealSigintSetsTheFlagAndTheOldActionReturns) {
  struct sigaction before{};
  ::sigaction(SIGINT, nullptr, &before);
  {
    ConsoleInterrupt console(false);
    EXPECT_FALSE(console.requested());
    EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
    EXPECT_EQ(outcome([] { ConsoleInterrupt second(false); }),
              "signal: Console cancellation handler is already installed");
    // From another process, as a terminal would send it.
    const pid_t self = ::getpid();
    EXPECT_EQ(testing::in_subprocess([self] { return std::to_string(::kill(self, SIGINT)); }), "0");
    EXPECT_TRUE(testing::eventually([&] { return console.requested(); }));
    EXPECT_TRUE(console.requested());
  }
  struct sigaction after{};
  ::sigaction(SIGINT, nullptr, &after);
  EXPECT_EQ(after.sa_handler, before.sa_handler);
  ConsoleInterrupt again(false);
  EXPECT_FALSE(again.requested());
}

TEST(ConsoleInterrupt, AttachingChecksTheInheritedReader) {
  const InheritedPipe pipe;
  const UniqueFd file(::open("/dev/null", O_RDONLY));
  const std::string handle = "launcher_control: Launcher interrupt channel handle is invalid";
  const std::string descriptor = "launcher_control: Launcher interrupt descriptor is invalid";
  const std::string not_a_reader = "launcher_control: Launcher interrupt reader must be an inherited read pipe";
  struct Row {
    std::string value;
    std::string expected;
  } rows[] = {
      {"", "ok"},
      {"2:7", "launcher_control: Launcher interrupt channel version is invalid"},
      {"1:07", handle},
      {"1:", handle},
      {"1:99999999999999999999", handle},
      {"1:1", descriptor},
      {"1:" + std::to_string(file.get()), not_a_reader},
      {"1:" + std::to_string(pipe.writer.get()), not_a_reader},
      {"1:" + std::string(31, '1'), "environment_limit: Native process text exceeds its byte bound"},
  };
  for (const auto& row : rows) {
    ::setenv(reader_variable.c_str(), row.value.c_str(), 1);
    EXPECT_EQ(outcome([&] {
                ConsoleInterrupt console(true);
                EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
              }),
              row.expected)
        << row.value;
    ::unsetenv(reader_variable.c_str());
  }
}

TEST(ConsoleInterrupt, AttachedReaderAnswersWhatTheParentSends) {
  struct Row {
    const char* name;
    std::function<void(InheritedPipe&)> parent;
    std::string expected;
  } rows[] = {
      {"request", [](InheritedPipe& pipe) { pipe.send(1); }, "requested"},
      {"parent gone", [](InheritedPipe& pipe) { pipe.writer.reset(); }, "not requested"},
      {"wrong byte", [](InheritedPipe& pipe) { pipe.send(2); },
       "launcher_control: Launcher interrupt channel request is invalid"},
      {"unreadable",
       [](InheritedPipe& pipe) {
         // A directory where the reader was: reading it fails outright.
         const UniqueFd directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
         ASSERT_EQ(::dup2(directory.get(), pipe.reader), pipe.reader);
       },
       "launcher_control: Cannot read launcher interrupt channel"},
  };
  for (const auto& row : rows) {
    InheritedPipe pipe;
    ::setenv(reader_variable.c_str(), ("1:" + std::to_string(pipe.reader)).c_str(), 1);
    ConsoleInterrupt console(true);
    ::unsetenv(reader_variable.c_str());
    pipe.adopted = true;
    ASSERT_TRUE(ConsoleInterrupt::parent_reader_attached());
    EXPECT_NE(::fcntl(pipe.reader, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_FALSE(console.requested());
    row.parent(pipe);
    const auto answer = [&] {
      try {
        return std::string(console.requested() ? "requested" : "not requested");
      } catch (const Error& error) {
        return error.code + ": " + error.what();
      }
    };
    EXPECT_EQ(answer(), row.expected) << row.name;
    if (!row.expected.ends_with("requested")) continue;
    // The answer stands: an answered or abandoned channel is closed.
    EXPECT_EQ(answer(), row.expected) << row.name;
    EXPECT_EQ(::fcntl(pipe.reader, F_GETFD), -1) << row.name;
    EXPECT_TRUE(row.expected == "requested" || !ConsoleInterrupt::parent_reader_attached());
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
