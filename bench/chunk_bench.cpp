// Decryption of an encrypted archive (1 GiB of plaintext, written once by
// Python's cryptography) chunk by chunk from the page cache, against
// OpenSSL's in-memory ChaCha20-Poly1305 rate over 64 KiB blocks
// (`openssl speed`) measured in the same run. ZORVI_BENCH_BYTES overrides the
// size for a quick run.

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "client/domain/crypto.hpp"
#include "client/domain/encrypted_archive.hpp"
#include "tests/support/test_support.hpp"

namespace {

using Clock = std::chrono::steady_clock;

const std::string key_hex = "5a0b6f1e2d3c4b5a69788796a5b4c3d2e1f00f1e2d3c4b5a6978879600112233";

std::uint64_t bench_bytes() {
  const char* text = std::getenv("ZORVI_BENCH_BYTES");
  if (text == nullptr || *text == '\0') return std::uint64_t{1} << 30;
  return std::stoull(text);
}

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// `openssl speed` divides by its CPU user time; our decryption reads ahead on
// a second thread, so its rate is taken by the wall clock, and the calling
// thread's CPU time is shown beside it.
double cpu_seconds() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::string checked_output(const std::vector<std::string>& argv) {
  const auto result = zorvi::testing::run_command(argv);
  if (result.status != 0) throw std::runtime_error(argv[0] + " failed: " + result.err);
  return result.out;
}

// Bytes per second from `openssl speed -mr`, whose result line reads
// "+F:<n>:ChaCha20-Poly1305:<bytes per second>".
double openssl_rate() {
  const std::string out =
      checked_output({"openssl", "speed", "-mr", "-evp", "chacha20-poly1305", "-bytes", "65536", "-seconds", "2"});
  const auto line = out.find("+F:");
  if (line == std::string::npos) throw std::runtime_error("no result line from openssl speed");
  const auto end = out.find('\n', line);
  const auto colon = out.rfind(':', end);
  return std::stod(out.substr(colon + 1, end - colon - 1));
}

// Seconds to read the file through a 64 KiB buffer without decrypting: the
// copy out of the page cache that no streaming reader avoids.
double read_only_seconds(const std::filesystem::path& path) {
  struct alignas(4096) Block {
    char bytes[65536];
  };
  const auto block = std::make_unique_for_overwrite<Block>();
  const double start = cpu_seconds();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("cannot open " + path.string());
  while (::read(fd, block->bytes, sizeof block->bytes) > 0) {
  }
  ::close(fd);
  return cpu_seconds() - start;
}

// Bytes per second of decrypt_chacha20_poly1305 opening the archive's first
// record again and again from memory: the call's own cost without the read.
double in_memory_rate(const std::filesystem::path& archive, zorvi::AeadKey key) {
  std::string file(96 + 65536 + 16, '\0');
  std::ifstream(archive, std::ios::binary).read(file.data(), static_cast<std::streamsize>(file.size()));
  std::array<std::uint8_t, 12> nonce{};
  std::copy_n(file.begin() + 40, nonce.size(), nonce.begin());
  nonce.back() ^= 1;
  const auto output = std::make_unique_for_overwrite<std::uint8_t[]>(65536);
  constexpr int rounds = 4096;
  const double start = cpu_seconds();
  for (int i = 0; i < rounds; ++i)
    zorvi::decrypt_chacha20_poly1305(key, nonce, file.substr(0, 80), std::string_view(file).substr(96, 65536 + 16),
                                     {output.get(), 65536}, 65536);
  return 65536.0 * rounds / (cpu_seconds() - start);
}

void BM_DecryptArchive(benchmark::State& state) {
  zorvi::initialize_client_runtime();
  const zorvi::testing::TempDir scratch;
  const auto archive = scratch / "archive";
  const std::uint64_t size = bench_bytes();
  const auto script = (zorvi::testing::source_dir() / "tests/encrypted_archive.py").string();
  const std::string expected =
      checked_output({"python3", script, archive.string(), key_hex, std::to_string(size)}).substr(0, 64);
  const std::vector<std::uint8_t> key_bytes = zorvi::unhex(key_hex, 64);
  const zorvi::AeadKey key(key_bytes.data(), zorvi::aead_key_size);

  // The first pass proves the plaintext and warms the page cache.
  zorvi::DigestState digest("sha256");
  zorvi::decrypt_archive_file(archive, key, [&](std::span<const std::uint8_t> plain) {
    digest.update({reinterpret_cast<const char*>(plain.data()), plain.size()});
  });
  if (digest.value() != expected) state.SkipWithError("decrypted plaintext differs from what Python encrypted");
  // The better of two runs around the loop: load from other work on the
  // machine should not flatter the ratio.
  double reference = openssl_rate();

  double own_seconds = 0;
  double own_cpu_seconds = 0;
  double read_seconds = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    const double cpu_start = cpu_seconds();
    zorvi::decrypt_archive_file(archive, key,
                                [](std::span<const std::uint8_t> plain) { benchmark::DoNotOptimize(plain.data()); });
    own_cpu_seconds += cpu_seconds() - cpu_start;
    own_seconds += seconds_since(start);
    state.PauseTiming();
    read_seconds += read_only_seconds(archive);
    state.ResumeTiming();
  }
  reference = std::max(reference, openssl_rate());
  const double in_memory = in_memory_rate(archive, key);

  const double bytes = static_cast<double>(size) * static_cast<double>(state.iterations());
  const double own_rate = bytes / own_seconds;
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
  state.counters["decrypt_wall_MBps"] = own_rate / 1e6;
  state.counters["decrypt_thread_cpu_MBps"] = bytes / own_cpu_seconds / 1e6;
  state.counters["openssl_speed_MBps"] = reference / 1e6;
  state.counters["ratio_to_openssl_speed"] = own_rate / reference;
  state.counters["one_record_in_memory_MBps"] = in_memory / 1e6;
  state.counters["read_only_MBps"] = bytes / read_seconds / 1e6;
}
BENCHMARK(BM_DecryptArchive)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
