#pragma once

#include <cerrno>

namespace zorvi {

// Calls `call` again for as long as it fails with EINTR, and returns its last
// result with errno as that call left it. For system calls that are safe to
// repeat after an interruption; it allocates nothing, so a forked child may
// use it before exec.
template <typename Call>
auto retry_on_eintr(Call call) noexcept(noexcept(call())) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

}  // namespace zorvi
