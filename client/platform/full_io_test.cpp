#include "client/platform/full_io.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "client/platform/unique_fd.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

// The bound met exactly and one byte over, past the first growth step.
TEST(FullIo, ReadToEndTakesExactlyTheLimit) {
  testing::TempDir dir;
  const std::string bytes(131073, 'x');
  ASSERT_EQ(write_full(UniqueFd(::open((dir / "data").c_str(), O_WRONLY | O_CREAT, 0600)).get(), bytes), 0);
  const UniqueFd in(::open((dir / "data").c_str(), O_RDONLY | O_CLOEXEC));
  int error = 0;
  EXPECT_EQ(read_to_end(in.get(), bytes.size(), error), bytes);
  ASSERT_EQ(::lseek(in.get(), 0, SEEK_SET), 0);
  EXPECT_TRUE(!read_to_end(in.get(), bytes.size() - 1, error) && error == EFBIG);
}

// A signal handled without SA_RESTART interrupts a blocked read; the read
// goes on and still fills the buffer.
TEST(FullIo, InterruptedReadsAreRetried) {
  struct sigaction action{};
  action.sa_handler = [](int) {};
  struct sigaction saved{};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &saved), 0);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  char buffer[4] = {};
  FullRead got;
  std::atomic<bool> done = false;
  std::thread blocked([&] {
    got = read_full(reader.get(), buffer, sizeof buffer);
    done = true;
  });
  for (int i = 0; i < 20 && !done; ++i) {
    ::pthread_kill(blocked.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ASSERT_EQ(write_full(writer.get(), "ab"), 0);
  ASSERT_EQ(write_full(writer.get(), "c"), 0);
  writer.reset();
  blocked.join();
  ::sigaction(SIGUSR1, &saved, nullptr);
  EXPECT_EQ(std::to_string(got.error) + " " + std::string(buffer, got.count), "0 abc");  // no error, every byte
}

}  // namespace
}  // namespace zorvi
