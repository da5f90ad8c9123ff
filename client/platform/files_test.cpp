#include "client/platform/files.hpp"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "client/domain/error.hpp"
#include "client/platform/posix_files.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

using testing::TempDir;

TEST(AtomicWrite, ReplacesPrivatelyAndReadsBack) {
  TempDir dir;
  const auto target = dir / "state" / "doc.json";
  atomic_write(target, "{\"a\":1}");
  atomic_write(target, "{\"a\":2}");
  EXPECT_EQ(read_file(target, 100), "{\"a\":2}");
  struct stat status {};
  ASSERT_EQ(::stat(target.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  ASSERT_EQ(::stat(target.parent_path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
}

}  // namespace
}  // namespace zorvi
