#pragma once

#include <archive.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string_view>

namespace zorvi {

// Streams one ordinary Zstandard frame out of an archive file into the tar
// reader, never delivering more than `limit` decoded bytes and never
// accepting a window above 64 MiB or anything behind the frame. Memory is
// two fixed 64 KiB buffers and the decoder's bounded window.
class BoundedZstd {
public:
  BoundedZstd(const std::filesystem::path& path, std::uint64_t limit);
  ~BoundedZstd();
  BoundedZstd(const BoundedZstd&) = delete;
  BoundedZstd& operator=(const BoundedZstd&) = delete;

  // Decodes up to 65,536 bytes into `output()`; 0 once the frame has ended.
  std::size_t read();
  std::string_view output() const;
  // Refills the input buffer from the file.
  void fill();
  // Raises a failure seen inside the tar reader's callback, then drains the
  // stream, so that anything behind the tar inside or after the frame is refused.
  void finish();
  // Whether the callback has recorded a failure for `finish` to raise.
  bool failed() const;

  // The read callback for libarchive; `client_data` is the decoder.
  static la_ssize_t callback(struct archive* reader, void* client_data, const void** buffer);

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zorvi
