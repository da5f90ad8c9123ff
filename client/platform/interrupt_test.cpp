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
  std::string value() const { return "1:" + std::to_string(reader); }
  void send(unsigned char byte) const { ASSERT_EQ(::write(writer.get(), &byte, 1), 1); }

  int reader = -1;
  UniqueFd writer;
  bool adopted = false;
};

struct AttachResult {
  std::string outcome;
  bool attached = false;
};

AttachResult attach_with(const std::string& value) {
  ::setenv(reader_variable.c_str(), value.c_str(), 1);
  AttachResult result;
  result.outcome = outcome([&] {
    ConsoleInterrupt console(true);
    result.attached = ConsoleInterrupt::parent_reader_attached();
  });
  ::unsetenv(reader_variable.c_str());
  return result;
}

TEST(ConsoleInterrupt, RealSigintSetsTheFlagAndTheOldActionReturns) {
  struct sigaction before {};
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
  struct sigaction after {};
  ::sigaction(SIGINT, nullptr, &after);
  EXPECT_EQ(after.sa_handler, before.sa_handler);
  ConsoleInterrupt again(false);
  EXPECT_FALSE(again.requested());
}

TEST(ConsoleInterrupt, AttachingChecksTheInheritedReader) {
  const InheritedPipe pipe;
  const testing::TempDir dir;
  testing::write_text(dir / "file", "x");
  const UniqueFd file(::open((dir / "file").c_str(), O_RDONLY));
  int closed_descriptor = ::dup(file.get());
  ::close(closed_descriptor);
  struct Row {
    std::string value;
    std::string expected;
  } rows[] = {
      {"2:7", "launcher_control: Launcher interrupt channel version is invalid"},
      {"7", "launcher_control: Launcher interrupt channel version is invalid"},
      {"1:07", "launcher_control: Launcher interrupt channel handle is invalid"},
      {"1:+7", "launcher_control: Launcher interrupt channel handle is invalid"},
      {"1: 7", "launcher_control: Launcher interrupt channel handle is invalid"},
      {"1:7 ", "launcher_control: Launcher interrupt channel handle is invalid"},
      {"1:", "launcher_control: Launcher interrupt channel handle is invalid"},
      {"1:99999999999999999999", "launcher_control: Launcher interrupt channel handle is invalid"},
      {"1:1", "launcher_control: Launcher interrupt descriptor is invalid"},
      {"1:-5", "launcher_control: Launcher interrupt descriptor is invalid"},
      {"1:4294967296", "launcher_control: Launcher interrupt descriptor is invalid"},
      {"1:" + std::to_string(file.get()), "launcher_control: Launcher interrupt reader must be an inherited read pipe"},
      {"1:" + std::to_string(pipe.writer.get()),
       "launcher_control: Launcher interrupt reader must be an inherited read pipe"},
      {"1:" + std::to_string(closed_descriptor),
       "launcher_control: Launcher interrupt reader must be an inherited read pipe"},
      {"1:" + std::string(31, '1'), "environment_limit: Native process text exceeds its byte bound"},
  };
  for (const auto& row : rows) {
    const AttachResult result = attach_with(row.value);
    EXPECT_EQ(result.outcome, row.expected) << row.value;
    EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached()) << row.value;
  }
  const AttachResult empty = attach_with("");
  EXPECT_EQ(empty.outcome, "ok");
  EXPECT_FALSE(empty.attached);
}

// Adopts `pipe`'s reader into a ConsoleInterrupt and runs `check` on it.
void with_attached(InheritedPipe& pipe, const std::function<void(ConsoleInterrupt&)>& check) {
  ::setenv(reader_variable.c_str(), pipe.value().c_str(), 1);
  ConsoleInterrupt console(true);
  ::unsetenv(reader_variable.c_str());
  pipe.adopted = true;
  ASSERT_TRUE(ConsoleInterrupt::parent_reader_attached());
  const int flags = ::fcntl(pipe.reader, F_GETFD);
  EXPECT_NE(flags & FD_CLOEXEC, 0);
  check(console);
}

TEST(ConsoleInterrupt, ParentRequestIsAnsweredOnce) {
  InheritedPipe pipe;
  with_attached(pipe, [&](ConsoleInterrupt& console) {
    EXPECT_FALSE(console.requested());
    pipe.send(1);
    EXPECT_TRUE(console.requested());
    EXPECT_TRUE(console.requested());
    // The answered channel is closed: nothing more is read from it.
    EXPECT_EQ(::fcntl(pipe.reader, F_GETFD), -1);
  });
}

TEST(ConsoleInterrupt, ParentThatGoesAsksForNothing) {
  InheritedPipe pipe;
  with_attached(pipe, [&](ConsoleInterrupt& console) {
    pipe.writer.reset();
    EXPECT_FALSE(console.requested());
    EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
    EXPECT_FALSE(console.requested());
  });
}

TEST(ConsoleInterrupt, BadChannelContentFails) {
  InheritedPipe wrong_byte;
  with_attached(wrong_byte, [&](ConsoleInterrupt& console) {
    wrong_byte.send(2);
    EXPECT_EQ(outcome([&] { console.requested(); }),
              "launcher_control: Launcher interrupt channel request is invalid");
  });
  InheritedPipe unreadable;
  with_attached(unreadable, [&](ConsoleInterrupt& console) {
    // Put a directory where the reader was: reading it fails outright.
    const UniqueFd directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::dup2(directory.get(), unreadable.reader), unreadable.reader);
    EXPECT_EQ(outcome([&] { console.requested(); }), "launcher_control: Cannot read launcher interrupt channel");
  });
}

TEST(InterruptPipe, KeepsClearOfStandardStreams) {
  const std::string result = testing::in_subprocess([] {
    ::close(0);
    ::close(1);
    InterruptPipe pipe;
    const bool standard_free = ::fcntl(0, F_GETFD) == -1 && ::fcntl(1, F_GETFD) == -1;
    return pipe.child_environment() + (standard_free ? " free" : " taken");
  });
  EXPECT_TRUE(result.starts_with("1:")) << result;
  EXPECT_GE(std::stoi(result.substr(2)), 3) << result;
  EXPECT_TRUE(result.ends_with(" free")) << result;
}

TEST(InterruptPipe, DeliversOneByteAndNoSignalWhenTheReaderIsGone) {
  InterruptPipe pipe;
  const std::string reader = pipe.child_environment().substr(2);
  // A second read end of the same pipe, as the child would hold it.
  const UniqueFd child_end(::open(("/proc/self/fd/" + reader).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(child_end);
  pipe.close_reader();
  EXPECT_TRUE(pipe.request());
  EXPECT_TRUE(pipe.request());
  unsigned char bytes[2] = {0, 0};
  EXPECT_EQ(::read(child_end.get(), bytes, 2), 1);
  EXPECT_EQ(bytes[0], 1);

  InterruptPipe orphaned;
  orphaned.close_reader();
  EXPECT_FALSE(orphaned.request());
  sigset_t pending;
  ::sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

}  // namespace
}  // namespace zorvi
