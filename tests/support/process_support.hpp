#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include "client/domain/json.hpp"

namespace zorvi::testing {

// The test child program (tests/programs/process_probe.cpp).
std::filesystem::path probe_path();

// "ok", or "code: message" of the Error that `work` raised.
std::string outcome(const std::function<void()>& work);

// Runs `work` in a forked copy of this process and gives back the text it
// returned (or "exception: what()"), so that a test can change limits,
// identity or descriptors without touching the test process itself.
std::string in_subprocess(const std::function<std::string()>& work);

// In a subprocess: lowers the descriptor limit and fills the table so that
// exactly `free_slots` descriptors can still be opened.
void leave_free_descriptors(int free_slots);

// In a subprocess: becomes the unprivileged user 65534 for good.
void drop_to_nobody();

// Polls `condition` every few milliseconds; false if it stays false for
// `limit` (a safety net against hangs, not a timing assertion).
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::milliseconds(20000));

// The state letter of /proc/<pid>/stat ('Z' for a zombie), or 0.
char process_state_letter(long pid);

// Whether `pid` names any process at all, zombies included.
bool pid_exists(long pid);

json read_json(const std::filesystem::path& path);

}  // namespace zorvi::testing
