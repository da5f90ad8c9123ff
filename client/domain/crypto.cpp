#include "client/domain/crypto.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <mutex>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/full_io.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

constexpr std::size_t file_buffer_size = 65536;

struct MdContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using MdContext = std::unique_ptr<EVP_MD_CTX, MdContextFree>;

int nibble(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string finish_hex(EVP_MD_CTX* context, const char* message) {
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> raw{};
  unsigned int length = 0;
  require(EVP_DigestFinal_ex(context, raw.data(), &length) == 1, "crypto_failure", message);
  return hex(std::span(raw.data(), length));
}

MdContext start_context(std::string_view algorithm_name, const char* message) {
  const EVP_MD* md = algorithm(algorithm_name);
  MdContext context(EVP_MD_CTX_new());
  require(context && EVP_DigestInit_ex(context.get(), md, nullptr) == 1, "crypto_failure", message);
  return context;
}

// Page-aligned: the kernel's copy out of the page cache slows down for some
// places of the buffer within a page (16 bytes past a boundary halved the
// hash rate of a cached file), and a heap buffer may land on any of them.
struct alignas(4096) FileBuffer {
  std::array<char, file_buffer_size> bytes;
};

enum class ReadEnd : std::uint8_t { more, end_of_file, failed };

struct Filled {
  std::size_t count;
  ReadEnd end;
};

// Fills the whole buffer unless the file ends or a read fails first, so that
// every block but the last is full whatever sizes the kernel hands out.
Filled fill(int descriptor, std::span<char> buffer) {
  const FullRead got = read_full(descriptor, buffer.data(), buffer.size());
  if (got.error != 0) return {got.count, ReadEnd::failed};
  return {got.count, got.count < buffer.size() ? ReadEnd::end_of_file : ReadEnd::more};
}

int open_for_reading(const std::filesystem::path& path) {
  return retry_on_eintr([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); });
}

// The size a regular file has now; anything else has no size to bound by.
std::uint64_t current_size(int descriptor) {
  struct stat status{};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return 0;
  return static_cast<std::uint64_t>(status.st_size);
}

// The digest of the file from its current offset to its end.
std::string digest_rest(const UniqueFd& file, std::string_view algorithm_name, const Progress& progress) {
  MdContext context = start_context(algorithm_name, "Could not initialize file hash");

  const std::uint64_t total = progress ? current_size(file.get()) : 0;
  std::uint64_t processed = 0;
  const auto report = [&] {
    if (progress && !progress(processed, total)) throw Error("cancelled", "File verification cancelled");
  };
  report();
  const auto buffer = std::make_unique_for_overwrite<FileBuffer>();
  ReadEnd end = ReadEnd::more;
  while (end == ReadEnd::more) {
    const auto [count, next] = fill(file.get(), buffer->bytes);
    end = next;
    require(EVP_DigestUpdate(context.get(), buffer->bytes.data(), count) == 1, "crypto_failure", "Could not hash file");
    processed += count;
    require(!progress || processed <= total, "content_mismatch", "File grew beyond its verification bound");
    report();
  }
  require(end == ReadEnd::end_of_file, "file_read", "Error reading file during verification");
  return finish_hex(context.get(), "Could not finish file hash");
}

}  // namespace

std::vector<std::uint8_t> unhex(std::string_view text, std::size_t maximum) {
  require(text.size() % 2 == 0 && text.size() <= maximum, "invalid_hex", "Invalid hexadecimal data");
  std::vector<std::uint8_t> bytes(text.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const int high = nibble(text[2 * i]);
    const int low = nibble(text[2 * i + 1]);
    require(high >= 0 && low >= 0, "invalid_hex", "Invalid hexadecimal character");
    bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
  }
  return bytes;
}

std::string hex(std::span<const std::uint8_t> bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text(bytes.size() * 2, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = digits[bytes[i] >> 4];
    text[2 * i + 1] = digits[bytes[i] & 0x0f];
  }
  return text;
}

bool is_lower_hex(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

bool is_lower_hex(std::string_view text, std::size_t length) { return text.size() == length && is_lower_hex(text); }

// Fetched once per process: a digest started from the legacy EVP_sha256()
// handle looks its implementation up again on every start, which costs more
// than hashing a small file.
const EVP_MD* fetched(const char* name) {
  const EVP_MD* md = EVP_MD_fetch(nullptr, name, nullptr);
  require(md != nullptr, "crypto_failure", "Could not load the hash implementation");
  return md;
}

const EVP_MD* algorithm(std::string_view name) {
  static const EVP_MD* const sha256 = fetched("SHA2-256");
  static const EVP_MD* const sha512 = fetched("SHA2-512");
  if (name == "sha256") return sha256;
  if (name == "sha512") return sha512;
  throw Error("unsupported_hash", "Only SHA-256 and SHA-512 hashes are supported");
}

std::string digest(std::string_view content, std::string_view algorithm_name) {
  const EVP_MD* md = algorithm(algorithm_name);
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> raw{};
  unsigned int length = 0;
  require(EVP_Digest(content.data(), content.size(), raw.data(), &length, md, nullptr) == 1, "crypto_failure",
          "Could not hash content");
  return hex(std::span(raw.data(), length));
}

std::string digest_file(const std::filesystem::path& path, std::string_view algorithm_name) {
  return digest_file_progress(path, algorithm_name, Progress());
}

std::string digest_file_progress(const std::filesystem::path& path, std::string_view algorithm_name,
                                 const Progress& progress) {
  const UniqueFd file(open_for_reading(path));
  require(static_cast<bool>(file), "file_read", "Could not open file for verification: " + path_utf8(path));
  return digest_rest(file, algorithm_name, progress);
}

std::string digest_open_file(const UniqueFd& file, std::string_view algorithm_name, const Progress& progress) {
  require(::lseek(file.get(), 0, SEEK_SET) == 0, "file_read", "Error reading file during verification");
  return digest_rest(file, algorithm_name, progress);
}

struct DigestState::Impl {
  MdContext context;
};

DigestState::DigestState(std::string_view algorithm_name)
    : impl_(new Impl{start_context(algorithm_name, "Cannot initialize incremental target hash")}) {}

DigestState::~DigestState() = default;

void DigestState::update(std::string_view bytes) {
  require(EVP_DigestUpdate(impl_->context.get(), bytes.data(), bytes.size()) == 1, "crypto_failure",
          "Cannot update target hash");
}

std::string DigestState::value() const {
  MdContext copy(EVP_MD_CTX_new());
  require(copy && EVP_MD_CTX_copy_ex(copy.get(), impl_->context.get()) == 1, "crypto_failure",
          "Cannot snapshot incremental target hash");
  return finish_hex(copy.get(), "Cannot snapshot incremental target hash");
}

std::string random_id() {
  std::array<std::uint8_t, 16> bytes{};
  require(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1, "crypto_failure",
          "Could not create random identifier");
  return hex(bytes);
}

void initialize_client_runtime() {
  static std::once_flag once;
  static bool initialized = false;
  std::call_once(once, [] { initialized = OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) == 1; });
  require(initialized, "crypto_failure", "Cannot initialize native cryptography");
}

}  // namespace zorvi
