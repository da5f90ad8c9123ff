#pragma once

// The supervised trial of a candidate launcher, the first road of a start
// when the store holds a candidate or an unfinished attempt.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/domain/json.hpp"

namespace zorvi {

inline constexpr std::int64_t first_launcher_startup_ms = 30000;
inline constexpr unsigned candidate_terminate_grace_ms = 250;

struct CandidateStart {
  std::filesystem::path data_dir;
  std::string interface;
  std::vector<std::string> forwarded;
  std::int64_t startup_limit_ms = 0;
  bool nothing_active = false;        // the selection had no `active`
  std::function<bool()> interrupted;  // a console's stop request, passed on
};

// Tries the candidate and, once it is confirmed, stays as its parent: gives
// the child's exit status. Nothing when there was no candidate after all or
// when it failed with a working version to fall back on.
std::optional<int> run_candidate(const CandidateStart& start);

}  // namespace zorvi
