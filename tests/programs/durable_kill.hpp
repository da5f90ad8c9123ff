#pragma once

// For crash-test builds of the programs on a durable road:
//   ZORVI_TEST_KILL_AT_STEP=N   SIGKILL right after the Nth durable step
//   ZORVI_TEST_STEP_COUNT=FILE  holds the number of steps taken so far
// Written with raw system calls: the observer must not take durable steps itself.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <mutex>
#include <string>

#include "client/platform/durable_steps.hpp"

namespace durable_kill {

inline long kill_at = -1;
inline long taken = 0;
inline int count_file = -1;

// Extraction flushes files on several threads: steps are counted one at a
// time, so the count file ends with the true total.
inline std::mutex counting;

inline void step() {
  const std::lock_guard lock(counting);
  ++taken;
  if (count_file >= 0) {
    const std::string text = std::to_string(taken) + "\n";
    if (::pwrite(count_file, text.data(), text.size(), 0) < 0) std::abort();
  }
  if (taken == kill_at) ::raise(SIGKILL);
}

inline void from_environment() {
  if (const char* at = std::getenv("ZORVI_TEST_KILL_AT_STEP")) kill_at = std::atol(at);
  if (const char* file = std::getenv("ZORVI_TEST_STEP_COUNT"))
    count_file = ::open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  zorvi::observe_durable_steps(step);
}

}  // namespace durable_kill
