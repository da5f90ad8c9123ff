#include "client/domain/flush_and_hash_pool.hpp"

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;

// A later file that fails at once must not hide an earlier one whose flush
// and hash of 32 MiB fail only later; nor may the caller's own failure.
TEST(FlushAndHashPool, EarliestFileFailureWinsWhateverFailsFirstInTime) {
  testing::TempDir dir;
  const DirectoryHandle parent = DirectoryHandle::open_existing(dir.path());
  const auto finished = [&](const std::string& name, std::uint64_t length, std::uint64_t written) {
    AllocatedFile file(parent, name, dir / name, length, ReservationObserver());
    file.write(std::string(written, 'x'));
    return FinishedFile{std::move(file), false, parent, name, dir / name, std::string(64, '0')};
  };
  const std::uint64_t large = 32 << 20;
  {
    FlushAndHashPool pool(4);
    pool.add(finished("large", large, large));
    pool.add(finished("short", 10, 0));
    testing::expect_error([&] { pool.drain(std::make_exception_ptr(Error("cancelled", "caller"))); },
                          "content_mismatch", "Extracted file hash differs from manifest");
  }
  // The earlier file was finished before its hash was taken; the short one,
  // never finished, went with its task.
  EXPECT_EQ(fs::file_size(dir / "large"), large);
  EXPECT_FALSE(fs::exists(dir / "short"));
}

}  // namespace
}  // namespace zorvi
