#include "client/transport/download_headers.hpp"

#include <array>
#include <limits>

#include "client/domain/error.hpp"

namespace zorvi {
namespace {

[[noreturn]] void refuse(const char* code, const std::string& message) { throw Error(code, message); }
[[noreturn]] void bad_headers(const char* message) { refuse("download_headers", message); }
[[noreturn]] void bad_range(const char* message) { refuse("download_range", message); }

char lower(char byte) { return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte; }

std::string lowered(std::string_view text) {
  std::string result(text);
  for (char& byte : result) byte = lower(byte);
  return result;
}

bool is_digit(char byte) { return byte >= '0' && byte <= '9'; }

// Only digits, at least one, no sign, within 64 bits.
std::uint64_t decimal(std::string_view text) {
  if (text.empty()) bad_headers("Invalid download length or range");
  std::uint64_t value = 0;
  constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  for (const char byte : text) {
    if (!is_digit(byte)) bad_headers("Invalid download length or range");
    const auto digit = static_cast<std::uint64_t>(byte - '0');
    if (value > (most - digit) / 10) bad_headers("Invalid download length or range");
    value = value * 10 + digit;
  }
  return value;
}

std::string_view trimmed(std::string_view text) {
  const auto blank = [](char byte) { return byte == ' ' || byte == '\t'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

bool token_byte(char byte) {
  static constexpr std::string_view extra = "!#$%&'*+-.^_`|~";
  return (byte >= 'a' && byte <= 'z') || is_digit(byte) || extra.find(byte) != std::string_view::npos;
}

constexpr std::array<std::string_view, 5> framing_names{"content-length", "content-range", "content-encoding",
                                                        "transfer-encoding", "content-type"};

}  // namespace

DownloadResponseHeaders::DownloadResponseHeaders(std::uint64_t total, std::uint64_t offset, bool exact)
    : total_(total), offset_(offset), response_start_(offset), exact_(exact) {
  if (offset > total) bad_range("Resume offset exceeds authenticated length");
}

void DownloadResponseHeaders::line(std::string_view text) {
  if (text.size() > max_line || text.size() > max_header_bytes - header_bytes_)
    bad_headers("Download headers exceed their bounded format");
  header_bytes_ += text.size();
  if (text.empty() || text.back() != '\n') bad_headers("Download header line is incomplete");
  text.remove_suffix(1);
  if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
  for (const char byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    if (byte != '\t' && (value < 0x20 || value == 0x7F)) bad_headers("Download header contains control bytes");
  }
  if (text.starts_with("HTTP/")) return status_line(text);
  if (status_ == 0) bad_headers("Download headers precede their status");
  if (text.empty()) {
    if (!admitted_) admit();
    return;
  }
  field(text);
}

void DownloadResponseHeaders::status_line(std::string_view content) {
  if (body_started_ || ++response_count_ > max_responses) bad_headers("Unexpected download response sequence");
  const std::size_t blank = content.find(' ');
  const std::string_view version = content.substr(0, blank);
  const bool known = version == "HTTP/1.0" || version == "HTTP/1.1" || version == "HTTP/2" || version == "HTTP/3";
  if (!known || blank == std::string_view::npos || content.size() < blank + 4 ||
      (content.size() > blank + 4 && content[blank + 4] != ' '))
    bad_headers("Invalid download status line");
  const std::string_view code = content.substr(blank + 1, 3);
  unsigned status = 0;
  for (const char byte : code) {
    if (!is_digit(byte)) bad_headers("Invalid download status");
    status = status * 10 + static_cast<unsigned>(byte - '0');
  }
  if (status < 100 || status > 599) bad_headers("Invalid download status");
  // Whatever an interim response said is forgotten here.
  status_ = status;
  admitted_ = false;
  field_count_ = 0;
  content_length_.reset();
  content_range_.clear();
  content_encoding_.clear();
  transfer_encoding_.clear();
  content_type_.clear();
  framing_fields_.clear();
}

void DownloadResponseHeaders::field(std::string_view content) {
  if (content.front() == '\t' || content.front() == ' ' || ++field_count_ > max_fields)
    bad_headers("Invalid or excessive download fields");
  const std::size_t colon = content.find(':');
  if (colon == 0 || colon == std::string_view::npos) bad_headers("Invalid download field");
  const std::string name = lowered(content.substr(0, colon));
  const std::string_view value = trimmed(content.substr(colon + 1));
  for (const char byte : name)
    if (!token_byte(byte)) bad_headers("Invalid download field name");
  bool framing = false;
  for (const std::string_view known : framing_names) framing = framing || name == known;
  if (!framing) return;
  // Trailers come after admission and must not change how the body is framed.
  if (admitted_ || !framing_fields_.insert(name).second) bad_headers("Duplicate or late download framing field");
  if (name == "content-length") content_length_ = decimal(value);
  else if (name == "content-range") content_range_ = std::string(value);
  else if (name == "content-encoding") content_encoding_ = lowered(value);
  else if (name == "transfer-encoding") transfer_encoding_ = lowered(value);
  else content_type_ = lowered(value);
}

void DownloadResponseHeaders::admit() {
  if (status_ >= 100 && status_ <= 199) {
    if (status_ == 101) bad_headers("Download protocol upgrades are not supported");
    return;
  }
  if (status_ >= 300 && status_ <= 399) refuse("redirect_rejected", "Server redirects are not permitted");
  if (status_ != 200 && status_ != 206) refuse("http_status", "Download failed with status " + std::to_string(status_));
  if (framing_fields_.contains("content-encoding") && content_encoding_ != "identity")
    bad_headers("Download content encoding changes authenticated bytes");
  if (framing_fields_.contains("transfer-encoding") && (transfer_encoding_ != "chunked" || content_length_))
    bad_headers("Unsupported download transfer framing");
  if (content_type_.starts_with("multipart/byteranges")) bad_range("Multipart download ranges are not supported");
  const bool ranged = framing_fields_.contains("content-range");
  if (status_ == 200) {
    if (ranged) bad_range("A full response contains an unexpected range");
    response_start_ = 0;
  } else {
    if (offset_ == 0 || !ranged) bad_range("A partial response requires the requested single range");
    const std::string_view range = content_range_;
    const std::size_t blank = range.find(' ');
    const std::size_t dash = range.find('-', blank == std::string_view::npos ? range.size() : blank);
    const std::size_t slash = range.find('/', dash == std::string_view::npos ? range.size() : dash);
    if (slash == std::string_view::npos || lowered(range.substr(0, blank)) != "bytes")
      bad_range("Invalid download content range");
    const std::uint64_t first = decimal(range.substr(blank + 1, dash - blank - 1));
    const std::uint64_t last = decimal(range.substr(dash + 1, slash - dash - 1));
    const std::uint64_t length = decimal(range.substr(slash + 1));
    if (total_ == 0 || first != offset_ || last != total_ - 1 || length != total_ || first > last)
      bad_range("Server range differs from the authenticated remaining bytes");
    response_start_ = first;
  }
  const std::uint64_t remaining = total_ - response_start_;
  if (content_length_ && (exact_ ? *content_length_ != remaining : *content_length_ > remaining))
    refuse("length_mismatch", "Server length differs from the authenticated download bound");
  admitted_ = true;
}

void DownloadResponseHeaders::body(std::uint64_t size) {
  if (!admitted_) bad_headers("Download body precedes admitted headers");
  body_started_ = true;
  if (size > total_ - (response_start_ + body_bytes_))
    refuse("size_limit", "Download exceeds its authenticated length");
  if (content_length_ && size > *content_length_ - body_bytes_)
    refuse("length_mismatch", "Download exceeds its declared response length");
  body_bytes_ += size;
}

void DownloadResponseHeaders::finish() const {
  if (!admitted_) bad_headers("Download has no admitted final response");
  if ((content_length_ && body_bytes_ != *content_length_) || (exact_ && body_bytes_ != total_ - response_start_))
    refuse("length_mismatch", "Download body is shorter than its authenticated response length");
}

}  // namespace zorvi
