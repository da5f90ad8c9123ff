#include "client/platform/process_notifications.hpp"

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "client/domain/error.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/posix_process.hpp"
#include "client/platform/process_identity.hpp"

namespace zorvi {
namespace {

struct Watcher {
  explicit Watcher(const json& identity) : observer(identity) {}
  NativeProcessObserver observer;
  bool reported = false;
};

using IdentityMap = std::map<std::string, json>;

std::string compact_text(const json& identity) {
  // Invalid UTF-8 cannot name a live process of ours; replacing it keeps
  // the text total instead of throwing from deep inside the library.
  return identity.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

struct ProcessNotifications::Impl {
  std::atomic<bool> stopping{false};
  bool started = false;  // the owner's thread only

  std::mutex mutex;
  IdentityMap wanted;    // guarded by mutex
  bool changed = false;  // guarded by mutex

  std::map<std::string, Watcher> watched;  // the watching thread only
  Callback callback;
  posix_process::WakeEvent wake;
  std::thread thread;

  void notify(const std::string& text) {
    if (stopping.load()) return;
    try {
      callback(text);
    } catch (...) {
      // The owner's callback cannot stop the watch.
    }
  }

  void run() {
    try {
      while (!stopping.load()) {
        reconcile();
        wait_for_events();
      }
    } catch (const std::exception& error) {
      notify(error.what());
    } catch (...) {
      notify("Native process notifications stopped");
    }
  }

  void reconcile() {
    IdentityMap copy;
    {
      const std::lock_guard lock(mutex);
      if (!changed) return;
      copy = wanted;
      changed = false;
    }
    std::erase_if(watched, [&copy](const auto& entry) { return !copy.contains(entry.first); });
    for (const auto& [text, identity] : copy) {
      if (watched.contains(text)) continue;
      auto& watcher = watched.try_emplace(text, identity).first->second;
      const NativeProcessState state = watcher.observer.wait(0);
      if (state == NativeProcessState::Running) continue;
      watcher.reported = true;
      notify(state == NativeProcessState::Ended ? "" : "Native process identity could not be watched");
    }
  }

  void wait_for_events() {
    std::vector<pollfd> entries{{wake.descriptor(), POLLIN, 0}};
    std::vector<Watcher*> owners;
    for (auto& [text, watcher] : watched) {
      if (watcher.reported) continue;
      const auto handle = watcher.observer.notification_handle();
      require(handle.has_value(), "process_watch", "Native wait object is unavailable");
      entries.push_back({static_cast<int>(*handle), POLLIN, 0});
      owners.push_back(&watcher);
    }
    const int ready = retry_on_eintr([&] { return ::poll(entries.data(), entries.size(), -1); });
    require(ready >= 0, "process_watch", "Cannot wait for native process notifications");
    const short wake_events = entries[0].revents;
    require((wake_events & (POLLERR | POLLHUP | POLLNVAL)) == 0 && ((wake_events & POLLIN) == 0 || wake.drain()),
            "process_watch", "Native notification interrupt was lost");
    for (std::size_t index = 0; index < owners.size(); ++index) {
      if (entries[index + 1].revents == 0) continue;
      const NativeProcessState state = owners[index]->observer.wait(0);
      // Interrupted before it could tell: the next round asks again.
      if (state == NativeProcessState::Running) continue;
      owners[index]->reported = true;
      notify(state == NativeProcessState::Ended ? "" : "Native process exit could not be confirmed");
    }
  }
};

ProcessNotifications::ProcessNotifications() : impl_(std::make_unique<Impl>()) {}

ProcessNotifications::~ProcessNotifications() { stop(); }

void ProcessNotifications::start(Callback callback) {
  require(!impl_->started, "process_watch", "Process notifications can only start once");
  impl_->started = true;
  impl_->callback = std::move(callback);
  Impl* impl = impl_.get();
  impl_->thread = std::thread([impl] { impl->run(); });
}

void ProcessNotifications::update(const json& identities) {
  require(impl_->started && !impl_->stopping.load(), "process_watch", "Process notifications are not active");
  require(identities.is_array() && identities.size() <= max_watched_identities, "size_limit",
          "Native process watch snapshot exceeds its bound");
  IdentityMap next;
  for (const auto& identity : identities) {
    require(identity.is_object(), "process_watch", "Native process watch identity must be an object");
    std::string text = compact_text(identity);
    require(text.size() <= max_watched_identity_text, "size_limit", "Native process watch identity exceeds its bound");
    next.emplace(std::move(text), identity);
  }
  bool differs = false;
  {
    const std::lock_guard lock(impl_->mutex);
    if (next != impl_->wanted) {
      impl_->wanted = std::move(next);
      impl_->changed = true;
      differs = true;
    }
  }
  if (differs) impl_->wake.signal();
}

void ProcessNotifications::stop() {
  if (impl_->stopping.exchange(true)) return;
  impl_->wake.signal();
  if (impl_->thread.joinable()) impl_->thread.join();
  impl_->watched.clear();
}

}  // namespace zorvi
