#pragma once

#include <chrono>

#include "tests/support/test_support.hpp"

namespace zorvi::testing {

// The test child program (tests/programs/process_probe.cpp).
std::filesystem::path probe_path();

// Runs `work` in a forked copy of this process and gives back the text it
// returned (or "exception: what()"), so that a test can change identity,
// environment or signals without touching the test process itself.
std::string in_subprocess(const std::function<std::string()>& work);

// In a subprocess: becomes the unprivileged user 65534 for good.
void drop_to_nobody();

// Polls `condition` every few milliseconds; false if it stays false for
// `limit` (a safety net against hangs, not a timing assertion).
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::milliseconds(20000));

// Kills `pid` and waits until it is a zombie: ended, its pid still taken.
bool kill_unreaped(long pid);

// Whether `pid` names any process at all, zombies included.
bool pid_exists(long pid);

}  // namespace zorvi::testing
