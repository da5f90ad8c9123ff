#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

// The Linux system calls behind the durable and private file operations.
// Everything above this seam is written once; another platform replaces this
// file. Calls return 0 or an error number and never raise, except the ACL
// check, whose refusals are the messages users see.
namespace zorvi::native_files {

// fsync, retried while interrupted; for files and directories alike.
int flush(int descriptor);

// A rename that fails with EEXIST instead of replacing the destination.
int rename_no_replace(const std::filesystem::path& source, const std::filesystem::path& destination);

// Swaps two directory entries in one step; neither name is ever missing.
int exchange_entries(int first_parent, const std::string& first_name, int second_parent,
                     const std::string& second_name);

// Claims real storage for the first `length` bytes of the file.
int allocate(int descriptor, std::uint64_t length);

// Drops every ACL rule a new entry may have inherited from its parent:
// the access ACL, and for a directory the default ACL.
int clear_acl(int descriptor, bool directory);

// Raises unless the ACL grants nobody but the owner access: no named user
// other than the owner, no named group, and no default ACL on a directory.
void require_owner_only_acl(int descriptor);

}  // namespace zorvi::native_files
