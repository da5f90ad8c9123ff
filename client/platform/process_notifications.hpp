#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "client/domain/json.hpp"

namespace zorvi {

inline constexpr std::size_t max_watched_identities = 4098;
inline constexpr std::size_t max_watched_identity_text = 1024;

// Watches a changing set of native process identities on one thread and
// calls back once for each that ends (with an empty text) and once for each
// thing that goes wrong (with a message). The callback runs on the watching
// thread and must stay short.
class ProcessNotifications {
 public:
  using Callback = std::function<void(const std::string&)>;

  ProcessNotifications();
  ~ProcessNotifications();
  ProcessNotifications(const ProcessNotifications&) = delete;
  ProcessNotifications& operator=(const ProcessNotifications&) = delete;

  void start(Callback callback);

  // Replaces the wanted set; the thread works out what to add and drop.
  void update(const json& identities);

  // Ends the thread and drops the watches; later calls do nothing.
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zorvi
