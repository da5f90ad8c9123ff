#include "client/transport/https.hpp"

#include <gtest/gtest.h>

#include "client/domain/crypto.hpp"
#include "client/platform/allocated_file.hpp"
#include "tests/support/https_server.hpp"

namespace zorvi {
namespace {

using namespace testing;
using std::chrono::steady_clock;

std::string content() {
  std::string bytes;
  for (int index = 0; bytes.size() < 200000; ++index) bytes += std::to_string(index) + ",";
  return bytes;
}
const std::string bytes = content();

struct Stub : Transport {
  HttpResponse get(std::string_view, std::uint64_t) override { return {}; }
  void download(std::string_view, const std::filesystem::path&, std::uint64_t, const Progress&) override {}
};

// A partial file of the whole content with its first `prefix` bytes written.
AllocatedFile partial(const std::filesystem::path& path, std::size_t prefix, std::size_t size = bytes.size()) {
  AllocatedFile file(path, size, {});
  file.write(std::string_view(bytes).substr(0, prefix));
  return file;
}

TEST(HttpsTransport, RefusesBadConstructionAndArguments) {
  TempDir dir;
  const auto make = [](std::string base, std::uint64_t limit = 0) {
    return [=] { HttpsTransport(base, {}, limit, nullptr); };
  };
  auto budget = std::make_shared<HttpsBudget>();
  HttpsTransport local("https://127.0.0.1:9", {}, 0, nullptr), budgeted("https://127.0.0.1:9", {}, 0, budget);
  const auto with_budget = [&](std::uint64_t used, bool cancel, std::chrono::seconds left) {
    return [&, used, cancel, left] {
      *budget = {steady_clock::now() + left, 10, used, [cancel](auto...) { return cancel; }};
      budgeted.get("a", 1);
    };
  };
  write_text(dir / "report", "abc");
  std::filesystem::create_symlink(dir / "report", dir / "link");
  const std::string token(64, 'a');
  AllocatedFile whole = partial(dir / "whole", 4, 4), empty = partial(dir / "empty", 0, 4);
  const std::vector<std::pair<std::function<void()>, std::string>> rows{
      {make("HTTPS://h/"), "https_required: Zorvi service URLs must use HTTPS"},
      {make("https://h /"), "invalid_url: Invalid service URL"},
      {make("https://u:p@h/"), "invalid_url: Service URL must not contain credentials, query, or fragment"},
      {make("https://h/", 1073741824), "ok"},
      {make("https://h/", 1073741825), "download_limit: Download limit exceeds 1 GiB/s"},
      {[&] { local.get("a", 16777217); }, "size_limit: In-memory response limit exceeds 16 MiB"},
      {[&] { local.get("../a", 1); }, "unsafe_path: Path contains an unsafe component"},
      {[&] { local.get_component("a", 16777217); }, "size_limit: In-memory response limit exceeds 16 MiB"},
      {[&] { local.get_component(std::string(8193, 'a'), 1); },
       "size_limit: Metadata filename exceeds its component bound"},
      {[&] { local.post_json("t", {{"a", std::string(4089, 'x')}}, {}); }, "size_limit: Ticket request exceeds 4 KiB"},
      {[&] { local.upload_report("r", dir / "report", 104857601, token, {}); },
       "size_limit: Report upload exceeds 100 MiB"},
      {[&] { local.upload_report("r", dir / "report", 3, std::string(64, 'A'), {}); },
       "crash_ticket: Upload capability is invalid"},
      {[&] { local.upload_report("r", dir / "link", 3, token, {}); },
       "crash_changed: Frozen upload snapshot is invalid"},
      {[&] { local.upload_report("r", dir / "report", 4, token, {}); },
       "crash_changed: Frozen upload snapshot is invalid"},
      {[&] { local.download_into("a", whole, 4, {}, {}, {}); },
       "download_range: Download cursor differs from the recorded prefix"},
      {[&] { Stub().download_into("a", empty, 0, {}, {}, {}); },
       "download_resume_unsupported: This transport cannot resume target downloads"},
      {with_budget(11, false, std::chrono::seconds(9)),
       "discovery_budget: Optional update check exhausted its response budget"},
      {with_budget(0, true, std::chrono::seconds(9)), "cancelled: Optional update check cancelled"},
      {with_budget(0, false, std::chrono::seconds(31)),
       "discovery_timeout: Optional update check exhausted its time budget"},
  };
  for (std::size_t index = 0; index < rows.size(); ++index)
    EXPECT_EQ(outcome(rows[index].first), rows[index].second) << index;
  EXPECT_EQ(HttpsTransport("https://h:8", {}, 0, nullptr).base_url(), "https://h:8/");
  EXPECT_EQ(HttpsTransport("https://h/a/b", {}, 0, nullptr).origin(), "https://h");
  EXPECT_EQ(quote_url("a b/c", true), "a%20b/c");
  EXPECT_EQ(quote_url("a b/c\xff~", false), "a%20b%2Fc%FF~");
}

TEST(HttpsTransport, FetchesDownloadsAndResumesFromNginx) {
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

  std::vector<std::uint64_t> reported;
  transport.reservation_observer = [&](std::uint64_t limit, std::uint64_t size) { reported = {limit, size}; };
  std::uint64_t done = 0;
  transport.download("file.bin", dir / "d/file", bytes.size() + 5,
                     [&](std::uint64_t now, std::uint64_t) { return (done = now), true; });
  EXPECT_EQ(read_text(dir / "d/file"), bytes);
  EXPECT_EQ(done, bytes.size());
  EXPECT_EQ(reported, (std::vector<std::uint64_t>{bytes.size() + 5, bytes.size() + 5}));
  const std::vector<std::pair<std::string, std::string>> refusals{
      {"missing", "http_status: Download failed with status 404"},
      {"moved", "redirect_rejected: Server redirects are not permitted"},
      {"file.bin", "length_mismatch: Server length differs from the authenticated download bound"}};
  for (const auto& [path, expected] : refusals) {
    EXPECT_EQ(outcome([&] { transport.download(path, dir / "d/refused", bytes.size() - 1, {}); }), expected);
    EXPECT_FALSE(std::filesystem::exists(dir / "d/refused")) << path;  // nothing partial at a final name
  }
  EXPECT_EQ(outcome([&] { transport.get("moved", 1000); }), "redirect_rejected: Server redirects are not permitted");
  EXPECT_EQ(
      outcome([&] { transport.download("file.bin", dir / "d/cancel", bytes.size(), [](auto...) { return false; }); }),
      "cancelled: Transfer cancelled at a safe boundary");

  AllocatedFile file = partial(dir / "part", 1000);
  std::string seen;
  bool restarted = false;
  transport.download_into(
      "file.bin", file, 1000, {}, [&](std::string_view data) { seen += data; }, [&] { restarted = true; });
  file.finish(true);
  EXPECT_EQ(seen, bytes.substr(1000));
  EXPECT_FALSE(restarted);
  EXPECT_EQ(read_text(dir / "part"), bytes);
  AllocatedFile nothing(dir / "nothing", 0, {});
  EXPECT_EQ(outcome([&] { transport.download_into("empty", nothing, 0, {}, {}, {}); }), "ok");
  AllocatedFile moved = partial(dir / "moved", 10);
  EXPECT_EQ(outcome([&] { transport.download_into("moved", moved, 10, {}, {}, {}); }),
            "redirect_rejected: Server redirects are not permitted");
}

TEST(HttpsTransport, TrustsOnlyTheConfiguredAuthority) {
  TempDir root, other;
  HttpsServer server(root.path());
  const TestCertificates stranger(other.path());
  write_text(other / "empty.pem", "");
  const std::vector<std::pair<std::filesystem::path, std::string>> rows{
      {"", "network: SSL peer certificate or SSH remote key was not OK"},
      {stranger.ca, "network: SSL peer certificate or SSH remote key was not OK"},
      {other / "empty.pem", "ca_bundle: The configured CA bundle is empty"}};
  for (const auto& [bundle, expected] : rows)
    EXPECT_EQ(outcome([&] { HttpsTransport(server.base_url(), bundle, 0, nullptr).get("x", 10); }), expected);
  // An empty bundle means the system's trust, which OpenSSL lets a variable name.
  ::setenv("SSL_CERT_FILE", server.ca_bundle().c_str(), 1);
  EXPECT_EQ(outcome([&] { HttpsTransport(server.base_url(), {}, 0, nullptr).get("x", 1000); }), "ok");
  ::unsetenv("SSL_CERT_FILE");
}

TEST(HttpsTransport, BudgetAllowsExactlyItsLimit) {
  TempDir root;
  write_text(root / "file.bin", bytes);
  HttpsServer server(root.path());
  auto budget =
      std::make_shared<HttpsBudget>(HttpsBudget{steady_clock::now() + std::chrono::seconds(20), bytes.size(), 0, {}});
  HttpsTransport transport(server.base_url(), server.ca_bundle(), 0, budget);
  EXPECT_EQ(transport.get("file.bin", bytes.size()).body, bytes);
  EXPECT_EQ(budget->used, budget->limit);
  EXPECT_EQ(outcome([&] { transport.get("file.bin", bytes.size()); }),
            "discovery_budget: Optional update check exhausted its response budget; use Check for updates for a "
            "complete check");
}

TEST(HttpsTransport, RefusesHostileServers) {
  struct Row {
    std::string mode;
    std::size_t offset;
    std::string expected;
  };
  const std::vector<Row> rows{
      {"gzip", 0, "download_headers: Download content encoding changes authenticated bytes"},
      {"multipart", 1000, "download_range: Multipart download ranges are not supported"},
      {"wrong_range", 1000, "download_range: Server range differs from the authenticated remaining bytes"},
      {"long", 1000, "ok"},  // curl stops at the declared length: the surplus never arrives
      {"short", 0, "network: Transferred a partial file"},
      {"cut", 1000, "network: Failure when receiving data from the peer"},
      {"endless", 0, "size_limit: Server sent more than the authenticated size limit"},
      {"full", 1000, "ok"},
  };
  for (const Row& row : rows) {
    TempDir dir;
    HostileServer server(row.mode, bytes);
    HttpsTransport transport(server.base_url(), server.ca_bundle(), 0, nullptr);
    bool restarted = false;
    if (row.offset == 0) {
      EXPECT_EQ(outcome([&] { transport.download("f", dir / "f", bytes.size(), {}); }), row.expected) << row.mode;
      EXPECT_FALSE(std::filesystem::exists(dir / "f")) << row.mode;
      continue;
    }
    AllocatedFile file = partial(dir / "f", row.offset);
    EXPECT_EQ(outcome([&] { transport.download_into("f", file, row.offset, {}, {}, [&] { restarted = true; }); }),
              row.expected)
        << row.mode;
    EXPECT_EQ(restarted, row.mode == "full");
    if (row.expected == "ok") {
      file.finish(true);
      EXPECT_EQ(read_text(dir / "f"), bytes) << row.mode;
    }
  }
}

TEST(HttpsTransport, StallEndsAtTheBudgetDeadline) {
  HostileServer server("stall", bytes);
  auto budget =
      std::make_shared<HttpsBudget>(HttpsBudget{steady_clock::now() + std::chrono::milliseconds(1500), 1 << 20, 0, {}});
  HttpsTransport transport(server.base_url(), server.ca_bundle(), 0, budget);
  EXPECT_EQ(outcome([&] { transport.get("f", bytes.size()); }),
            "discovery_timeout: Optional update check exhausted its time budget; use Check for updates when ready");
}

TEST(HttpsTransport, PostsJsonAndUploadsReports) {
  TempDir dir;
  HostileServer server("full", "");
  HttpsTransport transport(server.base_url(), server.ca_bundle(), 0, nullptr);
  const HttpResponse posted = transport.post_json("ticket", {{"game", "x"}}, {});
  EXPECT_EQ(posted.status, 201);
  EXPECT_EQ(
      parse_json(posted.body, 1000),
      parse_json(
          R"({"Authorization":null,"Content-Type":"application/json","Expect":null,"User-Agent":"Zorvi/0.1","sha256":")" +
              digest(R"({"game":"x"})", "sha256") + "\"}",
          1000));
  write_text(dir / "report", bytes);
  const std::string token(64, 'c');
  std::uint64_t sent = 0;
  EXPECT_EQ(transport.upload_report("report", dir / "report", bytes.size(), token,
                                    [&](std::uint64_t now, std::uint64_t) { return (sent = now), true; }),
            201);
  EXPECT_EQ(sent, bytes.size());
}

}  // namespace
}  // namespace zorvi
