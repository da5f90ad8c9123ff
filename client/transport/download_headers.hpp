#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace zorvi {

// Decides, line by line and chunk by chunk, whether an HTTP response may be
// written into a file whose length signed metadata has fixed. It keeps no body
// bytes and does no I/O: the transport feeds it and obeys.
class DownloadResponseHeaders {
 public:
  // `total` is the authenticated length (an upper bound unless `exact`);
  // `offset` the resume position asked for, 0 for a whole download.
  DownloadResponseHeaders(std::uint64_t total, std::uint64_t offset, bool exact);

  // One whole header line with its line ending.
  void line(std::string_view text);
  // Judges the current response at its blank line; `line` calls it.
  void admit();
  // Before a body chunk of `size` bytes is written anywhere.
  void body(std::uint64_t size);
  // After the transfer ended without error.
  void finish() const;

  bool admitted() const { return admitted_; }
  std::uint64_t response_start() const { return response_start_; }

  static constexpr std::size_t max_line = 8192;
  static constexpr std::size_t max_header_bytes = 65536;
  static constexpr unsigned max_responses = 8;
  static constexpr unsigned max_fields = 128;

 private:
  void field(std::string_view content);
  void status_line(std::string_view content);

  std::uint64_t total_;
  std::uint64_t offset_;
  std::uint64_t response_start_;
  std::uint64_t header_bytes_ = 0;
  std::uint64_t body_bytes_ = 0;
  std::optional<std::uint64_t> content_length_;
  std::string content_range_;
  std::string content_encoding_;
  std::string transfer_encoding_;
  std::string content_type_;
  std::set<std::string> framing_fields_;
  unsigned status_ = 0;
  unsigned response_count_ = 0;
  unsigned field_count_ = 0;
  bool exact_;
  bool admitted_ = false;
  bool body_started_ = false;
};

}  // namespace zorvi
