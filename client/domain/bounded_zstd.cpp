#include "client/domain/bounded_zstd.hpp"

#include <fcntl.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "client/domain/error.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi {
namespace {

constexpr std::size_t buffer_size = 65536;
constexpr int window_log_max = 26;
constexpr unsigned char frame_magic[4] = {0x28, 0xB5, 0x2F, 0xFD};

struct ContextFree {
  void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

[[noreturn]] void archive_failure(const char* message) { throw Error("archive", message); }

}  // namespace

struct BoundedZstd::Impl {
  UniqueFd stream;
  std::unique_ptr<ZSTD_DCtx, ContextFree> context;
  std::vector<char> input = std::vector<char>(buffer_size);
  std::size_t input_position = 0;
  std::size_t input_fill = 0;
  std::vector<char> output = std::vector<char>(buffer_size);
  std::size_t output_size = 0;
  std::uint64_t limit = 0;
  std::uint64_t produced = 0;
  std::uint64_t content_end = 0;
  std::uint64_t read_offset = 0;
  bool done = false;
  // The first failure inside the tar reader's callback, kept with its code so
  // that `finish` can raise it as it was.
  std::string failure;
  std::string failure_code;

  bool input_used_up() const { return input_position == input_fill; }
};

BoundedZstd::BoundedZstd(const std::filesystem::path& path, std::uint64_t limit)
    : BoundedZstd(UniqueFd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)), limit) {}

BoundedZstd::BoundedZstd(UniqueFd stream, std::uint64_t limit) : impl_(std::make_unique<Impl>()) {
  impl_->limit = limit;
  impl_->stream = std::move(stream);
  impl_->context.reset(ZSTD_createDCtx());
  if (!impl_->stream || !impl_->context) archive_failure("Cannot open bounded snapshot decoder");
  if (ZSTD_isError(ZSTD_DCtx_setParameter(impl_->context.get(), ZSTD_d_windowLogMax, window_log_max)))
    archive_failure("Cannot set the 64 MiB decoder window limit");
  fill();
  const bool ordinary_frame =
      impl_->input_fill >= sizeof frame_magic &&
      std::equal(std::begin(frame_magic), std::end(frame_magic), impl_->input.begin(),
                 [](unsigned char expected, char got) { return expected == static_cast<unsigned char>(got); });
  if (!ordinary_frame) archive_failure("Snapshot must contain exactly one ordinary Zstandard frame");
}

BoundedZstd::~BoundedZstd() = default;

void BoundedZstd::fill() {
  const ssize_t count = retry_on_eintr([&] {
    return ::pread(impl_->stream.get(), impl_->input.data(), impl_->input.size(),
                   static_cast<off_t>(impl_->read_offset));
  });
  if (count < 0) archive_failure("Snapshot read failed");
  impl_->read_offset += static_cast<std::uint64_t>(count);
  impl_->input_position = 0;
  impl_->input_fill = static_cast<std::size_t>(count);
}

std::size_t BoundedZstd::read() {
  Impl& state = *impl_;
  state.output_size = 0;
  if (state.done) return 0;
  ZSTD_outBuffer out{state.output.data(), state.output.size(), 0};
  while (true) {
    if (state.input_used_up()) {
      fill();
      if (state.input_fill == 0) archive_failure("Snapshot frame is truncated");
    }
    ZSTD_inBuffer in{state.input.data(), state.input_fill, state.input_position};
    const std::size_t result = ZSTD_decompressStream(state.context.get(), &out, &in);
    state.input_position = in.pos;
    if (ZSTD_isError(result)) archive_failure("Snapshot decoding failed or exceeds the 64 MiB window limit");
    require(out.pos <= state.limit - state.produced, "size_limit",
            "Decoded tar stream exceeds authenticated expansion bounds");
    if (result != 0) {
      if (out.pos > 0) break;
      continue;
    }
    // The frame has ended: nothing may follow it, neither in what was read
    // nor in the file.
    bool at_end = state.input_used_up();
    if (at_end) {
      fill();
      at_end = state.input_fill == 0;
    }
    if (!at_end) archive_failure("Trailing or concatenated Zstandard frames are forbidden");
    state.done = true;
    break;
  }
  const std::size_t last_nonzero = std::string_view(state.output.data(), out.pos).find_last_not_of('\0');
  if (last_nonzero != std::string_view::npos) state.content_end = state.produced + last_nonzero + 1;
  state.produced += out.pos;
  state.output_size = out.pos;
  return out.pos;
}

std::string_view BoundedZstd::output() const { return {impl_->output.data(), impl_->output_size}; }

std::uint64_t BoundedZstd::content_end() const { return impl_->content_end; }

bool BoundedZstd::failed() const { return !impl_->failure.empty(); }

void BoundedZstd::finish() {
  if (failed()) throw Error(impl_->failure_code, impl_->failure);
  while (read() != 0) {
  }
}

la_ssize_t BoundedZstd::callback(struct archive* reader, void* client_data, const void** buffer) {
  auto& decoder = *static_cast<BoundedZstd*>(client_data);
  std::string code = "archive";
  std::string text;
  try {
    const std::size_t count = decoder.read();
    *buffer = decoder.impl_->output.data();
    return static_cast<la_ssize_t>(count);
  } catch (const Error& error) {
    code = error.code;
    text = error.what();
  } catch (const std::exception& error) {
    text = error.what();
  } catch (...) {
    // Nothing may unwind through libarchive's C frames.
  }
  if (!decoder.failed()) {
    decoder.impl_->failure_code = code;
    decoder.impl_->failure = text.empty() ? std::string("Snapshot decompression failed") : text;
  }
  archive_set_error(reader, EINVAL, "%s", text.c_str());
  return -1;
}

}  // namespace zorvi
