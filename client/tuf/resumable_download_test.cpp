#include <csignal>
#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/files_support.hpp"
#include "tests/support/tuf_support.hpp"

namespace zorvi::testing {
namespace {

std::filesystem::path marker_in(const std::filesystem::path& folder) {
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    if (entry.path().string().ends_with(".resume.json")) return entry.path();
  return {};
}

std::uint64_t received(const std::filesystem::path& folder) {
  return json::parse(read_text(marker_in(folder))).at("received").get<std::uint64_t>();
}

// Every name made, replaced or removed in the target folder is flushed there
// before the download says it is complete, with or without a resume scope: a
// power cut leaves a state the next attempt can read. Then, in this process,
// targets by hashed names: an empty one, a wrong file at the final name
// replaced, and a finished one taken as it is.
TEST(ResumableDownload, FlushesTheFolderAfterEachNameChangeAndFinishesPlainTargets) {
  // Two checkpoints, the finished file and the retired marker; in one go, the finished file.
  TufRepository repository("targets=1 consistent=1");
  repository.run("target empty.bin 0");
  for (const auto& [scope, expected] : std::vector<std::pair<std::string, std::size_t>>{{"s", 4}, {"", 1}}) {
    std::filesystem::remove_all(repository.out);
    std::filesystem::create_directories(repository.out);
    TracedRun traced = run_traced(repository.fetch_command("file0.bin", "0", scope),
                                  "fsync,rename,renameat,renameat2,unlink,unlinkat");
    ASSERT_EQ(traced.result.out, "complete\n") << traced.result.err;
    // Each change is flushed at once: the next call on the folder is its flush.
    std::vector<std::string> steps;
    std::copy_if(traced.calls.begin(), traced.calls.end(), std::back_inserter(steps),
                 [&](const std::string& call) { return call.find(repository.out.string()) != std::string::npos; });
    for (std::size_t at = 0; at < steps.size(); ++at) {
      if (!steps[at].starts_with("rename") && !steps[at].starts_with("unlink")) continue;
      EXPECT_TRUE(at + 1 < steps.size() && steps[at + 1].starts_with("fsync(") &&
                  steps[at + 1].ends_with("<" + repository.out.string() + ">) = 0"))
          << steps[at];
    }
    // Without the flushes every change counts as unflushed: the trace saw them all.
    std::erase_if(traced.calls, [](const std::string& call) { return call.starts_with("fsync"); });
    EXPECT_EQ(unflushed_name_changes(traced.calls, repository.out).size(), expected) << scope;
  }
  TufClient client = repository.client();
  std::string events;
  const TargetObserver observer = [&](std::string_view event, auto...) { events += std::string(event) + " "; };
  client.download("empty.bin", repository.out, {}, observer, {"game", {}});
  write_text(repository.out / "file0.bin", "wrong");
  client.download("file0.bin", repository.out, {}, observer, {});
  client.download("file0.bin", repository.out, {}, observer, {});
  EXPECT_EQ(events, "prepared complete prepared complete complete ");
  EXPECT_EQ(std::filesystem::file_size(repository.out / "empty.bin"), 0u);
  EXPECT_EQ(read_text(repository.out / "file0.bin"), read_text(repository.repo / "targets/file0.bin"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(repository.out), {}), 2);
}

// One target through a run of refusals, each row leaving the folder as the next expects.
TEST(ResumableDownload, Failures) {
  TufRepository repository("targets=1");
  TufClient client = repository.client();
  const auto fetch = [&](const std::string& scope, const Progress& progress = {}) {
    return [&, scope, progress] { client.download("file0.bin", repository.out, progress, {}, {scope, {}}); };
  };
  const std::filesystem::path served = repository.repo / "targets/file0.bin",
                              foreign = repository.out / "file0.bin.x.partial.resume.json";
  const std::filesystem::path marker = repository.out / ("file0.bin." + std::string(32, 'a') + ".partial.resume.json");
  const std::string original = read_text(served), zeros(64, '0'),
                    mismatch = "hash_mismatch: Target hash does not match signed metadata";
  const std::string unusable =
      R"({"schema_version":1,"kind":"zorvi-target-resume","target":"file0.bin","temporary":"file0.bin.)" +
      std::string(32, 'a') + R"(.partial","scope_sha256":")" + zeros + R"(","prefix_sha256":")" + zeros +
      R"(","received":0,"identity":[0,0],"authorisation":{}})";
  const Progress meddle = [&](std::uint64_t done, std::uint64_t total) {
    return done != total || (write_text(marker_in(repository.out), "{}"), true);
  };
  // Markers of other scopes are counted; at 32 only a matching one lets a download go on.
  const auto fill = [&] {
    for (int scope = 0; scope < 32; ++scope)
      EXPECT_EQ(outcome(fetch(std::to_string(scope), [](auto...) { return false; })),
                "cancelled: Transfer cancelled at a safe boundary");
    fetch("other")();
  };
  // clang-format off
  expect_outcomes({
      {fetch(std::string(4097, 's')), "size_limit: Download resume scope exceeds its bounded contract"},
      {[&] { write_text(served, std::string(64, 'x')); fetch("")(); }, mismatch},
      {fetch("s"), mismatch},
      // Bytes that cannot be right went, with their markers.
      {[&] { EXPECT_TRUE(std::filesystem::is_empty(repository.out)); write_text(served, original); write_text(foreign, "{}"); fetch("s")(); }, "download_resume_state: Unknown resume filename was preserved"},
      {[&] { std::filesystem::rename(foreign, marker); fetch("s")(); }, "download_resume_state: Unknown partial-download state was preserved; clear the disposable cache to retry"},
      {[&] { write_text(marker, unusable); fetch("s")(); }, "download_resume_state: Malformed partial-download state was preserved"},
      {[&] { std::filesystem::remove_all(repository.out); fetch("m", meddle)(); }, "download_resume_changed: Resume marker changed before checkpoint"},
      {[&] { std::filesystem::remove_all(repository.out); fill(); }, "download_resume_capacity: Retained partial downloads reached their capacity"},
      {fetch("7"), "ok"},
  });
  // clang-format on
}

