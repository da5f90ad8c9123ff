#pragma once

#include <archive.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string_view>

#include "client/platform/unique_fd.hpp"

namespace zorvi {

// Streams one ordinary Zstandard frame out of an archive file into the tar
// reader, never delivering more than `limit` decoded bytes and never
// accepting a window above 64 MiB or anything behind the frame.
//
// A thread of its own decodes up to 16 blocks ahead of the reader, so that
// decompression overlaps what the reader does with the bytes. Blocks, and a
// failure in their place, reach the reader in stream order, exactly as one
// thread would produce them. Memory is bounded: the ring of 64 KiB blocks,
// one 64 KiB input buffer and the decoder's bounded window.
class BoundedZstd {
 public:
  BoundedZstd(const std::filesystem::path& path, std::uint64_t limit);
  // Decodes from a file the caller has already opened and proved, from its
  // first byte, so that what is decoded is what the caller looked at.
  BoundedZstd(UniqueFd stream, std::uint64_t limit);
  // Stops the decoding thread and waits for it.
  ~BoundedZstd();
  BoundedZstd(const BoundedZstd&) = delete;
  BoundedZstd& operator=(const BoundedZstd&) = delete;

  // The next block of up to 65,536 bytes into `output()`; 0 once the frame
  // has ended. A decoding failure is raised at its place in the stream, and
  // again on every later call.
  std::size_t read();
  std::string_view output() const;
  // Refills the decoder's input from the file, in place of what is left of
  // the last input. The decoding thread does this itself as it goes.
  void fill();
  // Raises a failure seen inside the tar reader's callback, then drains the
  // frame, so that anything after it is refused.
  void finish();
  // The offset in the decoded stream just past its last nonzero byte so far:
  // a reader that knows where its own content ends can prove that only zeros
  // follow, whatever it read ahead of that point.
  std::uint64_t content_end() const;
  // Whether the callback has recorded a failure for `finish` to raise.
  bool failed() const;

  // The read callback for libarchive; `client_data` is the decoder.
  static la_ssize_t callback(struct archive* reader, void* client_data, const void** buffer);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zorvi
