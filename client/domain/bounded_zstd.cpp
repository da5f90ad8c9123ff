#include "client/domain/bounded_zstd.hpp"

#include <fcntl.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/domain/error.hpp"
#include "client/domain/read_ahead.hpp"
#include "client/platform/eintr.hpp"

namespace zorvi {
namespace {

constexpr std::size_t buffer_size = 65536;
constexpr std::size_t ahead_blocks = 16;
constexpr int window_log_max = 26;
constexpr unsigned char frame_magic[4] = {0x28, 0xB5, 0x2F, 0xFD};

struct ContextFree {
  void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

[[noreturn]] void archive_failure(const char* message) { throw Error("archive", message); }

// The file, the Zstandard context and the input buffer: everything the
// decoding thread works on, one block at a time under the decoder's lock.
class FrameDecoder {
 public:
  FrameDecoder(UniqueFd stream, std::uint64_t limit) : stream_(std::move(stream)), limit_(limit) {
    if (!stream_ || !context_) archive_failure("Cannot open bounded snapshot decoder");
    if (ZSTD_isError(ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, window_log_max)))
      archive_failure("Cannot set the 64 MiB decoder window limit");
    fill();
    const bool ordinary_frame =
        input_fill_ >= sizeof frame_magic &&
        std::equal(std::begin(frame_magic), std::end(frame_magic), input_.begin(),
                   [](unsigned char expected, char got) { return expected == static_cast<unsigned char>(got); });
    if (!ordinary_frame) archive_failure("Snapshot must contain exactly one ordinary Zstandard frame");
  }

  // Decodes up to `capacity` bytes into `bytes`; 0 once the frame has ended.
  std::size_t decode(char* bytes, std::size_t capacity) {
    if (done_) return 0;
    ZSTD_outBuffer out{bytes, capacity, 0};
    while (true) {
      if (input_used_up()) {
        fill();
        if (input_fill_ == 0) archive_failure("Snapshot frame is truncated");
      }
      ZSTD_inBuffer in{input_.data(), input_fill_, input_position_};
      const std::size_t result = ZSTD_decompressStream(context_.get(), &out, &in);
      input_position_ = in.pos;
      if (ZSTD_isError(result)) archive_failure("Snapshot decoding failed or exceeds the 64 MiB window limit");
      require(out.pos <= limit_ - produced_, "size_limit", "Decoded tar stream exceeds authenticated expansion bounds");
      if (result != 0) {
        if (out.pos > 0) break;
        continue;
      }
      // The frame has ended: nothing may follow it, neither in what was read
      // nor in the file.
      bool at_end = input_used_up();
      if (at_end) {
        fill();
        at_end = input_fill_ == 0;
      }
      if (!at_end) archive_failure("Trailing or concatenated Zstandard frames are forbidden");
      done_ = true;
      break;
    }
    produced_ += out.pos;
    return out.pos;
  }

  // Reads the next input from the file, in place of what is left of the last.
  void fill() {
    const ssize_t count = retry_on_eintr(
        [&] { return ::pread(stream_.get(), input_.data(), input_.size(), static_cast<off_t>(read_offset_)); });
    if (count < 0) archive_failure("Snapshot read failed");
    read_offset_ += static_cast<std::uint64_t>(count);
    input_position_ = 0;
    input_fill_ = static_cast<std::size_t>(count);
  }

 private:
  bool input_used_up() const { return input_position_ == input_fill_; }

  UniqueFd stream_;
  std::unique_ptr<ZSTD_DCtx, ContextFree> context_{ZSTD_createDCtx()};
  std::vector<char> input_ = std::vector<char>(buffer_size);
  std::size_t input_position_ = 0;
  std::size_t input_fill_ = 0;
  std::uint64_t limit_;
  std::uint64_t produced_ = 0;
  std::uint64_t read_offset_ = 0;
  bool done_ = false;
};

}  // namespace

struct BoundedZstd::Impl {
  explicit Impl(FrameDecoder decoder)
      : frame(std::move(decoder)), ahead(ahead_blocks, buffer_size, [this](char* bytes, std::size_t capacity) {
          return frame.decode(bytes, capacity);
        }) {}

  FrameDecoder frame;
  // Held by the decoding thread for each block and by `fill`.
  std::mutex frame_mutex;
  std::string_view current;
  std::uint64_t delivered = 0;
  std::uint64_t content_end = 0;
  // The first failure inside the tar reader's callback, kept as it was raised
  // so that `finish` can raise it again.
  std::optional<Error> failure;
  // Last, so that its thread stops before the decoder it uses goes.
  ReadAhead ahead;
};

BoundedZstd::BoundedZstd(const std::filesystem::path& path, std::uint64_t limit)
    : BoundedZstd(UniqueFd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)), limit) {}

BoundedZstd::BoundedZstd(UniqueFd stream, std::uint64_t limit)
    : impl_(std::make_unique<Impl>(FrameDecoder(std::move(stream), limit))) {}

BoundedZstd::~BoundedZstd() = default;

std::size_t BoundedZstd::read() {
  Impl& state = *impl_;
  state.current = {};
  state.current = state.ahead.next();
  const std::size_t last_nonzero = state.current.find_last_not_of('\0');
  if (last_nonzero != std::string_view::npos) state.content_end = state.delivered + last_nonzero + 1;
  state.delivered += state.current.size();
  return state.current.size();
}

void BoundedZstd::fill() {
  const std::lock_guard lock(impl_->frame_mutex);
  impl_->frame.fill();
}

std::string_view BoundedZstd::output() const { return impl_->current; }

std::uint64_t BoundedZstd::content_end() const { return impl_->content_end; }

bool BoundedZstd::failed() const { return impl_->failure.has_value(); }

void BoundedZstd::finish() {
  if (failed()) throw *impl_->failure;
  while (read() != 0) {
  }
}

la_ssize_t BoundedZstd::callback(struct archive* reader, void* client_data, const void** buffer) {
  auto& decoder = *static_cast<BoundedZstd*>(client_data);
  std::optional<Error> failure;
  try {
    const std::size_t count = decoder.read();
    *buffer = decoder.output().data();
    return static_cast<la_ssize_t>(count);
  } catch (const Error& error) {
    failure = error;
  } catch (const std::exception& error) {
    failure = Error("archive", error.what());
  } catch (...) {
    // Nothing may unwind through libarchive's C frames.
    failure = Error("archive", "Snapshot decompression failed");
  }
  if (!decoder.failed()) decoder.impl_->failure = failure;
  archive_set_error(reader, EINVAL, "%s", failure->what());
  return -1;
}

}  // namespace zorvi
