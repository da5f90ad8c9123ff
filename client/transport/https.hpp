#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "client/domain/crypto.hpp"
#include "client/domain/json.hpp"

namespace zorvi {

class AllocatedFile;

struct HttpResponse {
  long status = 0;
  std::string body;
};

// Sees each chunk of a download as it is written; the restart hook runs when
// a server answered a resume with the whole file and the file began again.
using ByteSink = std::function<void(std::string_view)>;
using RestartHook = std::function<void()>;

// How the TUF client reaches a repository. Everything fetched through it is
// judged later against signed metadata.
class Transport {
 public:
  virtual ~Transport();

  // An in-memory response of at most `limit` body bytes.
  virtual HttpResponse get(std::string_view path, std::uint64_t limit) = 0;
  // One metadata file name, which may hold any bytes; forwards to `get` here.
  virtual HttpResponse get_component(std::string_view name, std::uint64_t limit);
  // A whole file of at most `limit` bytes to `destination`, finished there.
  virtual void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t limit,
                        const Progress& progress) = 0;
  virtual bool supports_resumption() const;
  // Continues `file` from `offset` (its written count) to its whole size. The
  // caller finishes the file.
  virtual void download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset, const Progress& progress,
                             const ByteSink& on_bytes, const RestartHook& on_restart);
};

// The shared limit of one optional update check, owned by its caller.
struct HttpsBudget {
  std::chrono::steady_clock::time_point deadline;
  std::uint64_t limit = 0;
  std::uint64_t used = 0;
  // curl's four progress values (dltotal, dlnow, ultotal, ulnow); true stops.
  std::function<bool(std::int64_t, std::int64_t, std::int64_t, std::int64_t)> cancel;
};

// Percent-encodes every byte but A-Z a-z 0-9 - . _ ~ (and / when `keep_slash`).
std::string quote_url(std::string_view text, bool keep_slash);

// The production transport: HTTPS only, no redirects, no proxy, no content
// decoding, and a byte bound on everything.
class HttpsTransport : public Transport {
 public:
  // An empty `ca_bundle` trusts the operating system; otherwise only the bundle.
  // `download_limit` is bytes per second, 0 for none.
  HttpsTransport(std::string base_url, std::filesystem::path ca_bundle, std::uint64_t download_limit,
                 std::shared_ptr<HttpsBudget> budget);

  std::string url(std::string_view path) const;
  // The same encoding, reachable through the class as well.
  static std::string quote_url(std::string_view text, bool keep_slash) { return zorvi::quote_url(text, keep_slash); }

  HttpResponse get(std::string_view path, std::uint64_t limit) override;
  HttpResponse get_component(std::string_view name, std::uint64_t limit) override;
  void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t limit,
                const Progress& progress) override;
  bool supports_resumption() const override { return true; }
  void download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset, const Progress& progress,
                     const ByteSink& on_bytes, const RestartHook& on_restart) override;

  HttpResponse post_json(std::string_view path, const json& body, const Progress& progress);
  long upload_report(std::string_view path, const std::filesystem::path& snapshot, std::uint64_t size,
                     std::string_view token, const Progress& progress);

  const std::string& base_url() const { return base_url_; }
  const std::string& origin() const { return origin_; }

  // Told the limit and the reserved size of each `download`; may be empty.
  std::function<void(std::uint64_t limit, std::uint64_t reserved)> reservation_observer;

  static constexpr std::uint64_t max_memory_response = 16ULL * 1024 * 1024;
  static constexpr std::uint64_t max_download_limit = 1024ULL * 1024 * 1024;

 private:
  std::string base_url_;
  std::string origin_;
  std::filesystem::path ca_bundle_;
  std::uint64_t download_limit_;
  std::shared_ptr<HttpsBudget> budget_;
};

}  // namespace zorvi
