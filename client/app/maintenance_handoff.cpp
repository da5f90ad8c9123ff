#include "client/app/maintenance_handoff.hpp"

#include <utility>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"

namespace zorvi {
namespace {

json initial_view(const std::string& phase) {
  return {{"phase", phase},        {"cancellable", true}, {"completed_bytes", 0}, {"total_bytes", 0},
          {"owned_path", nullptr}, {"problem", nullptr},  {"result", nullptr}};
}

json problem(const std::string& code, const std::string& message) { return {{"code", code}, {"message", message}}; }

}  // namespace

MaintenanceHandoff::MaintenanceHandoff() : view_(initial_view("idle")) {}

MaintenanceHandoff::~MaintenanceHandoff() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    wakeup_ = nullptr;
  }
  cancelled_ = true;
  join();
}

void MaintenanceHandoff::set_wakeup(std::function<void()> wakeup) {
  const std::lock_guard<std::mutex> lock(mutex_);
  wakeup_ = std::move(wakeup);
}

json MaintenanceHandoff::view() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return view_;
}

void MaintenanceHandoff::join() {
  if (worker_.joinable()) worker_.join();
}

std::optional<ChildProcess> MaintenanceHandoff::take_child() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(child_, std::nullopt);
}

// The wake-up runs under the mutex, so that once the destructor has cleared
// it no call can still be on its way; it must not call back into the handoff.
void MaintenanceHandoff::publish(const std::function<void(json&)>& change) {
  const std::lock_guard<std::mutex> lock(mutex_);
  change(view_);
  if (wakeup_) wakeup_();
}

void MaintenanceHandoff::begin(const std::string& phase, const Operation& operation) {
  // A window thread must never block on work it started: a second
  // operation waits for the first to end by itself.
  require(!worker_.joinable() || finished_, "busy", "Another maintenance operation is still running");
  join();
  cancelled_ = false;
  finished_ = false;
  publish([&](json& view) { view = initial_view(phase); });
  // The last view is published with the worker already counted as done, so
  // a window woken by it may begin the next operation at once.
  const auto finish = [this](const std::function<void(json&)>& change) {
    publish([&](json& view) {
      change(view);
      view["cancellable"] = false;
      finished_ = true;
    });
  };
  worker_ = std::thread([operation, finish] {
    try {
      json result = operation();
      finish([&](json& view) {
        // An operation that hands something over ends "ready" by itself.
        if (view["phase"] != "ready") view["phase"] = "succeeded";
        view["result"] = std::move(result);
      });
    } catch (const Error& error) {
      finish([&](json& view) { view.update({{"phase", "failed"}, {"problem", problem(error.code, error.what())}}); });
    } catch (const std::exception& error) {
      finish([&](json& view) {
        view.update({{"phase", "failed"}, {"problem", problem("maintenance_failed", error.what())}});
      });
    } catch (...) {
      // Whatever an operation throws, the window must hear of its end; an
      // escaping exception would end the whole process instead.
      finish([](json& view) {
        view.update({{"phase", "failed"}, {"problem", problem("maintenance_failed", "Maintenance operation failed")}});
      });
    }
  });
}

void MaintenanceHandoff::start(const std::filesystem::path& data_dir, std::string_view build_id,
                               std::chrono::milliseconds limit) {
  begin("preparing", [this, data_dir, build = std::string(build_id), limit] {
    MaintenanceRuntime runtime = prepare_gui_maintenance(
        data_dir, build, [this](std::string_view phase) { publish([&](json& view) { view["phase"] = phase; }); });
    require(!cancelled(), "cancelled", "Uninstall cancelled");
    // Once the window is on its way there is nothing left to cancel.
    publish([](json& view) { view.update({{"phase", "opening"}, {"cancellable", false}}); });
    // The helper starts in its own folder: a relative directory would name another place.
    const std::string folder = path_utf8(std::filesystem::absolute(data_dir).lexically_normal());
    ChildProcess child = runtime.launch_gui({"--data-dir", folder}, limit);
    const auto pid = child.pid();
    publish([&](json& view) {
      runtime_ = std::move(runtime);
      child_ = std::move(child);
      view["phase"] = "ready";
    });
    return json{{"pid", pid}};
  });
}

void MaintenanceHandoff::create_shortcut(const std::filesystem::path& data_dir, const std::string& game,
                                         const std::filesystem::path& destination, const std::string& name) {
  begin("creating", [data_dir, game, destination, name] {
    return NativeInstaller::create_shortcut(data_dir, game, destination, name);
  });
}

void MaintenanceHandoff::remove_shortcuts(const std::filesystem::path& data_dir) {
  begin("removing", [data_dir] {
    const ShortcutRemoval removal = NativeInstaller::remove_shortcuts(data_dir);
    json removed = json::array(), changed = json::array();
    for (const auto& path : removal.removed) removed.push_back(path_utf8(path));
    for (const auto& path : removal.changed) changed.push_back(path_utf8(path));
    return json{{"schema_version", 1}, {"removed", removed}, {"changed", changed}};
  });
}

void MaintenanceHandoff::uninstall(const NativeUninstallRequest& request) {
  begin("waiting", [this, request] {
    publish([&](json& view) { view["owned_path"] = path_utf8(request.data_folder); });
    NativeSetupCallbacks callbacks;
    callbacks.cancelled = [this] { return cancelled(); };
    callbacks.progress = [this](std::string_view phase, std::uint64_t done, std::uint64_t total) {
      // Past the wait the removal runs to its end: a half-removed folder helps nobody.
      publish([&](json& view) {
        view.update({{"phase", phase}, {"cancellable", false}, {"completed_bytes", done}, {"total_bytes", total}});
      });
    };
    return NativeInstaller::uninstall(request, callbacks).to_json();
  });
}

}  // namespace zorvi
