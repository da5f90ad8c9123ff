#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "client/domain/json.hpp"
#include "client/platform/process.hpp"

namespace zorvi {

enum class NativeProcessState : std::uint8_t { Running = 0, Ended = 1, Unknown = 2 };

inline constexpr unsigned max_observation_wait_ms = 1000;

// The identity of a live process: pid, creation time and boot, so that a
// record can be judged after the pid was reused or the machine rebooted.
json native_process_identity(std::uint64_t pid);
json current_process_identity();

// Refuses an identity whose shape is wrong; says nothing about the process.
void validate_process_identity(const json& identity);

// Never throws: what cannot be told is Unknown.
NativeProcessState native_process_state(const json& identity);

// Watches one identity for its end. The watch is registered before the
// creation time is compared, so an end in between is not missed.
class NativeProcessObserver {
 public:
  explicit NativeProcessObserver(const json& identity);
  ~NativeProcessObserver();
  NativeProcessObserver(const NativeProcessObserver&) = delete;
  NativeProcessObserver& operator=(const NativeProcessObserver&) = delete;

  // Waits at most `timeout_ms` (up to 1000) for the end; Running means
  // still waiting.
  NativeProcessState wait(unsigned timeout_ms);

  // The watch learns that a process ended, not how: always empty.
  std::optional<int> exit_code() const { return std::nullopt; }

  // Readable when the process ends; present only while still waiting.
  std::optional<NativeHandle> notification_handle() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zorvi
