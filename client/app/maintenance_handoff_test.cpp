#include "client/app/maintenance_handoff.hpp"

#include <gtest/gtest.h>

#include <atomic>

#include "client/platform/native_lock.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

// The removal of a big tree runs on the worker. While a bootstrap runs it
// waits, and a cancel then leaves everything in place; once the bootstrap is
// gone it completes. A handoff that goes away mid-wait cancels and joins.
TEST(MaintenanceHandoff, RemovesABigTreeOnItsWorkerAndCanBeCancelledWhileItWaits) {
  testing::TempDir dir;
  const fs::path data = fs::canonical(dir.path()) / "data";
  fs::create_directories(data / "userdata");
  for (int i = 0; i < 2000; ++i) {
    fs::create_directories(data / "launcher" / std::to_string(i % 40));
    testing::write_text(data / "launcher" / std::to_string(i % 40) / std::to_string(i), std::string(4096, 'x'));
  }
  const auto bootstrap_running = [&] {  // in a folder whose last removal was cut short
    testing::write_text(data / ".zorvi-setup-incomplete", "");
    return std::make_unique<NativeFileLock>(data / ".native-bootstrap.lock", true, NativeLockSharing::exclusive_install,
                                            LockMode::shared);
  };
  std::atomic<int> wakeups{0};
  auto running = bootstrap_running();
  MaintenanceHandoff handoff;
  handoff.set_wakeup([&] { ++wakeups; });
  handoff.uninstall({data, false, 600000});
  EXPECT_EQ(testing::outcome([&] { handoff.remove_shortcuts(data); }),
            "busy: Another maintenance operation is still running");
  handoff.cancel();
  handoff.join();
  EXPECT_EQ(handoff.view()["problem"], json({{"code", "cancelled"}, {"message", "Setup was cancelled"}}));
  EXPECT_TRUE(fs::exists(data / "launcher/39/1999"));

  running.reset();
  handoff.uninstall({data, false, 600000});
  handoff.join();
  const json view = handoff.view();
  EXPECT_EQ(
      json({view["phase"], view["completed_bytes"], view["total_bytes"], view["owned_path"], view["result"]["kept"]}),
      json({"succeeded", 1, 1, data.string(), {(data / "userdata").string()}}));
  EXPECT_TRUE(!fs::exists(data / "launcher") && wakeups >= 6);

  running = bootstrap_running();
  std::make_unique<MaintenanceHandoff>()->uninstall({data, false, 600000});  // gone at once, mid-wait
  EXPECT_TRUE(fs::exists(data / ".zorvi-setup-incomplete"));
}

}  // namespace
}  // namespace zorvi
