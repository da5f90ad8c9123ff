#include "client/platform/process_notifications.hpp"

#include <signal.h>

#include <gtest/gtest.h>
#include <algorithm>
#include <mutex>

#include "client/platform/process.hpp"
#include "client/platform/process_identity.hpp"
#include "tests/support/process_support.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

// Children here are plain system programs, so that this test runs alone in
// a ThreadSanitizer build without the probe program.
struct Watched {
  explicit Watched(const char* program, std::vector<std::string> arguments = {"60"})
      : child(program, arguments, "/", {}, ChildStreams::Separated, ChildEnvironment::Clean,
              [this](std::uint64_t pid) { identity = native_process_identity(pid); }) {}
  void end() {
    ::kill(static_cast<pid_t>(child.pid()), SIGKILL);
    child.wait();
  }
  json identity;
  ChildProcess child;
};

// Notifications that record every report; reaches(n) waits for the n-th.
struct Recorder {
  Recorder() {
    notifications.start([this](const std::string& text) {
      const std::lock_guard lock(mutex);
      events.push_back(text);
    });
  }
  std::vector<std::string> seen() {
    const std::lock_guard lock(mutex);
    return events;
  }
  bool reaches(std::size_t count) {
    return testing::eventually([&] { return seen().size() >= count; });
  }
  std::mutex mutex;
  std::vector<std::string> events;
  ProcessNotifications notifications;
};

TEST(ProcessNotifications, FollowsTheWantedSet) {
  Watched a("/bin/sleep"), b("/bin/sleep"), c("/bin/sleep");
  // Identities that have ended already: each one's report shows that the
  // thread has taken in the update that named it.
  Watched gone[] = {Watched("/bin/true", {}), Watched("/bin/true", {}), Watched("/bin/true", {})};
  for (auto& watched : gone) watched.child.wait();
  const json unwatchable{{"schema_version", 1}, {"pid", 1}};
  Recorder recorder;
  const auto want = [&](const json& identities, std::size_t reports) {
    recorder.notifications.update(identities);
    return recorder.reaches(reports);
  };
  recorder.notifications.update({a.identity, b.identity, c.identity});
  ASSERT_TRUE(want({a.identity, c.identity, gone[0].identity, unwatchable}, 2));
  b.end();  // no longer wanted: never reported
  a.end();
  ASSERT_TRUE(recorder.reaches(3));
  ASSERT_TRUE(want({a.identity, c.identity, gone[0].identity, unwatchable, gone[1].identity}, 4));
  EXPECT_EQ(recorder.seen().size(), 4U);
  // Wanted again, the ended child gets a new watcher and is reported once.
  ASSERT_TRUE(want({c.identity, a.identity, b.identity, gone[0].identity, gone[1].identity}, 5));
  ASSERT_TRUE(want({c.identity, gone[2].identity}, 6));
  ASSERT_TRUE(want({c.identity, a.identity}, 7));
  c.end();
  ASSERT_TRUE(recorder.reaches(8));
  recorder.notifications.stop();
  auto events = recorder.seen();
  std::sort(events.begin(), events.end());
  EXPECT_EQ(events,
            (std::vector<std::string>{"", "", "", "", "", "", "", "Native process identity could not be watched"}));
}

TEST(ProcessNotifications, RefusesWhatItCannotTake) {
  ProcessNotifications notifications;
  const auto update = [&](const json& identities) {
    return testing::outcome([&] { notifications.update(identities); });
  };
  const std::string inactive = "process_watch: Process notifications are not active";
  EXPECT_EQ(update(json::array()), inactive);
  notifications.start([](const std::string&) {});
  EXPECT_EQ(testing::outcome([&] { notifications.start([](const std::string&) {}); }),
            "process_watch: Process notifications can only start once");
  const auto sized = [](std::size_t bytes) { return json::array({json{{"pad", std::string(bytes - 10, 'x')}}}); };
  const std::pair<json, std::string> rows[] = {
      {json(std::vector<json>(max_watched_identities + 1, json::object())),
       "size_limit: Native process watch snapshot exceeds its bound"},
      {json::array({1}), "process_watch: Native process watch identity must be an object"},
      {sized(1025), "size_limit: Native process watch identity exceeds its bound"},
      {sized(1024), "ok"},
  };
  for (const auto& [identities, expected] : rows) EXPECT_EQ(update(identities), expected) << identities.dump().size();
  notifications.stop();
  notifications.stop();
  EXPECT_EQ(update(json::array()), inactive);
}

}  // namespace
}  // namespace zorvi
