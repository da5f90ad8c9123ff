#include "client/transport/https.hpp"

#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/ssl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <mutex>
#include <optional>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/allocated_file.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/file_identity.hpp"
#include "client/platform/files.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/unique_fd.hpp"
#include "client/transport/download_headers.hpp"

namespace zorvi {
namespace {

constexpr std::uint64_t max_component_name = 8192;
constexpr std::uint64_t max_post_body = 4096;
constexpr std::uint64_t post_response_limit = 16384;
constexpr std::uint64_t max_report = 100ULL * 1024 * 1024;
constexpr std::uint64_t max_ca_bundle = 1024ULL * 1024;
constexpr long max_budget_ms = 30000;
constexpr long max_connect_ms = 10000;

struct EasyRelease {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct UrlRelease {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
struct ListRelease {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using EasyHandle = std::unique_ptr<CURL, EasyRelease>;
using UrlHandle = std::unique_ptr<CURLU, UrlRelease>;
using HeaderList = std::unique_ptr<curl_slist, ListRelease>;

// One request's state, shared with curl's callbacks through a pointer.
struct Transfer {
  std::uint64_t limit = 0;  // most body bytes accepted now
  std::uint64_t received = 0;
  std::string body;
  AllocatedFile* file = nullptr;
  Progress progress;
  bool size_exceeded = false;
  bool cancelled = false;
  bool budget_exceeded = false;
  bool deadline_passed = false;
  HttpsBudget* budget = nullptr;
  bool upload_mode = false;
  std::exception_ptr failure;
  std::optional<DownloadResponseHeaders> headers;
  std::uint64_t offset = 0;
  std::uint64_t total = 0;
  ByteSink on_bytes;
  RestartHook on_restart;
};

struct Upload {
  UniqueFd stream;  // a report snapshot; closed for a small JSON post
  std::uint64_t remaining = 0;
  std::string body;
  std::string token;
  std::exception_ptr failure;
};

// curl must never see a C++ exception: each callback stores it and answers
// with the value that stops the transfer; `request` raises it afterwards.
std::size_t receive(char* data, std::size_t, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  try {
    if (HttpsBudget* budget = transfer.budget) {
      if (budget->used > budget->limit || count > budget->limit - budget->used) {
        transfer.budget_exceeded = true;
        return CURL_WRITEFUNC_ERROR;
      }
      budget->used += count;
    }
    if (count > transfer.limit - transfer.received) {
      transfer.size_exceeded = true;
      return CURL_WRITEFUNC_ERROR;
    }
    const std::string_view bytes(data, count);
    if (transfer.file != nullptr) {
      transfer.headers->body(count);
      transfer.file->write(bytes);
      if (transfer.on_bytes) transfer.on_bytes(bytes);
    } else {
      transfer.body.append(bytes);
    }
    transfer.received += count;
    return count;
  } catch (...) {
    transfer.failure = std::current_exception();
    return CURL_WRITEFUNC_ERROR;
  }
}

std::size_t header(char* data, std::size_t, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  try {
    DownloadResponseHeaders& headers = *transfer.headers;
    headers.line(std::string_view(data, count));
    // A server may answer a resume with the whole file: start it again.
    if (headers.admitted() && transfer.offset > 0 && headers.response_start() == 0) {
      transfer.file->restart();
      transfer.offset = 0;
      transfer.limit = transfer.total;
      transfer.received = 0;
      if (transfer.on_restart) transfer.on_restart();
    }
    return count;
  } catch (...) {
    transfer.failure = std::current_exception();
    return 0;
  }
}

std::uint64_t counted(curl_off_t value) { return value < 0 ? 0 : static_cast<std::uint64_t>(value); }

int advance(void* context, curl_off_t download_total, curl_off_t download_now, curl_off_t upload_total,
            curl_off_t upload_now) {
  auto& transfer = *static_cast<Transfer*>(context);
  try {
    if (HttpsBudget* budget = transfer.budget) {
      if (budget->cancel && budget->cancel(download_total, download_now, upload_total, upload_now)) {
        transfer.cancelled = true;
        return 1;
      }
      if (std::chrono::steady_clock::now() >= budget->deadline) {
        transfer.deadline_passed = true;
        return 1;
      }
    }
    if (!transfer.progress) return 0;
    bool go_on;
    if (transfer.upload_mode) go_on = transfer.progress(counted(upload_now), counted(upload_total));
    else if (transfer.file != nullptr) go_on = transfer.progress(transfer.offset + transfer.received, transfer.total);
    else go_on = transfer.progress(counted(download_now), counted(download_total));
    transfer.cancelled = !go_on;
    return go_on ? 0 : 1;
  } catch (...) {
    transfer.failure = std::current_exception();
    return 1;
  }
}

std::size_t send_bytes(char* buffer, std::size_t size, std::size_t count, void* context) {
  auto& upload = *static_cast<Upload*>(context);
  try {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size * count, upload.remaining));
    if (wanted == 0) return 0;
    const ssize_t got = retry_on_eintr([&] { return ::read(upload.stream.get(), buffer, wanted); });
    require(got >= 0, "file_read", with_errno("Cannot read reviewed upload snapshot", errno));
    // An early end would otherwise pass for the end of the upload.
    require(got > 0, "crash_changed", "Frozen upload snapshot changed during transfer");
    upload.remaining -= static_cast<std::uint64_t>(got);
    return static_cast<std::size_t>(got);
  } catch (...) {
    upload.failure = std::current_exception();
    return CURL_READFUNC_ABORT;
  }
}

template <typename Value>
void set(CURL* handle, CURLoption option, Value value) {
  require(curl_easy_setopt(handle, option, value) == CURLE_OK, "transport", "Cannot configure HTTPS request");
}

void initialize_curl() {
  static std::once_flag once;
  static bool ready = false;
  std::call_once(once, [] { ready = curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK; });
  require(ready, "transport", "Cannot initialize HTTPS library");
}

bool has_part(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  const bool present = curl_url_get(url, part, &text, 0) == CURLUE_OK && text != nullptr;
  curl_free(text);
  return present;
}

void limit_to_budget(CURL* handle, HttpsBudget& budget) {
  require(budget.used <= budget.limit, "discovery_budget", "Optional update check exhausted its response budget");
  require(!budget.cancel || !budget.cancel(0, 0, 0, 0), "cancelled", "Optional update check cancelled");
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(budget.deadline - std::chrono::steady_clock::now()).count();
  require(left >= 1 && left <= max_budget_ms, "discovery_timeout", "Optional update check exhausted its time budget");
  set(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(left));
  set(handle, CURLOPT_CONNECTTIMEOUT_MS, std::min(static_cast<long>(left), max_connect_ms));
}

// curl's OpenSSL backend knows no operating-system store outside Windows;
// here the system's trust is OpenSSL's default locations, which the
// distribution fills (and SSL_CERT_FILE or SSL_CERT_DIR may name).
CURLcode load_system_trust(CURL*, void* context, void*) {
  return SSL_CTX_set_default_verify_paths(static_cast<SSL_CTX*>(context)) == 1 ? CURLE_OK : CURLE_SSL_CACERT_BADFILE;
}

// The file path must not leak into a later handle, so curl copies the bundle.
void select_trust(CURL* handle, const std::filesystem::path& ca_bundle) {
  const auto ok = [&](CURLoption option, auto value) { return curl_easy_setopt(handle, option, value) == CURLE_OK; };
  require(ok(CURLOPT_CAINFO, nullptr) && ok(CURLOPT_CAPATH, nullptr), "ca_bundle",
          "Cannot select the certificate trust source");
  if (ca_bundle.empty()) {
    require(ok(CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NATIVE_CA)) &&
                ok(CURLOPT_SSL_CTX_FUNCTION, load_system_trust),
            "ca_bundle", "Cannot use the operating system's certificate trust");
    return;
  }
  std::string pem = read_file(ca_bundle, max_ca_bundle);
  require(!pem.empty(), "ca_bundle", "The configured CA bundle is empty");
  curl_blob blob{pem.data(), pem.size(), CURL_BLOB_COPY};
  require(ok(CURLOPT_CAINFO_BLOB, &blob), "ca_bundle", "The native HTTPS backend cannot use the configured CA bundle");
  require(ok(CURLOPT_SSL_OPTIONS, 0L), "ca_bundle", "Cannot restrict certificate trust to the configured CA bundle");
}

void check_headers(CURL* handle, Transfer& transfer) {
  set(handle, CURLOPT_HEADERFUNCTION, header);
  set(handle, CURLOPT_HEADERDATA, &transfer);
  set(handle, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(handle, CURLOPT_ACCEPT_ENCODING, "identity");
  set(handle, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  if (transfer.offset > 0) {
    const std::string range = std::to_string(transfer.offset) + "-" + std::to_string(transfer.total - 1);
    set(handle, CURLOPT_RANGE, range.c_str());  // curl copies strings
  }
}

// The list must live until the transfer ends, so the caller keeps it.
HeaderList attach_upload(CURL* handle, Upload& upload) {
  const bool stream = static_cast<bool>(upload.stream);
  HeaderList list;
  const auto append = [&](const std::string& line) {
    curl_slist* head = curl_slist_append(list.get(), line.c_str());
    require(head != nullptr, "transport", "Cannot allocate upload headers");
    static_cast<void>(list.release());
    list.reset(head);
  };
  append(stream ? "Content-Type: application/octet-stream" : "Content-Type: application/json");
  append("Expect:");
  if (!upload.token.empty()) append("Authorization: Bearer " + upload.token);
  set(handle, CURLOPT_HTTPHEADER, list.get());
  if (stream) {
    set(handle, CURLOPT_UPLOAD, 1L);
    set(handle, CURLOPT_CUSTOMREQUEST, "POST");
    set(handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(upload.remaining));
    set(handle, CURLOPT_READFUNCTION, send_bytes);
    set(handle, CURLOPT_READDATA, &upload);
  } else {
    set(handle, CURLOPT_POST, 1L);
    set(handle, CURLOPT_POSTFIELDS, upload.body.c_str());
    set(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(upload.body.size()));
  }
  return list;
}

void configure(CURL* handle, const std::string& url, Transfer& transfer, std::uint64_t download_limit, bool stream) {
  // An empty proxy also overrides the proxy variables of the environment.
  require(curl_easy_setopt(handle, CURLOPT_PROXY, "") == CURLE_OK, "transport",
          "Cannot enforce the service connection boundary");
  set(handle, CURLOPT_URL, url.c_str());
  set(handle, CURLOPT_PROTOCOLS_STR, "https");
  set(handle, CURLOPT_REDIR_PROTOCOLS_STR, "https");
  set(handle, CURLOPT_FOLLOWLOCATION, 0L);
  set(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  set(handle, CURLOPT_SSL_VERIFYHOST, 2L);
  set(handle, CURLOPT_CONNECTTIMEOUT, 10L);
  set(handle, CURLOPT_TIMEOUT, stream ? 590L : transfer.file != nullptr ? 0L : 30L);
  if (transfer.budget != nullptr) limit_to_budget(handle, *transfer.budget);
  set(handle, CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(download_limit));
  set(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
  set(handle, CURLOPT_LOW_SPEED_TIME, 30L);
  set(handle, CURLOPT_NOSIGNAL, 1L);
  set(handle, CURLOPT_USERAGENT, "Zorvi/0.1");
  set(handle, CURLOPT_WRITEFUNCTION, receive);
  set(handle, CURLOPT_WRITEDATA, &transfer);
  set(handle, CURLOPT_XFERINFOFUNCTION, advance);
  set(handle, CURLOPT_XFERINFODATA, &transfer);
  set(handle, CURLOPT_NOPROGRESS, 0L);
  if (transfer.file != nullptr) check_headers(handle, transfer);
}

// What the transfer itself decided outranks curl's view of how it ended.
void raise_outcome(const Transfer& transfer, const Upload* upload, CURLcode result) {
  if (transfer.failure) std::rethrow_exception(transfer.failure);
  if (upload != nullptr && upload->failure) std::rethrow_exception(upload->failure);
  if (transfer.cancelled) throw Error("cancelled", "Transfer cancelled at a safe boundary");
  if (transfer.budget_exceeded)
    throw Error("discovery_budget",
                "Optional update check exhausted its response budget; use Check for updates for a complete check");
  if (transfer.deadline_passed || (transfer.budget != nullptr && result == CURLE_OPERATION_TIMEDOUT))
    throw Error("discovery_timeout",
                "Optional update check exhausted its time budget; use Check for updates when ready");
  if (transfer.size_exceeded) throw Error("size_limit", "Server sent more than the authenticated size limit");
  require(result == CURLE_OK, "network", curl_easy_strerror(result));
}

bool at_end(const UniqueFd& stream) {
  char extra;
  return retry_on_eintr([&] { return ::read(stream.get(), &extra, 1); }) == 0;
}

// The one exchange: every curl setting of the system is made here.
long request(const std::string& url, const std::filesystem::path& ca_bundle, Transfer& transfer,
             std::uint64_t download_limit, Upload* upload) {
  const EasyHandle easy(curl_easy_init());
  require(easy != nullptr, "transport", "Cannot initialize HTTPS request");
  CURL* handle = easy.get();
  const bool stream = upload != nullptr && static_cast<bool>(upload->stream);
  configure(handle, url, transfer, download_limit, stream);
  select_trust(handle, ca_bundle);
  HeaderList upload_headers;
  if (upload != nullptr) upload_headers = attach_upload(handle, *upload);
  const CURLcode result = curl_easy_perform(handle);
  raise_outcome(transfer, upload, result);
  if (transfer.headers) transfer.headers->finish();
  long status = 0;
  require(curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK, "network",
          "Cannot read the response status");
  // An in-memory request has no header check of its own.
  require(status < 300 || status > 399, "redirect_rejected", "Server redirects are not permitted");
  if (stream && status >= 200 && status <= 299)
    require(upload->remaining == 0 && at_end(upload->stream), "crash_changed",
            "Frozen upload snapshot changed during transfer");
  return status;
}

Transfer memory_transfer(std::uint64_t limit, HttpsBudget* budget, const Progress& progress) {
  Transfer transfer;
  transfer.limit = limit;
  transfer.budget = budget;
  transfer.progress = progress;
  return transfer;
}

}  // namespace

Transport::~Transport() = default;

HttpResponse Transport::get_component(std::string_view name, std::uint64_t limit) { return get(name, limit); }

bool Transport::supports_resumption() const { return false; }

void Transport::download_into(std::string_view, AllocatedFile&, std::uint64_t, const Progress&, const ByteSink&,
                              const RestartHook&) {
  throw Error("download_resume_unsupported", "This transport cannot resume target downloads");
}

std::string quote_url(std::string_view text, bool keep_slash) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string quoted;
  quoted.reserve(text.size());
  for (const char byte : text) {
    const bool plain = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
                       byte == '-' || byte == '.' || byte == '_' || byte == '~' || (keep_slash && byte == '/');
    if (plain) {
      quoted += byte;
      continue;
    }
    const auto value = static_cast<unsigned char>(byte);
    quoted += '%';
    quoted += digits[value >> 4];
    quoted += digits[value & 0x0F];
  }
  return quoted;
}

HttpsTransport::HttpsTransport(std::string base_url, std::filesystem::path ca_bundle, std::uint64_t download_limit,
                               std::shared_ptr<HttpsBudget> budget)
    : ca_bundle_(std::move(ca_bundle)), download_limit_(download_limit), budget_(std::move(budget)) {
  initialize_client_runtime();
  require(download_limit_ <= max_download_limit, "download_limit", "Download limit exceeds 1 GiB/s");
  initialize_curl();
  require(base_url.starts_with("https://"), "https_required", "Zorvi service URLs must use HTTPS");
  const UrlHandle parsed(curl_url());
  require(parsed != nullptr && curl_url_set(parsed.get(), CURLUPART_URL, base_url.c_str(), 0) == CURLUE_OK,
          "invalid_url", "Invalid service URL");
  require(has_part(parsed.get(), CURLUPART_HOST), "invalid_url", "URL must contain a hostname");
  const bool extra = has_part(parsed.get(), CURLUPART_USER) || has_part(parsed.get(), CURLUPART_PASSWORD) ||
                     has_part(parsed.get(), CURLUPART_QUERY) || has_part(parsed.get(), CURLUPART_FRAGMENT);
  require(!extra, "invalid_url", "Service URL must not contain credentials, query, or fragment");
  origin_ = base_url.substr(0, base_url.find('/', 8));
  if (!base_url.ends_with('/')) base_url += '/';
  base_url_ = std::move(base_url);
}

std::string HttpsTransport::url(std::string_view path) const {
  validate_relative_path(path, false);
  return base_url_ + quote_url(path, true);
}

HttpResponse HttpsTransport::get(std::string_view path, std::uint64_t limit) {
  require(limit <= max_memory_response, "size_limit", "In-memory response limit exceeds 16 MiB");
  Transfer transfer = memory_transfer(limit, budget_.get(), {});
  const long status = request(url(path), ca_bundle_, transfer, download_limit_, nullptr);
  return {status, std::move(transfer.body)};
}

HttpResponse HttpsTransport::get_component(std::string_view name, std::uint64_t limit) {
  require(!name.empty() && name.size() <= max_component_name && name != "." && name != "..", "size_limit",
          "Metadata filename exceeds its component bound");
  require(limit <= max_memory_response, "size_limit", "In-memory response limit exceeds 16 MiB");
  Transfer transfer = memory_transfer(limit, budget_.get(), {});
  const long status = request(base_url_ + quote_url(name, false), ca_bundle_, transfer, download_limit_, nullptr);
  return {status, std::move(transfer.body)};
}

void HttpsTransport::download(std::string_view path, const std::filesystem::path& destination, std::uint64_t limit,
                              const Progress& progress) {
  private_directory(std::filesystem::absolute(destination).parent_path());
  // Until `finish`, the file is removed again when this scope is left.
  AllocatedFile file(destination, limit, {});
  Transfer transfer = memory_transfer(limit, budget_.get(), progress);
  transfer.file = &file;
  transfer.total = limit;
  transfer.headers.emplace(limit, 0, false);  // the limit is only an upper bound
  if (reservation_observer) reservation_observer(limit, file.reservation().length);
  const long status = request(url(path), ca_bundle_, transfer, download_limit_, nullptr);
  require(status == 200, "http_status", "Download failed with status " + std::to_string(status));
  file.finish(false);
}

void HttpsTransport::download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset,
                                   const Progress& progress, const ByteSink& on_bytes, const RestartHook& on_restart) {
  const std::uint64_t size = file.reservation().length;
  require(offset == file.written() && offset <= size && (offset == 0 || offset < size), "download_range",
          "Download cursor differs from the recorded prefix");
  Transfer transfer = memory_transfer(size - offset, budget_.get(), progress);
  transfer.file = &file;
  transfer.offset = offset;
  transfer.total = size;
  transfer.on_bytes = on_bytes;
  transfer.on_restart = on_restart;
  transfer.headers.emplace(size, offset, true);
  request(url(path), ca_bundle_, transfer, download_limit_, nullptr);
}

HttpResponse HttpsTransport::post_json(std::string_view path, const json& body, const Progress& progress) {
  Upload upload;
  try {
    upload.body = body.dump();
  } catch (const json::exception&) {
    throw Error("invalid_json", "Ticket request is not valid UTF-8 JSON");
  }
  require(upload.body.size() <= max_post_body, "size_limit", "Ticket request exceeds 4 KiB");
  Transfer transfer = memory_transfer(post_response_limit, budget_.get(), progress);
  transfer.upload_mode = true;
  const long status = request(url(path), ca_bundle_, transfer, download_limit_, &upload);
  return {status, std::move(transfer.body)};
}

long HttpsTransport::upload_report(std::string_view path, const std::filesystem::path& snapshot, std::uint64_t size,
                                   std::string_view token, const Progress& progress) {
  require(size >= 1 && size <= max_report, "size_limit", "Report upload exceeds 100 MiB");
  require(token.size() == 64 && is_lower_hex(token), "crash_ticket", "Upload capability is invalid");
  struct stat named{};
  require(::lstat(snapshot.c_str(), &named) == 0 && S_ISREG(named.st_mode) &&
              static_cast<std::uint64_t>(named.st_size) == size,
          "crash_changed", "Frozen upload snapshot is invalid");
  Upload upload;
  upload.stream.reset(::open(snapshot.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  require(static_cast<bool>(upload.stream), "file_read", with_errno("Cannot open reviewed upload snapshot", errno));
  // The name may have been replaced between the look and the open.
  struct stat opened{};
  require(::fstat(upload.stream.get(), &opened) == 0 && same_entry(opened, named) && opened.st_size == named.st_size,
          "crash_changed", "Frozen upload snapshot is invalid");
  upload.remaining = size;
  upload.token = std::string(token);
  Transfer transfer = memory_transfer(post_response_limit, budget_.get(), progress);
  transfer.upload_mode = true;
  return request(url(path), ca_bundle_, transfer, download_limit_, &upload);
}

}  // namespace zorvi
