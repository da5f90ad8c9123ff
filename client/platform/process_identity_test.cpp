#include "client/platform/process_identity.hpp"

#include <signal.h>
#include <sys/wait.h>
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
  return ChildProcess(testing::probe_path(), {"linger"}, "/", {}, ChildStreams::Separated, ChildEnvironment::Clean);
}

// Kills the child and leaves it a zombie: ended, but its pid still taken.
void kill_unreaped(const ChildProcess& child) {
  const auto pid = static_cast<long>(child.pid());
  ::kill(static_cast<pid_t>(pid), SIGKILL);
  ASSERT_TRUE(eventually([pid] { return testing::process_state_letter(pid) == 'Z'; }));
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

TEST(NativeProcessIdentity, CapturesThisProcess) {
  const json identity = current_process_identity();
  EXPECT_EQ(identity["schema_version"], 1);
  EXPECT_EQ(identity["platform"], "linux");
  EXPECT_TRUE(identity["pid"].is_number_unsigned());
  EXPECT_EQ(identity["pid"], static_cast<std::uint64_t>(::getpid()));
  EXPECT_EQ(identity["boot"].get<std::string>() + "\n", testing::read_text("/proc/sys/kernel/random/boot_id"));
  EXPECT_NO_THROW(validate_process_identity(identity));
  EXPECT_EQ(native_process_identity(static_cast<std::uint64_t>(::getpid())), identity);
  EXPECT_EQ(native_process_state(identity), NativeProcessState::Running);
  // A round trip through text, as records store it, judges the same.
  EXPECT_EQ(native_process_state(parse_json(identity.dump(), 1024)), NativeProcessState::Running);
}

TEST(NativeProcessIdentity, RefusesWhatItCannotCapture) {
  ChildProcess zombie = linger();
  kill_unreaped(zombie);
  ChildProcess reaped = linger();
  reaped.terminate(0);
  struct Row {
    std::uint64_t pid;
    std::string expected;
  } rows[] = {
      {0, "process_identity: Native PID is invalid"},
      {2147483648ULL, "process_identity: Native PID is invalid"},
      {zombie.pid(), "process_identity: Cannot read native process identity"},
      {reaped.pid(), "process_identity: Cannot read native process identity"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(outcome([&] { native_process_identity(row.pid); }), row.expected) << row.pid;
}

TEST(NativeProcessIdentity, ValidationNamesWhatIsMalformed) {
  const json good = current_process_identity();
  const std::string shape = "process_identity: Native process identity is malformed";
  const std::string birth = "process_identity: Native creation identity is malformed";
  struct Row {
    const char* name;
    json identity;
    std::string expected;
  } rows[] = {
      {"array", json::array(), shape},
      {"schema 2", with(good, "schema_version", 2), shape},
      {"schema as text", with(good, "schema_version", "1"), shape},
      {"no schema", without(good, "schema_version"), shape},
      {"pid 0", with(good, "pid", 0U), shape},
      {"signed pid", with(good, "pid", -5), shape},
      {"pid as text", with(good, "pid", "5"), shape},
      {"pid 2^31", with(good, "pid", 2147483648ULL), shape},
      {"no platform", without(good, "platform"), shape},
      {"boot number", with(good, "boot", 7), shape},
      {"no birth", without(good, "birth"), birth},
      {"birth number", with(good, "birth", 5), birth},
      {"empty birth", with(good, "birth", ""), birth},
      {"leading zero", with(good, "birth", "012"), birth},
      {"letter", with(good, "birth", "12a"), birth},
      {"sign", with(good, "birth", "+12"), birth},
      {"beyond 64 bits", with(good, "birth", "18446744073709551616"), birth},
      {"largest", with(good, "birth", "18446744073709551615"), "ok"},
      {"zero", with(good, "birth", "0"), "ok"},
      {"largest pid", with(good, "pid", 2147483647U), "ok"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(outcome([&] { validate_process_identity(row.identity); }), row.expected) << row.name;
    if (row.expected != "ok") {
      EXPECT_EQ(native_process_state(row.identity), NativeProcessState::Unknown) << row.name;
    }
  }
}

TEST(NativeProcessState, JudgesLifeBirthAndBoot) {
  const json self = current_process_identity();
  ChildProcess child = linger();
  const json identity = native_process_identity(child.pid());
  EXPECT_EQ(native_process_state(identity), NativeProcessState::Running);
  const std::string birth = self["birth"];
  struct Row {
    const char* name;
    json identity;
    NativeProcessState expected;
  } rows[] = {
      {"this process", self, NativeProcessState::Running},
      {"an earlier boot", with(self, "boot", other_boot(self["boot"])), NativeProcessState::Ended},
      {"a reused pid", with(self, "birth", birth == "0" ? "1" : "0"), NativeProcessState::Ended},
      {"another platform", with(self, "platform", "macos"), NativeProcessState::Unknown},
      {"boot not in UUID form", with(self, "boot", "not-a-boot"), NativeProcessState::Unknown},
      {"malformed", without(self, "pid"), NativeProcessState::Unknown},
  };
  for (const auto& row : rows) EXPECT_EQ(native_process_state(row.identity), row.expected) << row.name;

  kill_unreaped(child);
  EXPECT_EQ(native_process_state(identity), NativeProcessState::Ended) << "zombie";
  EXPECT_EQ(child.wait(), 137);
  EXPECT_EQ(native_process_state(identity), NativeProcessState::Ended) << "reaped";
}

TEST(NativeProcessObserver, SeesALiveChildEnd) {
  ChildProcess child = linger();
  NativeProcessObserver observer(native_process_identity(child.pid()));
  EXPECT_EQ(observer.wait(0), NativeProcessState::Running);
  EXPECT_TRUE(observer.notification_handle().has_value());
  EXPECT_EQ(outcome([&] { observer.wait(1001); }), "process_identity: Native observation wait exceeds its bound");
  EXPECT_EQ(observer.wait(1), NativeProcessState::Running);
  ::kill(static_cast<pid_t>(child.pid()), SIGKILL);
  EXPECT_TRUE(eventually([&] { return observer.wait(1000) == NativeProcessState::Ended; }));
  EXPECT_FALSE(observer.notification_handle().has_value());
  EXPECT_FALSE(observer.exit_code().has_value());
  EXPECT_EQ(child.wait(), 137);
}

TEST(NativeProcessObserver, JudgesAtOnceWhatIsSettled) {
  const json self = current_process_identity();
  ChildProcess zombie = linger();
  const json zombie_identity = native_process_identity(zombie.pid());
  kill_unreaped(zombie);
  ChildProcess reaped = linger();
  const json reaped_identity = native_process_identity(reaped.pid());
  reaped.terminate(0);
  struct Row {
    const char* name;
    json identity;
    NativeProcessState expected;
  } rows[] = {
      // Registered while only a zombie: the birth can no longer be read,
      // and the watch shows the end that came first.
      {"ended before the birth check", zombie_identity, NativeProcessState::Ended},
      {"reaped", reaped_identity, NativeProcessState::Ended},
      {"an earlier boot", with(self, "boot", other_boot(self["boot"])), NativeProcessState::Ended},
      {"a reused pid", with(self, "birth", self["birth"] == "0" ? "1" : "0"), NativeProcessState::Ended},
      {"malformed", with(self, "birth", "x"), NativeProcessState::Unknown},
      {"another platform", with(self, "platform", "macos"), NativeProcessState::Unknown},
  };
  for (const auto& row : rows) {
    NativeProcessObserver observer(row.identity);
    EXPECT_EQ(observer.wait(0), row.expected) << row.name;
    EXPECT_FALSE(observer.notification_handle().has_value()) << row.name;
  }
  NativeProcessObserver live(self);
  EXPECT_EQ(live.wait(0), NativeProcessState::Running);
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
