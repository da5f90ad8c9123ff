#include "client/platform/process_notifications.hpp"

#include <signal.h>

#include <algorithm>
#include <mutex>
#include <random>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/platform/process.hpp"
#include "client/platform/process_identity.hpp"
#include "tests/support/process_support.hpp"

namespace zorvi {
namespace {

using testing::outcome;

// Children here are plain system programs, so that this test runs alone in
// a ThreadSanitizer build without the probe program.
struct Watched {
  ChildProcess child;
  json identity;
};

Watched start(const char* program, std::vector<std::string> arguments = {}) {
  json identity;
  ChildProcess child(program, arguments, "/", {}, ChildStreams::Separated, ChildEnvironment::Clean,
                     [&](std::uint64_t pid) { identity = native_process_identity(pid); });
  return {std::move(child), identity};
}

Watched lingering() { return start("/bin/sleep", {"60"}); }

void end(Watched& watched) {
  ::kill(static_cast<pid_t>(watched.child.pid()), SIGKILL);
  watched.child.wait();
}

class Recorder {
 public:
  ProcessNotifications::Callback callback() {
    return [this](const std::string& text) {
      const std::lock_guard lock(mutex_);
      events_.push_back(text);
    };
  }
  std::vector<std::string> events() {
    const std::lock_guard lock(mutex_);
    return events_;
  }
  bool reaches(std::size_t count) {
    return testing::eventually([&] { return events().size() >= count; });
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> events_;
};

TEST(ProcessNotifications, SixteenChildrenEndingInRandomOrder) {
  std::vector<Watched> children;
  json identities = json::array();
  for (int i = 0; i < 16; ++i) {
    children.push_back(lingering());
    identities.push_back(children.back().identity);
  }
  Recorder recorder;
  ProcessNotifications notifications;
  notifications.start(recorder.callback());
  notifications.update(identities);

  std::vector<std::size_t> order(children.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  const auto seed = std::random_device{}();
  std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  SCOPED_TRACE("seed " + std::to_string(seed));
  for (std::size_t done = 0; done < order.size(); ++done) {
    end(children[order[done]]);
    ASSERT_TRUE(recorder.reaches(done + 1)) << done;
    EXPECT_EQ(recorder.events().size(), done + 1);
    // The same set once more, in another order, is no change.
    std::reverse(identities.begin(), identities.end());
    notifications.update(identities);
  }
  notifications.stop();
  EXPECT_EQ(recorder.events(), std::vector<std::string>(16, ""));
}

TEST(ProcessNotifications, FollowsTheWantedSet) {
  Watched a = lingering();
  Watched b = lingering();
  Watched c = lingering();
  // Identities that have ended already: each one's report shows that the
  // thread has taken in the update that named it.
  Watched gone[] = {start("/bin/true"), start("/bin/true"), start("/bin/true")};
  for (auto& watched : gone) watched.child.wait();
  const json unwatchable{{"schema_version", 1}, {"pid", 1}};
  Recorder recorder;
  ProcessNotifications notifications;
  notifications.start(recorder.callback());
  notifications.update({a.identity, b.identity, c.identity});

  notifications.update({a.identity, c.identity, gone[0].identity, unwatchable});
  ASSERT_TRUE(recorder.reaches(2));
  end(b);  // no longer wanted: never reported
  end(a);
  ASSERT_TRUE(recorder.reaches(3));
  notifications.update({a.identity, c.identity, gone[0].identity, unwatchable, gone[1].identity});
  ASSERT_TRUE(recorder.reaches(4));
  EXPECT_EQ(recorder.events().size(), 4U);

  // Wanted again, the ended child gets a new watcher and is reported once.
  notifications.update({c.identity, a.identity, b.identity, gone[0].identity, gone[1].identity});
  ASSERT_TRUE(recorder.reaches(5));
  notifications.update({c.identity, gone[2].identity});
  ASSERT_TRUE(recorder.reaches(6));
  notifications.update({c.identity, a.identity});
  ASSERT_TRUE(recorder.reaches(7));
  end(c);
  ASSERT_TRUE(recorder.reaches(8));
  notifications.stop();
  auto events = recorder.events();
  std::sort(events.begin(), events.end());
  std::vector<std::string> expected(7, "");
  expected.push_back("Native process identity could not be watched");
  EXPECT_EQ(events, expected);
}

TEST(ProcessNotifications, RefusesWhatItCannotTake) {
  ProcessNotifications notifications;
  const std::string inactive = "process_watch: Process notifications are not active";
  EXPECT_EQ(outcome([&] { notifications.update(json::array()); }), inactive);
  notifications.start([](const std::string&) {});
  EXPECT_EQ(outcome([&] { notifications.start([](const std::string&) {}); }),
            "process_watch: Process notifications can only start once");
  const auto sized = [](std::size_t bytes) {
    json identity{{"pad", ""}};
    identity["pad"] = std::string(bytes - identity.dump().size(), 'x');
    return identity;
  };
  const std::string too_many = "size_limit: Native process watch snapshot exceeds its bound";
  struct Row {
    const char* name;
    json identities;
    std::string expected;
  } rows[] = {
      {"object instead of array", json::object(), too_many},
      {"4099 entries", json(std::vector<json>(max_watched_identities + 1, json::object())), too_many},
      {"entry not an object", json::array({1}), "process_watch: Native process watch identity must be an object"},
      {"1025 bytes", json::array({sized(1025)}), "size_limit: Native process watch identity exceeds its bound"},
      {"1024 bytes", json::array({sized(1024)}), "ok"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(outcome([&] { notifications.update(row.identities); }), row.expected) << row.name;
  notifications.stop();
  notifications.stop();
  EXPECT_EQ(outcome([&] { notifications.update(json::array()); }), inactive);
}

}  // namespace
}  // namespace zorvi
