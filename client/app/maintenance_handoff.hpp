#pragma once

// Long maintenance work for a window: one worker thread runs it while the
// window's own thread keeps drawing from a small view of its progress.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "client/app/maintenance_runtime.hpp"
#include "client/app/native_install.hpp"
#include "client/domain/json.hpp"
#include "client/platform/process.hpp"

namespace zorvi {

// How long the windowed helper has to report that its window is up.
inline constexpr std::chrono::milliseconds maintenance_window_limit{30000};

class MaintenanceHandoff {
 public:
  // Gives back the operation's result; may throw.
  using Operation = std::function<json()>;

  MaintenanceHandoff();
  ~MaintenanceHandoff();
  MaintenanceHandoff(const MaintenanceHandoff&) = delete;
  MaintenanceHandoff& operator=(const MaintenanceHandoff&) = delete;

  // Proves and starts this build's windowed uninstall helper; the view ends
  // "ready" with the helper's process id as the result, and `take_child`
  // then hands the helper over.
  void start(const std::filesystem::path& data_dir, std::string_view build_id,
             std::chrono::milliseconds limit = maintenance_window_limit);
  void create_shortcut(const std::filesystem::path& data_dir, const std::string& game,
                       const std::filesystem::path& destination = {}, const std::string& name = {});
  void remove_shortcuts(const std::filesystem::path& data_dir);
  // The removal itself, as the windowed helper runs it; cancellable while
  // it waits for running clients to close.
  void uninstall(const NativeUninstallRequest& request);

  // Runs `operation` on a fresh worker; `busy` while the previous one runs.
  void begin(const std::string& phase, const Operation& operation);

  json view() const;
  void cancel() { cancelled_ = true; }
  bool cancelled() const { return cancelled_; }
  // Called after every change of the view, from the thread that made it.
  void set_wakeup(std::function<void()> wakeup);
  void join();
  std::optional<ChildProcess> take_child();

 private:
  // Changes the view under the mutex and wakes the window.
  void publish(const std::function<void(json&)>& change);

  mutable std::mutex mutex_;
  json view_;
  std::function<void()> wakeup_;
  std::optional<MaintenanceRuntime> runtime_;
  std::optional<ChildProcess> child_;
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> finished_{true};
  std::thread worker_;
};

}  // namespace zorvi
