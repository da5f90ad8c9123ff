#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace zorvi {

// The one failure type of the core. `what()` is the sentence a person reads;
// `code` is what a program branches on; `details` carries follow-up commands
// such as "verify GAME".
class Error : public std::runtime_error {
 public:
  Error(std::string error_code, const std::string& message, std::vector<std::string> follow_up = {})
      : std::runtime_error(message), code(std::move(error_code)), details(std::move(follow_up)) {}

  std::string code;
  std::vector<std::string> details;
};

inline void require(bool condition, const char* code, const std::string& message,
                    std::vector<std::string> details = {}) {
  if (!condition) throw Error(code, message, std::move(details));
}

// Appends " (N)" for an operating-system error number, the form every
// system-call failure message takes.
inline std::string with_errno(const std::string& message, int error_number) {
  return message + " (" + std::to_string(error_number) + ")";
}

}  // namespace zorvi
