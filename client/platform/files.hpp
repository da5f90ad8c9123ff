#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace zorvi {

// Bounded reads: the whole file, refused before a byte is read when it is
// larger than `limit`; or its last `limit` bytes, with the whole size reported.
std::string read_file(const std::filesystem::path& path, std::uint64_t limit);
std::string read_file_tail(const std::filesystem::path& path, std::uint64_t limit, std::uint64_t* size = nullptr);

// Whether anything, a symbolic link included, stands at `path`; a failure to
// look raises instead of reading as absence.
bool entry_present(const std::filesystem::path& path);
// Whether a directory stands at `path` by its own status; a link to one is not.
bool directory_present(const std::filesystem::path& path);

// Flushes to stable storage.
void sync_file(const std::filesystem::path& path);
void sync_directory(const std::filesystem::path& path);

// Whole-document commits through a `<target>.<id>.tmp` sibling: a later
// reader sees the old document or the new one, never a mixture.
void atomic_write(const std::filesystem::path& path, std::string_view bytes);           // replace, private, durable
void atomic_create(const std::filesystem::path& path, std::string_view bytes);          // no replace, durable
void atomic_private_create(const std::filesystem::path& path, std::string_view bytes);  // no replace, private, durable
void replace_private_file(const std::filesystem::path& path, std::string_view bytes);   // replace, private, no flush

// Raises to refuse; may be empty.
using VerifyCallback = std::function<void()>;

// Moves a prepared private file or directory to a name that must not exist.
void commit_private_path_new(const std::filesystem::path& source, const std::filesystem::path& destination,
                             const VerifyCallback& verify);

// Swaps two private directories on one volume in one step.
void exchange_private_directories(const std::filesystem::path& first, const std::filesystem::path& second,
                                  const VerifyCallback& verify);

}  // namespace zorvi
