#include "client/platform/sdk_record.hpp"

#include <gtest/gtest.h>

#include "client/platform/files.hpp"
#include "client/platform/process.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

// Rows change the record a real game left, which passes as it stands.
TEST(SdkRecord, RealGamesAndFailureTable) {
  const testing::TempDir dir;
  ChildProcess child(testing::binary_dir() / "sample_game", {}, dir.path(), {{"ZORVI_SAMPLE_GAME_SESSION", "s-1"}},
                     ChildStreams::Separated, ChildEnvironment::Inherited);
  ASSERT_EQ(child.wait(), 0);
  const json record = parse_json(read_file(dir / "session.json", max_sdk_record_bytes), max_sdk_record_bytes);
  const ExpectedSdkSession expected{"s-1", "nonce", "sample-game", "1.0.0", child.pid()};
  EXPECT_EQ(validate_sdk_record(record, expected, 3), record);
  const std::string mismatch = "invalid_session: Readiness record does not match the expected game/process/session";
  std::string longest(1009, 'a');  // the longest attachment path: 1024 bytes in 100-byte names
  for (std::size_t at = 100; at < longest.size(); at += 101) longest[at] = '/';
  longest += "/" + std::string(14, 'b');
  const json crumb = {{"category", "c"}, {"message", "m"}}, log = {{"kind", "log"}, {"path", "a"}};
  const std::pair<json, std::string> rows[] = {
      {{{"session_id", "s-2"}}, mismatch},
      {{{"sequence", 2}}, "session_replay: Readiness sequence went backwards"},
      {{{"state", "crashed"}}, "invalid_session: Unknown SDK session state"},
      {{{"state", "ready"}, {"ready_seen", false}}, "invalid_session: Ready state lacks readiness evidence"},
      {{{"breadcrumbs", std::vector<json>(65, crumb)}}, "invalid_session: SDK record has too many breadcrumbs"},
      {{{"breadcrumbs", {{{"category", "c"}, {"message", std::string(513, 'm')}}}}},
       "invalid_session: SDK breadcrumb exceeds record bounds"},
      {{{"attachments", std::vector<json>(4, log)}}, "ok"},
      {{{"attachments", std::vector<json>(5, log)}}, "invalid_session: SDK record has too many attachments"},
      {{{"attachments", {{{"kind", "core"}, {"path", "a"}}}}}, "invalid_session: SDK attachment is invalid"},
      {{{"attachments", {{{"kind", "video"}, {"path", longest}}}}}, "ok"},
      {{{"attachments", {{{"kind", "video"}, {"path", longest + "b"}}}}}, "invalid_session: SDK attachment is invalid"},
      {{{"native_capture_id", "0123456789abcdef0123456789ABCDEF"}},
       "invalid_session: Native capture identity is invalid"},
      {{{"native_capture_problem", std::string(129, 'p')}},
       "invalid_session: Native capture problem exceeds its bound"},
      {{{"exit_code", nullptr}}, "invalid_session: Clean exit lacks an exit status"},
      {{{"ready_seen", "yes"}}, "invalid_session: SDK record fields are missing or malformed"},
  };
  for (const auto& [patch, result] : rows) {
    json changed = record;
    changed.merge_patch(patch);
    EXPECT_EQ(testing::outcome([&] { validate_sdk_record(changed, expected, 3); }), result) << patch.dump();
  }
}

}  // namespace
}  // namespace zorvi
