#include "client/transport/https.hpp"

#include <gtest/gtest.h>

#include "client/domain/crypto.hpp"
#include "client/platform/allocated_file.hpp"
#include "tests/support/https_server.hpp"

namespace zorvi {
namespace {

using namespace testing;
using std::chrono::steady_clock;

const std::string bytes = [] {
  std::string text;
  for (int index = 0; text.size() < 200000; ++index) text += std::to_string(index) + ",";
  return text;
}();

// A partial file of the whole content with its first `prefix` bytes written.
AllocatedFile partial(const std::filesystem::path& path, std::size_t prefix, std::size_t size = bytes.size()) {
  AllocatedFile file(path, size, {});
  file.write(std::string_view(bytes).substr(0, prefix));
  return file;
}

std::shared_ptr<HttpsBudget> budget(std::chrono::milliseconds left, std::uint64_t limit, std::uint64_t used = 0,
                                    bool cancel = false) {
  return std::make_shared<HttpsBudget>(
      HttpsBudget{steady_clock::now() + left, limit, used, [cancel](auto...) { return cancel; }});
}

// Every refusal made before a byte goes out; nothing listens on port 9.
TEST(HttpsTransport, RefusesBadConstructionAndArguments) {
  TempDir dir;
  const auto make = [](std::string base, std::uint64_t limit = 0) {
    return [=] { HttpsTransport(base, {}, limit, nullptr); };
  };
  const auto budgeted = [](std::uint64_t used, bool cancel, int seconds) {
    return [=] {
      HttpsTransport("https://127.0.0.1:9", {}, 0, budget(std::chrono::seconds(seconds), 10, used, cancel)).get("a", 1);
    };
  };
  HttpsTransport local("https://127.0.0.1:9", {}, 0, nullptr);
  write_text(dir / "report", "abc");
  AllocatedFile whole = partial(dir / "whole", 4, 4);
  // clang-format off
  expect_outcomes({
      {make("HTTPS://h/"), "https_required: Zorvi service URLs must use HTTPS"},
      {make("https://h /"), "invalid_url: Invalid service URL"},
      {make("https://u:p@h/"), "invalid_url: Service URL must not contain credentials, query, or fragment"},
      {make("https://h/", 1073741824), "ok"},
      {make("https://h/", 1073741825), "download_limit: Download limit exceeds 1 GiB/s"},
      {[&] { local.get("a", 16777217); }, "size_limit: In-memory response limit exceeds 16 MiB"},
      {[&] { local.get("../a", 1); }, "unsafe_path: Path contains an unsafe component"},
      {[&] { local.get_component("a", 16777217); }, "size_limit: In-memory response limit exceeds 16 MiB"},
      {[&] { local.get_component(std::string(8193, 'a'), 1); }, "size_limit: Metadata filename exceeds its component bound"},
      {[&] { local.post_json("t", {{"a", std::string(4089, 'x')}}, {}); }, "size_limit: Ticket request exceeds 4 KiB"},
      {[&] { local.upload_report("r", dir / "report", 104857601, std::string(64, 'a'), {}); }, "size_limit: Report upload exceeds 100 MiB"},
      {[&] { local.upload_report("r", dir / "report", 3, std::string(64, 'A'), {}); }, "crash_ticket: Upload capability is invalid"},
      {[&] { local.upload_report("r", dir / "report", 4, std::string(64, 'a'), {}); }, "crash_changed: Frozen upload snapshot is invalid"},
      {[&] { local.download_into("a", whole, 4, {}, {}, {}); }, "download_range: Download cursor differs from the recorded prefix"},
      {budgeted(11, false, 9), "discovery_budget: Optional update check exhausted its response budget"},
      {budgeted(0, true, 9), "cancelled: Optional update check cancelled"},
      {budgeted(0, false, 31), "discovery_timeout: Optional update check exhausted its time budget"},
  });
  // clang-format on
  EXPECT_EQ(quote_url("a b/c\xff~", false), "a%20b%2Fc%FF~");
}

TEST(HttpsTransport, FetchesDownloadsResumesWithinBudgetAndTrustFromNginx) {
  TempDir root, dir;
  write_text(root / "file.bin", bytes);
  write_text(root / "empty", "");
  HttpsServer server(
      root.path(),
      R"(if ($request_uri = "/a%2Fb") { return 200 "encoded"; } location = /moved { return 302 /file.bin; })");
  HttpsTransport transport(server.base_url(), server.ca_bundle(), 0, nullptr);
  EXPECT_EQ(transport.get("file.bin", 16777216).body, bytes);
  EXPECT_EQ(transport.get("missing", 1000).status, 404);
  EXPECT_EQ(transport.get_component("a/b", 100).body, "encoded");
  EXPECT_EQ(outcome([&] { transport.get("file.bin", bytes.size() - 1); }),
            "size_limit: Server sent more than the authenticated size limit");
  EXPECT_EQ(outcome([&] { transport.get("moved", 1000); }), "redirect_rejected: Server redirects are not permitted");

  std::vector<std::uint64_t> reported;
  transport.reservation_observer = [&](std::uint64_t limit, std::uint64_t size) { reported = {limit, size}; };
  std::uint64_t done = 0;
  transport.download("file.bin", dir / "d/file", bytes.size() + 5,
                     [&](std::uint64_t now, std::uint64_t) { return (done = now), true; });
  EXPECT_EQ(read_text(dir / "d/file"), bytes);
  EXPECT_EQ(done, bytes.size());
  EXPECT_EQ(reported, (std::vector<std::uint64_t>{bytes.size() + 5, bytes.size() + 5}));
  // clang-format off
  const std::vector<std::tuple<std::string, std::size_t, Progress, std::string>> refusals{
      {"missing", 1, {}, "http_status: Download failed with status 404"},
      {"file.bin", 1, {}, "length_mismatch: Server length differs from the authenticated download bound"},
      {"file.bin", 0, [](auto...) { return false; }, "cancelled: Transfer cancelled at a safe boundary"}};
  // clang-format on
  for (const auto& [path, less, progress, expected] : refusals) {
    EXPECT_EQ(outcome([&] { transport.download(path, dir / "d/refused", bytes.size() - less, progress); }), expected);
    EXPECT_FALSE(std::filesystem::exists(dir / "d/refused")) << path;  // nothing partial at a final name
  }

  AllocatedFile file = partial(dir / "part", 1000), nothing(dir / "nothing", 0, {});
  std::string seen;
  transport.download_into("file.bin", file, 1000, {}, [&](std::string_view data) { seen += data; }, [] { FAIL(); });
  file.finish(true);
  EXPECT_EQ(seen, bytes.substr(1000));
  EXPECT_EQ(read_text(dir / "part"), bytes);
  EXPECT_EQ(outcome([&] { transport.download_into("empty", nothing, 0, {}, {}, {}); }), "ok");

  // A budget lets exactly its limit through, then refuses.
  const auto shared = budget(std::chrono::seconds(20), bytes.size());
  HttpsTransport budgeted(server.base_url(), server.ca_bundle(), 0, shared);
  EXPECT_EQ(budgeted.get("file.bin", bytes.size()).body, bytes);
  EXPECT_EQ(shared->used, shared->limit);
  EXPECT_EQ(outcome([&] { budgeted.get("file.bin", bytes.size()); }),
            "discovery_budget: Optional update check exhausted its response budget; use Check for updates for a "
            "complete check");

  // Only the configured authority, or the system's, is trusted.
  std::filesystem::create_directory(dir / "other");
  const TestCertificates stranger((dir / "other"));
  write_text(dir / "empty.pem", "");
  const std::string refused = "network: SSL peer certificate or SSH remote key was not OK";
  for (const auto& [bundle, expected] : std::vector<std::pair<std::filesystem::path, std::string>>{
           {"", refused}, {stranger.ca, refused}, {dir / "empty.pem", "ca_bundle: The configured CA bundle is empty"}})
    EXPECT_EQ(outcome([&] { HttpsTransport(server.base_url(), bundle, 0, nullptr).get("x", 10); }), expected);
  // An empty bundle means the system's trust, which OpenSSL lets a variable name.
  ::setenv("SSL_CERT_FILE", server.ca_bundle().c_str(), 1);
  EXPECT_EQ(outcome([&] { HttpsTransport(server.base_url(), {}, 0, nullptr).get("x", 1000); }), "ok");
  ::unsetenv("SSL_CERT_FILE");
}

// Servers whose misbehaviour the response headers cannot see (their own
// refusals are download_headers_test's), on a resume from byte 1000 or a
// whole download; the one that answers a range with the whole file also
// echoes what a post and a report upload sent.
TEST(HttpsTransport, HostileServersPostsAndUploads) {
  TempDir dir;
  const auto resume = [&](const HostileServer& server, const RestartHook& restart) {
    AllocatedFile file = partial(dir / "f", 1000);
    HttpsTransport(server.base_url(), server.ca_bundle(), 0, nullptr).download_into("f", file, 1000, {}, {}, restart);
    file.finish(true);
  };
  EXPECT_EQ(outcome([&] { resume(HostileServer("cut", bytes), [] { FAIL(); }); }),
            "network: Failure when receiving data from the peer");
  const HostileServer endless("endless", bytes), stall("stall", bytes), full("full", bytes);
  EXPECT_EQ(outcome([&] {
              HttpsTransport(endless.base_url(), endless.ca_bundle(), 0, nullptr).download("f", dir / "f", 1000, {});
            }),
            "size_limit: Server sent more than the authenticated size limit");
  EXPECT_FALSE(std::filesystem::exists(dir / "f"));
  HttpsTransport waiting(stall.base_url(), stall.ca_bundle(), 0, budget(std::chrono::milliseconds(1500), 1 << 20));
  EXPECT_EQ(outcome([&] { waiting.get("f", bytes.size()); }),
            "discovery_timeout: Optional update check exhausted its time budget; use Check for updates when ready");
  bool restarted = false;
  resume(full, [&] { restarted = true; });
  EXPECT_TRUE(restarted);
  EXPECT_EQ(read_text(dir / "f"), bytes);

  HttpsTransport transport(full.base_url(), full.ca_bundle(), 0, nullptr);
  const HttpResponse posted = transport.post_json("ticket", {{"game", "x"}}, {});
  EXPECT_EQ(posted.status, 201);
  const std::string sent_headers =
      R"({"Authorization":null,"Content-Type":"application/json","Expect":null,"User-Agent":"Zorvi/0.1","sha256":")";
  EXPECT_EQ(parse_json(posted.body, 1000),
            parse_json(sent_headers + digest(R"({"game":"x"})", "sha256") + "\"}", 1000));
  std::uint64_t sent = 0;
  const Progress progress = [&](std::uint64_t now, std::uint64_t) { return (sent = now), true; };
  EXPECT_EQ(transport.upload_report("report", dir / "f", bytes.size(), std::string(64, 'c'), progress), 201);
  EXPECT_EQ(sent, bytes.size());
}

}  // namespace
}  // namespace zorvi
