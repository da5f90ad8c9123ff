#include "client/platform/posix_native_files.hpp"

#include <fcntl.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "client/domain/error.hpp"
#include "client/platform/durable_steps.hpp"
#include "client/platform/eintr.hpp"

namespace zorvi::native_files {
namespace {

constexpr const char* access_acl = "system.posix_acl_access";
constexpr const char* default_acl = "system.posix_acl_default";
constexpr int max_acl_entries = 128;

// A file system without POSIX ACLs has no rules to clear or walk.
bool no_acl_support(int error) { return error == ENOTSUP || error == ENOSYS; }

class AclHandle {
 public:
  explicit AclHandle(acl_t acl) : acl_(acl) {}
  ~AclHandle() {
    if (acl_ != nullptr) acl_free(acl_);
  }
  AclHandle(const AclHandle&) = delete;
  AclHandle& operator=(const AclHandle&) = delete;
  acl_t get() const { return acl_; }

 private:
  acl_t acl_;
};

[[noreturn]] void walk_failed() { throw Error("permissions", "macOS storage ACL exceeds its bound or is invalid"); }

[[noreturn]] void grants_another() {
  throw Error("permissions", "Existing macOS storage grants another identity access; preserve it");
}

void require_owner_entry(acl_entry_t entry) {
  void* qualifier = acl_get_qualifier(entry);
  if (qualifier == nullptr) walk_failed();
  const uid_t user = *static_cast<uid_t*>(qualifier);
  acl_free(qualifier);
  if (user != ::geteuid()) grants_another();
}

void check_entry(acl_entry_t entry) {
  acl_tag_t tag = ACL_UNDEFINED_TAG;
  if (acl_get_tag_type(entry, &tag) != 0) walk_failed();
  switch (tag) {
    case ACL_USER_OBJ:
    case ACL_GROUP_OBJ:
    case ACL_MASK:
    case ACL_OTHER:
      return;  // the mode bits, judged by the caller's mode rule
    case ACL_USER:
      require_owner_entry(entry);
      return;
    case ACL_GROUP:
      grants_another();
    default:
      throw Error("permissions", "Unknown macOS private storage ACL rule");
  }
}

void require_no_default_acl(int descriptor) {
  if (::fgetxattr(descriptor, default_acl, nullptr, 0) >= 0) grants_another();
  if (errno != ENODATA && !no_acl_support(errno))
    throw Error("permissions", "Cannot inspect the macOS private storage ACL");
}

int remove_acl(int descriptor, const char* name) {
  if (::fremovexattr(descriptor, name) == 0 || errno == ENODATA || no_acl_support(errno)) return 0;
  return errno;
}

}  // namespace

int flush(int descriptor) {
  const int result = retry_on_eintr([&] { return ::fsync(descriptor); });
  if (result == 0) durable_step();
  return result;
}

int rename_no_replace(const std::filesystem::path& source, const std::filesystem::path& destination) {
  if (::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, destination.c_str(), RENAME_NOREPLACE) != 0) return errno;
  durable_step();
  return 0;
}

int exchange_entries(int first_parent, const std::string& first_name, int second_parent,
                     const std::string& second_name) {
  if (::renameat2(first_parent, first_name.c_str(), second_parent, second_name.c_str(), RENAME_EXCHANGE) != 0)
    return errno;
  durable_step();
  return 0;
}

int allocate(int descriptor, std::uint64_t length) {
  const int result = retry_on_eintr([&] { return ::fallocate(descriptor, 0, 0, static_cast<off_t>(length)); });
  return result == 0 ? 0 : errno;
}

int clear_acl(int descriptor, bool directory) {
  if (const int error = remove_acl(descriptor, access_acl); error != 0) return error;
  return directory ? remove_acl(descriptor, default_acl) : 0;
}

void require_owner_only_acl(int descriptor) {
  AclHandle acl(acl_get_fd(descriptor));
  if (acl.get() == nullptr) {
    if (no_acl_support(errno)) return;
    throw Error("permissions", "Cannot inspect the macOS private storage ACL");
  }
  require(acl_valid(acl.get()) == 0, "permissions", "Cannot inspect the macOS private storage ACL");
  acl_entry_t entry = nullptr;
  int index = 0;
  for (int found = acl_get_entry(acl.get(), ACL_FIRST_ENTRY, &entry); found != 0;
       found = acl_get_entry(acl.get(), ACL_NEXT_ENTRY, &entry), ++index) {
    if (found < 0 || entry == nullptr || index >= max_acl_entries) walk_failed();
    check_entry(entry);
  }
  require_no_default_acl(descriptor);
}

}  // namespace zorvi::native_files
