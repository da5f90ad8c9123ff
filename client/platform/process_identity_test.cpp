#include "client/platform/process_identity.hpp"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <thread>

#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

ChildProcess linger() {
  return ChildProcess("/bin/sleep", {"60"}, "/", {}, ChildStreams::Separated, ChildEnvironment::Clean);
}

// `identity` with `key` set to `value`, or removed when it is null.
json with(json identity, const std::string& key, const json& value) {
  value.is_null() ? (void)identity.erase(key) : (void)(identity[key] = value);
  return identity;
}

TEST(NativeProcessIdentity, CapturedValidatedAndJudged) {
  const json self = current_process_identity();
  EXPECT_EQ(self["boot"].get<std::string>() + "\n", testing::read_text("/proc/sys/kernel/random/boot_id"));
  EXPECT_EQ(native_process_identity(static_cast<std::uint64_t>(::getpid())), self);
  ChildProcess zombie = linger(), reaped = linger();
  const json zombie_identity = native_process_identity(zombie.pid()),
             reaped_identity = native_process_identity(reaped.pid());
  ASSERT_TRUE(testing::kill_unreaped(static_cast<long>(zombie.pid())));
  reaped.terminate(0);
  const auto capture = [](std::uint64_t pid) { return [pid] { native_process_identity(pid); }; };
  const auto validate = [](const json& identity) { return [identity] { validate_process_identity(identity); }; };
  const std::string shape = "process_identity: Native process identity is malformed";
  const std::string birth = "process_identity: Native creation identity is malformed";
  const std::string unreadable = "process_identity: Cannot read native process identity";
  testing::expect_outcomes({
      {capture(2147483648ULL), "process_identity: Native PID is invalid"},
      {capture(zombie.pid()), unreadable},
      {capture(reaped.pid()), unreadable},
      {[&] { NativeProcessObserver(self).wait(1001); }, "process_identity: Native observation wait exceeds its bound"},
      {validate(with(self, "schema_version", 2)), shape},
      {validate(with(self, "pid", 2147483648ULL)), shape},
      {validate(with(self, "pid", 2147483647U)), "ok"},
      {validate(with(self, "birth", "012")), birth},
      {validate(with(self, "birth", "18446744073709551616")), birth},
      {validate(with(self, "birth", "18446744073709551615")), "ok"},
  });

  std::string other_boot = self["boot"];
  other_boot[0] = other_boot[0] == 'a' ? 'b' : 'a';
  const std::pair<json, NativeProcessState> states[] = {
      // A round trip through text, as records store it, judges the same.
      {parse_json(self.dump(), 1024), NativeProcessState::Running},
      // An observer registered while the process is only a zombie can no
      // longer read the birth; the watch shows the end that came first.
      {zombie_identity, NativeProcessState::Ended},
      {reaped_identity, NativeProcessState::Ended},
      {with(self, "boot", other_boot), NativeProcessState::Ended},
      {with(self, "birth", self["birth"] == "0" ? "1" : "0"), NativeProcessState::Ended},  // a reused pid
      {with(self, "platform", "macos"), NativeProcessState::Unknown},
      {with(self, "pid", nullptr), NativeProcessState::Unknown},
  };
  for (const auto& [identity, expected] : states) {
    // The state as judged, as first observed, and whether there is anything left to watch.
    NativeProcessObserver observer(identity);
    EXPECT_EQ(
        (std::tuple{native_process_state(identity), observer.wait(0), observer.notification_handle().has_value()}),
        std::tuple(expected, expected, expected == NativeProcessState::Running))
        << identity.dump();
  }
}

// Each child is reaped by another thread while the observer is being set up,
// so that over many rounds the end falls before, between and after the watch
// registration and the birth check; a live child's end is then seen.
TEST(NativeProcessObserver, SeesAChildEndEvenDuringRegistration) {
  ChildProcess child = linger();
  NativeProcessObserver live(native_process_identity(child.pid()));
  EXPECT_EQ(live.wait(1), NativeProcessState::Running);
  ::kill(static_cast<pid_t>(child.pid()), SIGKILL);
  EXPECT_TRUE(testing::eventually([&] { return live.wait(1000) == NativeProcessState::Ended; }));
  EXPECT_FALSE(live.notification_handle().has_value() || live.exit_code().has_value());
  EXPECT_EQ(child.wait(), 137);
  for (int round = 0; round < 100; ++round) {
    json identity;
    ChildProcess quick("/bin/true", {}, "/", {}, ChildStreams::Separated, ChildEnvironment::Clean,
                       [&](std::uint64_t pid) { identity = native_process_identity(pid); });
    std::thread reaper([&quick] { quick.wait(); });
    NativeProcessObserver observer(identity);
    NativeProcessState state = observer.wait(0);
    reaper.join();
    ASSERT_NE(state, NativeProcessState::Unknown) << "round " << round;
    ASSERT_TRUE(testing::eventually([&] { return (state = observer.wait(1000)) != NativeProcessState::Running; }));
    ASSERT_EQ(state, NativeProcessState::Ended) << "round " << round;
  }
}

}  // namespace
}  // namespace zorvi
