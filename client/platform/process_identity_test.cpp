#include "client/platform/process_identity.hpp"

#include <signal.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using testing::eventually;
using testing::outcome;

ChildProcess linger() {
  return ChildProcess("/bin/sleep", {"60"}, "/", {}, ChildStreams::Separated, ChildEnvironment::Clean);
}

json with(json identity, const std::string& key, const json& value) {
  identity[key] = value;
  return identity;
}

json without(json identity, const std::string& key) {
  identity.erase(key);
  return identity;
}

// The same boot identity with one hexadecimal digit changed.
std::string other_boot(std::string boot) {
  boot[0] = boot[0] == 'a' ? 'b' : 'a';
  return boot;
}

TEST(NativeProcessIdentity, CapturedValidatedAndJudged) {
  const json self = current_process_identity();
  EXPECT_EQ(self["pid"], static_cast<std::uint64_t>(::getpid()));
  EXPECT_EQ(self["boot"].get<std::string>() + "\n", testing::read_text("/proc/sys/kernel/random/boot_id"));
  EXPECT_EQ(native_process_identity(static_cast<std::uint64_t>(::getpid())), self);
  ChildProcess zombie = linger();
  const json zombie_identity = native_process_identity(zombie.pid());
  ASSERT_TRUE(testing::kill_unreaped(static_cast<long>(zombie.pid())));
  ChildProcess reaped = linger();
  const json reaped_identity = native_process_identity(reaped.pid());
  reaped.terminate(0);
  const auto capture = [](std::uint64_t pid) { return [pid] { native_process_identity(pid); }; };
  const auto validate = [](const json& identity) { return [identity] { validate_process_identity(identity); }; };
  const std::string shape = "process_identity: Native process identity is malformed";
  const std::string birth = "process_identity: Native creation identity is malformed";
  struct Row {
    const char* name;
    std::function<void()> call;
    std::string expected;
  } rows[] = {
      {"pid 0", capture(0), "process_identity: Native PID is invalid"},
      {"pid 2^31", capture(2147483648ULL), "process_identity: Native PID is invalid"},
      {"zombie", capture(zombie.pid()), "process_identity: Cannot read native process identity"},
      {"wait beyond a second", [&] { NativeProcessObserver(self).wait(1001); },
       "process_identity: Native observation wait exceeds its bound"},
      {"reaped", capture(reaped.pid()), "process_identity: Cannot read native process identity"},
      {"array", validate(json::array()), shape},
      {"schema 2", validate(with(self, "schema_version", 2)), shape},
      {"pid 2^31 recorded", validate(with(self, "pid", 2147483648ULL)), shape},
      {"largest pid", validate(with(self, "pid", 2147483647U)), "ok"},
      {"no platform", validate(without(self, "platform")), shape},
      {"no birth", validate(without(self, "birth")), birth},
      {"leading zero", validate(with(self, "birth", "012")), birth},
      {"beyond 64 bits", validate(with(self, "birth", "18446744073709551616")), birth},
      {"largest birth", validate(with(self, "birth", "18446744073709551615")), "ok"},
  };
  for (const auto& row : rows) EXPECT_EQ(outcome(row.call), row.expected) << row.name;

  struct State {
    const char* name;
    json identity;
    NativeProcessState expected;
  } states[] = {
      // A round trip through text, as records store it, judges the same.
      {"this process", parse_json(self.dump(), 1024), NativeProcessState::Running},
      // An observer registered while the process is only a zombie can no
      // longer read the birth; the watch shows the end that came first.
      {"zombie", zombie_identity, NativeProcessState::Ended},
      {"reaped", reaped_identity, NativeProcessState::Ended},
      {"an earlier boot", with(self, "boot", other_boot(self["boot"])), NativeProcessState::Ended},
      {"a reused pid", with(self, "birth", self["birth"] == "0" ? "1" : "0"), NativeProcessState::Ended},
      {"another platform", with(self, "platform", "macos"), NativeProcessState::Unknown},
      {"boot not in UUID form", with(self, "boot", "not-a-boot"), NativeProcessState::Unknown},
      {"malformed", without(self, "pid"), NativeProcessState::Unknown},
  };
  for (const auto& row : states) {
    EXPECT_EQ(native_process_state(row.identity), row.expected) << row.name;
    NativeProcessObserver observer(row.identity);
    EXPECT_EQ(observer.wait(0), row.expected) << row.name;
    EXPECT_EQ(observer.notification_handle().has_value(), row.expected == NativeProcessState::Running) << row.name;
  }
}

TEST(NativeProcessObserver, SeesALiveChildEnd) {
  ChildProcess child = linger();
  NativeProcessObserver observer(native_process_identity(child.pid()));
  EXPECT_EQ(observer.wait(1), NativeProcessState::Running);
  ::kill(static_cast<pid_t>(child.pid()), SIGKILL);
  EXPECT_TRUE(eventually([&] { return observer.wait(1000) == NativeProcessState::Ended; }));
  EXPECT_FALSE(observer.notification_handle().has_value());
  EXPECT_FALSE(observer.exit_code().has_value());
  EXPECT_EQ(child.wait(), 137);
}

TEST(NativeProcessObserver, ChildEndingDuringRegistrationIsNeverUnknown) {
  // Each child is reaped by another thread while the observer is being set
  // up, so that over many rounds the end falls before, between and after
  // the watch registration and the birth check.
  for (int round = 0; round < 100; ++round) {
    json identity;
    ChildProcess child("/bin/true", {}, "/", {}, ChildStreams::Separated, ChildEnvironment::Clean,
                       [&](std::uint64_t pid) { identity = native_process_identity(pid); });
    std::thread reaper([&child] { child.wait(); });
    NativeProcessObserver observer(identity);
    NativeProcessState state = observer.wait(0);
    reaper.join();
    ASSERT_NE(state, NativeProcessState::Unknown) << "round " << round;
    ASSERT_TRUE(eventually([&] { return (state = observer.wait(1000)) != NativeProcessState::Running; }));
    ASSERT_EQ(state, NativeProcessState::Ended) << "round " << round;
  }
}

}  // namespace
}  // namespace zorvi
