#pragma once

// A plain-HTTP transport for outside TUF test suites, which serve their
// repositories without TLS on the loopback interface. It refuses every other
// host, never asks for a range (it cannot resume) and keeps no partial file:
// the library's own transport stays HTTPS-only.

#include <curl/curl.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/allocated_file.hpp"
#include "client/transport/download_headers.hpp"
#include "client/transport/https.hpp"

namespace zorvi {

class LoopbackHttpTransport : public Transport {
 public:
  explicit LoopbackHttpTransport(std::string base_url) : base_url_(std::move(base_url)) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_ALL); });
    require(base_url_.starts_with("http://") && loopback_host(base_url_), "invalid_url",
            "Plain HTTP is allowed only for a loopback repository");
    if (!base_url_.ends_with('/')) base_url_ += '/';
  }

  HttpResponse get(std::string_view path, std::uint64_t limit) override {
    validate_relative_path(path, false);
    return fetch_memory(base_url_ + quote_url(path, true), limit);
  }

  HttpResponse get_component(std::string_view name, std::uint64_t limit) override {
    require(!name.empty() && name.size() <= 8192 && name != "." && name != "..", "size_limit",
            "Metadata filename exceeds its component bound");
    return fetch_memory(base_url_ + quote_url(name, false), limit);
  }

  // A whole 200 body of at most `limit` bytes; an unfinished file is removed
  // by its owner when this returns by an exception.
  void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t limit,
                const Progress& progress) override {
    validate_relative_path(path, false);
    Sink sink;
    AllocatedFile file(destination, limit, {});
    DownloadResponseHeaders headers(limit, 0, false);
    sink.file = &file;
    sink.headers = &headers;
    sink.limit = limit;
    sink.progress = &progress;
    perform(base_url_ + quote_url(path, true), sink, 0);
    headers.finish();
    file.finish(false);
  }

 private:
  struct Sink {
    std::string body;
    AllocatedFile* file = nullptr;
    DownloadResponseHeaders* headers = nullptr;
    const Progress* progress = nullptr;
    std::uint64_t limit = 0;
    std::uint64_t received = 0;
    bool oversized = false;
    bool cancelled = false;
    std::exception_ptr failure;
  };

  struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
  };
  struct UrlDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
  };

  static bool loopback_host(const std::string& url) {
    std::unique_ptr<CURLU, UrlDeleter> parsed(curl_url());
    char* host = nullptr;
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
        curl_url_get(parsed.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK)
      return false;
    const std::string name(host);
    curl_free(host);
    return name == "127.0.0.1" || name == "localhost" || name == "[::1]";
  }

  HttpResponse fetch_memory(const std::string& url, std::uint64_t limit) {
    require(limit <= HttpsTransport::max_memory_response, "size_limit", "In-memory response limit exceeds 16 MiB");
    Sink sink;
    sink.limit = limit;
    const long status = perform(url, sink, 30);
    return {status, std::move(sink.body)};
  }

  static std::size_t receive(char* data, std::size_t size, std::size_t count, void* user) {
    auto& sink = *static_cast<Sink*>(user);
    const std::size_t bytes = size * count;
    try {
      if (sink.file) {
        sink.headers->body(bytes);  // bounds the body by the signed length
        sink.file->write({data, bytes});
      } else {
        if (bytes > sink.limit - sink.received) {
          sink.oversized = true;
          return 0;
        }
        sink.body.append(data, bytes);
      }
      sink.received += bytes;
      if (sink.file && *sink.progress && !(*sink.progress)(sink.received, sink.limit)) {
        sink.cancelled = true;
        return 0;
      }
      return bytes;
    } catch (...) {
      sink.failure = std::current_exception();
      return 0;
    }
  }

  static std::size_t header(char* data, std::size_t size, std::size_t count, void* user) {
    auto& sink = *static_cast<Sink*>(user);
    try {
      sink.headers->line({data, size * count});
      return size * count;
    } catch (...) {
      sink.failure = std::current_exception();
      return 0;
    }
  }

  long perform(const std::string& url, Sink& sink, long timeout) {
    std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
    require(static_cast<bool>(easy), "transport", "Cannot initialize HTTP request");
    CURL* handle = easy.get();
    require(curl_easy_setopt(handle, CURLOPT_PROXY, "") == CURLE_OK, "transport",
            "Cannot enforce the service connection boundary");
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, timeout);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, 30L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "Zorvi/0.1");
    curl_easy_setopt(handle, CURLOPT_HTTP_CONTENT_DECODING, 0L);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &receive);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &sink);
    if (sink.headers) {
      curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &header);
      curl_easy_setopt(handle, CURLOPT_HEADERDATA, &sink);
    }
    const CURLcode result = curl_easy_perform(handle);
    if (sink.failure) std::rethrow_exception(sink.failure);
    require(!sink.cancelled, "cancelled", "Transfer cancelled at a safe boundary");
    require(!sink.oversized, "size_limit", "Server sent more than the authenticated size limit");
    require(result == CURLE_OK, "network", curl_easy_strerror(result));
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    require(status < 300 || status > 399, "redirect_rejected", "Server redirects are not permitted");
    return status;
  }

  std::string base_url_;
};

}  // namespace zorvi