// tuf_fetch killed at random moments goes on from its last checkpoint. Then,
// in this process: a failure that is no crash writes a last checkpoint
// first, kept bytes changed on disk are refused with nothing removed, and a
// server that ignores ranges makes the download start again from byte 0.
TEST(ResumableDownload, SurvivesKillsAndGoesOnFromTheLastProvenCheckpoint) {
  TufRepository repository;
  repository.run("target big.bin 67108864");
  const char* configured = std::getenv("ZORVI_TUF_CRASH_ROUNDS");
  const int rounds = configured != nullptr ? std::atoi(configured) : 3;
  std::mt19937 random(std::random_device{}());
  std::string lines;
  for (int round = 0; round < rounds; ++round) {
    const std::vector<std::string> fetch = repository.fetch_command("big.bin", "16777216");
    ProgramChild child("tuf_fetch", {fetch.begin() + 1, fetch.end()});
    std::this_thread::sleep_for(std::chrono::milliseconds(200 + random() % 800));
    child.kill(SIGKILL);
    child.wait();
    for (std::string line = child.read_line(); !line.empty(); line = child.read_line()) lines += line + "\n";
  }
  EXPECT_NE(lines.find("resumed "), std::string::npos) << lines;

  std::uint64_t resumed = 0;
  std::set<std::uint64_t> seen;  // what the marker said while bytes arrived
  const auto fetch = [&](std::uint64_t stop) {
    const Progress progress = [&](std::uint64_t done, std::uint64_t) {
      seen.insert(received(repository.out));
      return done < stop;
    };
    const auto told = [&](const TargetStorageRequest& request) { resumed = request.received; };
    return outcome(
        [&] { repository.client().download("big.bin", repository.out, progress, {}, {"crash-test", told}); });
  };
  const std::uint64_t stop = received(repository.out) + (9u << 20);
  EXPECT_EQ(fetch(stop), "cancelled: Transfer cancelled at a safe boundary");
  const std::uint64_t kept = received(repository.out);
  EXPECT_GE(kept, stop);
  const std::filesystem::path partial = marker_in(repository.out).replace_extension().replace_extension();
  const auto poke = [&](char byte) {
    std::fstream(partial, std::ios::in | std::ios::out | std::ios::binary).seekp(1000).put(byte);
  };
  const char original = read_text(partial)[1000];
  poke(static_cast<char>(~original));
  const std::string before = tree_state(repository.out);
  EXPECT_EQ(fetch(UINT64_MAX), "download_resume_changed: Recorded partial bytes changed");
  EXPECT_EQ(tree_state(repository.out), before);
  poke(original);
  repository.serve("max_ranges 0;");  // a server that answers the range with the whole file
  seen.clear();
  EXPECT_EQ(fetch(UINT64_MAX), "ok");
  EXPECT_EQ(resumed, kept);
  EXPECT_TRUE(seen.contains(0));  // the restart wrote a checkpoint of nothing at once
  EXPECT_EQ(read_text(repository.out / "big.bin"), read_text(repository.repo / "targets/big.bin"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(repository.out), {}), 1);
}

}  // namespace
}  // namespace zorvi::testing
