#include "client/transport/download_headers.hpp"

#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

// A response to a request for the 100 authenticated bytes from `offset` on.
struct Row {
  std::uint64_t offset;
  bool exact;
  std::string head;  // header lines, each fed with its ending
  std::vector<std::uint64_t> bodies;
  std::string tail = {};  // lines after the body: trailers or a late status
};

void feed(DownloadResponseHeaders& headers, std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
    headers.line(text.substr(0, end));
    text.remove_prefix(end);
  }
}

std::string repeat(const std::string& text, int count) {
  std::string result;
  while (count-- > 0) result += text;
  return result;
}

TEST(DownloadResponseHeaders, AdmitsOrRefusesEachSequence) {
  const std::string ok = "HTTP/1.1 200 OK\r\n", cl100 = "Content-Length: 100\r\n", partial = "HTTP/1.1 206 P\r\n";
  const std::string interim = "HTTP/1.1 100 Continue\r\n\r\n", chunked = "Transfer-Encoding: chunked\r\n";
  const std::string cl50 = "Content-Length: 50\r\n\r\n", fields = ok + repeat("X: 1\r\n", 128);
  const auto field = [](std::size_t bytes) { return "X: " + std::string(bytes - 5, 'a') + "\r\n"; };
  // clang-format off
  const std::vector<std::pair<Row, std::string>> rows{
      {{0, true, ok + cl100 + "\r\n", {60, 40}}, "ok"},
      {{0, true, "HTTP/1.1 100 Continue\r\n" + cl100 + "\r\n" + ok + cl100 + "\r\n", {100}}, "ok"},
      {{0, true, "HTTP/2 200 \r\n\r\n", {100}}, "ok"},
      {{0, true, "HTTP/1.1 101 Up\r\n\r\n", {}}, "download_headers: Download protocol upgrades are not supported"},
      {{10, true, ok + cl100 + "\r\n", {100}}, "ok"},
      {{0, false, ok + "Content-Length: 101\r\n\r\n", {}}, "length_mismatch: Server length differs from the authenticated download bound"},
      {{0, false, ok + cl50, {50}}, "ok"},
      {{10, true, partial + "Content-Range: BYTES 10-99/100\r\nContent-Length: 90\r\n\r\n", {90}}, "ok"},
      {{10, true, partial + "Content-Range: bytes 10-98/100\r\n\r\n", {}}, "download_range: Server range differs from the authenticated remaining bytes"},
      {{10, true, partial + "\r\n", {}}, "download_range: A partial response requires the requested single range"},
      {{10, true, partial + "Content-Range: items 10-99/100\r\n\r\n", {}}, "download_range: Invalid download content range"},
      {{0, true, ok + chunked + "\r\n", {50, 50}, "X-Sum: 1\r\n\r\n"}, "ok"},
      {{0, true, ok + chunked + "\r\n", {50}}, "length_mismatch: Download body is shorter than its authenticated response length"},
      {{0, true, ok + chunked + "\r\n", {50}, "Content-Type: x\r\n"}, "download_headers: Duplicate or late download framing field"},
      {{0, true, ok + chunked + cl100 + "\r\n", {}}, "download_headers: Unsupported download transfer framing"},
      {{0, true, ok + "Content-Encoding: gzip\r\n\r\n", {}}, "download_headers: Download content encoding changes authenticated bytes"},
      {{0, true, ok + "Content-Encoding: IDENTITY\r\n\r\n", {100}}, "ok"},
      {{0, true, ok + "Content-Type: multipart/byteranges; b=z\r\n\r\n", {}}, "download_range: Multipart download ranges are not supported"},
      {{0, true, ok + "Content-Range: bytes 0-99/100\r\n\r\n", {}}, "download_range: A full response contains an unexpected range"},
      {{0, true, "HTTP/1.1 302 Found\r\n\r\n", {}}, "redirect_rejected: Server redirects are not permitted"},
      {{0, true, "HTTP/1.1 404 No\r\n\r\n", {}}, "http_status: Download failed with status 404"},
      {{0, true, repeat(interim, 7) + ok + "\r\n", {100}}, "ok"},
      {{0, true, repeat(interim, 8) + ok, {}}, "download_headers: Unexpected download response sequence"},
      {{0, true, fields + "\r\n", {100}}, "ok"},
      {{0, true, fields + "X: 1\r\n", {}}, "download_headers: Invalid or excessive download fields"},
      {{0, true, ok + field(8192) + "\r\n", {100}}, "ok"},
      {{0, true, ok + field(8193), {}}, "download_headers: Download headers exceed their bounded format"},
      {{0, true, ok + repeat(field(8192), 7) + field(8173) + "\r\n", {100}}, "ok"},
      {{0, true, ok + repeat(field(8192), 7) + field(8174) + "\r\n", {}}, "download_headers: Download headers exceed their bounded format"},
      {{0, true, "HTTP/1.1 200 OK", {}}, "download_headers: Download header line is incomplete"},
      {{0, true, ok + "X: \ta\x01\r\n", {}}, "download_headers: Download header contains control bytes"},
      {{0, true, "HTTP/1.1 2000\r\n", {}}, "download_headers: Invalid download status line"},
      {{0, true, "HTTP/1.1 099 Low\r\n", {}}, "download_headers: Invalid download status"},
      {{0, true, cl100, {}}, "download_headers: Download headers precede their status"},
      {{0, true, ok + ": x\r\n", {}}, "download_headers: Invalid download field"},
      {{0, true, ok + "a b: x\r\n", {}}, "download_headers: Invalid download field name"},
      {{0, true, ok + "Content-Length: 18446744073709551616\r\n", {}}, "download_headers: Invalid download length or range"},
      {{0, true, {}, {1}}, "download_headers: Download body precedes admitted headers"},
      {{0, true, ok + "\r\n", {60, 41}}, "size_limit: Download exceeds its authenticated length"},
      {{0, false, ok + cl50, {51}}, "length_mismatch: Download exceeds its declared response length"},
      {{0, true, interim, {}}, "download_headers: Download has no admitted final response"},
      {{101, true, {}, {}}, "download_range: Resume offset exceeds authenticated length"},
  };
  // clang-format on
  for (const auto& [row, expected] : rows) {
    EXPECT_EQ(testing::outcome([&] {
                DownloadResponseHeaders headers(100, row.offset, row.exact);
                feed(headers, row.head);
                for (const std::uint64_t size : row.bodies) headers.body(size);
                feed(headers, row.tail);
                headers.finish();
              }),
              expected)
        << row.head << "|" << row.tail;
  }
}

}  // namespace
}  // namespace zorvi
