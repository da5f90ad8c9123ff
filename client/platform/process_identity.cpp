#include "client/platform/process_identity.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <string>

#include "client/domain/error.hpp"
#include "client/platform/posix_process.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

constexpr const char* platform_name = "linux";
constexpr std::uint64_t max_pid = 2147483647;
constexpr std::size_t max_birth_digits = 20;  // a 64-bit count of microseconds

bool is_boot_form(const std::string& text) {
  if (text.size() != 36) return false;
  for (std::size_t index = 0; index < text.size(); ++index) {
    const bool dash_place = index == 8 || index == 13 || index == 18 || index == 23;
    const char c = text[index];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (dash_place ? c != '-' : !hex) return false;
  }
  return true;
}

bool is_birth_text(const json& birth) {
  if (!birth.is_string()) return false;
  const auto& text = birth.get_ref<const std::string&>();
  if (text.empty() || text.size() > max_birth_digits || (text.size() > 1 && text[0] == '0')) return false;
  if (text.find_first_not_of("0123456789") != std::string::npos) return false;
  std::uint64_t value = 0;
  const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
  return status == std::errc() && end == text.data() + text.size();
}

bool is_identity_shape(const json& identity) {
  if (!identity.is_object()) return false;
  const auto version = identity.find("schema_version");
  const auto pid = identity.find("pid");
  const auto platform = identity.find("platform");
  const auto boot = identity.find("boot");
  return version != identity.end() && version->is_number_integer() && *version == 1 && pid != identity.end() &&
         pid->is_number_unsigned() && pid->get<std::uint64_t>() != 0 && pid->get<std::uint64_t>() <= max_pid &&
         platform != identity.end() && platform->is_string() && boot != identity.end() && boot->is_string();
}

std::uint32_t pid_of(const json& identity) { return static_cast<std::uint32_t>(identity["pid"].get<std::uint64_t>()); }

const std::string& birth_of(const json& identity) { return identity["birth"].get_ref<const std::string&>(); }

// The checks that need no process: shape, platform and boot. Running means
// that the process itself must be asked.
NativeProcessState judge_without_process(const json& identity) {
  try {
    validate_process_identity(identity);
  } catch (const Error&) {
    return NativeProcessState::Unknown;
  }
  const auto& boot = identity["boot"].get_ref<const std::string&>();
  if (identity["platform"] != platform_name || !is_boot_form(boot)) return NativeProcessState::Unknown;
  const auto current_boot = posix_process::boot_identity();
  if (!current_boot) return NativeProcessState::Unknown;
  return *current_boot == boot ? NativeProcessState::Running : NativeProcessState::Ended;
}

}  // namespace

json native_process_identity(std::uint64_t pid) {
  require(pid >= 1 && pid <= max_pid, "process_identity", "Native PID is invalid");
  const auto boot = posix_process::boot_identity();
  require(boot.has_value(), "process_identity", "Native boot identity is unavailable");
  const auto birth = posix_process::process_birth(static_cast<std::uint32_t>(pid));
  require(birth.status != posix_process::BirthStatus::malformed, "process_identity",
          "Native creation time is malformed");
  require(birth.status == posix_process::BirthStatus::alive, "process_identity", "Cannot read native process identity");
  const auto boot_again = posix_process::boot_identity();
  require(boot_again.has_value(), "process_identity", "Native boot identity is unavailable");
  require(*boot_again == *boot, "process_identity", "System boot identity changed during capture");
  return json{
      {"schema_version", 1}, {"platform", platform_name}, {"pid", pid}, {"birth", birth.birth}, {"boot", *boot}};
}

json current_process_identity() { return native_process_identity(static_cast<std::uint64_t>(::getpid())); }

void validate_process_identity(const json& identity) {
  require(is_identity_shape(identity), "process_identity", "Native process identity is malformed");
  const auto birth = identity.find("birth");
  require(birth != identity.end() && is_birth_text(*birth), "process_identity",
          "Native creation identity is malformed");
}

NativeProcessState native_process_state(const json& identity) {
  try {
    const NativeProcessState early = judge_without_process(identity);
    if (early != NativeProcessState::Running) return early;
    const auto reading = posix_process::process_birth(pid_of(identity));
    switch (reading.status) {
      case posix_process::BirthStatus::gone:
        return NativeProcessState::Ended;
      case posix_process::BirthStatus::alive:
        // Another birth behind the same pid: the one we knew is gone.
        return reading.birth == birth_of(identity) ? NativeProcessState::Running : NativeProcessState::Ended;
      default:
        return NativeProcessState::Unknown;
    }
  } catch (...) {
    return NativeProcessState::Unknown;
  }
}

struct NativeProcessObserver::Impl {
  NativeProcessState state = NativeProcessState::Running;
  UniqueFd watch;

  void settle(NativeProcessState final_state) {
    state = final_state;
    watch.reset();
  }
};

NativeProcessObserver::NativeProcessObserver(const json& identity) : impl_(std::make_unique<Impl>()) {
  const NativeProcessState early = judge_without_process(identity);
  if (early != NativeProcessState::Running) {
    impl_->settle(early);
    return;
  }
  const std::uint32_t pid = pid_of(identity);
  int error = 0;
  impl_->watch = posix_process::open_exit_watch(pid, error);
  if (!impl_->watch) {
    impl_->settle(error == ESRCH ? NativeProcessState::Ended : NativeProcessState::Unknown);
    return;
  }
  // Only now, with the watch in place, is the birth compared: an end from
  // here on shows on the watch.
  const auto reading = posix_process::process_birth(pid);
  if (reading.status == posix_process::BirthStatus::alive) {
    if (reading.birth != birth_of(identity)) impl_->settle(NativeProcessState::Ended);
    return;
  }
  wait(0);
}

NativeProcessObserver::~NativeProcessObserver() = default;

NativeProcessState NativeProcessObserver::wait(unsigned timeout_ms) {
  require(timeout_ms <= max_observation_wait_ms, "process_identity", "Native observation wait exceeds its bound");
  if (impl_->state != NativeProcessState::Running) return impl_->state;
  pollfd entry{impl_->watch.get(), POLLIN, 0};
  const int ready = ::poll(&entry, 1, static_cast<int>(timeout_ms));
  if (ready < 0) {
    if (errno != EINTR) impl_->settle(NativeProcessState::Unknown);
    return impl_->state;
  }
  if (ready == 0) return impl_->state;
  // A pidfd is readable once the process has exited, and hangs up as well
  // once it has been reaped.
  const bool exited = (entry.revents & (POLLIN | POLLHUP)) != 0 && (entry.revents & (POLLERR | POLLNVAL)) == 0;
  impl_->settle(exited ? NativeProcessState::Ended : NativeProcessState::Unknown);
  return impl_->state;
}

std::optional<NativeHandle> NativeProcessObserver::notification_handle() const {
  if (impl_->state != NativeProcessState::Running || !impl_->watch) return std::nullopt;
  return impl_->watch.get();
}

}  // namespace zorvi
