#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "client/domain/crypto.hpp"

namespace zorvi {

class DirectoryHandle;

// What a caller records durably to prove later that a file is its own.
struct FileReservation {
  std::filesystem::path path;  // absolute
  std::uint64_t length = 0;    // final length
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  bool preallocated = false;  // space for the whole length was reserved
};

using ReservationObserver = std::function<void(const FileReservation&)>;

// A private file of fixed final length whose space is reserved before the
// first byte and whose identity is proved at every step. A path that stops
// showing the recorded identity is left alone: only a file this object can
// prove to be its own is ever removed.
class AllocatedFile {
 public:
  // A new file; `observer` (may be empty) sees the reservation once, after
  // creation and before any space is claimed, so that a crash from then on
  // leaves a file a later run can prove to be its own.
  AllocatedFile(const std::filesystem::path& path, std::uint64_t length, const ReservationObserver& observer);
  // The same, created as `name` in the held directory `parent`, whose path is
  // `path`: every later look at the name is made from `parent`.
  AllocatedFile(const DirectoryHandle& parent, const std::string& name, const std::filesystem::path& path,
                std::uint64_t length, const ReservationObserver& observer);
  // Reopens an owned file at its start: its size must be 0, or its length if preallocated.
  explicit AllocatedFile(const FileReservation& reservation);
  // The same, reached as `name` in the held directory `parent`.
  AllocatedFile(const DirectoryHandle& parent, const std::string& name, const FileReservation& reservation);
  // Reopens an owned partial file to resume at `written`.
  AllocatedFile(const FileReservation& reservation, std::uint64_t written);
  ~AllocatedFile();
  AllocatedFile(AllocatedFile&&) noexcept;
  AllocatedFile& operator=(AllocatedFile&&) noexcept;

  // Proves that a recorded file is still there, without keeping it open.
  static void verify_identity(const FileReservation& reservation);
  // The reservation of a present private cache file, its size as length.
  static FileReservation inspect_file(const std::filesystem::path& path);

  FileReservation reservation() const;
  std::uint64_t written() const;
  std::uint64_t size() const;
  std::uint64_t allocated_bytes() const;

  void write(std::string_view bytes);
  void read_prefix(std::uint64_t count, const std::function<void(std::string_view)>& consumer,
                   const Progress& progress);
  void reserve_remaining();
  void restart();
  void preserve();
  void discard();
  void synchronize();
  FileReservation retain_reservation();
  void set_executable(bool flag);
  void finish(bool require_full);

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace zorvi
