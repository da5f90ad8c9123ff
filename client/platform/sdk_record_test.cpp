#include "client/platform/sdk_record.hpp"

#include <gtest/gtest.h>

#include "client/platform/files.hpp"
#include "client/platform/process.hpp"
#include "tests/support/test_support.hpp"

namespace zorvi {
namespace {

struct Game {
  json record;
  ExpectedSdkSession expected;
};

// Starts the sample game the way the client starts a game and reads back the
// record it left.
Game run_game(const testing::TempDir& dir, const std::string& session, const std::string& breadcrumbs = "1") {
  const auto path = dir / "session.json";
  ChildProcess child(testing::binary_dir() / "sample_game", {}, dir.path(),
                     {{"ZORVI_SAMPLE_GAME_RECORD", path.string()}, {"ZORVI_SAMPLE_GAME_SESSION", session},
                      {"ZORVI_SAMPLE_GAME_BREADCRUMBS", breadcrumbs}},
                     ChildStreams::Separated, ChildEnvironment::Inherited);
  EXPECT_EQ(child.wait(), 0);
  return {parse_json(read_file(path, max_sdk_record_bytes), max_sdk_record_bytes),
          {session, "nonce", "sample-game", "1.0.0", child.pid()}};
}

const std::string mismatch = "invalid_session: Readiness record does not match the expected game/process/session";

TEST(SdkRecord, RealGameRecordBelongsToItsOwnSessionAndProcessOnly) {
  const testing::TempDir dir;
  const Game game = run_game(dir, "s-1");
  EXPECT_EQ(validate_sdk_record(game.record, game.expected, 3), game.record);
  ExpectedSdkSession other = game.expected;
  other.session_id = "s-2";
  EXPECT_EQ(testing::outcome([&] { validate_sdk_record(game.record, other, 0); }), mismatch);
  // A second process writing under the same session is told apart by its pid.
  const Game impostor = run_game(dir, "s-1");
  EXPECT_EQ(testing::outcome([&] { validate_sdk_record(impostor.record, game.expected, 0); }), mismatch);
  const Game full = run_game(dir, "s-1", "64");
  EXPECT_EQ(validate_sdk_record(full.record, full.expected, 0).at("breadcrumbs").size(), 64u);
  const Game over = run_game(dir, "s-1", "65");
  EXPECT_EQ(testing::outcome([&] { validate_sdk_record(over.record, over.expected, 0); }),
            "invalid_session: SDK record has too many breadcrumbs");
}

TEST(SdkRecord, FailureTable) {
  const testing::TempDir dir;
  const Game game = run_game(dir, "s-1");
  const std::string log = R"({"kind":"log","path":"a"})";
  const struct {
    std::string patch;
    std::uint64_t last;
    std::string result;
  } rows[] = {
      {R"({"schema_version":2})", 0, mismatch},
      {R"({"sequence":2})", 3, "session_replay: Readiness sequence went backwards"},
      {R"({"sequence":-1})", 0, "session_replay: Readiness sequence went backwards"},
      {R"({"state":"crashed"})", 0, "invalid_session: Unknown SDK session state"},
      {R"({"state":"ready","ready_seen":false})", 0, "invalid_session: Ready state lacks readiness evidence"},
      {R"({"breadcrumbs":[{"category":"c","message":")" + std::string(513, 'm') + R"("}]})", 0,
       "invalid_session: SDK breadcrumb exceeds record bounds"},
      {R"({"attachments":[)" + log + "," + log + "," + log + "," + log + "," + log + "]}", 0,
       "invalid_session: SDK record has too many attachments"},
      {R"({"attachments":[{"kind":"core","path":"a"}]})", 0, "invalid_session: SDK attachment is invalid"},
      {R"({"attachments":[{"kind":"log","path":"../a"}]})", 0, "unsafe_path: Path contains an unsafe component"},
      {R"({"native_capture_id":"0123456789abcdef0123456789ABCDEF"})", 0,
       "invalid_session: Native capture identity is invalid"},
      {R"({"native_capture_problem":")" + std::string(129, 'p') + "\"}", 0,
       "invalid_session: Native capture problem exceeds its bound"},
      {R"({"exit_code":null})", 0, "invalid_session: Clean exit lacks an exit status"},
      {R"({"ready_seen":"yes"})", 0, "invalid_session: SDK record fields are missing or malformed"},
  };
  for (const auto& row : rows) {
    json record = game.record;
    record.merge_patch(json::parse(row.patch));
    EXPECT_EQ(testing::outcome([&] { validate_sdk_record(record, game.expected, row.last); }), row.result)
        << row.patch;
  }
}

}  // namespace
}  // namespace zorvi
