#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "client/platform/unique_fd.hpp"

namespace zorvi {

// Creates a missing chain of private directories, or proves an existing one.
void private_directory(const std::filesystem::path& path);
// The same walk; returns the proved directory, open.
UniqueFd private_directory_anchor(const std::filesystem::path& path);

// One step of that walk: the directory `name` below the open directory
// `anchor`, created private when missing, proved to be what the name shows,
// and, when `last`, narrowed to and proved private. Returns it open.
UniqueFd enter_private_directory(int anchor, const std::string& name, bool last);

// Creates a private directory at a name that must not exist, under parents that must.
void private_directory_new(const std::filesystem::path& path);

namespace posix_files {

// A flush that reaches stable storage, retried on EINTR; returns 0 or -1 with errno set.
int sync(int descriptor);

// Claims `size` bytes of real storage and sets the length; 0 or an error number.
int reserve(int descriptor, std::uint64_t size);

// Turns a just-created, still empty entry into a private one.
void secure_new_private(int descriptor, bool directory);

// Refuses an ACL that grants anyone but the owner access.
void require_private_acl(int descriptor);

// Refuses unless the absolute path is a private entry of the stated kind.
void require_private_path(const std::filesystem::path& path, bool directory);

void private_directory(const std::filesystem::path& path);
// The same walk; returns the proved directory, open.
UniqueFd private_directory_anchor(const std::filesystem::path& path);

// One step of that walk: the directory `name` below the open directory
// `anchor`, created private when missing, proved to be what the name shows,
// and, when `last`, narrowed to and proved private. Returns it open.
UniqueFd enter_private_directory(int anchor, const std::string& name, bool last);

// Components below the root that a walked chain may hold.
inline constexpr std::size_t max_ancestry = 128;

// Opens an existing directory by walking its absolute path from the root with
// no-follow opens, so that no link anywhere on the way is crossed. The caller
// words the failure.
enum class WalkFailure : std::uint8_t { none, root, depth, component };
struct DirectoryWalk {
  UniqueFd directory;
  WalkFailure failure = WalkFailure::none;
};
DirectoryWalk open_ordinary_directory(const std::filesystem::path& absolute);

// The owner, mode and link rule of private storage, then the ACL rule.
void require_private_node(int descriptor, bool directory);

}  // namespace posix_files
}  // namespace zorvi
